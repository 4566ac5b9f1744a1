// The symbol engine and the symbolic frame line: module, function, parameters, file and line
// from the running process's own debugging information.
#include <dwarf.h>
#include <elfutils/libdwfl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include <tqcore/streamers.h>

#include "diagnostics_impl_symbols.h"
#include "static_instance_internal.h"

namespace tqcore {
namespace impl {
namespace {

constexpr size_t kSymbolNameCapacity = 4095;
constexpr size_t kCleanNameLimit = 256;
constexpr int kMaxFunctionsAtOneAddress = 64;

char* g_debuginfoPath = nullptr;
Dwfl_Callbacks const kCallbacks{dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo, nullptr,
                                &g_debuginfoPath};

// The module list and the debugging information read so far stay between renderings: reading
// them is the slow part of a report, and nothing here needs a fresh start. A module loaded
// since is found by reading the list again when an address lies in none.
struct SymbolEngine {
  pthread_mutex_t lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  unsigned int use_count = 0;
  Dwfl* dwfl = nullptr;
  bool reread = false;  // in the current outermost session
};
SymbolEngine g_engine;

bool report_modules(Dwfl* dwfl) {
  dwfl_report_begin(dwfl);
  int const failed = dwfl_linux_proc_report(dwfl, getpid());
  return dwfl_report_end(dwfl, nullptr, nullptr) == 0 && failed == 0;
}

bool start_engine() {
  if (g_engine.dwfl != nullptr) return true;
  Dwfl* dwfl = dwfl_begin(&kCallbacks);
  if (dwfl == nullptr) return false;
  if (!report_modules(dwfl)) {
    dwfl_end(dwfl);
    return false;
  }
  g_engine.dwfl = dwfl;
  return true;
}

Dwfl_Module* module_at(uint64_t pc) {
  Dwfl_Module* module = dwfl_addrmodule(g_engine.dwfl, pc);
  if (module == nullptr && !g_engine.reread) {
    g_engine.reread = true;
    report_modules(g_engine.dwfl);
    module = dwfl_addrmodule(g_engine.dwfl, pc);
  }
  return module;
}

char const* base_name(char const* path) {
  char const* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

void write_prefix(std::ostream& stream, uint64_t ip, Dwfl_Module* module) {
  stream << '[' << streamers::Pointer(reinterpret_cast<void*>(ip)) << ']';
  char const* name = module != nullptr ? dwfl_module_info(module, nullptr, nullptr, nullptr,
                                                          nullptr, nullptr, nullptr, nullptr)
                                       : nullptr;
  stream << (name != nullptr ? base_name(name) : "<unknown module>") << '!';
}

void write_clean_name(std::ostream& stream, std::string name) {
  if (name.size() > kSymbolNameCapacity) name.resize(kSymbolNameCapacity);
  name.resize(clean_decorated_name(&name[0], name.size(), kCleanNameLimit));
  stream << name;
}

std::string readable_name(char const* linkage_name) {
  std::string name = demangle(linkage_name);
  name.erase(std::min(name.find('@'), name.size()));  // a symbol's version: "f@@GLIBC_2.34"
  strip_function_signature(name);
  return name;
}

// By the linkage name; where there is none (functions in an unnamed namespace), the symbol
// table's name of an out-of-line function still carries the qualification.
std::string function_name(Dwarf_Die* die, Dwfl_Module* module, uint64_t pc) {
  Dwarf_Attribute attribute;
  char const* linkage = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_linkage_name, &attribute));
  if (linkage == nullptr) {
    linkage = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_MIPS_linkage_name, &attribute));
  }
  if (linkage == nullptr && dwarf_tag(die) == DW_TAG_subprogram) {
    linkage = dwfl_module_addrname(module, pc);
  }
  if (linkage != nullptr) return readable_name(linkage);
  char const* plain = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_name, &attribute));
  return plain != nullptr ? plain : "";
}

bool is_function(Dwarf_Die* die) {
  int const tag = dwarf_tag(die);
  return tag == DW_TAG_inlined_subroutine || tag == DW_TAG_subprogram;
}

