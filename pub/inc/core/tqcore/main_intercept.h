/// @file
/// The wrapper around a program's main: it knows the main thread, the arguments and whether
/// main has returned, and turns a crash into a critical trace and a memory dump.
///
/// Failures: `main_invoker` does not return after an escaping exception or a fault: it reports,
/// dumps and ends the process with SIGABRT; the queries never raise.
///
/// @code
/// // In main(argc, argv): the program's real main runs under the wrapper.
/// char program[] = "server";
/// char* argv[] = {program, nullptr};
/// int const status = tqcore::main_invoker([](int, char**) { return 0; }, 1, argv);
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <exception>
#include <string>
#include <vector>

#include <signal.h>

namespace tqcore {

/// Runs `main_function` under a ScopedDiagnosticSignalHandler with an alternate signal stack.
/// A std::exception leaving it is traced with its what() and rethrown; any other object is
/// traced with a memory dump and rethrown (std::terminate then writes no second dump).
///
/// A fault (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP from the processor) returns to a recovery
/// point in main_invoker: the faulting frames are walked and the dump written at once, then the
/// report is traced and the process ends with SIGABRT, whatever the signal was. `catch (...)`
/// blocks between main_invoker and the fault are not entered, and the destructors of the
/// frames in between do not run.
TQCORE_EXPORT int main_invoker(int (*main_function)(int, char**), int argc, char** argv);

/// Whether main_invoker's main function has returned. An exception leaving it does not count.
TQCORE_EXPORT bool has_main_exited() noexcept;
/// Whether the calling thread is the one that called main_invoker.
TQCORE_EXPORT bool is_main_thread() noexcept;
/// argv[0] as main_invoker received it; empty before.
TQCORE_EXPORT std::string const& program_path() noexcept;
/// Every argument main_invoker received (a second call appends its own).
TQCORE_EXPORT std::vector<std::string> const& program_arguments() noexcept;

/// While one is in force: std::terminate writes a memory dump, traces, and aborts; and the
/// processor's faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP) are reported with a dump and
/// end the process with SIGABRT. The thread that builds it gets an alternate signal stack.
/// Signals sent by kill or raise go to the previous disposition untouched. The previous
/// terminate handler and signal dispositions come back with its destruction. Build and destroy
/// it on one thread, nested guards in reverse order.
class TQCORE_EXPORT ScopedDiagnosticSignalHandler {
 public:
  ScopedDiagnosticSignalHandler();
  ~ScopedDiagnosticSignalHandler();
  ScopedDiagnosticSignalHandler(ScopedDiagnosticSignalHandler const&) = delete;
  ScopedDiagnosticSignalHandler& operator=(ScopedDiagnosticSignalHandler const&) = delete;

 private:
  static constexpr int SIGNAL_COUNT = 5;
  std::terminate_handler m_previousTerminate = nullptr;
  struct sigaction m_previous[SIGNAL_COUNT] = {};
  bool m_installed = false;
  void* m_alternateStack = nullptr;
  stack_t m_previousStack{};
};

namespace impl {
/// Dumps (without a credit, or names the dump a fault already wrote), traces what it can of the
/// exception in flight, and aborts.
[[noreturn]] TQCORE_EXPORT void diagnostic_terminate_handler();
}  // namespace impl

}  // namespace tqcore

extern "C" {
// For hosts that manage the lifetime of ACE themselves: the first init starts it, the last
// fini ends it.
TQCORE_EXPORT void tqcore_managed_init();
TQCORE_EXPORT void tqcore_managed_fini();
}
