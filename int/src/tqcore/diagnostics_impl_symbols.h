// The symbol engine's view of one function in a frame, shared by the frame renderer and the
// parameter renderer.
#pragma once

#include <elfutils/libdw.h>

#include <string>

#include "diagnostics_impl_internal.h"

namespace tqcore {
namespace impl {

// A function at an instruction: an out-of-line function, or one inlined into it. Its frame
// base lives with the out-of-line one.
struct FunctionScope {
  Dwarf_Die* function;
  Dwarf_Die* subprogram;
  Dwarf_Addr dwarf_pc;  // the instruction in the module's own addresses
};

// "(a=1, b=true)" without the parentheses, with ", <N omitted>" past the state's limit.
void render_frame_parameters(ParameterRenderState& state, FunctionScope const& scope);
// A class's name with its namespaces and enclosing classes.
std::string qualified_type_name(Dwarf_Die* type);
// Drops what the parameter renderer remembers of types, when the modules change. Under the
// symbol engine's lock, as all parameter rendering is.
void forget_type_names();

}  // namespace impl
}  // namespace tqcore
