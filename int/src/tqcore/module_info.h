// Registration of this library with the family's module registry.
#pragma once

// The module-info record, made by the build: a marker line, then XML.
extern char const g_tqcoreModuleInfo[];

namespace tqcore {
namespace impl {

// True if the variable is set in the environment, whatever its value.
bool environment_variable_exists(char const* name) noexcept;
// The platform's breakpoint trap: ends a process that has no debugger attached.
void debug_break() noexcept;

}  // namespace impl
}  // namespace tqcore
