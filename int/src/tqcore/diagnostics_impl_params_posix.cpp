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
#include <unordered_map>

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
bool frame_register(StackFrameRecord const& frame, unsigned int number, uint64_t& out) {
  if (number == 6) out = frame.fp;
  if (number == 7) out = frame.sp;
  return number == 6 || number == 7;
}

bool one_location(Dwarf_Die* die, unsigned int name, Dwarf_Addr pc, Dwarf_Op*& ops, size_t& n) {
  Dwarf_Attribute attribute;
  if (dwarf_attr(die, name, &attribute) == nullptr) return false;
  return dwarf_getlocation_addr(&attribute, pc, &ops, &n, 1) == 1 && n > 0;
}

bool frame_base(Dwarf_Die* subprogram, Dwarf_Addr pc, StackFrameRecord const& frame,
                uint64_t& out) {
  Dwarf_Op* ops = nullptr;
  size_t n = 0;
  if (!one_location(subprogram, DW_AT_frame_base, pc, ops, n) || n != 1) return false;
  uint8_t const atom = ops[0].atom;
  if (atom == DW_OP_call_frame_cfa) {
    out = frame.unwound_sp;  // the caller's stack pointer is this frame's CFA
    return true;
  }
  if (atom >= DW_OP_breg0 && atom <= DW_OP_breg31) {
    if (!frame_register(frame, atom - DW_OP_breg0, out)) return false;
    out += ops[0].number;
    return true;
  }
  return atom >= DW_OP_reg0 && atom <= DW_OP_reg31 && frame_register(frame, atom - DW_OP_reg0, out);
}

