// Call chains of known functions for the backtrace tests: one built without optimisation (every
// value on the stack), one optimised (values lost, calls inlined). Each calls `probe` at its end
// and returns what it returned.
#pragma once

#include <tqcore/refcount_ptr.h>

#include <string>

namespace stack_chain {

enum class Mood { calm = 3, cross = -2 };
struct Wide {
  long a, b, c;
};

using Probe = std::string (*)();

std::string plain_chain(Probe probe);
std::string optimised_chain(Probe probe, int seed);

}  // namespace stack_chain
