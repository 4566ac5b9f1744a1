// The report of a fault or of an exception of unknown kind: code, fault text, parameters,
// registers, stack trace and stack dump.
#include "diagnostics_impl_fault.h"

#include "diagnostics_impl_internal.h"
#include "error_exception_internal.h"

#include <tqcore/streamers.h>

#include <cxxabi.h>
#include <malloc.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <sstream>
#include <string>

namespace tqcore {
namespace impl {
namespace {

struct CodeText {
  uint32_t code;
  char const* text;
};

constexpr CodeText kFaultTexts[] = {
    {0x40000015u, "Fatal APP Exit"},
    {0x40010005u, "Control-C"},
    {0x40010008u, "Control-Break"},
    {0x406D1388u, "Set thread name"},
    {0x80000001u, "Guard page accessed"},
    {0x80000002u, "Datatype misalignment"},
    {0x80000003u, "Breakpoint"},
    {0x80000004u, "Single step"},
    {0xC0000006u, "In page error"},
    {0xC0000008u, "Invalid handle"},
    {0xC000000Du, "Invalid Parameter"},
    {0xC000001Du, "Illegal instruction"},
    {0xC0000025u, "Noncontinuable exception"},
    {0xC0000026u, "Invalid disposition"},
    {0xC000008Cu, "Array bounds exceeded"},
    {0xC000008Du, "Denormal floating point operand"},
    {0xC000008Eu, "Floating point divide-by-zero"},
    {0xC000008Fu, "Inexact floating point result"},
    {0xC0000090u, "Invalid floating point operation"},
    {0xC0000091u, "Floating point overflow"},
    {0xC0000092u, "Floating point stack check"},
    {0xC0000093u, "Floating point underflow"},
    {0xC0000094u, "Integer divide-by-zero"},
    {0xC0000095u, "Integer overflow"},
    {0xC0000096u, "Privileged instruction"},
    {0xC00000FDu, "Stack overflow"},
    {0xC000013Au, "Control-C Exit"},
    {0xC0000142u, "DLL initialization failure"},
    {0xC0000194u, "Possible Deadlock"},
    {0xE0434F4Du, "CLR Managed Exception"},
};

constexpr unsigned int kStackDumpFrames = 24;
constexpr size_t kObjectDumpLimit = 2048;

constexpr char kAccessViolationTemplate[] =
    "Access violation at address {@faultAddress}: Thread {@threadId} attempted "
    "'{@faultAccessType}' access at virtual address {@faultAccessAddress} without appropriate "
    "rights! \n\nRegisters: {@registers}\n\nStack Trace: \n{@stackTrace}\nStack Dump: "
    "\n{@stackDump}";
constexpr char kCppExceptionTemplate[] =
    "C++ exception of type '{@cppObjectType}' thrown by thread {@threadId}! \n\nObjectAddress: "
    "{@cppObjectAddress}\nObjectSize: {@cppObjectSize}\nObjectDump: {@cppObjectDump}\nRegisters: "
    "{@registers}\n\nStack Trace: \n{@stackTrace}\nStack Dump: \n{@stackDump}";
constexpr char kFaultTemplate[] =
    "Fault \"{@faultText}\" by thread {@threadId} at address {@faultAddress}! \n\nParameters: "
    "{@faultParameters}\nRegisters: {@registers}\n\nStack Trace: \n{@stackTrace}\nStack Dump: "
    "\n{@stackDump}";
constexpr char kUnknownTemplate[] =
    "Unknown exception occurred! \n\nRegisters: \n{@registers}\n\nStack Trace: "
    "\n{@stackTrace}\nStack Dump: \n{@stackDump}";

void add(ErrorParams& params, char const* name, std::string const& value) {
  params.add(name, std::strlen(name), value.data(), value.size());
}

template <class Streamable>
std::string text_of(Streamable const& value) {
  std::ostringstream stream;
  stream << value;
  return stream_text(stream);
}

std::string hex_text(uint64_t value, bool padded) { return text_of(streamers::Hex(value, padded)); }
std::string code_text(uint32_t code) { return text_of(streamers::Hex(code, true)); }
std::string pointer_text(uint64_t value) { return text_of(streamers::Pointer(as_pointer(value))); }

char const* access_type_text(uint64_t type) {
  switch (type) {
    case 0:
      return "read";
    case 1:
      return "write";
    case 8:
      return "execute";
    default:
      return nullptr;
  }
}

void add_access_params(ErrorParams& params, FaultRecord const& record) {
  if (record.parameter_count != 2) {
    add(params, "faultAccessType", "<unknown>");
    add(params, "faultAccessAddress", "<unknown>");
    return;
  }
  char const* type = access_type_text(record.parameters[0]);
  add(params, "faultAccessType", type != nullptr ? type : hex_text(record.parameters[0], false));
  add(params, "faultAccessAddress", hex_text(record.parameters[1], true));
}

std::string parameters_text(FaultRecord const& record) {
  std::ostringstream stream;
  unsigned int const count = std::min(record.parameter_count, FaultRecord::PARAMETER_CAPACITY);
  for (unsigned int i = 0; i < count; ++i) {
    if (i != 0) stream << ", ";
    stream << streamers::Hex(record.parameters[i], true);
  }
  return stream_text(stream);
}

// The C++ runtime's header before a thrown object in its allocation (libstdc++'s
// __cxa_refcounted_exception on x86-64).
constexpr size_t kThrownObjectHeader = 128;

// An exception_ptr is the address of the thrown object itself.
void const* exception_object_address(std::exception_ptr const& current) {
  static_assert(sizeof(std::exception_ptr) == sizeof(void*), "exception_ptr is one pointer");
  void const* object = nullptr;
  std::memcpy(&object, static_cast<void const*>(&current), sizeof(object));
  return object;
}

#if defined(__SANITIZE_ADDRESS__)
extern "C" int __sanitizer_get_ownership(void const* p);
extern "C" size_t __sanitizer_get_allocated_size(void const* p);
size_t usable_size(void const* block) {
  return __sanitizer_get_ownership(block) != 0 ? __sanitizer_get_allocated_size(block) : 0;
}
#else
size_t usable_size(void const* block) { return malloc_usable_size(const_cast<void*>(block)); }
#endif

// A class object's size is not recorded anywhere at run time. The runtime allocated header
// and object in one block, so the block's usable size less the header is the object's size
// rounded up to the allocator's 8 bytes. 0 where the block is not the allocator's own.
size_t thrown_object_size(void const* object) {
  if (object == nullptr) return 0;
  size_t const usable = usable_size(static_cast<char const*>(object) - kThrownObjectHeader);
  return usable > kThrownObjectHeader ? usable - kThrownObjectHeader : 0;
}

// The object in flight, as the C++ runtime knows it.
struct ThrownObject {
  std::type_info const* type = nullptr;
  void const* address = nullptr;
  size_t size = 0;
};

// Fundamental types have a known size; a pointer's is the platform's.
size_t fundamental_size(std::type_info const& type) {
  struct Entry {
    std::type_info const& type;
    size_t size;
  };
  static Entry const kSizes[] = {
      {typeid(bool), sizeof(bool)},
      {typeid(char), sizeof(char)},
      {typeid(signed char), 1},
      {typeid(unsigned char), 1},
      {typeid(wchar_t), sizeof(wchar_t)},
      {typeid(char16_t), 2},
      {typeid(char32_t), 4},
      {typeid(short), sizeof(short)},
      {typeid(unsigned short), sizeof(short)},
      {typeid(int), sizeof(int)},
      {typeid(unsigned int), sizeof(int)},
      {typeid(long), sizeof(long)},
      {typeid(unsigned long), sizeof(long)},
      {typeid(long long), sizeof(long long)},
      {typeid(unsigned long long), sizeof(long long)},
      {typeid(float), sizeof(float)},
      {typeid(double), sizeof(double)},
      {typeid(long double), sizeof(long double)},
      {typeid(std::nullptr_t), sizeof(void*)},
  };
  for (Entry const& entry : kSizes) {
    if (entry.type == type) return entry.size;
  }
  return 0;
}

ThrownObject thrown_object() {
  ThrownObject object;
  object.type = abi::__cxa_current_exception_type();
  if (object.type == nullptr) return object;
  std::exception_ptr const current = std::current_exception();
  object.address = exception_object_address(current);
  object.size = fundamental_size(*object.type);
  if (dynamic_cast<abi::__pointer_type_info const*>(object.type) != nullptr) {
    object.size = sizeof(void*);
  }
  if (object.size == 0) object.size = thrown_object_size(object.address);
  return object;
}

std::string object_dump(ThrownObject const& object) {
  if (object.address == nullptr) return {};
  std::string text;
  size_t const size = std::min(object.size, kObjectDumpLimit);
  text.reserve(2 * size);
  auto const base = reinterpret_cast<uint64_t>(object.address);
  for (size_t i = 0; i < size; ++i) {
    unsigned char byte = 0;
    if (!read_memory(base + i, &byte, 1)) break;  // as far as it came
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

// The object's own record as the nested error when it is a std::exception.
ErrorInfo::Ptr nested_error_of_object(SourceLocation const& where) {
  try {
    throw;
  } catch (std::exception const& e) {
    try {
      return ErrorInfo::from_exception(e, where);
    } catch (...) {
      return {};
    }
  } catch (...) {
    return {};
  }
}

void add_object_params(ErrorParams& params, ThrownObject const& object) {
  add(params, "cppObjectType",
      object.type != nullptr ? demangled_type_name(*object.type) : std::string("<unknown>"));
  add(params, "cppObjectAddress", pointer_text(reinterpret_cast<uint64_t>(object.address)));
  add(params, "cppObjectSize", std::to_string(object.size));
  add(params, "cppObjectDump", object_dump(object));
}

void add_common_params(ErrorParams& params, ExceptionPointers const& pointers) {
  FaultRecord const& record = *pointers.record;
  add(params, "windowsFaultCode", code_text(record.code));
  add(params, "faultAddress", pointer_text(record.address));
  add(params, "faultParameters", parameters_text(record));
  if (char const* name = signal_name(record.signal)) add(params, "signal", name);
  if (pointers.context != nullptr) {
    add(params, "registers", format_registers(*pointers.context));
    if (record.code == kCodeStackOverflow) {
      // On an overflowed stack neither the walk nor the symbols are tried.
      std::ostringstream dump;
      dump_stack(dump, static_cast<uint64_t>(pointers.context->uc_mcontext.gregs[REG_RSP]), nullptr,
                 nullptr, 0);
      add(params, "stackDump", stream_text(dump));
      add(params, "stackTrace", "<failed>");
    } else {
      add_fault_stack_params(params, pointers);
    }
  }
  add_process_thread_params(params);
}

}  // namespace

char const* fault_text(uint32_t code) noexcept {
  for (CodeText const& entry : kFaultTexts) {
    if (entry.code == code) return entry.text;
  }
  return nullptr;
}

void add_process_thread_params(ErrorParams& params) {
  add(params, "processId", std::to_string(getpid()));
  add(params, "threadId", hex_text(current_thread_id(), false));
}

void add_fault_stack_params(ErrorParams& params, ExceptionPointers const& pointers) {
  StackFrameRecord walked[STACK_FRAME_CAPACITY];
  StackFrameRecord const* begin = pointers.frames_begin;
  StackFrameRecord const* end = pointers.frames_end;
  if (begin == nullptr) {
    begin = walked;
    end = capture_stack_frames(pointers.context, walked, walked + STACK_FRAME_CAPACITY);
  }
  try {
    SymbolEngineSession session;
    std::ostringstream trace;
    render_stack_frames(session, trace, begin, end);
    if (end - begin == STACK_FRAME_CAPACITY) trace << "(subsequent frames omitted)\n";
    add(params, "stackTrace", stream_text(trace));
  } catch (...) {
    // The dump below still has the frames.
  }
  try {
    std::ostringstream dump;
    dump_stack(dump, pointers.context, begin, end, kStackDumpFrames);
    add(params, "stackDump", stream_text(dump));
  } catch (...) {
    // Left out: the template shows the missing parameter as such.
  }
}

}  // namespace impl

ErrorInfo::Ptr make_fault_error_info(ExceptionPointers const& pointers,
                                     SourceLocation const& location) {
  FaultRecord const& record = *pointers.record;
  ErrorParams params;
  ErrorInfo::Ptr nested;
  ErrorCode const* code = &error::exception_fault;
  char const* message = impl::kFaultTemplate;
  if (record.code == impl::kCodeAccessViolation) {
    code = &error::exception_fault_accessViolation;
    message = impl::kAccessViolationTemplate;
    impl::add_access_params(params, record);
  } else if (record.code == impl::kCodeCppException) {
    code = &error::exception_fault_cppException;
    message = impl::kCppExceptionTemplate;
    impl::ThrownObject const object = impl::thrown_object();
    impl::add_object_params(params, object);
    if (object.type != nullptr) nested = impl::nested_error_of_object(location);
  } else {
    char const* text = impl::fault_text(record.code);
    impl::add(params, "faultText", text != nullptr ? text : impl::code_text(record.code));
  }
  impl::add_common_params(params, pointers);
  return ErrorInfo::create(*code, SourceString::create_reference(message), std::move(params),
                           location, std::move(nested));
}

ErrorInfo::Ptr ErrorInfo::from_anonymous_exception(SourceLocation const& location) {
  ExceptionPointers found;
  if (impl::pending_fault(found)) return make_fault_error_info(found, location);
  SourceLocation const* volatile where = &location;  // getcontext may be taken to return twice
  ucontext_t context;
  getcontext(&context);
  SourceLocation const& at = *where;
  if (abi::__cxa_current_exception_type() != nullptr) {
    FaultRecord record;
    record.code = impl::kCodeCppException;
    record.address = static_cast<uint64_t>(context.uc_mcontext.gregs[REG_RIP]);
    ExceptionPointers pointers;
    pointers.record = &record;
    pointers.context = &context;
    return make_fault_error_info(pointers, at);
  }
  ErrorParams params;
  impl::add(params, "registers", format_registers(context));
  ExceptionPointers pointers;
  pointers.context = &context;
  impl::add_fault_stack_params(params, pointers);
  impl::add_process_thread_params(params);
  return create(error::exception_unknown, SourceString::create_reference(impl::kUnknownTemplate),
                std::move(params), at);
}

}  // namespace tqcore
