/// @file
/// Points in time (AbsoluteTime), spans (RelativeTime) and monotonic readings: one signed
/// 64-bit count of nanoseconds each. The largest value is not a time but "infinite": absorbing in
/// addition and subtraction, decaying to the smallest value in multiplication. Plain sums wrap;
/// the difference of two points saturates to infinite.
///
/// The interface's 32-bit counts (seconds, microseconds, minutes) are int32_t here, so that
/// their wrap-around is the same on every platform of the family.
///
/// Failures: the readers have the three shapes (`from_string` raises, `from_string_nothrow` returns
/// the record and leaves its output alone): "error.tqcore.absoluteTime.invalidUtcString",
/// "error.tqcore.relativeTime.invalidTimeString"; a calendar value out of range raises
/// "error.tqcore.absoluteTime.range". Arithmetic never raises.
///
/// @code
/// using namespace tqcore;
/// AbsoluteTime const deadline = AbsoluteTime::now() + RelativeTime::from_string("1m 30s");
/// AbsoluteTime const t = AbsoluteTime::from_string("2024-02-29T12:34:56.789Z");
/// std::cout << t.as_string() << '\n';                          // 2024-02-29 12:34:56.789
/// std::cout << RelativeTime::seconds(5400).as_iso8601_string();  // PT1H30M
/// bool const later = deadline > t;
/// @endcode
#pragma once

#include <tqcore/error_info.h>
#include <tqcore/tqcore_export.h>

#include <ace/Time_Value.h>

#include <sys/time.h>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <iosfwd>
#include <string>
#include <type_traits>

namespace tqcore {

namespace win32 {

/// The Windows FILETIME: 100 ns ticks since 1601-01-01, in two 32-bit halves.
struct FileTime {
  uint32_t low_date_time;
  uint32_t high_date_time;
};

/// The Windows SYSTEMTIME.
struct SystemTime {
  uint16_t year;
  uint16_t month;
  uint16_t day_of_week;
  uint16_t day;
  uint16_t hour;
  uint16_t minute;
  uint16_t second;
  uint16_t milliseconds;
};

}  // namespace win32

namespace impl {

/// Seconds from any integer type, so that `RelativeTime(5)` is not ambiguous between the
/// `long long` and `double` constructors.
template <class Int>
using IfOtherInteger =
    std::enable_if_t<std::is_integral<Int>::value && !std::is_same<Int, long long>::value &&
                     !std::is_same<Int, bool>::value>;

/// What an ACE call that takes a timeout pointer gets: null for "wait for ever". A temporary;
/// the pointer lives as long as the proxy.
class TQCORE_EXPORT AceTimeoutProxy {
 public:
  AceTimeoutProxy(bool infinite, int32_t seconds, int32_t microseconds)
      : m_infinite(infinite),
        m_value(infinite ? ACE_Time_Value::zero : ACE_Time_Value(seconds, microseconds)) {}
  AceTimeoutProxy(AceTimeoutProxy const&) = default;
  AceTimeoutProxy& operator=(AceTimeoutProxy const&) = default;
  ~AceTimeoutProxy() = default;
  operator ACE_Time_Value const*() const noexcept { return m_infinite ? nullptr : &m_value; }

 private:
  bool m_infinite;
  ACE_Time_Value m_value;
};

class TQCORE_EXPORT TimeBase {
 public:
  static constexpr long long TIMEVALUE_MIN = INT64_MIN;
  static constexpr long long TIMEVALUE_MAX = INT64_MAX - 1;
  static constexpr long long TIMEVALUE_INFINITE = INT64_MAX;
  static constexpr long long TIMEVALUE_ZERO = 0;