// The functions at an instruction, innermost first: inlined ones, then the out-of-line one.
class FrameFunctions {
 public:
  FrameFunctions(Dwfl_Module* module, uint64_t pc) {
    Dwarf_Addr bias = 0;
    Dwarf_Die* unit = module != nullptr ? dwfl_module_addrdie(module, pc, &bias) : nullptr;
    if (unit == nullptr) return;
    m_unit = *unit;
    m_pc = pc - bias;
    // The scopes at an address run from an inlined function into its abstract definition;
    // the chain of callers it was inlined into is the parents of its concrete instance.
    Dwarf_Die* scopes = nullptr;
    int const n = dwarf_getscopes(&m_unit, m_pc, &scopes);
    int innermost = 0;
    while (innermost < n && !is_function(&scopes[innermost])) ++innermost;
    int const chain = innermost < n ? dwarf_getscopes_die(&scopes[innermost], &m_scopes) : 0;
    std::free(scopes);
    for (int i = 0; i < chain && m_count < kMaxFunctionsAtOneAddress; ++i) {
      if (is_function(&m_scopes[i])) m_functions[m_count++] = i;
      if (dwarf_tag(&m_scopes[i]) == DW_TAG_subprogram) break;
    }
  }
  ~FrameFunctions() { std::free(m_scopes); }
  FrameFunctions(FrameFunctions const&) = delete;
  FrameFunctions& operator=(FrameFunctions const&) = delete;

  int count() const { return m_count; }
  Dwarf_Die* function(int k) { return &m_scopes[m_functions[k]]; }
  FunctionScope scope(int k) { return FunctionScope{function(k), function(m_count - 1), m_pc}; }

  // " - file(line)" of the place where function `k` was inlined into the next one out.
  void write_call_site(std::ostream& stream, int k) {
    Dwarf_Attribute attribute;
    Dwarf_Word file = 0;
    Dwarf_Word line = 0;
    Dwarf_Files* files = nullptr;
    size_t file_count = 0;
    if (dwarf_formudata(dwarf_attr(function(k), DW_AT_call_file, &attribute), &file) != 0 ||
        dwarf_formudata(dwarf_attr(function(k), DW_AT_call_line, &attribute), &line) != 0 ||
        dwarf_getsrcfiles(&m_unit, &files, &file_count) != 0 || file >= file_count) {
      return;
    }
    char const* path = dwarf_filesrc(files, file, nullptr, nullptr);
    if (path != nullptr) stream << " - " << base_name(path) << '(' << line << ')';
  }

 private:
  Dwarf_Die m_unit{};
  Dwarf_Addr m_pc = 0;
  Dwarf_Die* m_scopes = nullptr;
  int m_functions[kMaxFunctionsAtOneAddress] = {};
  int m_count = 0;
};

void write_source_line(std::ostream& stream, Dwfl_Module* module, uint64_t ip) {
  Dwfl_Line* line = module != nullptr ? dwfl_module_getsrc(module, ip - 1) : nullptr;
  Dwarf_Addr address = 0;
  int number = 0;
  char const* file =
      line != nullptr ? dwfl_lineinfo(line, &address, &number, nullptr, nullptr, nullptr) : nullptr;
  if (file == nullptr) return;
  stream << " - " << base_name(file) << '(' << number << ')';
  if (ip != address) stream << '+' << streamers::Hex(ip - address, false);
}

bool write_symbol(std::ostream& stream, Dwfl_Module* module, FrameFunctions& functions,
                  uint64_t pc) {
  if (functions.count() > 0) {
    write_clean_name(stream, function_name(functions.function(0), module, pc));
    return true;
  }
  char const* symbol = module != nullptr ? dwfl_module_addrname(module, pc) : nullptr;
  if (symbol == nullptr) {
    stream << "<no symbols," << dwfl_errno() << '>';
    return false;
  }
  write_clean_name(stream, readable_name(symbol));
  return true;
}

