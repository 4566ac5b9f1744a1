#include <csignal>
#include <cstdlib>

#include "module_info.h"

namespace tqcore {
namespace impl {

bool environment_variable_exists(char const* name) noexcept { return std::getenv(name) != nullptr; }

void debug_break() noexcept { std::raise(SIGTRAP); }

}  // namespace impl
}  // namespace tqcore
