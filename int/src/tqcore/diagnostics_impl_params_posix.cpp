// Parameter values of a frame, read through the function's debugging information: each formal
// parameter's location is evaluated at the frame's instruction for the simple forms a compiler
// gives (frame base, a register the walk recovered, one dereference), and its value is shown
// by the kind of its type.
#include <dwarf.h>
#include <elfutils/libdw.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include <tqcore/streamers.h>

#include "diagnostics_impl_internal.h"
#include "diagnostics_impl_symbols.h"

namespace tqcore {
namespace impl {
namespace {

enum class Where { nowhere, unreadable, memory, in_register };

struct Place {
  Where where;
  uint64_t address;
  uint64_t value;  // the register's content for in_register
};

// Only rbp and rsp are known for every frame of a walk.
bool is_known_register(unsigned int number) { return number == 6 || number == 7; }
uint64_t frame_register(StackFrameRecord const& frame, unsigned int number) {
  return number == 6 ? frame.fp : frame.sp;
}
bool is_register_relative(uint8_t atom) { return atom >= DW_OP_breg0 && atom <= DW_OP_breg31; }
bool is_register(uint8_t atom) { return atom >= DW_OP_reg0 && atom <= DW_OP_reg31; }
// A single operation the frame can answer: the CFA, or rbp or rsp, plain or plus an offset.
bool is_simple(uint8_t atom) {
  return atom == DW_OP_call_frame_cfa ||
         (is_register_relative(atom) && is_known_register(atom - DW_OP_breg0)) ||
         (is_register(atom) && is_known_register(atom - DW_OP_reg0));
}

bool one_location(Dwarf_Die* die, unsigned int name, Dwarf_Addr pc, Dwarf_Op*& ops, size_t& n) {
  Dwarf_Attribute attribute;
  if (dwarf_attr(die, name, &attribute) == nullptr) return false;
  return dwarf_getlocation_addr(&attribute, pc, &ops, &n, 1) == 1 && n > 0;
}

bool type_of(Dwarf_Die* die, Dwarf_Die& type) {
  Dwarf_Attribute attribute;
  if (dwarf_attr_integrate(die, DW_AT_type, &attribute) == nullptr) return false;
  return dwarf_formref_die(&attribute, &type) != nullptr && dwarf_peel_type(&type, &type) == 0;
}

uint64_t attribute_number(Dwarf_Die* die, unsigned int name) {
  Dwarf_Attribute attribute;
  Dwarf_Word value = 0;
  if (dwarf_attr_integrate(die, name, &attribute) != nullptr) dwarf_formudata(&attribute, &value);
  return value;
}

bool is_class_tag(int tag) {
  return tag == DW_TAG_class_type || tag == DW_TAG_structure_type || tag == DW_TAG_union_type;
}

bool is_pointer_tag(int tag) {
  return tag == DW_TAG_pointer_type || tag == DW_TAG_reference_type ||
         tag == DW_TAG_rvalue_reference_type;
}

bool is_smart_pointer_class(Dwarf_Die* type) {
  Dwarf_Word size = 0;
  return is_class_tag(dwarf_tag(type)) && dwarf_aggregate_size(type, &size) == 0 && size >= 8 &&
         is_smart_pointer_type_name(qualified_type_name(type));
}

void plan_location(ParameterPlan& plan, Dwarf_Die* parameter, FunctionScope const& scope) {
  Dwarf_Op* ops = nullptr;
  size_t n = 0;
  if (!one_location(parameter, DW_AT_location, scope.dwarf_pc, ops, n) || n > 2) return;
  if (n == 2 && ops[1].atom != DW_OP_deref) return;
  plan.atom = ops[0].atom;
  plan.offset = static_cast<int64_t>(ops[0].number);
  plan.dereference = n == 2;
  if (plan.atom == DW_OP_fbreg) {
    Dwarf_Op* base = nullptr;
    size_t base_n = 0;
    if (!one_location(scope.subprogram, DW_AT_frame_base, scope.dwarf_pc, base, base_n) ||
        base_n != 1 || !is_simple(base[0].atom)) {
      return;
    }
    plan.base_atom = base[0].atom;
    plan.base_offset = static_cast<int64_t>(base[0].number);
  } else if (!is_simple(plan.atom) || plan.atom == DW_OP_call_frame_cfa) {
    return;
  }
  plan.location_known = true;
}

void plan_type(ParameterPlan& plan, Dwarf_Die* parameter) {
  Dwarf_Die type;
  Dwarf_Word size = 0;
  if (!type_of(parameter, type) || dwarf_aggregate_size(&type, &size) != 0) return;
  plan.type_known = true;
  plan.tag = dwarf_tag(&type);
  plan.size = size;
  if (plan.tag == DW_TAG_base_type) {
    plan.encoding = attribute_number(&type, DW_AT_encoding);
    char const* name = dwarf_diename(&type);
    // wchar_t is a 4-byte signed type here; it shows as a character all the same.
    plan.wide_character =
        plan.encoding == DW_ATE_UTF || (name != nullptr && std::strcmp(name, "wchar_t") == 0);
  }
  plan.smart_class = is_smart_pointer_class(&type);
  Dwarf_Die pointee;
  plan.smart_pointee =
      is_pointer_tag(plan.tag) && type_of(&type, pointee) && is_smart_pointer_class(&pointee);
}

ParameterPlan plan_parameter(Dwarf_Die* parameter, FunctionScope const& scope) {
  ParameterPlan plan;
  Dwarf_Attribute attribute;
  char const* name = dwarf_formstring(dwarf_attr_integrate(parameter, DW_AT_name, &attribute));
  plan.name = name != nullptr ? name : "";
  plan_type(plan, parameter);
  if (plan.type_known) plan_location(plan, parameter, scope);
  return plan;
}

uint64_t simple_value(uint8_t atom, int64_t offset, StackFrameRecord const& frame) {
  if (atom == DW_OP_call_frame_cfa) return frame.unwound_sp;  // the caller's stack pointer
  if (is_register(atom)) return frame_register(frame, atom - DW_OP_reg0);
  return frame_register(frame, atom - DW_OP_breg0) + static_cast<uint64_t>(offset);
}

Place locate(ParameterPlan const& plan, StackFrameRecord const& frame) {
  Place place{Where::memory, 0, 0};
  if (plan.atom == DW_OP_fbreg) {
    place.address =
        simple_value(plan.base_atom, plan.base_offset, frame) + static_cast<uint64_t>(plan.offset);
  } else if (is_register(plan.atom)) {
    place = Place{Where::in_register, 0, simple_value(plan.atom, 0, frame)};
  } else {
    place.address = simple_value(plan.atom, plan.offset, frame);
  }
  if (!plan.dereference) return place;
  // A class passed by value travels as a hidden reference: the slot holds its address.
  uint64_t target = place.value;
  if (place.where == Where::memory && !read_memory(place.address, &target, 8)) {
    return Place{Where::unreadable, 0, 0};
  }
  return Place{Where::memory, target, 0};
}

void write_printf(std::ostream& stream, char const* format, long long value) {
  char text[32];
  std::snprintf(text, sizeof(text), format, value);
  stream << text;
}

int64_t sign_extend(uint64_t value, uint64_t size) {
  unsigned int const shift = 64 - 8 * static_cast<unsigned int>(size);
  return static_cast<int64_t>(value << shift) >> shift;
}

void write_character(std::ostream& stream, uint64_t code, bool wide) {
  if (code >= 32 && code <= 127) {
    stream << '\'' << static_cast<char>(code) << '\'';
  } else if (wide) {
    write_printf(stream, "'\\x%04llx'", static_cast<long long>(code));
  } else {  // the narrow form prints the value as a sign-extended int: 0x80 is \xffffff80
    write_printf(stream, "\\x%02x", static_cast<int>(sign_extend(code, 1)));
  }
}

// Base types by their encoding; `bytes` holds the value, little-endian.
void write_base_value(std::ostream& stream, ParameterPlan const& plan, uint64_t bytes,
                      uint64_t address) {
  uint64_t const size = plan.size;
  bool const integral_size = size == 1 || size == 2 || size == 4 || size == 8;
  stream << '=';
  if (plan.encoding == DW_ATE_boolean && size == 1) {
    stream << (bytes != 0 ? "true" : "false");
  } else if (plan.wide_character && (size == 2 || size == 4)) {
    write_character(stream, bytes, true);
  } else if (plan.encoding == DW_ATE_signed_char && size == 1) {
    write_character(stream, bytes, false);
  } else if (plan.encoding == DW_ATE_signed && integral_size) {
    stream << sign_extend(bytes, size);
  } else if ((plan.encoding == DW_ATE_unsigned || plan.encoding == DW_ATE_unsigned_char) &&
             integral_size) {
    stream << bytes;
  } else if (plan.encoding == DW_ATE_float && (size == 4 || size == 8)) {
    float f = 0;
    double d = 0;
    std::memcpy(&f, &bytes, 4);
    std::memcpy(&d, &bytes, 8);
    if (size == 4) stream << f;
    if (size == 8) stream << d;
  } else {
    stream << "[bt:" << plan.encoding << ',';
    write_pointer(stream, address);
    stream << ',' << size << ']';
  }
}

// A pointer, and "<inv ptr>" behind it when its target cannot be read; false for null or
// unreadable, where the output ends.
bool follow_pointer(std::ostream& stream, uint64_t target) {
  write_pointer(stream, target);
  if (target == 0) return false;
  if (is_readable(target, 1)) return true;
  stream << "<inv ptr>";
  return false;
}

void write_value(std::ostream& stream, ParameterPlan const& plan, Place const& place) {
  uint64_t bytes = place.value;
  uint64_t const size = plan.size;
  if (place.where == Where::memory) read_memory(place.address, &bytes, size < 8 ? size : 8);
  if (size < 8) bytes &= (uint64_t{1} << (8 * size)) - 1;
  uint64_t inner = 0;
  if (plan.tag == DW_TAG_base_type) {
    write_base_value(stream, plan, bytes, place.address);
  } else if (is_pointer_tag(plan.tag) && size == 8) {
    stream << '=';
    // A pointer to a smart pointer shows one level further: what that one holds.
    if (follow_pointer(stream, bytes) && plan.smart_pointee && read_memory(bytes, &inner, 8)) {
      stream << "->";
      follow_pointer(stream, inner);
    }
  } else if (plan.smart_class) {
    stream << "=->";
    follow_pointer(stream, bytes);
  } else if (is_class_tag(plan.tag)) {
    stream << "=[";
    write_pointer(stream, place.address);
    stream << ',' << streamers::Hex(size, false) << ']';
  } else if (plan.tag == DW_TAG_enumeration_type && size == 4) {
    stream << '=' << sign_extend(bytes, 4);
  } else {
    stream << "=[tag:" << plan.tag << ',';
    write_pointer(stream, place.address);
    stream << ',' << size << ']';
  }
}

void render_parameter(ParameterRenderState& state, ParameterPlan const& plan) {
  state.count += 1;
  if (state.count > 1) state.stream << ", ";
  state.stream << plan.name;
  if (!plan.type_known) {
    state.stream << "=<unk type>";
    return;
  }
  Place const place = plan.location_known ? locate(plan, state.frame) : Place{Where::nowhere, 0, 0};
  if (place.where == Where::nowhere || (place.where == Where::in_register && plan.size > 8)) {
    state.stream << "=<unavail>";
    return;
  }
  if (place.where == Where::unreadable ||
      (place.where == Where::memory && !is_readable(place.address, plan.size))) {
    state.stream << "=<inv stack>";
    return;
  }
  write_value(state.stream, plan, place);
}

}  // namespace

std::string qualified_type_name(Dwarf_Die* type) {
  char const* own = dwarf_diename(type);
  std::string name = own != nullptr ? own : "";
  Dwarf_Die* scopes = nullptr;
  int const n = dwarf_getscopes_die(type, &scopes);
  for (int i = 1; i < n; ++i) {
    int const tag = dwarf_tag(&scopes[i]);
    if (tag != DW_TAG_namespace && !is_class_tag(tag)) continue;
    char const* scope_name = dwarf_diename(&scopes[i]);
    name.insert(0,
                std::string(scope_name != nullptr ? scope_name : "(anonymous namespace)") + "::");
  }
  std::free(scopes);
  return name;
}

ParametersPlan plan_parameters(FunctionScope const& scope, unsigned int limit) {
  ParametersPlan plan;
  Dwarf_Die child;
  if (dwarf_child(scope.function, &child) != 0) return plan;
  do {
    if (dwarf_tag(&child) != DW_TAG_formal_parameter) continue;
    plan.count += 1;
    if (plan.count <= limit) plan.shown.push_back(plan_parameter(&child, scope));
  } while (dwarf_siblingof(&child, &child) == 0);
  return plan;
}

void render_frame_parameters(ParameterRenderState& state, ParametersPlan const& plan) {
  for (ParameterPlan const& parameter : plan.shown) render_parameter(state, parameter);
  if (plan.count > plan.shown.size()) {
    state.stream << ", <" << plan.count - plan.shown.size() << " omitted>";
  }
}

}  // namespace impl
}  // namespace tqcore