void render_functions(std::ostream& stream, StackFrameRecord const& frame, Dwfl_Module* module,
                      FrameFunctions& functions) {
  for (int k = 0; k < functions.count(); ++k) {
    if (k > 0) write_prefix(stream, frame.ip, module);
    write_clean_name(stream, function_name(functions.function(k), module, frame.ip - 1));
    stream << '(';
    ParameterRenderState state{stream, frame};
    render_frame_parameters(state, functions.scope(k));
    stream << ')';
    if (k == 0) {
      write_source_line(stream, module, frame.ip);
    } else {
      functions.write_call_site(stream, k - 1);
    }
    stream << '\n';
  }
}

void render_frame(std::ostream& stream, StackFrameRecord const& frame) {
  uint64_t const pc = frame.ip - (frame.ip != 0 ? 1 : 0);  // inside the call, not after it
  Dwfl_Module* module = module_at(pc);
  write_prefix(stream, frame.ip, module);
  if (!is_code_address(frame.ip)) {
    stream << "<bad code ptr>\n";
  } else if (!is_readable(frame.unwound_sp, 4)) {
    stream << "<bad frame>\n";
  } else {
    FrameFunctions functions(module, pc);
    if (functions.count() > 0) return render_functions(stream, frame, module, functions);
    if (write_symbol(stream, module, functions, pc)) {
      stream << "(<no param info>)";
      write_source_line(stream, module, frame.ip);
    }
    stream << '\n';
  }
}

void render_without_engine(std::ostream& stream, StackFrameRecord const& frame) {
  stream << '[' << streamers::Pointer(reinterpret_cast<void*>(frame.ip)) << "]<unknown module>!";
  if (!is_code_address(frame.ip)) {
    stream << "<bad code ptr>\n";
  } else if (!is_readable(frame.unwound_sp, 4)) {
    stream << "<bad frame>\n";
  } else {
    stream << "<no symbols>\n";
  }
}

}  // namespace

void symbol_engine_before_fork() noexcept { pthread_mutex_lock(&g_engine.lock); }
void symbol_engine_after_fork(bool in_child) noexcept {
  if (in_child) {
    reset_recursive_lock(g_engine.lock);
  } else {
    pthread_mutex_unlock(&g_engine.lock);
  }
}

}  // namespace impl

SymbolEngineSession::~SymbolEngineSession() {
  if (!m_held) return;
  m_held = false;
  impl::g_engine.use_count -= 1;
  pthread_mutex_unlock(&impl::g_engine.lock);
}

bool SymbolEngineSession::acquire() {
  if (m_held) return true;
  pthread_mutex_lock(&impl::g_engine.lock);
  if (impl::g_engine.use_count == 0) {
    impl::g_engine.reread = false;
    if (!impl::start_engine()) {
      pthread_mutex_unlock(&impl::g_engine.lock);
      return false;
    }
  }
  impl::g_engine.use_count += 1;
  m_held = true;
  return true;
}

void render_stack_frames(SymbolEngineSession& session, std::ostream& stream,
                         StackFrameRecord const* begin, StackFrameRecord const* end) {
  bool const held = session.acquire();
  for (StackFrameRecord const* frame = begin; frame != end; ++frame) {
    if (held) {
      impl::render_frame(stream, *frame);
    } else {
      impl::render_without_engine(stream, *frame);
    }
  }
}

bool render_frame_symbol(SymbolEngineSession& session, std::ostream& stream, uint64_t ip) {
  if (!session.acquire()) {
    stream << "<no symbols>";
    return false;
  }
  uint64_t const pc = ip - (ip != 0 ? 1 : 0);
  Dwfl_Module* module = impl::module_at(pc);
  impl::FrameFunctions functions(module, pc);
  return impl::write_symbol(stream, module, functions, pc);
}

void render_frame_line(SymbolEngineSession& session, std::ostream& stream, uint64_t ip) {
  if (session.acquire()) impl::write_source_line(stream, impl::module_at(ip - 1), ip);
}

}  // namespace tqcore
