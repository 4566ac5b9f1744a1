// What the diagnostics sources share: memory probes that never fault, the calling thread's
// stack bounds, and the pieces of a symbolic frame line.
#pragma once

#include <tqcore/diagnostics.h>

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

namespace tqcore {
namespace impl {

// Addresses travel as numbers here: they come from registers and stack words, not pointers.
inline void* as_pointer(uint64_t address) {
  return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

// Copies `size` bytes at `address` into `out`; false, without faulting, if any is unreadable.
// Signal-safe.
bool read_memory(uint64_t address, void* out, size_t size) noexcept;
bool is_readable(uint64_t address, size_t size) noexcept;
// While one lives on a thread, is_readable there remembers the pages it found readable. For
// the span of one rendering, where memory is read, not unmapped.
class ReadablePageMemo {
 public:
  ReadablePageMemo() noexcept;
  ~ReadablePageMemo();
  ReadablePageMemo(ReadablePageMemo const&) = delete;
  ReadablePageMemo& operator=(ReadablePageMemo const&) = delete;
};
// One 8-byte word the caller knows to be readable. Stack words between frames may lie in a
// sanitizer's red zones, which a dump reads on purpose. Signal-safe.
__attribute__((no_sanitize("address", "hwaddress", "thread"))) inline uint64_t load_word(
    uint64_t address) noexcept {
  return *static_cast<uint64_t const volatile*>(as_pointer(address));
}
// The base of the loaded object that holds `address`; false outside every object. Signal-safe.
bool object_base(uint64_t address, uint64_t& base) noexcept;
// Whether `address` lies in an executable mapping. Signal-safe.
bool is_code_address(uint64_t address) noexcept;

struct StackBounds {
  uint64_t low;
  uint64_t high;
};
// The calling thread's stack, cached at the first call of each thread (which may allocate).
StackBounds thread_stack_bounds() noexcept;

// A recursive lock records its owner's thread id, which a forked child's thread does not
// have: the child cannot unlock what its parent's thread took before fork, so it starts the
// lock afresh (it is the child's only thread).
inline void reset_recursive_lock(pthread_mutex_t& lock) noexcept {
  lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
}

// "0x" and 16 lower-case digits, as streamers::Pointer writes it, without building a string:
// a frame line holds several.
inline void write_pointer(std::ostream& stream, uint64_t value) {
  char text[18] = {'0', 'x'};
  for (int i = 17; i >= 2; --i, value >>= 4) text[i] = "0123456789abcdef"[value & 15];
  stream.write(text, sizeof(text));
}

// A demangled function name reduced to its qualified name: no return type, no parameter list,
// no trailing qualifiers.
void strip_function_signature(std::string& name);
// Demangles a linkage name; a name that is not mangled comes back as it is. Raises
// std::bad_alloc when the demangler runs out of memory.
std::string demangle(char const* linkage_name);

// The frame a parameter is read from, and how many parameters have been written so far.
struct ParameterRenderState {
  std::ostream& stream;
  StackFrameRecord const& frame;
  unsigned int count = 0;
};

}  // namespace impl
}  // namespace tqcore
