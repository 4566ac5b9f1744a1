/// @file
/// Diagnostics: the three process-wide trace handlers through which critical errors and
/// assertion reports leave the library, the plain writer used when none is installed, and the
/// parts of a crash report: stack walks, symbolic frames, memory and register dumps.
///
/// Failures: everything here is written for a failing process and reports trouble as bracketed
/// texts ("<bad frame>") rather than records; each function says whether it may run in a signal
/// handler.
///
/// @code
/// std::cerr << tqcore::get_stack_backtrace();  // [ip]module!function(params) - file(line)+off
///
/// // Critical errors into the program's own log; the packed parameters are NUL-separated.
/// tqcore::set_diagnostic_trace_handlers(
///     nullptr,
///     [](tqcore::SourceLocation const&, tqcore::SourceString const& text, char const*, size_t) {
///       std::clog << "CRITICAL " << text.as_string() << '\n';
///       return true;
///     },
///     nullptr);
/// tqcore::trace_critical_error(TQCORE_SOURCE_LOCATION("flush()", "$Id: //example/log.cpp#1 $"),
///                              "Lost {} of {} records", "3\0" "10", 5);
/// @endcode
#pragma once

#include <tqcore/error_info.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include <signal.h>
#include <sys/ucontext.h>

namespace tqcore {

using DumpCreditPeriodHandler = unsigned int (*)();
/// A trace handler gets the message template with `{}` holes and the packed values: each value
/// as text followed by one NUL (the last may lack it), counted by `packed_size`.
using DiagnosticTraceHandler = bool (*)(SourceLocation const& location,
                                        SourceString const& message_template, char const* packed,
                                        size_t packed_size);

/// Replaces the three handlers, each by an atomic exchange, in this order; a null pointer gives
/// that handler's default behaviour back. Safe from any thread and in a signal handler.
TQCORE_EXPORT void set_diagnostic_trace_handlers(DumpCreditPeriodHandler dump_credit_period,
                                                 DiagnosticTraceHandler critical_error,
                                                 DiagnosticTraceHandler assert_trace);

/// To the critical-error handler, or to standard error under the tag "CRITICAL-ERROR".
/// Never raises: an exception of the handler or the default writer is swallowed. As safe in a
/// signal handler as the installed handler is; the default writer is not.
TQCORE_EXPORT void trace_critical_error(SourceLocation const& location,
                                        char const* message_template, char const* packed,
                                        size_t packed_size);
/// To the assertion handler, or to standard error under the tag "ASSERT". Never raises.
TQCORE_EXPORT void trace_assert(SourceLocation const& location, char const* message_template,
                                char const* packed, size_t packed_size);
/// True without an assertion handler; else the handler's answer to a probe with an empty
/// location, an empty template and no values.
TQCORE_EXPORT bool is_assert_trace_wanted();
/// The current period of the dump credits: the installed handler's answer, else 0. As safe in
/// a signal handler as that handler is.
TQCORE_EXPORT unsigned int dump_credit_period();

/// Writes "\n*** <tag> - <function>@<depot path>(<line>)\n", then the template with each `{}`
/// replaced by the next packed value, then what is left of the block verbatim, a newline, and
/// flushes standard error. Allocates; not for a signal handler.
TQCORE_EXPORT void write_default_trace(char const* tag, SourceLocation const& location,
                                       char const* message_template, char const* packed,
                                       size_t packed_size);

/// Whether a person sits at this process: standard input and error are terminals and the
/// controlling terminal opens. Asked once, then cached. A daemon or a service answers false.
/// Signal-safe once it has been asked.
TQCORE_EXPORT bool is_interactive_session();

// ---- Stack walking and symbolic frames -------------------------------------------------------
//
// Everything below is written for a process that is failing: bad memory is tested before it is
// read, and failures become bracketed texts in the output ("<bad frame>", "=<unavail>", ...)
// instead of errors. "Signal-safe" marks what may run inside a signal handler.

/// One frame of a walk. `unwound_sp` is the caller's stack pointer, that is, this frame's
/// stack pointer once the frame has been unwound.
struct StackFrameRecord {
  uint64_t unwound_sp;
  uint64_t sp;
  uint64_t ip;
  uint64_t fp;
};

/// Callers hold walks in arrays of this many records.
constexpr unsigned int STACK_FRAME_CAPACITY = 128;

/// Walks the calling thread's stack into [begin, end): from `context` (a signal's context; its
/// first frame is the interrupted instruction), or, when `context` is null, from here (the first
/// frame is this function's own). The outermost frame, whose caller is nothing, is left out.
/// Returns the end of what was filled. Never allocates; signal-safe once the thread has walked
/// once (the first walk of a thread reads its stack bounds).
TQCORE_EXPORT StackFrameRecord* capture_stack_frames(ucontext_t const* context,
                                                     StackFrameRecord* begin,
                                                     StackFrameRecord* end) noexcept;

/// Holds the process's symbol engine for one scope: symbol work is exclusive across threads
/// from the first rendering in a session to its end, and nests on one thread. Not signal-safe.
class TQCORE_EXPORT SymbolEngineSession {
 public:
  SymbolEngineSession() noexcept = default;
  ~SymbolEngineSession();
  SymbolEngineSession(SymbolEngineSession const&) = delete;
  SymbolEngineSession& operator=(SymbolEngineSession const&) = delete;

