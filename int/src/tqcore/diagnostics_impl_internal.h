// What the diagnostics sources share: memory probes that never fault, the calling thread's
// stack bounds, and the pieces of a symbolic frame line.
#pragma once

#include <tqcore/diagnostics.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace tqcore {
namespace impl {

// Copies `size` bytes at `address` into `out`; false, without faulting, if any is unreadable.
// Signal-safe.
bool read_memory(uint64_t address, void* out, size_t size) noexcept;
bool is_readable(uint64_t address, size_t size) noexcept;
// Whether `address` lies in an executable mapping. Signal-safe.
bool is_code_address(uint64_t address) noexcept;

struct StackBounds {
  uint64_t low;
  uint64_t high;
};
// The calling thread's stack, cached at the first call of each thread (which may allocate).
StackBounds thread_stack_bounds() noexcept;

// A demangled function name reduced to its qualified name: no return type, no parameter list,
// no trailing qualifiers.
void strip_function_signature(std::string& name);
// Demangles a linkage name; a name that is not mangled comes back as it is. Raises
// std::bad_alloc when the demangler runs out of memory.
std::string demangle(char const* linkage_name);

// The frame a parameter is read from, and what has been said of the frame so far.
struct ParameterRenderState {
  std::ostream& stream;
  StackFrameRecord const& frame;
  unsigned int count = 0;
  unsigned int limit = 8;
  uint64_t highest_read = 0;
};

}  // namespace impl
}  // namespace tqcore
