/// @file
/// A date-time with a fixed time-zone offset, as protocols and files write them: a base
/// AbsoluteTime (the clock reading before the offset) and the offset in minutes. No zone
/// database, no daylight saving.
///
/// Failures: the readers have the three shapes, with "error.tqcore.simpleDateTime.invalidString"; a
/// non-zero or infinite offset on an infinite base raises
/// "error.tqcore.simpleDateTime.timezoneOffset".
///
/// @code
/// tqcore::SimpleDateTime const local =
///     tqcore::SimpleDateTime::from_string("2024-02-29T12:34:56+05:30");
/// int const minutes_east = local.timezone_offset();               // 330
/// tqcore::AbsoluteTime const utc = local.base_time_utc();         // 07:04:56 UTC
/// std::cout << local.as_string() << '\n';
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/error_info.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace tqcore {

class TQCORE_EXPORT SimpleDateTime {
 public:
  SimpleDateTime() noexcept = default;
  explicit SimpleDateTime(AbsoluteTime const& base) noexcept : m_base(base) {}
  /// Offsets beyond ±720 minutes move whole days into the base; an infinite base takes only 0.
  SimpleDateTime(AbsoluteTime const& base, int minutes) { set(base, minutes); }
  /// Whole minutes of the offset; an infinite offset raises.
  SimpleDateTime(AbsoluteTime const& base, RelativeTime const& offset) { set(base, offset); }

  void set(AbsoluteTime const& base) noexcept {
    m_base = base;
    m_offset = 0;
  }
  void set(AbsoluteTime const& base, int minutes);
  void set(AbsoluteTime const& base, RelativeTime const& offset);

  AbsoluteTime const& base_time_utc() const noexcept { return m_base; }
  int timezone_offset() const noexcept { return m_offset; }
  RelativeTime timezone_offset_as_relative_time() const noexcept {
    return RelativeTime::seconds(m_offset * 60);
  }
  /// The base plus the offset.
  AbsoluteTime as_local_time() const noexcept {
    return m_offset == 0 || m_base.is_infinite() ? m_base
                                                 : m_base + timezone_offset_as_relative_time();
  }
  uint64_t hash() const noexcept { return as_local_time().hash(); }

  /// "2000-01-01 12:00:00.0+01:00", "...Z" for offset 0, "##INFINITE##".
  std::string as_string() const;
  /// An ISO 8601 UTC base and an optional "Z", "±hh:mm", "±hhmm" or "±hh". `out` may be null.
  /// An infinite base with a non-zero offset ("INF+01") raises the timezoneOffset error even
  /// here: with untrusted text, catch ErrorException around this call too.
  static ErrorInfo::Ptr from_string_nothrow(char const* text, size_t size, SimpleDateTime* out);
  static SimpleDateTime from_string(char const* text, size_t size);
  static SimpleDateTime from_string(std::string const& text) {
    return from_string(text.data(), text.size());
  }

  /// Local times decide: different offsets with equal sums are equal.
  friend bool operator==(SimpleDateTime const& a, SimpleDateTime const& b) noexcept {
    return a.as_local_time() == b.as_local_time();
  }
  friend bool operator!=(SimpleDateTime const& a, SimpleDateTime const& b) noexcept {
    return !(a == b);
  }
  friend bool operator<(SimpleDateTime const& a, SimpleDateTime const& b) noexcept {
    return a.as_local_time() < b.as_local_time();
  }
  friend bool operator<=(SimpleDateTime const& a, SimpleDateTime const& b) noexcept {
    return !(b < a);
  }
  friend bool operator>(SimpleDateTime const& a, SimpleDateTime const& b) noexcept { return b < a; }
  friend bool operator>=(SimpleDateTime const& a, SimpleDateTime const& b) noexcept {
    return !(a < b);
  }

 private:
  AbsoluteTime m_base;
  int m_offset = 0;
};

TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, SimpleDateTime const& value);

}  // namespace tqcore