  static constexpr long long NANOSECONDS_IN_ONE_MICROSECOND = 1000;
  static constexpr long long NANOSECONDS_IN_ONE_MILLISECOND = 1000000;
  static constexpr long long NANOSECONDS_IN_ONE_SECOND = 1000000000;
  static constexpr long long NANOSECONDS_IN_ONE_MINUTE = 60000000000;
  static constexpr long long NANOSECONDS_IN_ONE_HOUR = 3600000000000;
  static constexpr long long NANOSECONDS_IN_ONE_DAY = 86400000000000;
  static constexpr long long MICROSECONDS_IN_ONE_MILLISECOND = 1000;
  static constexpr long long MICROSECONDS_IN_ONE_SECOND = 1000000;
  static constexpr long long MICROSECONDS_IN_ONE_MINUTE = 60000000;
  static constexpr long long MICROSECONDS_IN_ONE_HOUR = 3600000000;
  static constexpr long long MICROSECONDS_IN_ONE_DAY = 86400000000;
  static constexpr long long MILLISECONDS_IN_ONE_SECOND = 1000;
  static constexpr long long MILLISECONDS_IN_ONE_MINUTE = 60000;
  static constexpr long long MILLISECONDS_IN_ONE_HOUR = 3600000;
  static constexpr long long MILLISECONDS_IN_ONE_DAY = 86400000;
  static constexpr long long SECONDS_IN_ONE_MINUTE = 60;
  static constexpr long long SECONDS_IN_ONE_HOUR = 3600;
  static constexpr long long SECONDS_IN_ONE_DAY = 86400;
  static constexpr long long MINUTES_IN_ONE_HOUR = 60;
  static constexpr long long MINUTES_IN_ONE_DAY = 1440;
  static constexpr long long HOURS_IN_ONE_DAY = 24;
  static constexpr int32_t MAX_TIMEVAL_SEC = 0x7FFFFFFF;
  static constexpr int32_t MAX_TIMEVAL_USEC = 0x7FFFFFFF;
  static constexpr long long MAX_I64_MILLISECONDS = INT64_MAX;
  static constexpr long long MAX_I64_MICROSECONDS = INT64_MAX;
  static constexpr long long MAX_TIME_T = INT64_MAX;
  static constexpr double MAX_DOUBLE_SECONDS = __builtin_huge_val();  ///< an infinity, as settled
  static constexpr double INFINITE_DOUBLE_SECONDS = __builtin_huge_val();
  static constexpr long long FILETIME_TO_EPOCH_OFFSET = 116444736000000000;
  static constexpr win32::FileTime MAX_FILETIME = {0xFFFFFFFFu, 0xFFFFFFFFu};
  static constexpr win32::SystemTime MAX_SYSTEMTIME = {30827, 12, 5, 31, 23, 59, 59, 999};

  static TimeBase const sm_minValue;
  static TimeBase const sm_maxValue;
  static TimeBase const sm_infiniteValue;
  static TimeBase const sm_zeroValue;

  constexpr bool is_infinite() const noexcept { return m_value == TIMEVALUE_INFINITE; }
  constexpr bool is_min_time() const noexcept { return m_value == TIMEVALUE_MIN; }
  constexpr bool is_max_time() const noexcept { return m_value == TIMEVALUE_MAX; }
  constexpr uint64_t hash() const noexcept {
    return static_cast<uint64_t>((m_value >> 32) ^ m_value);
  }

  constexpr long long as_nsec() const noexcept { return m_value; }
  constexpr long long as_usec() const noexcept {
    return is_infinite() ? MAX_I64_MICROSECONDS : m_value / NANOSECONDS_IN_ONE_MICROSECOND;
  }
  constexpr long long as_msec() const noexcept {
    return is_infinite() ? MAX_I64_MILLISECONDS : m_value / NANOSECONDS_IN_ONE_MILLISECOND;
  }
  constexpr double as_sec() const noexcept {
    return is_infinite() ? INFINITE_DOUBLE_SECONDS : static_cast<double>(m_value) / 1e9;
  }
  constexpr long long as_time_t() const noexcept {
    return is_infinite() ? MAX_TIME_T : m_value / NANOSECONDS_IN_ONE_SECOND;
  }
  constexpr int32_t as_timeval_sec() const noexcept {
    return is_infinite() ? MAX_TIMEVAL_SEC : low32(m_value / NANOSECONDS_IN_ONE_SECOND);
  }
  constexpr int32_t as_timeval_usec() const noexcept {
    return is_infinite() ? MAX_TIMEVAL_USEC
                         : static_cast<int32_t>((m_value % NANOSECONDS_IN_ONE_SECOND) / 1000);
  }
  /// The writers keep the 32-bit seconds of the interface, so they wrap for times after
  /// 2038-01-19 03:14:07 UTC: beyond that, use as_nsec() or as_time_t().
  timeval as_timeval() const noexcept;
  /// No test for infinite: its bit pattern gives 633437444 s and 854775807 ns.
  timespec as_timespec() const noexcept;
  ACE_Time_Value as_ace_time_value() const;
  AceTimeoutProxy as_ace_timeout() const;

