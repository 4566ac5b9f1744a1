// What the identifier family's files share inside the library.
#pragma once

#include <cstdint>

namespace tqcore {
namespace impl {

// Entropy of this moment: the clock, the process and thread, the cycle counter.
struct EntropySample {
  int64_t realtime_ns;
  uint32_t monotonic_ms;
  uint32_t process;
  uint32_t thread;
  uint64_t cycles;
};
EntropySample sample_entropy();
uint64_t cycle_counter();

}  // namespace impl
}  // namespace tqcore
