// main_invoker and what it knows of the process: the main thread, the arguments, whether main
// has returned; the diagnostic handlers it keeps in force around main; the terminate handler.
#include <tqcore/main_intercept.h>

#include "diagnostics_impl_fault.h"
#include "file_ids.h"

#include <tqcore/diagnostics.h>

#include <ace/Init_ACE.h>

#include <sys/mman.h>
#include <ucontext.h>

#include <atomic>
#include <cstring>
#include <sstream>

namespace tqcore {
namespace impl {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("main_intercept");
// The stack the report of a fault is built on: the faulting frames stay as they were.
constexpr size_t kReportStackSize = size_t{8} << 20;
// Room between the recovery point and main's frames for the calls that switch stacks.
constexpr size_t kRecoveryPadding = 2048;

std::atomic<uint32_t> g_mainThread{0};
std::atomic<uint32_t> g_mainExited{0};

std::vector<std::string>& arguments() {
  static std::vector<std::string> stored;
  return stored;
}

constexpr char kTerminateDumped[] =
    "!!! std::terminate() called; exception thrown while unwinding stack from another "
    "exception, pure virtual method called, etc. !!!\n\nCreated memory dump: {}";
constexpr char kTerminateNoDump[] =
    "!!! std::terminate() called; exception thrown while unwinding stack from another "
    "exception, pure virtual method called, etc. !!!\n\nUnable to create memory dump!";

SourceLocation const& main_location() {
  static SourceLocation const location =
      TQCORE_SOURCE_LOCATION("tqcore::impl::main_invoker()", kFileId);
  return location;
}

// What main_invoker's `catch (...)` does, for a fault: dump (already written by the signal
// handler), trace, and end as an object leaving main would.
[[noreturn]] void report_fault() {
  dump_and_trace_before_exit(main_location());
  trace_critical_error(main_location(),
                       "Application main() function exited with unknown exception!", nullptr, 0);
  std::terminate();
}

ucontext_t g_reportContext;
ucontext_t g_faultedContext;

[[noreturn]] void report_fault_on_own_stack() {
  void* stack = mmap(nullptr, kReportStackSize, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (stack == MAP_FAILED || getcontext(&g_reportContext) != 0) report_fault();
  g_reportContext.uc_stack.ss_sp = stack;
  g_reportContext.uc_stack.ss_size = kReportStackSize;
  g_reportContext.uc_link = nullptr;
  makecontext(&g_reportContext, report_fault, 0);
  swapcontext(&g_faultedContext, &g_reportContext);
  report_fault();  // only if the switch failed
}

__attribute__((noinline)) int call_padded(int (*main_function)(int, char**), int argc,
                                          char** argv) {
  char padding[kRecoveryPadding];
  asm volatile("" : : "r"(padding) : "memory");  // kept: it is the room, not its contents
  int const result = main_function(argc, argv);
  asm volatile("" : : "r"(padding) : "memory");
  return result;
}

class RecoveryScope {
 public:
  explicit RecoveryScope(sigjmp_buf* point) noexcept : m_previous(set_fault_recovery(point)) {}
  ~RecoveryScope() { set_fault_recovery(m_previous); }
  RecoveryScope(RecoveryScope const&) = delete;
  RecoveryScope& operator=(RecoveryScope const&) = delete;

 private:
  sigjmp_buf* m_previous;
};

struct MainCall {
  int (*function)(int, char**);
  int argc;
  char** argv;
};

__attribute__((noinline)) int call_with_recovery(MainCall const* volatile call) {
  sigjmp_buf point;
  RecoveryScope const scope(&point);
  if (sigsetjmp(point, 1) != 0) report_fault_on_own_stack();
  return call_padded(call->function, call->argc, call->argv);
}

std::atomic<unsigned int> g_managedCount{0};
// Where a managed finish stands (0 running, 1 finishing, 2 finished) and who finishes it:
// kept for a debugger looking at a process that hangs in ACE::fini.
std::atomic<unsigned int> g_managedPhase{0};
std::atomic<uint32_t> g_managedFinisher{0};

}  // namespace

void diagnostic_terminate_handler() {
  if (!claim_crash_report() && !is_crash_reporter()) {
    for (;;) pause();  // another thread's crash ends the process
  }
  static std::atomic<bool> entered{false};
  if (entered.exchange(true)) abort_process();
  arm_crash_watchdog();
  static SourceLocation const where =
      TQCORE_SOURCE_LOCATION("tqcore::impl::diagnostic_terminate_handler()", kFileId);
  char path[512] = {};
  bool dumped = crash_dump_path()[0] != '\0';
  if (dumped) {
    std::strncpy(path, crash_dump_path(), sizeof(path) - 1);
  } else {
    dumped = create_diagnostic_memory_dump(dump_full, nullptr, path, sizeof(path));
  }
  if (dumped) {
    trace_critical_error(where, kTerminateDumped, path, std::strlen(path));
  } else {
    trace_critical_error(where, kTerminateNoDump, nullptr, 0);
  }
  try {
    std::ostringstream text;
    text << *ErrorInfo::from_anonymous_exception(where);
    std::string const cause = text.str();
    trace_critical_error(where, "Exception that probably caused termination: {}", cause.data(),
                         cause.size());
  } catch (...) {
    // The cause is a bonus; the abort below is not.
  }
  trace_critical_error(where, "!!!!! Aborting process NOW !!!!!", nullptr, 0);
  abort_process();
}

}  // namespace impl

int main_invoker(int (*main_function)(int, char**), int argc, char** argv) {
  ScopedDiagnosticSignalHandler guard;
  preinitialize_diagnostics_libraries();
  impl::g_mainThread.store(impl::current_thread_id());
  for (int i = 0; i < argc; ++i) impl::arguments().emplace_back(argv[i]);
  int result = 0;
  try {
    impl::MainCall const call{main_function, argc, argv};
    result = impl::call_with_recovery(&call);
  } catch (std::exception const& e) {
    char const* what = e.what();
    trace_critical_error(impl::main_location(),
                         "Application main() function exited with an exception!  Exception: {}",
                         what, std::strlen(what));
    throw;
  } catch (...) {
    impl::dump_and_trace_before_exit(impl::main_location());
    trace_critical_error(impl::main_location(),
                         "Application main() function exited with unknown exception!", nullptr, 0);
    throw;
  }
  impl::g_mainExited.exchange(1);
  return result;
}

bool has_main_exited() noexcept { return impl::g_mainExited.load() != 0; }

bool is_main_thread() noexcept { return impl::g_mainThread.load() == impl::current_thread_id(); }

std::string const& program_path() noexcept {
  static std::string const empty;
  std::vector<std::string> const& stored = impl::arguments();
  return stored.empty() ? empty : stored.front();
}

std::vector<std::string> const& program_arguments() noexcept { return impl::arguments(); }

ScopedDiagnosticSignalHandler::ScopedDiagnosticSignalHandler() {
  preinitialize_diagnostics_libraries();
  impl::local_time_now();  // the offset a crash report converts with
  if (impl::thread_fault_state() == nullptr) {
    m_alternateStack = impl::map_fault_block();
    if (m_alternateStack != nullptr &&
        !impl::install_fault_block(m_alternateStack, &m_previousStack)) {
      m_alternateStack = nullptr;
    }
  }
  m_installed = impl::install_fault_handlers(m_previous);
  m_previousTerminate = std::set_terminate(impl::diagnostic_terminate_handler);
}

ScopedDiagnosticSignalHandler::~ScopedDiagnosticSignalHandler() {
  std::set_terminate(m_previousTerminate);
  m_previousTerminate = nullptr;
  impl::restore_fault_handlers(m_previous, m_installed);
  if (m_alternateStack != nullptr) impl::remove_fault_block(m_alternateStack, m_previousStack);
}

}  // namespace tqcore

extern "C" {

void tqcore_managed_init() {
  if (tqcore::impl::g_managedCount.fetch_add(1) == 0) ACE::init();
}

void tqcore_managed_fini() {
  if (tqcore::impl::g_managedCount.fetch_sub(1) != 1) return;
  tqcore::impl::g_managedPhase.store(1);
  tqcore::impl::g_managedFinisher.store(tqcore::impl::current_thread_id());
  while (ACE::fini() == 1) {
  }
  tqcore::impl::g_managedPhase.store(2);
}
}
