#include <tqcore/abs_rel_time.h>

#include <cmath>

#include "abs_rel_time_internal.h"

namespace tqcore {
namespace impl {

constexpr TimeBase TimeBase::sm_minValue{TIMEVALUE_MIN};
constexpr TimeBase TimeBase::sm_maxValue{TIMEVALUE_MAX};
constexpr TimeBase TimeBase::sm_infiniteValue{TIMEVALUE_INFINITE};
constexpr TimeBase TimeBase::sm_zeroValue{TIMEVALUE_ZERO};

long long TimeBase::from_double_nanoseconds(double nanoseconds) noexcept {
  // 2^63 is the first double out of range; NaN fails both tests.
  if (!(nanoseconds >= -9223372036854775808.0 && nanoseconds < 9223372036854775808.0)) {
    return TIMEVALUE_MIN;
  }
  return static_cast<long long>(nanoseconds);
}

timeval TimeBase::as_timeval() const noexcept {
  timeval tv{};
  tv.tv_sec = as_timeval_sec();  // sign-extended into the wider field
  tv.tv_usec = as_timeval_usec();
  return tv;
}

timespec TimeBase::as_timespec() const noexcept {
  timespec ts{};
  ts.tv_sec = low32(m_value / NANOSECONDS_IN_ONE_SECOND);
  ts.tv_nsec = static_cast<long>(m_value % NANOSECONDS_IN_ONE_SECOND);
  return ts;
}

ACE_Time_Value TimeBase::as_ace_time_value() const {
  return ACE_Time_Value(low32(m_value / NANOSECONDS_IN_ONE_SECOND),
                        static_cast<suseconds_t>((m_value % NANOSECONDS_IN_ONE_SECOND) / 1000));
}

AceTimeoutProxy TimeBase::as_ace_timeout() const {
  if (is_infinite()) return AceTimeoutProxy(true, 0, 0);
  return AceTimeoutProxy(false, low32(m_value / NANOSECONDS_IN_ONE_SECOND),
                         static_cast<int32_t>((m_value % NANOSECONDS_IN_ONE_SECOND) / 1000));
}

void TimeBase::set(ACE_Time_Value const& tv) noexcept {
  m_value = (static_cast<long long>(tv.sec()) * MICROSECONDS_IN_ONE_SECOND + tv.usec()) * 1000;
}

}  // namespace impl

// The copies in each class are constant-initialised, so no start-up order can show them unset.
constexpr RelativeTime RelativeTime::min_time{impl::TimeBase::TIMEVALUE_MIN, TimeValueInit_t{}};
constexpr RelativeTime RelativeTime::max_time{impl::TimeBase::TIMEVALUE_MAX, TimeValueInit_t{}};
constexpr RelativeTime RelativeTime::zero{impl::TimeBase::TIMEVALUE_ZERO, TimeValueInit_t{}};
constexpr RelativeTime RelativeTime::infinite{impl::TimeBase::TIMEVALUE_INFINITE,
                                              TimeValueInit_t{}};
constexpr AbsoluteTime AbsoluteTime::min_time{impl::TimeBase::TIMEVALUE_MIN, Raw{}};
constexpr AbsoluteTime AbsoluteTime::max_time{impl::TimeBase::TIMEVALUE_MAX, Raw{}};
constexpr AbsoluteTime AbsoluteTime::zero{impl::TimeBase::TIMEVALUE_ZERO, Raw{}};
constexpr AbsoluteTime AbsoluteTime::infinite{impl::TimeBase::TIMEVALUE_INFINITE, Raw{}};
constexpr MonotonicTimeBase MonotonicTimeBase::min_time{RelativeTime::min_time};
constexpr MonotonicTimeBase MonotonicTimeBase::max_time{RelativeTime::max_time};
constexpr MonotonicTimeBase MonotonicTimeBase::zero{RelativeTime::zero};
constexpr MonotonicTimeBase MonotonicTimeBase::infinite{RelativeTime::infinite};

std::string MonotonicTimeBase::as_string() const {
  return RelativeTime::nanoseconds(m_value).as_string();
}

// ---- RelativeTime ----------------------------------------------------------------------------

namespace {

// The product of a span and a factor, through seconds in double.
double scaled_nanoseconds(long long value, double factor) {
  double const seconds = value == impl::TimeBase::TIMEVALUE_INFINITE
                             ? impl::TimeBase::INFINITE_DOUBLE_SECONDS
                             : static_cast<double>(value) / 1e9;
  return seconds * factor * 1e9;
}

}  // namespace

RelativeTime& RelativeTime::operator*=(double factor) noexcept {
  m_value = from_double_nanoseconds(scaled_nanoseconds(m_value, factor));
  return *this;
}

// Converted to unsigned 64 bits and kept as bits: a product between 2^63 and 2^64 wraps.
RelativeTime RelativeTime::operator*(double factor) const noexcept {
  double const product = scaled_nanoseconds(m_value, factor);
  if (product >= 9223372036854775808.0 && product < 18446744073709551616.0) {
    return RelativeTime(static_cast<long long>(static_cast<uint64_t>(product)), TimeValueInit_t{});
  }
  return RelativeTime(from_double_nanoseconds(product), TimeValueInit_t{});
}

// ---- AbsoluteTime ----------------------------------------------------------------------------

RelativeTime AbsoluteTime::remaining(AbsoluteTime const& other) const noexcept {
  RelativeTime const difference = *this - other;
  return difference.is_negative() ? RelativeTime::zero : difference;
}

RelativeTime AbsoluteTime::remaining() const noexcept {
  return is_infinite() ? RelativeTime::infinite : remaining(now());
}

RelativeTime AbsoluteTime::overtime(AbsoluteTime const& other) const noexcept {
  RelativeTime const difference = other - *this;
  return difference.is_negative() ? RelativeTime::zero : difference;
}

RelativeTime AbsoluteTime::overtime() const noexcept {
  return is_infinite() ? RelativeTime::infinite : overtime(now());
}

void AbsoluteTime::set(win32::FileTime const& ft, bool local) noexcept {
  uint64_t ticks = (static_cast<uint64_t>(ft.high_date_time) << 32) | ft.low_date_time;
  if (local) ticks = impl::local_ticks_to_utc(ticks);
  uint64_t const nanoseconds = (ticks - static_cast<uint64_t>(FILETIME_TO_EPOCH_OFFSET)) * 100;
  m_value = static_cast<long long>(nanoseconds);  // wraps, as the interface says
}

void AbsoluteTime::set(win32::SystemTime const& st, bool local) noexcept {
  set(impl::system_time_to_file_time(st), local);
}

win32::FileTime AbsoluteTime::as_filetime() const noexcept {
  if (is_infinite()) return MAX_FILETIME;
  uint64_t const ticks = static_cast<uint64_t>(m_value / 100 + FILETIME_TO_EPOCH_OFFSET);
  return win32::FileTime{static_cast<uint32_t>(ticks), static_cast<uint32_t>(ticks >> 32)};
}

win32::SystemTime AbsoluteTime::as_systemtime() const noexcept {
  if (is_infinite()) return MAX_SYSTEMTIME;
  return impl::file_time_to_system_time(as_filetime());
}

// ---- MonotonicTimeBase -----------------------------------------------------------------------

RelativeTime MonotonicTimeBase::absolutetime_to_monotonictime(
    AbsoluteTime const& target, AbsoluteTime const& absolute_now,
    MonotonicTimeBase const& monotonic_now) noexcept {
  RelativeTime const difference = target - absolute_now;
  if (monotonic_now.is_infinite() || difference.is_infinite()) return RelativeTime::infinite;
  return RelativeTime(monotonic_now.m_value, RelativeTime::TimeValueInit_t{}) + difference;
}

AbsoluteTime MonotonicTimeBase::monotonictime_to_absolutetime(
    MonotonicTimeBase const& reading, AbsoluteTime const& absolute_now,
    MonotonicTimeBase const& monotonic_now) noexcept {
  long long const difference = static_cast<long long>(static_cast<uint64_t>(reading.m_value) -
                                                      static_cast<uint64_t>(monotonic_now.m_value));
  if (reading.is_infinite() || monotonic_now.is_infinite() ||
      difference == impl::TimeBase::TIMEVALUE_INFINITE || absolute_now.is_infinite()) {
    return AbsoluteTime::infinite;
  }
  return absolute_now + RelativeTime(difference, RelativeTime::TimeValueInit_t{});
}

}  // namespace tqcore
