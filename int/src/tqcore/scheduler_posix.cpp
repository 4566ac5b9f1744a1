// Timer resolution as the thread's timer slack.
#include <tqcore/scheduler.h>

#include "error_exception_internal.h"
#include "file_ids.h"

#include <tqcore/error_builder.h>
#include <tqcore/error_code.h>

#include <sys/prctl.h>
#include <time.h>

#include <cerrno>
#include <climits>
#include <sstream>

namespace tqcore {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("scheduler");

unsigned long slack_of(RelativeTime const& latency) {
  if (latency.is_infinite() || latency.as_nsec() > LONG_MAX) return LONG_MAX;
  // 0 would mean "the default slack" to the kernel: one nanosecond is the finest there is.
  return latency.as_nsec() <= 0 ? 1 : static_cast<unsigned long>(latency.as_nsec());
}

}  // namespace

SchedulerLatency::SchedulerLatency(RelativeTime const& latency)
    : m_latency(latency), m_previousSlack(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0)) {
  if (prctl(PR_SET_TIMERSLACK, slack_of(latency), 0, 0, 0) == 0) return;
  int const result = errno;
  std::ostringstream text;
  text << latency;
  ErrorComposer("Failed setting scheduler latency to {@latency}: result={@result}")
      .param("latency", impl::stream_text(text))
      .param("result", std::to_string(result))
      .throw_error(error::tqcore_hardware_timeError,
                   TQCORE_SOURCE_LOCATION("tqcore::SchedulerLatency::SchedulerLatency()", kFileId));
}

SchedulerLatency::~SchedulerLatency() noexcept(false) {
  if (!m_owner || m_previousSlack <= 0) return;
  if (prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(m_previousSlack), 0, 0, 0) == 0) return;
  ErrorComposer("Failed restoring scheduler latency: result={@result}")
      .param("result", std::to_string(errno))
      .throw_error(
          error::tqcore_hardware_timeError,
          TQCORE_SOURCE_LOCATION("tqcore::SchedulerLatency::~SchedulerLatency()", kFileId));
}

RelativeTime SchedulerLatency::min_scheduler_latency() {
  timespec resolution{};
  clock_getres(CLOCK_MONOTONIC, &resolution);
  return RelativeTime::nanoseconds(static_cast<long long>(resolution.tv_sec) * 1000000000LL +
                                   resolution.tv_nsec);
}

}  // namespace tqcore
