#include <cstdlib>

#include "module_info.h"

namespace tqcore {
namespace impl {

bool environment_variable_exists(char const* name) noexcept { return std::getenv(name) != nullptr; }

// The processor's breakpoint, not raise(): a debugger stops here, and without one the trap
// arrives with the kernel's own signal code, so a diagnostic handler reports a "Breakpoint".
void debug_break() noexcept { asm volatile("int3"); }

}  // namespace impl
}  // namespace tqcore
