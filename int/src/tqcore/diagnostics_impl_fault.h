// What the fault path shares: the per-thread fault state a signal handler fills, the reporting
// claim that keeps a crash from reporting twice, the dump credits, and a text buffer that a
// signal handler can write with.
#pragma once

#include <tqcore/diagnostics.h>
#include <tqcore/error_params.h>

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include <signal.h>
#include <sys/ucontext.h>

namespace tqcore {
namespace impl {

// What became of the dump of a fault.
enum class DumpOutcome : int { none, no_credit, written, failed };

// One thread's fault, filled by the signal handler and read after it returned to the
// recovery point. It lives in the thread's alternate-stack block, so that it outlives the
// handler's frame.
struct FaultState {
  sigjmp_buf* recovery = nullptr;  // where the handler returns to; null: report and abort there
  bool pending = false;            // a fault was recorded and is being reported
  FaultRecord record;
  ucontext_t context;
  struct _libc_fpstate fpstate;
  StackFrameRecord frames[STACK_FRAME_CAPACITY];
  size_t frame_count = 0;
  DumpOutcome dump = DumpOutcome::none;
  char dump_path[512] = {};
};

// The handlers of the processor's fault signals, installed by the outermost of nested calls
// (which returns true and the previous dispositions) and restored by its matching call.
bool install_fault_handlers(struct sigaction* previous) noexcept;
void restore_fault_handlers(struct sigaction const* previous, bool installed) noexcept;
// A block with an alternate signal stack and the thread's fault state; installing it as the
// thread's alternate stack unmaps it on failure.
void* map_fault_block() noexcept;
bool install_fault_block(void* block, stack_t* previous) noexcept;
void remove_fault_block(void* block, stack_t const& previous) noexcept;
// Where a fault on the calling thread returns to (through siglongjmp); null for none. Needs
// the thread's fault block.
// Returns the point before.
sigjmp_buf* set_fault_recovery(sigjmp_buf* point) noexcept;

// The calling thread's fault state: in its alternate-stack block, or null without one.
FaultState* thread_fault_state() noexcept;
// The pointers of the fault recorded on the calling thread, if one is pending.
bool pending_fault(ExceptionPointers& out) noexcept;

// Maps a processor signal onto the fault record the reports use. Signal-safe.
void fault_record_from_signal(int signal, siginfo_t const& info, ucontext_t const& context,
                              FaultRecord& record) noexcept;
// The constant's name ("SIGSEGV"), or null for a signal without one here.
char const* signal_name(int signal) noexcept;
// The text of a fault code, or null for a code outside the table.
char const* fault_text(uint32_t code) noexcept;

constexpr uint32_t kCodeAccessViolation = 0xC0000005u;
constexpr uint32_t kCodeCppException = 0xE06D7363u;
constexpr uint32_t kCodeStackOverflow = 0xC00000FDu;

// The thread that reports a crash claims the process first; false if another thread or an
// earlier fault of this one already did. Signal-safe.
bool claim_crash_report() noexcept;
bool is_crash_reporter() noexcept;
// Ends a report that hangs: a watchdog aborts the process after this many seconds.
constexpr unsigned int kCrashWatchdogSeconds = 60;
void arm_crash_watchdog() noexcept;
// Ends the process with SIGABRT, whatever disposition it had. Signal-safe.
[[noreturn]] void abort_process() noexcept;

// The dump a crash already wrote, so that the terminate path names it instead of writing a
// second one; empty if none.
void remember_crash_dump(char const* path) noexcept;
char const* crash_dump_path() noexcept;
// What main_invoker does with an exception leaving main before the process ends: the public
// dump and trace, with the dump remembered so that the terminate handler that follows names it
// instead of writing a second one.
void dump_and_trace_before_exit(SourceLocation const& where) noexcept;

// The symbol engine's lock, which dumps share; false after waiting five seconds for it.
bool lock_symbol_engine_for_dump() noexcept;
void unlock_symbol_engine_for_dump() noexcept;

// One dump credit of the current period; false when they are spent. Lock-free.
bool acquire_dump_credit() noexcept;

// Local time now, usable in a crash report (where the C library's lock may be held).
std::tm local_time_now() noexcept;

// Whether TQTQ_TRACE_ROOT was set but could not be used by the last generated dump path.
bool dump_root_fell_back() noexcept;

// Records the calling thread's stack bounds, so that a dump of the stacks includes it.
void register_thread_stack(uint64_t low, uint64_t high) noexcept;

// "stackTrace" and "stackDump" of a fault: from the frames walked while its stack was intact
// if it has them, else walked from its context now.
void add_fault_stack_params(ErrorParams& params, ExceptionPointers const& pointers);
// "processId" in decimal and "threadId" in hexadecimal, the kernel's thread id.
void add_process_thread_params(ErrorParams& params);

// The kernel's id of the calling thread.
uint32_t current_thread_id() noexcept;

// Text built on the stack and written with write(2): for signal handlers. What does not fit
// is cut.
class SafeText {
 public:
  SafeText& text(char const* value) noexcept;
  SafeText& text(char const* value, size_t length) noexcept;
  SafeText& hex(uint64_t value, unsigned int digits) noexcept;  // "0x", at least `digits`
  SafeText& hex_digits(uint64_t value) noexcept;                // lower-case digits only
  SafeText& decimal(uint64_t value) noexcept;
  char const* data() const noexcept { return m_text; }
  size_t size() const noexcept { return m_size; }
  void write_to(int fd) noexcept;
  void clear() noexcept { m_size = 0; }

 private:
  char m_text[1024];
  size_t m_size = 0;
};

}  // namespace impl
}  // namespace tqcore
