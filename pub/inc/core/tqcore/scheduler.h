/// @file
/// A finer timer resolution for the calling thread for the length of a block: its timer slack
/// (how late the kernel may wake it from a sleep) is set to the requested latency and put back.
///
/// Failures: the guard raises "error.tqcore.hardware.timeError" with the system's errno record
/// nested when the slack cannot be set.
///
/// @code
/// tqcore::SchedulerLatency const precise(tqcore::RelativeTime::microseconds(50));
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/tqcore_export.h>

namespace tqcore {

class TQCORE_EXPORT SchedulerLatency {
 public:
  /// Sets the calling thread's timer slack to `latency` (infinite: the largest slack); raises
  /// "error.tqcore.hardware.timeError" if the system refuses.
  explicit SchedulerLatency(RelativeTime const& latency);
  /// Restores the slack the thread had; raises if that fails. Destroy it on the thread that
  /// made it.
  ~SchedulerLatency() noexcept(false);
  /// Copies make no system call and restore nothing.
  SchedulerLatency(SchedulerLatency const& other) noexcept
      : m_latency(other.m_latency), m_previousSlack(other.m_previousSlack), m_owner(false) {}
  SchedulerLatency& operator=(SchedulerLatency const& other) noexcept {
    m_latency = other.m_latency;
    return *this;
  }

  RelativeTime const& requested_latency() const noexcept { return m_latency; }
  /// The resolution of the monotonic clock, the finest latency there is.
  static RelativeTime min_scheduler_latency();

 private:
  RelativeTime m_latency;
  long m_previousSlack = 0;
  bool m_owner = true;
};

}  // namespace tqcore