  /// Each set assigns what the constructor of the same arguments builds.
  void set(long long seconds) noexcept { m_value = seconds * NANOSECONDS_IN_ONE_SECOND; }
  void set(double seconds) noexcept { m_value = from_double_seconds(seconds); }
  template <class Int, class = IfOtherInteger<Int>>
  void set(Int seconds) noexcept {
    set(static_cast<long long>(seconds));
  }
  void set(int32_t seconds, int32_t microseconds) noexcept {
    m_value = (static_cast<long long>(seconds) * MICROSECONDS_IN_ONE_SECOND + microseconds) * 1000;
  }
  /// The readers take the seconds at their full 64-bit width, so times after 2038 from
  /// clock_gettime and gettimeofday stay right; the sub-second field is cut to 32 bits. The
  /// arithmetic wraps, never overflows.
  void set(timeval const& tv) noexcept {
    m_value = static_cast<long long>(
        (static_cast<uint64_t>(tv.tv_sec) * MICROSECONDS_IN_ONE_SECOND +
         static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(tv.tv_usec)))) *
        1000u);
  }
  void set(timespec const& ts) noexcept {
    m_value = static_cast<long long>(
        static_cast<uint64_t>(ts.tv_sec) * NANOSECONDS_IN_ONE_SECOND +
        static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(ts.tv_nsec))));
  }
  void set(ACE_Time_Value const& tv) noexcept;
  void set(ACE_Time_Value const* tv) noexcept {
    if (tv == nullptr) {
      set_infinite();
    } else {
      set(*tv);
    }
  }
  void set_sec(long long seconds) noexcept { set(seconds); }
  void set_msec(long long count) noexcept { m_value = count * NANOSECONDS_IN_ONE_MILLISECOND; }
  void set_usec(long long count) noexcept { m_value = count * NANOSECONDS_IN_ONE_MICROSECOND; }
  void set_nsec(long long count) noexcept { m_value = count; }
  void set_infinite() noexcept { m_value = TIMEVALUE_INFINITE; }

 protected:
  constexpr TimeBase() noexcept : m_value(TIMEVALUE_ZERO) {}
  constexpr explicit TimeBase(long long value) noexcept : m_value(value) {}

  /// Truncated to 64 bits; NaN, an infinity or a value out of range give TIMEVALUE_MIN.
  static long long from_double_nanoseconds(double nanoseconds) noexcept;
  static long long from_double_seconds(double seconds) noexcept {
    return from_double_nanoseconds(seconds * 1e9);
  }
  static constexpr int32_t low32(long long value) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(value)));
  }
  /// Infinite when either side is; otherwise the plain, wrapping sum.
  static constexpr long long absorbing_sum(long long a, long long b) noexcept {
    return a == TIMEVALUE_INFINITE || b == TIMEVALUE_INFINITE
               ? TIMEVALUE_INFINITE
               : static_cast<long long>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
  }
  static constexpr long long absorbing_difference(long long a, long long b) noexcept {
    return a == TIMEVALUE_INFINITE || b == TIMEVALUE_INFINITE
               ? TIMEVALUE_INFINITE
               : static_cast<long long>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
  }
  /// The difference of two points, saturating to infinite in both directions.
  static constexpr long long saturating_difference(long long left, long long right) noexcept {
    if (left == TIMEVALUE_INFINITE || right == TIMEVALUE_INFINITE) return TIMEVALUE_INFINITE;
    if (left > right) {
      uint64_t const d = static_cast<uint64_t>(left) - static_cast<uint64_t>(right);
      return d > static_cast<uint64_t>(TIMEVALUE_MAX) ? TIMEVALUE_INFINITE
                                                      : static_cast<long long>(d);
    }
    uint64_t const d = static_cast<uint64_t>(right) - static_cast<uint64_t>(left);
    return d > static_cast<uint64_t>(TIMEVALUE_MAX) ? TIMEVALUE_INFINITE
                                                    : -static_cast<long long>(d);
  }

  long long m_value;
};

}  // namespace impl

