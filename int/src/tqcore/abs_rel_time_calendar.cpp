// The calendar: Julian day numbers to and from dates, and Components of an AbsoluteTime.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/safe_cast.h>

#include <cmath>
#include <sstream>
#include <tuple>

#include "abs_rel_time_internal.h"
#include "error_exception_internal.h"
#include "file_ids.h"

namespace tqcore {
namespace {

char const kFileId[] = TQCORE_FILE_ID("abs_rel_time");
constexpr long long kNanosecondsInDay = impl::TimeBase::NANOSECONDS_IN_ONE_DAY;
constexpr long long kEpochJulianDay = 2440588;  // 1970-01-01

using Components = AbsoluteTime::Components;

auto fields(Components const& c) {
  return std::make_tuple(c.year(), c.month(), c.day(), c.hour(), c.minute(), c.second(),
                         c.nanosecond());
}

// (hour * 60 + minute) * 60 + second in 32 bits, then nanoseconds in 64.
long long nanoseconds_of_day(Components const& c) {
  uint32_t const seconds = (static_cast<uint32_t>(c.hour()) * 60 + c.minute()) * 60 + c.second();
  return static_cast<long long>(seconds) * 1000000000LL + c.nanosecond();
}

}  // namespace

constexpr Components Components::infinite{9999, 12, 31, 23, 59, 59, 999999999};

Components::Components(int julian_day) : m_hour(12) {
  if (julian_day < 0) impl::safe_cast_throw_negative_to_unsigned(typeid(unsigned int), julian_day);
  init_from_jdn(static_cast<unsigned int>(julian_day));
}

// The short Euclidean-affine form of the Gregorian calendar (Neri and Schneider, 2021): the
// same date as init_from_jdn with four multiplications instead of a chain of twenty.
impl::CivilDate impl::civil_from_unix_day(int64_t day) noexcept {
  constexpr uint32_t kEras = 82;  // shifts every day of the range to a positive count
  constexpr uint32_t kShift = 719468 + 146097 * kEras;
  uint32_t const n1 = 4 * (static_cast<uint32_t>(day) + kShift) + 3;
  uint32_t const century = n1 / 146097;
  uint32_t const n2 = (n1 % 146097) | 3;
  uint64_t const p2 = uint64_t{2939745} * n2;
  uint32_t const year_of_century = static_cast<uint32_t>(p2 >> 32);
  uint32_t const day_of_year = static_cast<uint32_t>(p2) / 2939745 / 4;  // from March 1
  uint32_t const n3 = 2141 * day_of_year + 197913;
  bool const january_or_february = day_of_year >= 306;
  return impl::CivilDate{
      static_cast<int32_t>(100 * century + year_of_century + january_or_february) -
          static_cast<int32_t>(400 * kEras),
      (n3 >> 16) - (january_or_february ? 12 : 0), (n3 & 0xFFFF) / 2141 + 1};
}

int64_t impl::unix_day_from_civil(int32_t year, unsigned month, unsigned day) noexcept {
  return Components(static_cast<short>(year), static_cast<unsigned short>(month),
                    static_cast<unsigned short>(day), 0, 0, 0, 0)
             .julian_day() -
         kEpochJulianDay;
}

void Components::init_from_unix_day(int32_t day) noexcept {
  impl::CivilDate const date = impl::civil_from_unix_day(day);
  m_year = static_cast<short>(date.year);
  m_month = static_cast<unsigned short>(date.month);
  m_day = static_cast<unsigned short>(date.day);
}

Components::Components(AbsoluteTime const& time) {
  if (time.is_infinite()) {
    *this = infinite;
    return;
  }
  long long days = time.as_nsec() / kNanosecondsInDay;
  long long rest = time.as_nsec() - days * kNanosecondsInDay;
  if (rest < 0) {  // floor division
    --days;
    rest += kNanosecondsInDay;
  }
  init_from_unix_day(static_cast<int32_t>(days));
  // One 64-bit division; the seconds of a day fit 32 bits, where the rest is cheaper.
  uint32_t const seconds = static_cast<uint32_t>(rest / 1000000000LL);
  m_nanosecond = static_cast<unsigned int>(rest - seconds * 1000000000LL);
  m_hour = static_cast<unsigned short>(seconds / 3600);
  m_minute = static_cast<unsigned short>(seconds / 60 % 60);
  m_second = static_cast<unsigned short>(seconds % 60);
}

Components::Components(double x, bool round_to_seconds) : m_hour(12) {
  if (x == HUGE_VAL) {
    *this = infinite;
    return;
  }
  if (x < 0 || x > 4294967295.0) {
    std::ostringstream text;
    text << x;
    ErrorComposer(
        "The given date ({@jd}) lies outside of the range of days representable in 32 "
        "bits.")
        .param(SourceString::create_reference("jd"), impl::stream_text(text))
        .throw_error(
            x < 0 ? error::tqcore_cast_negativeToUnsigned : error::tqcore_cast_valueTooBig,
            SourceLocation("tqcore::AbsoluteTime::Components::Components()", kFileId, __LINE__));
  }
  unsigned int jd = static_cast<unsigned int>(x);
  double fraction = x - jd;
  unsigned short hour = 12;
  if (fraction >= 0.5) {  // the day of a Julian date turns at noon
    fraction -= 0.5;
    ++jd;
    hour = 0;
  }
  init_from_jdn(jd);
  m_hour = static_cast<unsigned short>(hour + static_cast<unsigned short>(fraction * 24.0));
  m_minute = static_cast<unsigned short>(static_cast<unsigned int>(fraction * 1440.0) % 60);
  m_second = static_cast<unsigned short>(static_cast<unsigned int>(fraction * 86400.0) % 60);
  uint64_t const ns = static_cast<uint64_t>(fraction * 86400000000000.0) % 1000000000;
  m_nanosecond = static_cast<unsigned int>(ns);
  if (!round_to_seconds) return;
  m_nanosecond = 0;
  if (ns < 500000000) return;
  if (++m_second < 60) return;
  m_second = 0;
  if (++m_minute < 60) return;
  m_minute = 0;
  if (++m_hour < 24) return;
  init_from_jdn(jd + 1);
  m_hour = 0;
}

void Components::init_from_jdn(unsigned int jdn) {
  uint32_t const j = jdn + 32044;
  uint32_t const g = j / 146097;
  uint32_t const dg = j % 146097;
  uint32_t const c = (dg / 36524 * 3 + 3) / 4;
  uint32_t const dc = dg - c * 36524;
  uint32_t const b = dc / 1461;
  uint32_t const db = dc % 1461;
  uint32_t const a = (db / 365 * 3 + 3) / 4;
  uint32_t const da = db - a * 365;
  uint32_t const t = da * 5 + 308;
  uint32_t const p = t / 153;
  uint32_t const q = t / 1836;
  uint32_t const year = q + ((c + g * 4) * 25 + b) * 4 + a - 4800;
  uint32_t const month = p - q * 12 + 1;
  uint32_t const day = da - (p + 2) * 153 / 5 + 123;
  int32_t const signed_year = static_cast<int32_t>(year);
  if (signed_year < -32768 || signed_year > 32767) {
    impl::safe_cast_throw_value_truncated(typeid(short), static_cast<unsigned long long>(year));
  }
  if (signed_year < 0) impl::safe_cast_throw_sign_reversal(typeid(short), year);
  if (month > 0xFFFF) impl::safe_cast_throw_value_truncated(typeid(unsigned short), 0ULL + month);
  if (day > 0xFFFF) impl::safe_cast_throw_value_truncated(typeid(unsigned short), 0ULL + day);
  m_year = static_cast<short>(signed_year);
  m_month = static_cast<unsigned short>(month);
  m_day = static_cast<unsigned short>(day);
}

int Components::julian_day() const noexcept {
  int const a = (14 - m_month) / 12;
  int const y = m_year + 4800 - a;
  int const m = m_month + 12 * a - 3;
  return m_day + (153 * m + 2) / 5 + 365 * y + y / 4 - y / 100 + y / 400 - 32045;
}

double Components::full_julian_date() const noexcept {
  if (*this == infinite) return HUGE_VAL;
  double result = julian_day() + (m_hour - 12) / 24.0;
  result += m_minute / 1440.0;
  result += m_second / 86400.0;
  return result + m_nanosecond / 8.64e13;
}

unsigned short Components::day_of_week() const noexcept {
  int const day = julian_day();
  int r = day % 7;
  if (day < 0) r += 7;  // unconditional: a negative multiple of 7 gives 7
  return static_cast<unsigned short>(r);
}

bool Components::operator==(Components const& o) const noexcept {
  return fields(*this) == fields(o);
}
bool Components::operator<(Components const& o) const noexcept { return fields(*this) < fields(o); }

// ---- AbsoluteTime and the calendar -----------------------------------------------------------

namespace {
// Made only on failure: the good path of the parsers stays free of it.
SourceLocation range_location(int line) {
  return SourceLocation("tqcore::AbsoluteTime::from_components_nothrow()", kFileId, line);
}
}  // namespace

ErrorInfo::Ptr impl::time_range_error(bool after, int line) {
  return ErrorInfo::create(error::tqcore_absoluteTime_range,
                           after ? "The specified Gregorian date/time represent a date after "
                                   "'2262-04-11 23:47:16.854775806' (the maximum representable by "
                                   "tqcore::AbsoluteTime)"
                                 : "The specified Gregorian date/time represent a date before "
                                   "'1677-09-21 00:12:43.145224192' (the minimum representable "
                                   "by tqcore::AbsoluteTime)",
                           range_location(line));
}

ErrorInfo::Ptr impl::time_from_date(Components const& c, long long ns, AbsoluteTime* out) {
  int const a = (14 - c.month()) / 12;
  uint32_t const y = static_cast<uint32_t>(c.year() + 4800 - a);
  int const m = c.month() + 12 * a - 3;
  uint32_t const jdn = c.day() + static_cast<uint32_t>((153 * m + 2) / 5) + 365 * y + y / 4 -
                       y / 100 + y / 400 - 32045;
  if (jdn < 2333836 || (jdn == 2333836 && ns < 763145224192LL)) {
    return time_range_error(false, __LINE__);
  }
  if (jdn > 2547339 || (jdn == 2547339 && ns > 85636854775806LL)) {
    return time_range_error(true, __LINE__);
  }
  if (out != nullptr) {
    // In unsigned arithmetic: at the first day the product alone is below the 64-bit range.
    uint64_t const days = static_cast<uint64_t>(static_cast<long long>(jdn) - kEpochJulianDay);
    uint64_t const count =
        days * static_cast<uint64_t>(kNanosecondsInDay) + static_cast<uint64_t>(ns);
    *out = AbsoluteTime::from_nsec(static_cast<long long>(count));
  }
  return nullptr;
}

ErrorInfo::Ptr AbsoluteTime::from_components_nothrow(Components const& c, AbsoluteTime* out) {
  if (c == Components::infinite) {
    if (out != nullptr) *out = infinite;
    return nullptr;
  }
  return impl::time_from_date(c, nanoseconds_of_day(c), out);
}

AbsoluteTime AbsoluteTime::from_components(Components const& components) {
  AbsoluteTime result;
  ErrorException::throw_if_error(from_components_nothrow(components, &result));
  return result;
}

void AbsoluteTime::set(Components const& components) { *this = from_components(components); }

AbsoluteTime::AbsoluteTime(Components const& components) { set(components); }

AbsoluteTime::Components AbsoluteTime::as_components() const { return Components(*this); }
int AbsoluteTime::julian_day() const { return Components(*this).julian_day(); }
double AbsoluteTime::full_julian_date() const { return Components(*this).full_julian_date(); }

namespace {

template <class MakeComponents>
AbsoluteTime from_calendar(MakeComponents make, char const* function, ErrorInfo::Ptr* error) {
  try {
    return AbsoluteTime::from_components(make());
  } catch (std::exception const& e) {
    ErrorInfo::Ptr record =
        ErrorInfo::from_exception(e, SourceLocation(function, kFileId, __LINE__));
    if (error == nullptr) throw_error(record);
    error->swap(record);
    return AbsoluteTime::infinite;
  }
}

}  // namespace

AbsoluteTime AbsoluteTime::from_julian_day(int julian_day, ErrorInfo::Ptr* error) {
  return from_calendar([julian_day] { return Components(julian_day); },
                       "tqcore::AbsoluteTime::from_julian_day()", error);
}

AbsoluteTime AbsoluteTime::from_full_julian_date(double julian_date, ErrorInfo::Ptr* error,
                                                 bool round_to_seconds) {
  return from_calendar([=] { return Components(julian_date, round_to_seconds); },
                       "tqcore::AbsoluteTime::from_full_julian_date()", error);
}

}  // namespace tqcore
