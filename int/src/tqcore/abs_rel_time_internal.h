// Calendar and clock helpers of the time values.
#pragma once

#include <tqcore/abs_rel_time.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace tqcore {
namespace impl {

// FILETIME ticks of a local wall-clock time to UTC ticks, by the C library's time zone.
uint64_t local_ticks_to_utc(uint64_t ticks) noexcept;
win32::FileTime system_time_to_file_time(win32::SystemTime const& st) noexcept;
win32::SystemTime file_time_to_system_time(win32::FileTime const& ft) noexcept;

// The date of `date` (its time fields unread) plus `nanoseconds` of that day, range-checked
// as from_components_nothrow does; the parser comes here without splitting its time of day.
ErrorInfo::Ptr time_from_date(AbsoluteTime::Components const& date, long long nanoseconds,
                              AbsoluteTime* out);

// The library's calendar arithmetic, in days since 1970-01-01 (proleptic Gregorian). The
// inverse is good for every day within 30000 years of 1970.
struct CivilDate {
  int32_t year;
  unsigned month;
  unsigned day;
};
CivilDate civil_from_unix_day(int64_t day) noexcept;
// Through the Julian day number: years -4800 to 32767.
int64_t unix_day_from_civil(int32_t year, unsigned month, unsigned day) noexcept;

// "error.tqcore.absoluteTime.range": a time before the first or after the last finite one.
ErrorInfo::Ptr time_range_error(bool after, int line);

// A fixed buffer the time writers fill by hand: a format string costs more than the arithmetic.
// 64 characters hold the longest date-time or duration text.
class TimeText {
 public:
  TimeText& put(char c) noexcept {
    m_text[m_size++] = c;
    return *this;
  }
  TimeText& put(char const* text) noexcept {
    while (*text != '\0') m_text[m_size++] = *text++;
    return *this;
  }
  TimeText& number(unsigned long long value) noexcept {
    char reversed[20];
    int n = 0;
    do {
      reversed[n++] = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
    while (n > 0) m_text[m_size++] = reversed[--n];
    return *this;
  }
  // Exactly `width` digits, zero-filled; two at a time in 32 bits, which halves the chain of
  // divisions. The index (not a pointer) lets the compiler see that the stores leave it alone.
  TimeText& digits(uint32_t value, int width) noexcept {
    static constexpr char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    char* const at = m_text + m_size;
    int i = width;
    for (; i >= 2; i -= 2) {
      uint32_t const pair = value % 100;
      value /= 100;
      size_t const digits = 2 * size_t{pair};
      at[i - 2] = kPairs[digits];
      at[i - 1] = kPairs[digits + 1];
    }
    if (i == 1) at[0] = static_cast<char>('0' + value % 10);
    m_size += static_cast<size_t>(width);
    return *this;
  }
  size_t size() const noexcept { return m_size; }
  // Drops trailing zeros, keeping the first `keep` characters.
  void trim_zeros(size_t keep) noexcept {
    while (m_size > keep && m_text[m_size - 1] == '0') --m_size;
  }
  std::string str() const { return std::string(m_text, m_size); }

 private:
  char m_text[64];
  size_t m_size = 0;
};

}  // namespace impl
}  // namespace tqcore