namespace impl {

/// The six comparisons of a time value, by its count: one definition for both value types.
template <class T>
struct TimeOrdering {
  friend constexpr bool operator==(T const& a, T const& b) noexcept {
    return a.as_nsec() == b.as_nsec();
  }
  friend constexpr bool operator!=(T const& a, T const& b) noexcept {
    return a.as_nsec() != b.as_nsec();
  }
  friend constexpr bool operator<(T const& a, T const& b) noexcept {
    return a.as_nsec() < b.as_nsec();
  }
  friend constexpr bool operator<=(T const& a, T const& b) noexcept {
    return a.as_nsec() <= b.as_nsec();
  }
  friend constexpr bool operator>(T const& a, T const& b) noexcept {
    return a.as_nsec() > b.as_nsec();
  }
  friend constexpr bool operator>=(T const& a, T const& b) noexcept {
    return a.as_nsec() >= b.as_nsec();
  }
};

/// Nanoseconds of a std::chrono duration, saturating: beyond the largest count it is the
/// infinite value, below the smallest the smallest. Integer counts convert exactly (truncated
/// toward zero below a nanosecond); a floating count is truncated, and NaN gives the smallest
/// value, as the double constructors do.
template <class Rep, class Period>
constexpr long long chrono_nanoseconds(std::chrono::duration<Rep, Period> const& span) noexcept {
  constexpr long long kMax = INT64_MAX;
  constexpr long long kMin = INT64_MIN;
  if constexpr (std::is_floating_point<Rep>::value) {
    long double const count = std::chrono::duration<long double, std::nano>(span).count();
    if (!(count == count)) return kMin;
    if (count >= 9223372036854775807.0L) return kMax;
    if (count <= -9223372036854775808.0L) return kMin;
    return static_cast<long long>(count);
  } else {
    using Scale = std::ratio_divide<Period, std::nano>;
    __extension__ using Wide = __int128;
    Wide const count = static_cast<Wide>(span.count());
    // |count| < 2^64 and the numerator of any practical ratio fits 2^62: no 128-bit overflow.
    Wide const nanoseconds = count * static_cast<Wide>(Scale::num) / static_cast<Wide>(Scale::den);
    if (nanoseconds >= static_cast<Wide>(kMax)) return kMax;
    if (nanoseconds <= static_cast<Wide>(kMin)) return kMin;
    return static_cast<long long>(nanoseconds);
  }
}

}  // namespace impl

class AbsoluteTime;

class TQCORE_EXPORT RelativeTime : public impl::TimeBase, public impl::TimeOrdering<RelativeTime> {
 public:
  struct TimeValueInit_t {};

  static RelativeTime const min_time;
  static RelativeTime const max_time;
  static RelativeTime const zero;
  static RelativeTime const infinite;

  constexpr RelativeTime() noexcept = default;
  explicit RelativeTime(long long seconds) noexcept { set(seconds); }
  template <class Int, class = impl::IfOtherInteger<Int>>
  explicit RelativeTime(Int seconds) noexcept {
    set(static_cast<long long>(seconds));
  }
  /// Any std::chrono duration, in nanoseconds: saturating at the infinite and the smallest
  /// value, never wrapping (see impl::chrono_nanoseconds).
  template <class Rep, class Period>
  constexpr explicit RelativeTime(std::chrono::duration<Rep, Period> const& span) noexcept
      : RelativeTime(impl::chrono_nanoseconds(span), TimeValueInit_t{}) {}
  explicit RelativeTime(double seconds) noexcept { set(seconds); }
  RelativeTime(int32_t seconds, int32_t microseconds) noexcept { set(seconds, microseconds); }
  explicit RelativeTime(timeval const& tv) noexcept { set(tv); }
  explicit RelativeTime(timespec const& ts) noexcept { set(ts); }
  explicit RelativeTime(ACE_Time_Value const& tv) noexcept { set(tv); }
  explicit RelativeTime(ACE_Time_Value const* tv) noexcept { set(tv); }

  static constexpr RelativeTime nanoseconds(long long n) noexcept { return {n, TimeValueInit_t{}}; }
  static constexpr RelativeTime microseconds(long long n) noexcept {
    return {n * NANOSECONDS_IN_ONE_MICROSECOND, TimeValueInit_t{}};
  }
  static constexpr RelativeTime milliseconds(long long n) noexcept {
    return {n * NANOSECONDS_IN_ONE_MILLISECOND, TimeValueInit_t{}};
  }
  static constexpr RelativeTime seconds(int32_t n) noexcept {
    return {static_cast<long long>(n) * NANOSECONDS_IN_ONE_SECOND, TimeValueInit_t{}};
  }
  /// The seconds are formed in 32 bits first: minutes wrap past 35791394, hours past 596523,
  /// days past 24855. That width is the interface's.
  static constexpr RelativeTime minutes(int32_t n) noexcept { return seconds(wrap32(n, 60)); }
  static constexpr RelativeTime hours(int32_t n) noexcept { return seconds(wrap32(n, 3600)); }
  static constexpr RelativeTime days(int32_t n) noexcept { return seconds(wrap32(n, 86400)); }

