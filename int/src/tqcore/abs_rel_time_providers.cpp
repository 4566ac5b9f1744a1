// The timestamp-counter provider and the synthetic clock for ACE.
#include <tqcore/cpu.h>
#include <tqcore/time_provider.h>

namespace tqcore {
namespace {

// Taken one right after the other at load: the synthetic clock's start on both scales.
AbsoluteTime const g_syntheticStart = AbsoluteTime::now();
RelativeTime const g_syntheticMonotonicStart = TimeProviderMm::now();

}  // namespace

TimeProviderTsc::TimeProviderTsc() : m_nanosecondsPerTick(1e9 / hardware::Cpu().frequency()) {}

ACE_Time_Value monotonic_synthetic_ace_gettimeofday() {
  RelativeTime const elapsed = TimeProviderMm::now() - g_syntheticMonotonicStart;
  AbsoluteTime now = g_syntheticStart;
  now += elapsed;
  return now.as_ace_time_value();
}

}  // namespace tqcore