Place locate(Dwarf_Die* parameter, FunctionScope const& scope, StackFrameRecord const& frame) {
  Dwarf_Op* ops = nullptr;
  size_t n = 0;
  Place place{Where::nowhere, 0, 0};
  if (!one_location(parameter, DW_AT_location, scope.dwarf_pc, ops, n) || n > 2) return place;
  uint8_t const atom = ops[0].atom;
  uint64_t base = 0;
  if (atom == DW_OP_fbreg && frame_base(scope.subprogram, scope.dwarf_pc, frame, base)) {
    place = Place{Where::memory, base + ops[0].number, 0};
  } else if (atom >= DW_OP_breg0 && atom <= DW_OP_breg31 &&
             frame_register(frame, atom - DW_OP_breg0, base)) {
    place = Place{Where::memory, base + ops[0].number, 0};
  } else if (atom >= DW_OP_reg0 && atom <= DW_OP_reg31 &&
             frame_register(frame, atom - DW_OP_reg0, base)) {
    place = Place{Where::in_register, 0, base};
  } else {
    return place;
  }
  if (n == 1) return place;
  if (ops[1].atom != DW_OP_deref) return Place{Where::nowhere, 0, 0};
  // A class passed by value travels as a hidden reference: the slot holds its address.
  uint64_t target = place.value;
  if (place.where == Where::memory && !read_memory(place.address, &target, 8)) {
    return Place{Where::unreadable, 0, 0};
  }
  return Place{Where::memory, target, 0};
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

void write_printf(std::ostream& stream, char const* format, long long value) {
  char text[32];
  std::snprintf(text, sizeof(text), format, value);
  stream << text;
}

void write_character(std::ostream& stream, uint64_t code, bool wide, int64_t as_signed) {
  if (code >= 32 && code <= 127) {
    stream << '\'' << static_cast<char>(code) << '\'';
  } else if (wide) {
    write_printf(stream, "'\\x%04llx'", static_cast<long long>(code));
  } else {  // the narrow form prints the value as a sign-extended int: 0x80 is \xffffff80
    write_printf(stream, "\\x%02x", static_cast<int>(as_signed));
  }
}

int64_t sign_extend(uint64_t value, size_t size) {
  unsigned int const shift = 64 - 8 * static_cast<unsigned int>(size);
  return static_cast<int64_t>(value << shift) >> shift;
}

// Base types by their encoding; `bytes` holds the value, little-endian.
void write_base_value(std::ostream& stream, Dwarf_Die* type, uint64_t bytes, size_t size,
                      uint64_t address) {
  uint64_t const encoding = attribute_number(type, DW_AT_encoding);
  char const* name = dwarf_diename(type);
  bool const wide =
      encoding == DW_ATE_UTF || (name != nullptr && std::strcmp(name, "wchar_t") == 0);
  bool const integral_size = size == 1 || size == 2 || size == 4 || size == 8;
  stream << '=';
  if (encoding == DW_ATE_boolean && size == 1) {
    stream << (bytes != 0 ? "true" : "false");
  } else if (wide && (size == 2 || size == 4)) {
    write_character(stream, bytes, true, 0);
  } else if (encoding == DW_ATE_signed_char && size == 1) {
    write_character(stream, bytes, false, sign_extend(bytes, 1));
  } else if (encoding == DW_ATE_signed && integral_size) {
    stream << sign_extend(bytes, size);
  } else if ((encoding == DW_ATE_unsigned || encoding == DW_ATE_unsigned_char) && integral_size) {
    stream << bytes;
  } else if (encoding == DW_ATE_float && (size == 4 || size == 8)) {
    float f = 0;
    double d = 0;
    std::memcpy(&f, &bytes, 4);
    std::memcpy(&d, &bytes, 8);
    if (size == 4) stream << f;
    if (size == 8) stream << d;
  } else {
    stream << "[bt:" << encoding << ',' << streamers::Pointer(reinterpret_cast<void*>(address))
           << ',' << size << ']';
  }
}

// A pointer, and "<inv ptr>" behind it when its target cannot be read; false for null or
// unreadable, where the output ends.
bool follow_pointer(std::ostream& stream, uint64_t target) {
  stream << streamers::Pointer(reinterpret_cast<void*>(target));
  if (target == 0) return false;
  if (is_readable(target, 1)) return true;
  stream << "<inv ptr>";
  return false;
}

// A class's qualified name takes a walk of its whole unit to find: the answer is kept by the
// address of the class's debugging entry.
std::unordered_map<void const*, bool>* g_smartClasses = nullptr;

bool is_smart_pointer_class(Dwarf_Die* type) {
  Dwarf_Word size = 0;
  if (!is_class_tag(dwarf_tag(type)) || dwarf_aggregate_size(type, &size) != 0 || size < 8) {
    return false;
  }
  if (g_smartClasses == nullptr) g_smartClasses = new std::unordered_map<void const*, bool>();
  auto const known = g_smartClasses->find(type->addr);
  if (known != g_smartClasses->end()) return known->second;
  bool const smart = is_smart_pointer_type_name(qualified_type_name(type));
  g_smartClasses->emplace(type->addr, smart);
  return smart;
}

// A pointer to a smart pointer shows one level further: what that one holds.
void write_pointer_value(std::ostream& stream, Dwarf_Die* type, uint64_t value) {
  stream << '=';
  Dwarf_Die pointee;
  uint64_t inner = 0;
  if (!follow_pointer(stream, value) || !type_of(type, pointee) ||
      !is_smart_pointer_class(&pointee) || !read_memory(value, &inner, 8)) {
    return;
  }
  stream << "->";
  follow_pointer(stream, inner);
}

void write_value(std::ostream& stream, Dwarf_Die* type, Place const& place, size_t size) {
  uint64_t bytes = place.value;
  if (place.where == Where::memory) read_memory(place.address, &bytes, size < 8 ? size : 8);
  if (size < 8) bytes &= (uint64_t{1} << (8 * size)) - 1;
  int const tag = dwarf_tag(type);
  auto* const at = reinterpret_cast<void*>(place.address);
  if (tag == DW_TAG_base_type) {
    write_base_value(stream, type, bytes, size, place.address);
  } else if (is_pointer_tag(tag) && size == 8) {
    write_pointer_value(stream, type, bytes);
  } else if (is_class_tag(tag) && is_smart_pointer_class(type)) {
    stream << "=->";
    follow_pointer(stream, bytes);
  } else if (is_class_tag(tag)) {
    stream << "=[" << streamers::Pointer(at) << ',' << streamers::Hex(size, false) << ']';
  } else if (tag == DW_TAG_enumeration_type && size == 4) {
    stream << '=' << sign_extend(bytes, 4);
  } else {
    stream << "=[tag:" << tag << ',' << streamers::Pointer(at) << ',' << size << ']';
  }
}

void render_parameter(ParameterRenderState& state, Dwarf_Die* parameter,
                      FunctionScope const& scope) {
  state.count += 1;
  if (state.count > state.limit) return;  // counted only
  if (state.count > 1) state.stream << ", ";
  Dwarf_Attribute attribute;
  char const* name = dwarf_formstring(dwarf_attr_integrate(parameter, DW_AT_name, &attribute));
  state.stream << (name != nullptr ? name : "");
  Dwarf_Die type;
  Dwarf_Word size = 0;
  if (!type_of(parameter, type) || dwarf_aggregate_size(&type, &size) != 0) {
    state.stream << "=<unk type>";
    return;
  }
  Place const place = locate(parameter, scope, state.frame);
  if (place.where == Where::nowhere || (place.where == Where::in_register && size > 8)) {
    state.stream << "=<unavail>";
    return;
  }
  if (place.where == Where::unreadable ||
      (place.where == Where::memory && !is_readable(place.address, size))) {
    state.stream << "=<inv stack>";
    return;
  }
  if (place.where == Where::memory && place.address + size > state.highest_read) {
    state.highest_read = place.address + size;
  }
  write_value(state.stream, &type, place, size);
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

void forget_type_names() {
  if (g_smartClasses != nullptr) g_smartClasses->clear();
}

void render_frame_parameters(ParameterRenderState& state, FunctionScope const& scope) {
  Dwarf_Die child;
  if (dwarf_child(scope.function, &child) != 0) return;
  do {
    if (dwarf_tag(&child) == DW_TAG_formal_parameter) render_parameter(state, &child, scope);
  } while (dwarf_siblingof(&child, &child) == 0);
  if (state.count > state.limit) state.stream << ", <" << state.count - state.limit << " omitted>";
}

}  // namespace impl
}  // namespace tqcore
