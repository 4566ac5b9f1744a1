// The symbol engine's view of one function in a frame, shared by the frame renderer and the
// parameter renderer.
#pragma once

#include <elfutils/libdw.h>

#include <string>
#include <vector>

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

// How to find and show one parameter at one instruction, read once from the debugging
// information; rendering it needs only the frame's registers and memory.
struct ParameterPlan {
  std::string name;
  bool type_known = false;
  bool location_known = false;
  // The location: one operation, perhaps followed by a dereference; a frame-base offset
  // carries the frame base's own operation.
  uint8_t atom = 0;
  int64_t offset = 0;
  bool dereference = false;
  uint8_t base_atom = 0;
  int64_t base_offset = 0;
  // The type, without typedefs and qualifiers.
  int tag = 0;
  uint64_t encoding = 0;
  uint64_t size = 0;
  bool wide_character = false;
  bool smart_class = false;    // a class that is a known smart pointer
  bool smart_pointee = false;  // a pointer to one
};

struct ParametersPlan {
  std::vector<ParameterPlan> shown;  // the first few
  unsigned int count = 0;            // all of them
};

ParametersPlan plan_parameters(FunctionScope const& scope, unsigned int limit);
// "a=1, b=true" without the parentheses, with ", <N omitted>" past the state's limit.
void render_frame_parameters(ParameterRenderState& state, ParametersPlan const& plan);
// A class's name with its namespaces and enclosing classes.
std::string qualified_type_name(Dwarf_Die* type);

}  // namespace impl
}  // namespace tqcore
