// The symbol engine and the symbolic frame line: module, function, parameters, file and line
// from the running process's own debugging information.
#include <dwarf.h>
#include <elfutils/libdwfl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <tqcore/streamers.h>

#include "diagnostics_impl_symbols.h"
#include "static_instance_internal.h"

namespace tqcore {
namespace impl {
namespace {

constexpr size_t kSymbolNameCapacity = 4095;
constexpr size_t kCleanNameLimit = 256;
constexpr int kMaxFunctionsAtOneAddress = 64;
constexpr unsigned int kParametersShown = 8;

char* g_debuginfoPath = nullptr;
Dwfl_Callbacks const kCallbacks{dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo, nullptr,
                                &g_debuginfoPath};

// The module list and the debugging information read so far stay between renderings: reading
// them is the slow part of a report, and nothing here needs a fresh start. A module loaded
// since is found by reading the list again when an address lies in none.
struct FrameText;
using FrameTexts = std::unordered_map<uint64_t, FrameText>;

struct SymbolEngine {
  pthread_mutex_t lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  unsigned int use_count = 0;
  Dwfl* dwfl = nullptr;
  bool reread = false;          // in the current outermost session
  FrameTexts* texts = nullptr;  // never freed: a report may run during exit
};
SymbolEngine g_engine;

// What a frame's lines say that does not depend on the call, worked out once an address: the
// debugging information is searched by walking it, which costs far more than the rendering.
struct FunctionText {
  std::string name;
  ParametersPlan parameters;
  std::string place;  // " - file(line)+offset", or for an outer function its call site
};
struct FrameText {
  std::string module;                   // "name!" or "<unknown module>!"
  uint64_t object = 0;                  // the loaded object's base, to tell that it is still there
  std::vector<FunctionText> functions;  // none without debugging information
  bool has_symbol = false;
  std::string symbol;  // without debugging information: the symbol table's name, or
                       // "<no symbols,N>"
  std::string line;    // and its source line
};
constexpr size_t kFrameTextLimit = 8192;

bool report_modules(Dwfl* dwfl) {
  // Modules that went away take their debugging information with them.
  if (g_engine.texts != nullptr) g_engine.texts->clear();
  dwfl_report_begin(dwfl);
  int const failed = dwfl_linux_proc_report(dwfl, getpid());
  return dwfl_report_end(dwfl, nullptr, nullptr) == 0 && failed == 0;
}

// Runs with the engine's lock held: it must fail by its answer, never by an exception.
bool start_engine() {
  if (g_engine.texts == nullptr) g_engine.texts = new (std::nothrow) FrameTexts();
  if (g_engine.texts == nullptr) return false;
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

std::string module_text(Dwfl_Module* module) {
  char const* name = module != nullptr ? dwfl_module_info(module, nullptr, nullptr, nullptr,
                                                          nullptr, nullptr, nullptr, nullptr)
                                       : nullptr;
  return std::string(name != nullptr ? base_name(name) : "<unknown module>") + '!';
}

void write_ip(std::ostream& stream, uint64_t ip) {
  stream.put('[');
  write_pointer(stream, ip);
  stream.put(']');
}

std::string clean_name(std::string name) {
  if (name.size() > kSymbolNameCapacity) name.resize(kSymbolNameCapacity);
  name.resize(clean_decorated_name(&name[0], name.size(), kCleanNameLimit));
  return name;
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
  std::string call_site(int k) {
    Dwarf_Attribute attribute;
    Dwarf_Word file = 0;
    Dwarf_Word line = 0;
    Dwarf_Files* files = nullptr;
    size_t file_count = 0;
    if (dwarf_formudata(dwarf_attr(function(k), DW_AT_call_file, &attribute), &file) != 0 ||
        dwarf_formudata(dwarf_attr(function(k), DW_AT_call_line, &attribute), &line) != 0 ||
        dwarf_getsrcfiles(&m_unit, &files, &file_count) != 0 || file >= file_count) {
      return std::string();
    }
    char const* path = dwarf_filesrc(files, file, nullptr, nullptr);
    if (path == nullptr) return std::string();
    return std::string(" - ") + base_name(path) + '(' + std::to_string(line) + ')';
  }

 private:
  Dwarf_Die m_unit{};
  Dwarf_Addr m_pc = 0;
  Dwarf_Die* m_scopes = nullptr;
  int m_functions[kMaxFunctionsAtOneAddress] = {};
  int m_count = 0;
};

std::string source_line(Dwfl_Module* module, uint64_t ip) {
  Dwfl_Line* line = module != nullptr ? dwfl_module_getsrc(module, ip - 1) : nullptr;
  Dwarf_Addr address = 0;
  int number = 0;
  char const* file =
      line != nullptr ? dwfl_lineinfo(line, &address, &number, nullptr, nullptr, nullptr) : nullptr;
  if (file == nullptr) return std::string();
  std::ostringstream text;
  text << " - " << base_name(file) << '(' << number << ')';
  if (ip != address) text << '+' << streamers::Hex(ip - address, false);
  return text.str();
}

FrameText describe(uint64_t ip) {
  uint64_t const pc = ip - (ip != 0 ? 1 : 0);  // inside the call, not after it
  Dwfl_Module* module = module_at(pc);
  FrameText text;
  text.module = module_text(module);
  object_base(ip, text.object);
  FrameFunctions functions(module, pc);
  for (int k = 0; k < functions.count(); ++k) {
    text.functions.push_back(
        FunctionText{clean_name(function_name(functions.function(k), module, pc)),
                     plan_parameters(functions.scope(k), kParametersShown),
                     k == 0 ? source_line(module, ip) : functions.call_site(k - 1)});
  }
  char const* symbol = module != nullptr ? dwfl_module_addrname(module, pc) : nullptr;
  text.has_symbol = symbol != nullptr || !text.functions.empty();
  if (symbol != nullptr && text.functions.empty()) {
    text.symbol = clean_name(readable_name(symbol));
    text.line = source_line(module, ip);
  } else if (symbol == nullptr) {
    text.symbol = "<no symbols," + std::to_string(dwfl_errno()) + '>';
  }
  return text;
}

// The description of a code address, worked out at its first rendering. Null for an address
// that is not code.
FrameText const* frame_text(uint64_t ip) {
  FrameTexts& texts = *g_engine.texts;
  auto const known = texts.find(ip);
  uint64_t object = 0;
  if (known != texts.end() && object_base(ip, object) && object == known->second.object) {
    return &known->second;
  }
  if (!is_code_address(ip)) return nullptr;
  if (texts.size() >= kFrameTextLimit) texts.clear();
  return &(texts[ip] = describe(ip));
}

void render_frame(std::ostream& stream, StackFrameRecord const& frame) {
  FrameText const* text = frame_text(frame.ip);
  write_ip(stream, frame.ip);
  if (text == nullptr) {
    stream << module_text(module_at(frame.ip - (frame.ip != 0 ? 1 : 0))) << "<bad code ptr>\n";
    return;
  }
  stream << text->module;
  if (!is_readable(frame.unwound_sp, 4)) {
    stream << "<bad frame>\n";
    return;
  }
  if (text->functions.empty()) {
    stream << text->symbol;
    if (text->has_symbol) stream << "(<no param info>)" << text->line;
    stream << '\n';
    return;
  }
  for (size_t k = 0; k < text->functions.size(); ++k) {
    FunctionText const& function = text->functions[k];
    if (k > 0) write_ip(stream, frame.ip);
    if (k > 0) stream << text->module;
    stream << function.name << '(';
    ParameterRenderState state{stream, frame};
    render_frame_parameters(state, function.parameters);
    stream << ')' << function.place << '\n';
  }
}

void render_without_engine(std::ostream& stream, StackFrameRecord const& frame) {
  write_ip(stream, frame.ip);
  stream << "<unknown module>!";
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

// A dump may be written in a signal handler while another thread holds the engine: it waits
// a bounded time instead of hanging the crash.
bool lock_symbol_engine_for_dump() noexcept {
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 5;
  return pthread_mutex_timedlock(&g_engine.lock, &deadline) == 0;
}
void unlock_symbol_engine_for_dump() noexcept { pthread_mutex_unlock(&g_engine.lock); }
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
  impl::ReadablePageMemo const memo;
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
  impl::FrameText const* text = impl::frame_text(ip);
  if (text == nullptr || !text->has_symbol) {
    stream << (text != nullptr ? text->symbol : "<no symbols,0>");
    return false;
  }
  stream << (text->functions.empty() ? text->symbol : text->functions.front().name);
  return true;
}

void render_frame_line(SymbolEngineSession& session, std::ostream& stream, uint64_t ip) {
  if (session.acquire()) stream << impl::source_line(impl::module_at(ip - 1), ip);
}

}  // namespace tqcore