  /// 0xFFFFFFFF is infinite; everything else counts milliseconds.
  void set_win32_timeout(uint32_t milliseconds) noexcept {
    if (milliseconds == 0xFFFFFFFFu) {
      set_infinite();
    } else {
      set_msec(milliseconds);
    }
  }
  constexpr uint32_t as_win32_timeout() const noexcept {
    return is_infinite() ? 0xFFFFFFFFu
                         : static_cast<uint32_t>(
                               static_cast<uint64_t>(m_value / NANOSECONDS_IN_ONE_MILLISECOND));
  }
  /// Infinite stays infinite; TIMEVALUE_MIN stays itself by two's-complement wrap.
  void negate() noexcept {
    if (!is_infinite()) m_value = static_cast<long long>(0 - static_cast<uint64_t>(m_value));
  }
  constexpr bool is_positive() const noexcept { return m_value > 0; }
  constexpr bool is_negative() const noexcept { return m_value < 0; }
  constexpr bool is_zero() const noexcept { return m_value == 0; }

  RelativeTime& operator+=(RelativeTime const& other) noexcept {
    m_value = absorbing_sum(m_value, other.m_value);
    return *this;
  }
  RelativeTime& operator-=(RelativeTime const& other) noexcept {
    m_value = absorbing_difference(m_value, other.m_value);
    return *this;
  }
  /// Through seconds in double: infinite and any overflow land on TIMEVALUE_MIN.
  RelativeTime& operator*=(double factor) noexcept;
  RelativeTime operator*(double factor) const noexcept;
  friend constexpr RelativeTime operator+(RelativeTime const& a, RelativeTime const& b) noexcept {
    return {absorbing_sum(a.m_value, b.m_value), TimeValueInit_t{}};
  }
  friend constexpr RelativeTime operator-(RelativeTime const& a, RelativeTime const& b) noexcept {
    return {absorbing_difference(a.m_value, b.m_value), TimeValueInit_t{}};
  }

  /// "1d 2h 3m 4.5s", "250.0ms", "100ns"; infinite is "##INFINITE##".
  std::string as_string() const;
  /// The span in nanoseconds; the infinite span is nanoseconds::max(), and every other value
  /// is exact.
  constexpr std::chrono::nanoseconds as_duration() const noexcept {
    return std::chrono::nanoseconds(m_value);
  }
  /// "P1DT2H3M4.5S"; zero is "PT0S", infinite "P999999DT23H59M59.999999999S".
  std::string as_iso8601_string() const;
  /// Either form, or "INF" / "##INFINITE##"; saturates instead of wrapping. `out` must not be
  /// null. A failure of the ISO form still stores what was read before the fault.
  static ErrorInfo::Ptr from_string_nothrow(std::string const& text, RelativeTime* out);
  static RelativeTime from_string(std::string const& text);

 private:
  friend class AbsoluteTime;
  friend class MonotonicTimeBase;
  static ErrorInfo::Ptr field_from_string(std::string const& text, char const*& position,
                                          long long& value);
  static ErrorInfo::Ptr parse_iso8601_duration(std::string const& text, char const* position,
                                               unsigned long long& value);
  static void add_time_value_of_unit(unsigned long long& total, unsigned long long unit,
                                     unsigned long long whole, unsigned long long numerator,
                                     unsigned long long denominator);
  /// The count as it stands.
  constexpr RelativeTime(long long count, TimeValueInit_t) noexcept : TimeBase(count) {}
  static constexpr int32_t wrap32(int32_t n, int32_t factor) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(n) * static_cast<uint32_t>(factor));
  }
};

class TQCORE_EXPORT AbsoluteTime : public impl::TimeBase, public impl::TimeOrdering<AbsoluteTime> {
 public:
  class Components;

  static AbsoluteTime const min_time;
  static AbsoluteTime const max_time;
  static AbsoluteTime const zero;
  static AbsoluteTime const infinite;

