// Built with -O2 -g: some values live only in registers that the walk cannot give back, and
// small functions are inlined into their callers.
#include "stack_chain_helper.h"

namespace stack_chain {

__attribute__((noinline)) std::string leaf(Probe probe, int value) {
  std::string text = probe();
  text += static_cast<char>('0' + value % 10);  // the value dies before the call returns
  return text;
}

static inline __attribute__((always_inline)) std::string folded(Probe probe, int value) {
  return leaf(probe, value * 3);
}

__attribute__((noinline)) std::string outer(Probe probe, int seed) {
  return folded(probe, seed + 1) + "!";
}

std::string optimised_chain(Probe probe, int seed) { return outer(probe, seed); }

}  // namespace stack_chain
