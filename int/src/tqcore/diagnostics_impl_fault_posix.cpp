// Processor faults as signals: the record of a fault in the reports' form, the per-thread
// fault state in an alternate-stack block, the reporting claim, the watchdog, and the
// signal-safe report of a thread that has no recovery point.
#include "diagnostics_impl_fault.h"

#include "diagnostics_impl_internal.h"

#include <link.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <iterator>
#include <new>

namespace tqcore {
namespace impl {
namespace {

constexpr size_t kGuardSize = 4096;
constexpr size_t kAlternateStackSize = size_t{256} * 1024;
constexpr size_t kStateSize = (sizeof(FaultState) + 4095) & ~size_t{4095};
constexpr size_t kBlockSize = kGuardSize + kAlternateStackSize + kStateSize;

// Page-fault error code bits of x86-64, as the kernel passes them in REG_ERR.
constexpr uint64_t kPageFaultWrite = 0x2;
constexpr uint64_t kPageFaultFetch = 0x10;
// Faults this far below a stack's low bound are taken for an overflow.
constexpr uint64_t kStackGuardReach = uint64_t{1} << 20;

__attribute__((tls_model("initial-exec"))) thread_local FaultState* g_faultState = nullptr;

std::atomic<uint32_t> g_reporter{0};
char g_crashDump[512];
std::atomic<bool> g_crashDumpKnown{false};

struct CodeOfSignal {
  int signal;
  int code;  // si_code, or 0 for every other code of that signal
  uint32_t fault;
};

constexpr CodeOfSignal kSignalCodes[] = {
    {SIGBUS, BUS_ADRALN, 0x80000002u}, {SIGBUS, 0, 0xC0000006u},
    {SIGFPE, FPE_INTDIV, 0xC0000094u}, {SIGFPE, FPE_INTOVF, 0xC0000095u},
    {SIGFPE, FPE_FLTDIV, 0xC000008Eu}, {SIGFPE, FPE_FLTOVF, 0xC0000091u},
    {SIGFPE, FPE_FLTUND, 0xC0000093u}, {SIGFPE, FPE_FLTRES, 0xC000008Fu},
    {SIGFPE, FPE_FLTINV, 0xC0000090u}, {SIGFPE, FPE_FLTSUB, 0xC000008Cu},
    {SIGILL, ILL_PRVOPC, 0xC0000096u}, {SIGILL, ILL_PRVREG, 0xC0000096u},
    {SIGILL, 0, 0xC000001Du},          {SIGTRAP, TRAP_TRACE, 0x80000004u},
    {SIGTRAP, 0, 0x80000003u},         {SIGSEGV, 0, kCodeAccessViolation},
};

struct SignalName {
  int signal;
  char const* name;
};

constexpr SignalName kSignalNames[] = {
    {SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},   {SIGILL, "SIGILL"},
    {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"}, {SIGALRM, "SIGALRM"},
};

uint32_t code_of(int signal, int code) noexcept {
  for (CodeOfSignal const& entry : kSignalCodes) {
    if (entry.signal == signal && (entry.code == code || entry.code == 0)) return entry.fault;
  }
  return 0;
}

uint64_t access_type(ucontext_t const& context) noexcept {
  auto const error = static_cast<uint64_t>(context.uc_mcontext.gregs[REG_ERR]);
  if ((error & kPageFaultFetch) != 0) return 8;
  return (error & kPageFaultWrite) != 0 ? 1 : 0;
}

bool is_stack_overflow(uint64_t address) noexcept {
  StackBounds const stack = thread_stack_bounds();
  return stack.low != 0 && address < stack.low + 4096 && address + kStackGuardReach >= stack.low;
}

void copy_context(FaultState& state, ucontext_t const& context) noexcept {
  state.context = context;
  if (context.uc_mcontext.fpregs != nullptr) {
    state.fpstate = *context.uc_mcontext.fpregs;
    state.context.uc_mcontext.fpregs = &state.fpstate;
  }
}

void record_fault(FaultState& state, int signal, siginfo_t const& info,
                  ucontext_t const& context) noexcept {
  fault_record_from_signal(signal, info, context, state.record);
  copy_context(state, context);
  state.frame_count = 0;
  if (state.record.code != kCodeStackOverflow) {
    StackFrameRecord* end =
        capture_stack_frames(&context, state.frames, state.frames + STACK_FRAME_CAPACITY);
    state.frame_count = static_cast<size_t>(end - state.frames);
  }
}

ExceptionPointers pointers_of(FaultState const& state) noexcept {
  ExceptionPointers pointers;
  pointers.record = &state.record;
  pointers.context = &state.context;
  pointers.frames_begin = state.frames;
  pointers.frames_end = state.frames + state.frame_count;
  return pointers;
}

void write_module_of(SafeText& line, uint64_t ip) noexcept {
  dl_find_object object;
  if (_dl_find_object(as_pointer(ip), &object) != 0) {
    line.text("<unknown module>");
    return;
  }
  auto const* map = object.dlfo_link_map;
  char program[512];
  char const* name = map != nullptr && map->l_name != nullptr ? map->l_name : "";
  if (name[0] == '\0') {
    // The main program's link map has no name.
    ssize_t const length = readlink("/proc/self/exe", program, sizeof(program) - 1);
    program[length > 0 ? length : 0] = '\0';
    name = length > 0 ? program : "<main program>";
  }
  line.text(name).text("+").hex(ip - reinterpret_cast<uint64_t>(object.dlfo_map_start), 0);
}

// No symbols: the frames name their module and offset, which any symboliser turns into lines.
void write_raw_frames(FaultState const& state) noexcept {
  SafeText line;
  line.text("Stack Trace (module+offset):\n").write_to(STDERR_FILENO);
  if (state.record.code == kCodeStackOverflow) {
    line.clear();
    line.text("<failed>\n").write_to(STDERR_FILENO);
  }
  for (size_t i = 0; i < state.frame_count; ++i) {
    line.clear();
    line.text("[").hex(state.frames[i].ip, 16).text("]");
    write_module_of(line, state.frames[i].ip);
    line.text("\n").write_to(STDERR_FILENO);
  }
}

constexpr struct {
  char const* name;
  int index;
} kReportRegisters[] = {
    {"rip", REG_RIP}, {"rsp", REG_RSP}, {"rbp", REG_RBP}, {"rax", REG_RAX}, {"rbx", REG_RBX},
    {"rcx", REG_RCX}, {"rdx", REG_RDX}, {"rsi", REG_RSI}, {"rdi", REG_RDI}, {"r8", REG_R8},
    {"r9", REG_R9},   {"r10", REG_R10}, {"r11", REG_R11}, {"r12", REG_R12}, {"r13", REG_R13},
    {"r14", REG_R14}, {"r15", REG_R15}, {"efl", REG_EFL},
};

void write_fault_report(FaultState const& state, bool dumped) noexcept {
  FaultRecord const& record = state.record;
  SafeText text;
  char const* what = fault_text(record.code);
  text.text("\n*** CRITICAL-ERROR - fault on thread ").hex(current_thread_id(), 0);
  if (record.code == kCodeAccessViolation) what = "Access violation";
  text.text("\nFault \"").text(what != nullptr ? what : "Unknown fault").text("\" (");
  text.hex(record.code, 8).text(", ").text(signal_name(record.signal)).text(") at address ");
  text.hex(record.address, 16).text("\nParameters: ");
  for (uint32_t i = 0; i < record.parameter_count; ++i) {
    text.text(i == 0 ? "" : ", ").hex(record.parameters[i], 16);
  }
  text.text("\nRegisters:").write_to(STDERR_FILENO);
  text.clear();
  for (auto const& reg : kReportRegisters) {
    text.text(" ").text(reg.name).text("=");
    text.hex(static_cast<uint64_t>(state.context.uc_mcontext.gregs[reg.index]), 16);
  }
  text.text("\n").write_to(STDERR_FILENO);
  write_raw_frames(state);
  text.clear();
  if (dumped) {
    text.text("Created memory dump: ").text(state.dump_path);
  } else {
    text.text("Unable to create memory dump!");
  }
  text.text("\n!!!!! Aborting process NOW !!!!!\n").write_to(STDERR_FILENO);
}

// A fault on the thread that is reporting one ends the process at once; any other thread
// waits for the reporter to end it.
[[noreturn]] void fault_while_reporting(int signal) noexcept {
  if (is_crash_reporter()) {
    SafeText text;
    text.text("\n*** CRITICAL-ERROR - ").text(signal_name(signal));
    text.text(" while reporting a crash; aborting\n").write_to(STDERR_FILENO);
    abort_process();
  }
  for (;;) pause();
}

void on_watchdog(int) noexcept {
  SafeText text;
  text.text("\n*** CRITICAL-ERROR - the crash report did not finish in time; aborting\n");
  text.write_to(STDERR_FILENO);
  abort_process();
}

constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP};
// The dispositions before the outermost guard installed the handlers: where signals sent by
// kill or raise go.
struct sigaction g_forward[std::size(kFaultSignals)];
std::atomic<int> g_handlerDepth{0};

void forward_signal(int signal, siginfo_t* info, void* context) noexcept {
  size_t slot = 0;
  while (slot < std::size(kFaultSignals) && kFaultSignals[slot] != signal) ++slot;
  if (slot == std::size(kFaultSignals)) return;
  struct sigaction const& previous = g_forward[slot];
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    if (previous.sa_sigaction != nullptr) previous.sa_sigaction(signal, info, context);
    return;
  }
  if (previous.sa_handler == SIG_IGN) return;
  if (previous.sa_handler != SIG_DFL) {
    previous.sa_handler(signal);
    return;
  }
  // Delivered again once this handler returns, with the default action.
  sigaction(signal, &previous, nullptr);
  raise(signal);
}

}  // namespace

char const* signal_name(int signal) noexcept {
  for (SignalName const& entry : kSignalNames) {
    if (entry.signal == signal) return entry.name;
  }
  return nullptr;
}

void fault_record_from_signal(int signal, siginfo_t const& info, ucontext_t const& context,
                              FaultRecord& record) noexcept {
  record = FaultRecord{};
  record.signal = signal;
  record.signal_code = info.si_code;
  record.code = code_of(signal, info.si_code);
  record.address = static_cast<uint64_t>(context.uc_mcontext.gregs[REG_RIP]);
  // int3 reports the instruction after it; the fault is the breakpoint itself.
  if (signal == SIGTRAP && info.si_code == SI_KERNEL) record.address -= 1;
  if (signal != SIGSEGV && signal != SIGBUS) return;
  auto const address = reinterpret_cast<uint64_t>(info.si_addr);
  record.parameter_count = 2;
  record.parameters[0] = access_type(context);
  record.parameters[1] = address;
  if (signal == SIGSEGV && is_stack_overflow(address)) record.code = kCodeStackOverflow;
}

uint32_t current_thread_id() noexcept { return static_cast<uint32_t>(syscall(SYS_gettid)); }

FaultState* thread_fault_state() noexcept { return g_faultState; }

bool pending_fault(ExceptionPointers& out) noexcept {
  FaultState const* state = g_faultState;
  if (state == nullptr || !state->pending) return false;
  out = pointers_of(*state);
  return true;
}

bool claim_crash_report() noexcept {
  uint32_t expected = 0;
  return g_reporter.compare_exchange_strong(expected, current_thread_id());
}

bool is_crash_reporter() noexcept {
  return g_reporter.load(std::memory_order_acquire) == current_thread_id();
}

void arm_crash_watchdog() noexcept {
  struct sigaction action {};
  action.sa_handler = on_watchdog;
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
  alarm(kCrashWatchdogSeconds);
}

void abort_process() noexcept {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(SIGABRT, &action, nullptr);
  sigset_t abort_only;
  sigemptyset(&abort_only);
  sigaddset(&abort_only, SIGABRT);
  pthread_sigmask(SIG_UNBLOCK, &abort_only, nullptr);
  raise(SIGABRT);
  _exit(128 + SIGABRT);
}

void remember_crash_dump(char const* path) noexcept {
  size_t const length = strnlen(path, sizeof(g_crashDump) - 1);
  std::memcpy(g_crashDump, path, length);
  g_crashDump[length] = '\0';
  g_crashDumpKnown.store(true, std::memory_order_release);
}

char const* crash_dump_path() noexcept {
  return g_crashDumpKnown.load(std::memory_order_acquire) ? g_crashDump : "";
}

// The handler of SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGTRAP while the diagnostic handlers
// are in force. Everything it calls is signal-safe.
void on_fault_signal(int signal, siginfo_t* info, void* raw_context) noexcept {
  auto const& context = *static_cast<ucontext_t const*>(raw_context);
  if (info->si_code <= 0) {
    forward_signal(signal, info, raw_context);
    return;
  }
  if (!claim_crash_report()) fault_while_reporting(signal);
  arm_crash_watchdog();
  FaultState local;
  FaultState* state = g_faultState != nullptr ? g_faultState : &local;
  record_fault(*state, signal, *info, context);
  ExceptionPointers const pointers = pointers_of(*state);
  if (state->recovery != nullptr) {
    state->dump = DumpOutcome::no_credit;
    if (acquire_dump_credit()) {
      bool const written = write_memory_dump(&pointers, dump_full, nullptr, state->dump_path,
                                             sizeof(state->dump_path));
      state->dump = written ? DumpOutcome::written : DumpOutcome::failed;
      if (written) remember_crash_dump(state->dump_path);
    }
    state->pending = true;
    siglongjmp(*state->recovery, 1);
  }
  bool const dumped =
      write_memory_dump(&pointers, dump_full, nullptr, state->dump_path, sizeof(state->dump_path));
  write_fault_report(*state, dumped);
  abort_process();
}

bool install_fault_handlers(struct sigaction* previous) noexcept {
  if (g_handlerDepth.fetch_add(1) != 0) return false;
  struct sigaction action {};
  action.sa_sigaction = on_fault_signal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < std::size(kFaultSignals); ++i) {
    sigaction(kFaultSignals[i], &action, &previous[i]);
    g_forward[i] = previous[i];
  }
  return true;
}