  constexpr AbsoluteTime() noexcept = default;
  explicit AbsoluteTime(long long seconds) noexcept { set(seconds); }
  template <class Int, class = impl::IfOtherInteger<Int>>
  explicit AbsoluteTime(Int seconds) noexcept {
    set(static_cast<long long>(seconds));
  }
  /// A point of the system clock (both count from 1970 UTC), saturating like RelativeTime's
  /// duration constructor: time_point::max() and beyond read as infinite.
  template <class Duration>
  constexpr explicit AbsoluteTime(
      std::chrono::time_point<std::chrono::system_clock, Duration> const& point) noexcept
      : TimeBase(impl::chrono_nanoseconds(point.time_since_epoch())) {}
  explicit AbsoluteTime(double seconds) noexcept { set(seconds); }
  AbsoluteTime(int32_t seconds, int32_t microseconds) noexcept { set(seconds, microseconds); }
  explicit AbsoluteTime(timeval const& tv) noexcept { set(tv); }
  explicit AbsoluteTime(timespec const& ts) noexcept { set(ts); }
  explicit AbsoluteTime(ACE_Time_Value const& tv) noexcept { set(tv); }
  explicit AbsoluteTime(ACE_Time_Value const* tv) noexcept { set(tv); }
  AbsoluteTime(win32::FileTime const& ft, bool local) noexcept { set(ft, local); }
  AbsoluteTime(win32::SystemTime const& st, bool local) noexcept { set(st, local); }
  /// The base plus the offset, infinite if either is.
  AbsoluteTime(RelativeTime const& offset, AbsoluteTime const& base) noexcept { set(offset, base); }
  /// As from_components: raises for components outside the range.
  explicit AbsoluteTime(Components const& components);

  using TimeBase::set;
  /// Ticks minus the 1601 offset, times 100, wrapping; MAX_FILETIME gives no infinite. With
  /// `local`, the ticks are local time by the C library's time zone.
  void set(win32::FileTime const& ft, bool local) noexcept;
  void set(win32::SystemTime const& st, bool local) noexcept;
  void set(RelativeTime const& offset, AbsoluteTime const& base) noexcept {
    m_value = absorbing_sum(base.m_value, offset.as_nsec());
  }
  void set(Components const& components);
  win32::FileTime as_filetime() const noexcept;
  win32::SystemTime as_systemtime() const noexcept;

  /// The calendar form in UTC, and Julian day numbers (days begin at noon).
  Components as_components() const;
  int julian_day() const;
  double full_julian_date() const;
  /// Null on success; `out` may be null to only check, and is untouched on failure. Fields are
  /// summed, not range-checked, so 2000-02-31 is 2000-03-02.
  static ErrorInfo::Ptr from_components_nothrow(Components const& components, AbsoluteTime* out);
  static AbsoluteTime from_components(Components const& components);
  /// On failure: raises when `error` is null, else stores the record and returns infinite.
  static AbsoluteTime from_julian_day(int julian_day, ErrorInfo::Ptr* error);
  static AbsoluteTime from_full_julian_date(double julian_date, ErrorInfo::Ptr* error,
                                            bool round_to_seconds);

  /// "2000-01-02 03:04:05.5" and "2000-01-02T03:04:05.5Z"; infinite is "##INFINITE##" and
  /// "9999-12-31T23:59:59.999999999Z".
  std::string as_string() const;
  /// The system clock's point; the infinite time is time_point::max(). Exact where the clock
  /// counts nanoseconds, else truncated to its unit.
  std::chrono::system_clock::time_point as_time_point() const noexcept {
    using Point = std::chrono::system_clock::time_point;
    if (is_infinite()) return Point::max();
    return Point(std::chrono::duration_cast<Point::duration>(std::chrono::nanoseconds(m_value)));
  }
  std::string as_iso8601_string() const;
  /// A profile of ISO 8601, always UTC: date ('YYYY-MM-DD' or 'YYYYMMDD'), ' ' or 'T', then
  /// hours [[':']minutes[[':']seconds]], a fraction of the last field, an optional 'Z'; or "INF"
  /// and "##INFINITE##". Never allocates unless it fails; `out` may be null to only check.
  static ErrorInfo::Ptr from_string_nothrow(char const* text, size_t size, AbsoluteTime* out);
  static ErrorInfo::Ptr from_string_nothrow(std::string const& text, AbsoluteTime* out) {
    return from_string_nothrow(text.data(), text.size(), out);
  }
  static AbsoluteTime from_string(char const* text, size_t size);
  static AbsoluteTime from_string(std::string const& text) {
    return from_string(text.data(), text.size());
  }

  static constexpr AbsoluteTime from_nsec(long long count) noexcept {
    return AbsoluteTime(count, Raw{});
  }
  /// The system clock (CLOCK_REALTIME), in nanoseconds.
  static AbsoluteTime now() noexcept;

