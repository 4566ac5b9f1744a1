/// @file
/// Clocks for intervals: each provider reads a counter that never jumps and gives the time
/// since an arbitrary zero as a RelativeTime. A caller picks one at compile time.
///
/// Failures: none; the readings never raise.
///
/// @code
/// tqcore::RelativeTime const start = tqcore::TimeProviderMm::now();
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/tqcore_export.h>

#include <ace/Time_Value.h>

#include <time.h>

namespace tqcore {

/// The kernel's coarse monotonic clock (CLOCK_MONOTONIC_COARSE): a read of shared memory, no
/// system call, the granularity of the scheduler tick.
class TQCORE_EXPORT TimeProviderMm {
 public:
  static RelativeTime now() noexcept {
    return RelativeTime::nanoseconds(static_cast<long long>(mmtime_time_now()));
  }

 private:
  friend TQCORE_EXPORT ACE_Time_Value monotonic_synthetic_ace_gettimeofday();
  static unsigned long long mmtime_time_now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000000ull +
           static_cast<unsigned long long>(now.tv_nsec);
  }
};

/// The kernel's fine monotonic clock (CLOCK_MONOTONIC), counted at one billion ticks a second.
class TQCORE_EXPORT TimeProviderQpc {
 public:
  TimeProviderQpc() noexcept = default;
  RelativeTime now() const noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    double const counter = static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
    return RelativeTime::nanoseconds(static_cast<long long>(counter / m_ticksPerSecond * 1e9));
  }

 private:
  double m_ticksPerSecond = 1e9;
};

/// The processor's timestamp counter, one instruction and one multiplication a reading. It
/// assumes one rate on every processor (an invariant counter). The constructor surveys the
/// machine (hardware::Cpu) for the counter's frequency, which may take a second.
class TQCORE_EXPORT TimeProviderTsc {
 public:
  TimeProviderTsc();
  RelativeTime now() const noexcept {
    auto const ticks = static_cast<double>(__builtin_ia32_rdtsc());
    return RelativeTime::nanoseconds(static_cast<long long>(ticks * m_nanosecondsPerTick));
  }
  double nanoseconds_per_tick() const noexcept { return m_nanosecondsPerTick; }

 private:
  double m_nanosecondsPerTick;
};

/// A gettimeofday for ACE's timers that reads like the wall clock at library load and then
/// moves with the coarse monotonic clock, immune to changes of the system's time.
TQCORE_EXPORT ACE_Time_Value monotonic_synthetic_ace_gettimeofday();

}  // namespace tqcore