  /// Takes the engine if this session does not hold it yet; false if it cannot be set up.
  bool acquire();
  bool is_held() const noexcept { return m_held; }

 private:
  bool m_held = false;
};

/// One line a frame: `[ip]module!function(params) - file(line)+offset`. A frame whose
/// instruction lies in inlined code gives one line for each inlined function, innermost first,
/// then the function it was inlined into; all carry the frame's ip, the outer lines name the
/// call site as their file and line, and only the innermost carries the +offset. At most 8
/// parameters are shown, then ", <N omitted>". Not signal-safe.
TQCORE_EXPORT void render_stack_frames(SymbolEngineSession& session, std::ostream& stream,
                                       StackFrameRecord const* begin, StackFrameRecord const* end);
/// The cleaned name of the function at `ip` (a return address is looked up one byte before);
/// false, after writing "<no symbols,N>", where no symbol covers it.
TQCORE_EXPORT bool render_frame_symbol(SymbolEngineSession& session, std::ostream& stream,
                                       uint64_t ip);
/// " - file(line)" and "+offset" where it is not 0; nothing without line information.
TQCORE_EXPORT void render_frame_line(SymbolEngineSession& session, std::ostream& stream,
                                     uint64_t ip);

/// Shortens a demangled name in place and returns its new length: spaces that do not separate
/// two identifier characters go, a leading "stlp_std" or "stlpd_std" component becomes "std",
/// "__ptr64" and "__ptr32" go; a result longer than `limit` has its template arguments replaced
/// by "~" marks (`map<int,vector<char>>` -> `map<~,~>`). Signal-safe.
TQCORE_EXPORT size_t clean_decorated_name(char* name, size_t length, size_t limit) noexcept;
/// Whether a class name is one of the known smart pointers, by a deliberately lax test: each
/// column of the name before its "<" must match that column of some known name. Signal-safe.
TQCORE_EXPORT bool is_smart_pointer_type_name(std::string_view name) noexcept;

/// Hex dump of [begin, end) in 8-byte words, four a row, each row labelled with its address;
/// unreadable words show as "????????????????". Not signal-safe (streams allocate).
TQCORE_EXPORT void dump_memory_region(std::ostream& stream, uint64_t begin, uint64_t end);
/// As dump_memory_region, with the middle elided when the range is longer than
/// `head` + `tail` + 32 bytes.
TQCORE_EXPORT void dump_memory_range(std::ostream& stream, uint64_t begin, uint64_t end,
                                     uint64_t head, uint64_t tail);
/// The stack from `start_sp` to its top, a stretch a frame, elided, with a "> Frame" line
/// after each of the first `frame_limit` frames. Not signal-safe (streams allocate).
TQCORE_EXPORT void dump_stack(std::ostream& stream, uint64_t start_sp,
                              StackFrameRecord const* begin, StackFrameRecord const* end,
                              unsigned int frame_limit);
/// The same from a signal's context (its stack pointer), or from the caller when it is null.
TQCORE_EXPORT void dump_stack(std::ostream& stream, ucontext_t const* context,
                              StackFrameRecord const* begin, StackFrameRecord const* end,
                              unsigned int frame_limit);
/// The general, control, segment and XMM registers of a context as one line of text.
/// Allocates; not signal-safe.
TQCORE_EXPORT std::string format_registers(ucontext_t const& context);

/// The symbolic trace of the calling thread, one line a frame, without this function's own
/// frames and `skip_frames` more; `max_frames` 0 means all. "<failed>" if anything goes wrong
/// (it never raises). Not signal-safe: it allocates and takes the symbol engine's lock.
TQCORE_EXPORT std::string get_stack_backtrace(unsigned int skip_frames = 0,
                                              unsigned int max_frames = 0);

/// Readies the walker for the calling thread (its stack bounds) so that a later walk in a
/// failing process neither allocates nor reads files. Symbols load at the first rendering.
/// Not signal-safe.
TQCORE_EXPORT void preinitialize_diagnostics_libraries();

// ---- Faults, memory dumps and assertion reports ----------------------------------------------

/// A fault in the form the reports use: the code of the fault-code table (0xC0000005 for an
/// access violation, 0xE06D7363 for a C++ object in flight, ...), the instruction it happened
/// at and up to 15 parameters. `signal` is the signal that carried it, 0 if none did.
struct FaultRecord {
  static constexpr unsigned int PARAMETER_CAPACITY = 15;
  uint32_t code = 0;
  int signal = 0;
  int signal_code = 0;  ///< the signal's si_code
  uint64_t address = 0;
  uint32_t parameter_count = 0;
  uint64_t parameters[PARAMETER_CAPACITY] = {};
};

/// A fault and the processor context it happened in. When the frames were walked while the
/// faulting stack was still intact, [frames_begin, frames_end) holds them and a report uses
/// them instead of walking the context again.
struct ExceptionPointers {
  FaultRecord const* record = nullptr;
  ucontext_t const* context = nullptr;
  StackFrameRecord const* frames_begin = nullptr;
  StackFrameRecord const* frames_end = nullptr;
};

/// The fault the calling thread is handling: the one a diagnostic signal handler recorded
/// before it returned to `main_invoker`'s recovery point. Both members stay null otherwise: a
/// C++ object in flight is found by ErrorInfo::from_anonymous_exception itself.
TQCORE_EXPORT void find_current_exception(ExceptionPointers* out) noexcept;

/// The record of a fault: "error.exception.fault.accessViolation" for 0xC0000005,
/// "error.exception.fault.cppException" for 0xE06D7363 (the object in flight described), else
/// "error.exception.fault" with the fault's text; registers, stack trace and stack dump from the
/// context. Never raises on account of what it finds (std::bad_alloc it does pass on).
/// A thrown object's "cppObjectSize" is exact for fundamental and pointer types; for a class,
/// whose size is recorded nowhere at run time, it is the size of the block the C++ runtime
/// allocated for the object, that is, its size rounded up to the allocator's 8 bytes.
TQCORE_EXPORT ErrorInfo::Ptr make_fault_error_info(ExceptionPointers const& pointers,
                                                   SourceLocation const& location);

enum EDiagnosticMemoryDumpType : int {
  /// All writable and anonymous memory, and the first page of every loaded ELF object.
  dump_full = 0,
  /// The stacks and those first pages only.
  dump_stacks = 2,
};

/// Writes an ELF core file of this process (readable with `gdb <program> <dump>`) to `path`,
/// or, when it is null or empty, to a generated name (see make_dump_file_path). `path_out`, when
/// given, receives the path written, NUL-terminated and cut to its size. Never uses a dump
/// credit. Needs no heap: it works when memory has run out, and in a signal handler.
TQCORE_EXPORT bool create_diagnostic_memory_dump(EDiagnosticMemoryDumpType type, char const* path,
                                                 char* path_out, size_t path_out_size) noexcept;
/// The same for a given fault (its context becomes the dumping thread's registers); with null
/// pointers, the current fault if one is being handled, else the caller's own context.
TQCORE_EXPORT bool write_memory_dump(ExceptionPointers const* pointers,
                                     EDiagnosticMemoryDumpType type, char const* path,
                                     char* path_out, size_t path_out_size) noexcept;
/// "<root>/<YYYY-MM-DD>/<program>_<YYYYMMDDhhmmss>_<pid>_<tid in hex>.dmp" in local time. The
/// root is TQTQ_TRACE_ROOT ("\\" read as "/"), the date directory created under it; without a
/// usable root, $TMPDIR or /tmp with no date directory. False if the path does not fit
/// `capacity` bytes with its NUL. Uses no heap; signal-safe.
TQCORE_EXPORT bool make_dump_file_path(char* buffer, unsigned int capacity) noexcept;

/// For a `catch (...)` block: takes a dump credit, writes a dump while the credits last, and
/// traces the error of the exception in flight as a critical error saying what became of the
/// dump. At most 16 dumps a credit period (see set_diagnostic_trace_handlers); never raises.
TQCORE_EXPORT void create_dump_and_trace_anonymous_exception(SourceLocation const& where) noexcept;

/// The report of a failed run-time check. Asks the person at the controlling terminal, when
/// there is one, "Abort, Retry, Ignore? [a/r/i] " (an upper-case answer means the same with
/// Shift), and traces the report through the assertion handler. True: the caller goes on.
/// False: the caller is to break into the debugger (Retry). Shift+Retry raises
/// "error.exception.assert"; Shift+Ignore silences the site for the rest of the process;
/// Abort raises SIGABRT, with Shift after writing a dump. With TQTQ_ASSERT_THROW_ALWAYS set
/// to "true", "yes" (any case), "1" or empty, it raises without asking or tracing.
TQCORE_EXPORT bool report_failed_debug_assert(char const* file, unsigned int line,
                                              char const* function, char const* expression,
                                              char const* details);

/// Gives the calling thread an alternate signal stack for its scope, so that a fault there,
/// even a stack overflow, reaches the diagnostic signal handlers (see
/// ScopedDiagnosticSignalHandler) and is reported. The main thread has one inside main_invoker.
class TQCORE_EXPORT ScopedSignalAlternateStack {
 public:
  ScopedSignalAlternateStack();
  ~ScopedSignalAlternateStack();
  ScopedSignalAlternateStack(ScopedSignalAlternateStack const&) = delete;
  ScopedSignalAlternateStack& operator=(ScopedSignalAlternateStack const&) = delete;

  /// False if the stack could not be mapped; the thread then goes without. A nested guard is
  /// active through the outer one.
  bool is_active() const noexcept { return m_active; }

 private:
  void* m_block = nullptr;
  stack_t m_previous{};
  bool m_active = false;
};

namespace impl {
/// report_failed_debug_assert with the number of the caller's frames to leave out of the trace.
TQCORE_EXPORT bool report_failed_assert_aux(char const* file, unsigned int line,
                                            char const* function, char const* expression,
                                            char const* details, unsigned int skip_frames);
}  // namespace impl

}  // namespace tqcore