  /// The saturating difference, never below zero; infinite if either side is.
  RelativeTime remaining(AbsoluteTime const& other) const noexcept;
  RelativeTime remaining() const noexcept;
  RelativeTime overtime(AbsoluteTime const& other) const noexcept;
  RelativeTime overtime() const noexcept;

  AbsoluteTime& operator+=(RelativeTime const& other) noexcept {
    m_value = absorbing_sum(m_value, other.as_nsec());
    return *this;
  }
  AbsoluteTime& operator-=(RelativeTime const& other) noexcept {
    m_value = absorbing_difference(m_value, other.as_nsec());
    return *this;
  }
  friend constexpr AbsoluteTime operator+(AbsoluteTime const& a, RelativeTime const& b) noexcept {
    return AbsoluteTime(absorbing_sum(a.m_value, b.as_nsec()), Raw{});
  }
  friend constexpr AbsoluteTime operator+(RelativeTime const& b, AbsoluteTime const& a) noexcept {
    return a + b;
  }
  friend constexpr AbsoluteTime operator-(AbsoluteTime const& a, RelativeTime const& b) noexcept {
    return AbsoluteTime(absorbing_difference(a.m_value, b.as_nsec()), Raw{});
  }
  friend constexpr RelativeTime operator-(AbsoluteTime const& a, AbsoluteTime const& b) noexcept {
    return RelativeTime::nanoseconds(saturating_difference(a.m_value, b.m_value));
  }

 private:
  friend class MonotonicTimeBase;
  struct Raw {};
  constexpr AbsoluteTime(long long count, Raw) noexcept : TimeBase(count) {}
  constexpr explicit AbsoluteTime(TimeBase const& base) noexcept : TimeBase(base) {}
};

static_assert(sizeof(RelativeTime) == 8 && sizeof(AbsoluteTime) == 8,
              "time values are one 64-bit count; the ordering base must stay empty");

/// A date and time of the proleptic Gregorian calendar, UTC. Setters store without checking.
class TQCORE_EXPORT AbsoluteTime::Components {
 public:
  /// 9999-12-31 23:59:59.999999999: the calendar form of the infinite time.
  static Components const infinite;

  constexpr Components() noexcept = default;
  constexpr Components(short year, unsigned short month, unsigned short day, unsigned short hour,
                       unsigned short minute, unsigned short second,
                       unsigned int nanosecond) noexcept
      : m_year(year),
        m_month(month),
        m_day(day),
        m_hour(hour),
        m_minute(minute),
        m_second(second),
        m_nanosecond(nanosecond) {}
  /// The date of a Julian day number at 12:00; a negative number raises.
  explicit Components(int julian_day);
  Components(double full_julian_date, bool round_to_seconds);
  explicit Components(AbsoluteTime const& time);

  constexpr short year() const noexcept { return m_year; }
  constexpr unsigned short month() const noexcept { return m_month; }
  constexpr unsigned short day() const noexcept { return m_day; }
  constexpr unsigned short hour() const noexcept { return m_hour; }
  constexpr unsigned short minute() const noexcept { return m_minute; }
  constexpr unsigned short second() const noexcept { return m_second; }
  constexpr unsigned int nanosecond() const noexcept { return m_nanosecond; }
  void year(short value) noexcept { m_year = value; }
  void month(unsigned short value) noexcept { m_month = value; }
  void day(unsigned short value) noexcept { m_day = value; }
  void hour(unsigned short value) noexcept { m_hour = value; }
  void minute(unsigned short value) noexcept { m_minute = value; }
  void second(unsigned short value) noexcept { m_second = value; }
  void nanosecond(unsigned int value) noexcept { m_nanosecond = value; }

  int julian_day() const noexcept;
  double full_julian_date() const noexcept;
  /// 0 Monday to 6 Sunday; a negative multiple of 7 gives 7.
  unsigned short day_of_week() const noexcept;

  bool operator==(Components const& o) const noexcept;
  bool operator!=(Components const& o) const noexcept { return !(*this == o); }
  bool operator<(Components const& o) const noexcept;
  bool operator>(Components const& o) const noexcept { return o < *this; }
  bool operator<=(Components const& o) const noexcept { return !(*this > o); }
  bool operator>=(Components const& o) const noexcept { return !(*this < o); }

 private:
  void init_from_jdn(unsigned int jdn);
  void init_from_unix_day(int32_t day) noexcept;