void restore_fault_handlers(struct sigaction const* previous, bool installed) noexcept {
  if (g_handlerDepth.fetch_sub(1) != 1 || !installed) return;
  for (size_t i = 0; i < std::size(kFaultSignals); ++i) {
    sigaction(kFaultSignals[i], &previous[i], nullptr);
  }
}

void* map_fault_block() noexcept {
  void* block =
      mmap(nullptr, kBlockSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) return nullptr;
  mprotect(block, kGuardSize, PROT_NONE);
  new (static_cast<char*>(block) + kGuardSize + kAlternateStackSize) FaultState();
  return block;
}

bool install_fault_block(void* block, stack_t* previous) noexcept {
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(block) + kGuardSize;
  stack.ss_size = kAlternateStackSize;
  if (sigaltstack(&stack, previous) != 0) {
    munmap(block, kBlockSize);
    return false;
  }
  g_faultState =
      reinterpret_cast<FaultState*>(static_cast<char*>(block) + kGuardSize + kAlternateStackSize);
  return true;
}

void remove_fault_block(void* block, stack_t const& previous) noexcept {
  sigaltstack(&previous, nullptr);
  g_faultState = nullptr;
  munmap(block, kBlockSize);
}

sigjmp_buf* set_fault_recovery(sigjmp_buf* point) noexcept {
  if (g_faultState == nullptr) return nullptr;
  sigjmp_buf* const previous = g_faultState->recovery;
  g_faultState->recovery = point;
  return previous;
}

}  // namespace impl

void find_current_exception(ExceptionPointers* out) noexcept {
  *out = ExceptionPointers{};
  impl::pending_fault(*out);
}

ScopedSignalAlternateStack::ScopedSignalAlternateStack() {
  preinitialize_diagnostics_libraries();
  if (impl::g_faultState != nullptr) {
    m_active = true;
    return;
  }
  m_block = impl::map_fault_block();
  if (m_block != nullptr && !impl::install_fault_block(m_block, &m_previous)) m_block = nullptr;
  m_active = m_block != nullptr;
}

ScopedSignalAlternateStack::~ScopedSignalAlternateStack() {
  if (m_block != nullptr) impl::remove_fault_block(m_block, m_previous);
}

}  // namespace tqcore
