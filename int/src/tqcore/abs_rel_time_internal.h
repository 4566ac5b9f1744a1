// Calendar and clock helpers of the time values.
#pragma once

#include <tqcore/abs_rel_time.h>

#include <cstdint>

namespace tqcore {
namespace impl {

// FILETIME ticks of a local wall-clock time to UTC ticks, by the C library's time zone.
uint64_t local_ticks_to_utc(uint64_t ticks) noexcept;
win32::FileTime system_time_to_file_time(win32::SystemTime const& st) noexcept;
win32::SystemTime file_time_to_system_time(win32::FileTime const& ft) noexcept;

}  // namespace impl
}  // namespace tqcore