  short m_year = 1970;
  unsigned short m_month = 1;
  unsigned short m_day = 1;
  unsigned short m_hour = 0;
  unsigned short m_minute = 0;
  unsigned short m_second = 0;
  unsigned int m_nanosecond = 0;
};

/// Write as_string() as a formatted string, so width and fill apply.
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, AbsoluteTime const& time);
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, RelativeTime const& time);

/// A reading of a monotonic clock, on a scale whose zero means nothing.
class TQCORE_EXPORT MonotonicTimeBase {
 public:
  static constexpr long long NANOSECONDS_IN_ONE_MICROSECOND =
      impl::TimeBase::NANOSECONDS_IN_ONE_MICROSECOND;
  static constexpr long long NANOSECONDS_IN_ONE_MILLISECOND =
      impl::TimeBase::NANOSECONDS_IN_ONE_MILLISECOND;
  static constexpr long long NANOSECONDS_IN_ONE_SECOND = impl::TimeBase::NANOSECONDS_IN_ONE_SECOND;
  static constexpr long long NANOSECONDS_IN_ONE_MINUTE = impl::TimeBase::NANOSECONDS_IN_ONE_MINUTE;
  static constexpr long long NANOSECONDS_IN_ONE_HOUR = impl::TimeBase::NANOSECONDS_IN_ONE_HOUR;
  static constexpr long long NANOSECONDS_IN_ONE_DAY = impl::TimeBase::NANOSECONDS_IN_ONE_DAY;
  static constexpr long long MICROSECONDS_IN_ONE_MILLISECOND =
      impl::TimeBase::MICROSECONDS_IN_ONE_MILLISECOND;
  static constexpr long long MICROSECONDS_IN_ONE_SECOND =
      impl::TimeBase::MICROSECONDS_IN_ONE_SECOND;
  static constexpr long long MILLISECONDS_IN_ONE_SECOND =
      impl::TimeBase::MILLISECONDS_IN_ONE_SECOND;
  static constexpr long long SECONDS_IN_ONE_MINUTE = impl::TimeBase::SECONDS_IN_ONE_MINUTE;
  static constexpr long long SECONDS_IN_ONE_HOUR = impl::TimeBase::SECONDS_IN_ONE_HOUR;
  static constexpr long long SECONDS_IN_ONE_DAY = impl::TimeBase::SECONDS_IN_ONE_DAY;

  static MonotonicTimeBase const min_time;
  static MonotonicTimeBase const max_time;
  static MonotonicTimeBase const zero;
  static MonotonicTimeBase const infinite;

  constexpr long long as_nsec() const noexcept { return m_value; }
  void set_nsec(long long count) noexcept { m_value = count; }
  void set_infinite() noexcept { m_value = impl::TimeBase::TIMEVALUE_INFINITE; }
  constexpr bool is_infinite() const noexcept {
    return m_value == impl::TimeBase::TIMEVALUE_INFINITE;
  }
  constexpr uint64_t hash() const noexcept {
    return static_cast<uint64_t>((m_value >> 32) ^ m_value);
  }
  /// RelativeTime's human text of the same count.
  std::string as_string() const;

 protected:
  constexpr MonotonicTimeBase() noexcept : m_value(0) {}
  constexpr explicit MonotonicTimeBase(RelativeTime const& value) noexcept
      : m_value(value.as_nsec()) {}
  MonotonicTimeBase(AbsoluteTime const& target, AbsoluteTime const& absolute_now,
                    MonotonicTimeBase const& monotonic_now) noexcept
      : m_value(absolutetime_to_monotonictime(target, absolute_now, monotonic_now).as_nsec()) {}

  static RelativeTime absolutetime_to_monotonictime(
      AbsoluteTime const& target, AbsoluteTime const& absolute_now,
      MonotonicTimeBase const& monotonic_now) noexcept;
  static AbsoluteTime monotonictime_to_absolutetime(
      MonotonicTimeBase const& reading, AbsoluteTime const& absolute_now,
      MonotonicTimeBase const& monotonic_now) noexcept;

  long long m_value;
};

}  // namespace tqcore

namespace std {
template <>
struct hash<tqcore::RelativeTime> {
  size_t operator()(tqcore::RelativeTime const& time) const noexcept { return time.hash(); }
};
template <>
struct hash<tqcore::AbsoluteTime> {
  size_t operator()(tqcore::AbsoluteTime const& time) const noexcept { return time.hash(); }
};
}  // namespace std
