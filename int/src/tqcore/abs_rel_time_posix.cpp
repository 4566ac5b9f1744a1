#include <time.h>

#include "abs_rel_time_internal.h"

namespace tqcore {
namespace impl {
namespace {

constexpr uint64_t kTicksPerSecond = 10000000;
constexpr int64_t kEpochTicks = TimeBase::FILETIME_TO_EPOCH_OFFSET;

}  // namespace

uint64_t local_ticks_to_utc(uint64_t ticks) noexcept {
  int64_t const seconds = static_cast<int64_t>(ticks / kTicksPerSecond) - kEpochTicks / 10000000;
  time_t const as_if_utc = static_cast<time_t>(seconds);
  tm wall{};
  if (gmtime_r(&as_if_utc, &wall) == nullptr) return ticks;
  wall.tm_isdst = -1;  // let the time zone decide
  time_t const utc = mktime(&wall);
  if (utc == static_cast<time_t>(-1)) return ticks;
  return ticks + static_cast<uint64_t>((static_cast<int64_t>(utc) - seconds)) * kTicksPerSecond;
}

win32::FileTime system_time_to_file_time(win32::SystemTime const& st) noexcept {
  int64_t const days = unix_day_from_civil(st.year, st.month, st.day);
  int64_t const seconds =
      days * 86400 + int64_t{st.hour} * 3600 + int64_t{st.minute} * 60 + st.second;
  uint64_t const ticks =
      static_cast<uint64_t>(seconds * 10000000 + st.milliseconds * 10000LL + kEpochTicks);
  return win32::FileTime{static_cast<uint32_t>(ticks), static_cast<uint32_t>(ticks >> 32)};
}

win32::SystemTime file_time_to_system_time(win32::FileTime const& ft) noexcept {
  uint64_t const ticks = (static_cast<uint64_t>(ft.high_date_time) << 32) | ft.low_date_time;
  int64_t const since_1601 = static_cast<int64_t>(ticks / 10000);  // milliseconds
  int64_t const ms = since_1601 - kEpochTicks / 10000;
  int64_t days = ms / 86400000;
  int64_t rest = ms % 86400000;
  if (rest < 0) {
    rest += 86400000;
    --days;
  }
  CivilDate const date = civil_from_unix_day(days);
  win32::SystemTime st{};
  st.year = static_cast<uint16_t>(date.year);
  st.month = static_cast<uint16_t>(date.month);
  st.day = static_cast<uint16_t>(date.day);
  st.day_of_week = static_cast<uint16_t>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday
  st.hour = static_cast<uint16_t>(rest / 3600000);
  st.minute = static_cast<uint16_t>(rest / 60000 % 60);
  st.second = static_cast<uint16_t>(rest / 1000 % 60);
  st.milliseconds = static_cast<uint16_t>(rest % 1000);
  return st;
}

}  // namespace impl

AbsoluteTime AbsoluteTime::now() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return from_nsec(static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec);
}

}  // namespace tqcore
