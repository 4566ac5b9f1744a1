// What the identifier family's files share inside the library.
#pragma once

#include <cstdint>

namespace tqcore {
namespace impl {

// Around fork(): the sequential identifiers' lock is held across it, and a child starts a new
// clock sequence and node, so that it never repeats its parent's identifiers.
void sequential_state_before_fork();
void sequential_state_after_fork(bool in_child);

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
