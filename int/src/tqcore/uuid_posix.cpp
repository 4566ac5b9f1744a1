// The platform inputs of the identifier family: entropy for the generator's seed.
#include <tqcore/abs_rel_time.h>

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <x86intrin.h>

#include "uuid_internal.h"

namespace tqcore {
namespace impl {

uint64_t cycle_counter() { return __rdtsc(); }

EntropySample sample_entropy() {
  timespec monotonic{};
  clock_gettime(CLOCK_MONOTONIC, &monotonic);
  return EntropySample{
      AbsoluteTime::now().as_nsec(),
      static_cast<uint32_t>(monotonic.tv_sec * 1000 + monotonic.tv_nsec / 1000000),
      static_cast<uint32_t>(getpid()),
      static_cast<uint32_t>(syscall(SYS_gettid)),
      cycle_counter(),
  };
}

}  // namespace impl
}  // namespace tqcore
