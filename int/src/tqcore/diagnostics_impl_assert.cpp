// The report of a failed run-time check: what it gathers, the question it asks, the trace it
// writes and what each answer does.
#include "diagnostics_impl_assert.h"

#include "diagnostics_impl_fault.h"
#include "error_exception_internal.h"
#include "file_ids.h"
#include "static_instance_internal.h"

#include <tqcore/abs_rel_time.h>
#include <tqcore/error_builder.h>
#include <tqcore/main_intercept.h>
#include <tqcore/streamers.h>

#include <pthread.h>
#include <strings.h>
#include <ucontext.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <sstream>
#include <utility>

namespace tqcore {
namespace impl {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("diagnostics_impl_assert");
constexpr size_t kDialogFrames = 24;
constexpr size_t kProgramPathShown = 100;
constexpr unsigned int kDumpPathCapacity = 324;

constexpr char kTraceTemplate[] =
    "Debug Assertion Failed! \nProgram:    {}\nTimeUTC:    {}\nProcessId:  {}\nFile:       "
    "{}\nLine:       {}\nFunction:   {}\n\nExpression: {}\n\nDetails:    {}\n\n"
    "---BeginStackTrace---\n{}---EndStackTrace---";
constexpr char kErrorTemplate[] =
    "Debug Assertion Failed! \nProgram: {@progname}\nTimeUTC: {@timestampUtc}\nProcessId: "
    "{@processId}\nFile: {@filename}\nLine: {@line}\nFunction: {@function}\n\nExpression: "
    "{@expression}\n\nDetails: {@details}\n\nThreadId: {@threadId}, Stack Trace:\n"
    "{@stackTrace}\nStackDump:\n{@stackDump}";

// Sites silenced by Shift+Ignore: compared by the file pointer each site passes, never by
// text. Built at load, kept to the end of the process.
pthread_mutex_t g_ignoredLock = PTHREAD_MUTEX_INITIALIZER;
std::set<std::pair<char const*, unsigned int>>& ignored_sites() {
  static auto* const sites = new std::set<std::pair<char const*, unsigned int>>();
  return *sites;
}
[[maybe_unused]] auto const& g_ignoredSitesBuilt = ignored_sites();

bool is_ignored(char const* file, unsigned int line) {
  pthread_mutex_lock(&g_ignoredLock);
  bool const ignored = ignored_sites().count({file, line}) != 0;
  pthread_mutex_unlock(&g_ignoredLock);
  return ignored;
}

void ignore_always(char const* file, unsigned int line) {
  pthread_mutex_lock(&g_ignoredLock);
  try {
    ignored_sites().insert({file, line});
  } catch (...) {
    pthread_mutex_unlock(&g_ignoredLock);
    throw;
  }
  pthread_mutex_unlock(&g_ignoredLock);
}

std::string program_path_text() {
  char path[4096];
  ssize_t const length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string("<unknown>");
}

std::string frames_text(AssertReport const& report, StackFrameRecord const* end) {
  std::ostringstream text;
  SymbolEngineSession session;
  render_stack_frames(session, text, report.first, end);
  return stream_text(text);
}

std::string full_trace_text(AssertReport const& report) {
  std::string text = frames_text(report, report.end);
  if (report.filled) text += "(subsequent frames omitted)\n";
  return text;
}

std::string packed_trace(AssertReport const& report) {
  std::ostringstream packed;
  packed << report.program << '\0' << report.utc << '\0' << report.process_id << '\0' << report.file
         << '\0' << report.line << '\0' << (report.function ? report.function : "") << '\0'
         << (report.expression ? report.expression : "") << '\0'
         << (report.details ? report.details : "") << '\0' << full_trace_text(report);
  return stream_text(packed);
}

uint64_t stack_dump_start(AssertReport const& report) {
  if (report.first == report.frames) {
    return static_cast<uint64_t>(report.context.uc_mcontext.gregs[REG_RSP]);
  }
  return report.first[-1].sp;
}

ErrorComposer assert_error(AssertReport const& report) {
  std::ostringstream dump;
  dump_stack(dump, stack_dump_start(report), report.first, report.end, kDialogFrames);
  std::ostringstream thread;
  thread << streamers::Hex(report.thread_id, false);
  ErrorComposer composer(kErrorTemplate);
  composer.param("timestampUtc", report.utc)
      .param("progname", report.program)
      .param("processId", std::to_string(report.process_id))
      .param("filename", report.file)
      .param("line", std::to_string(report.line))
      .param("function", report.function != nullptr ? report.function : "")
      .param("expression", report.expression != nullptr ? report.expression : "")
      .param("details", report.details != nullptr ? report.details : "")
      .param("threadId", stream_text(thread))
      .param("stackDump", stream_text(dump))
      .param("stackTrace", full_trace_text(report));
  return composer;
}

[[noreturn]] void abort_after_assert(bool with_dump) {
  if (with_dump) {
    char path[kDumpPathCapacity];
    bool const dumped = make_dump_file_path(path, sizeof(path)) &&
                        write_memory_dump(nullptr, dump_full, path, nullptr, 0);
    tell_person(dumped ? std::string("Dump created and saved to: ") + path
                       : std::string("Creation of dump failed"));
  }
  std::raise(SIGABRT);
  _exit(3);
}

[[noreturn]] void throw_assert_error(AssertReport const& report) {
  static SourceLocation const where =
      TQCORE_SOURCE_LOCATION("tqcore::impl::report_failed_assert_aux()", kFileId);
  ErrorComposer composer = assert_error(report);
  if (is_main_thread() && has_main_exited()) {
    // After main has returned nobody is left to catch it.
    std::cerr << *composer.create(error::exception_assert, where) << std::endl;
    _exit(4);
  }
  composer.throw_error(error::exception_assert, where);
}

void gather(AssertReport& report, unsigned int skip_frames) {
  report.program = program_path_text();
  StackFrameRecord* const filled =
      capture_stack_frames(&report.context, report.frames, report.frames + STACK_FRAME_CAPACITY);
  report.end = filled;
  report.filled = filled == report.frames + STACK_FRAME_CAPACITY;
  report.first = report.frames + std::min<size_t>(skip_frames + 1, filled - report.frames);
}

}  // namespace

bool assert_throw_always() {
  char const* value = std::getenv("TQTQ_ASSERT_THROW_ALWAYS");
  if (value == nullptr) return false;
  return value[0] == '\0' || strcasecmp(value, "true") == 0 || strcasecmp(value, "yes") == 0 ||
         std::strcmp(value, "1") == 0;
}

std::string assert_dialog_text(AssertReport const& report) {
  std::ostringstream text;
  text << "Debug Assertion Failed!\n\nProgram: ";
  if (report.program.size() > kProgramPathShown) {
    text << "..." << report.program.substr(report.program.size() - kProgramPathShown);
  } else {
    text << report.program;
  }
  text << "\nTimeUTC: " << report.utc << "\nProcessId: " << report.process_id
       << "\nFile: " << report.file << "\nLine: " << report.line;
  if (report.function != nullptr) text << "\nFunction: " << report.function;
  if (report.expression != nullptr) text << "\n\nExpression: " << report.expression;
  if (report.details != nullptr) text << "\n\nDetails: " << report.details;
  text << "\n\nThreadId: " << report.thread_id << " (" << streamers::Hex(report.thread_id, false)
       << "), Stack Trace:\n";
  size_t const available = static_cast<size_t>(report.end - report.first);
  size_t const shown = std::min(available, kDialogFrames);
  if (report.end == report.frames) {
    text << "Stack trace failed!";
  } else if (shown > 0) {
    text << frames_text(report, report.first + shown);
  }
  if (shown < available && !report.filled) text << '(' << available - shown << " frames omitted)";
  if (shown < available && report.filled) text << "(subsequent frames omitted)";
  text << "\n\n(Press Retry to debug, SHIFT+Retry to throw exception, SHIFT+Abort for memory "
          "dump and abort, SHIFT-Ignore to ignore always)";
  return stream_text(text);
}

void ignored_asserts_before_fork() noexcept { pthread_mutex_lock(&g_ignoredLock); }
void ignored_asserts_after_fork(bool in_child) noexcept {
  if (in_child) {
    g_ignoredLock = PTHREAD_MUTEX_INITIALIZER;
  } else {
    pthread_mutex_unlock(&g_ignoredLock);
  }
}

__attribute__((noinline)) bool report_failed_assert_aux(char const* file, unsigned int line,
                                                        char const* function,
                                                        char const* expression, char const* details,
                                                        unsigned int skip_frames) {
  // Everything used after getcontext lives in the report: the compiler must assume that
  // getcontext returns twice, which would clobber what registers hold.
  AssertReport report;
  report.file = file;
  report.line = line;
  report.function = function;
  report.expression = expression;
  report.details = details;
  report.skip_frames = skip_frames;
  getcontext(&report.context);
  report.utc = AbsoluteTime::now().as_string() + "Z";
  report.thread_id = current_thread_id();
  report.process_id = static_cast<uint32_t>(getpid());
  bool const throw_always = assert_throw_always();
  bool const trace_wanted = !throw_always && is_assert_trace_wanted();
  bool const show_dialog = !throw_always && !is_ignored(report.file, report.line);
  if (!throw_always && !trace_wanted && !show_dialog) return true;
  gather(report, report.skip_frames);
  AssertAnswer answer{throw_always ? kAnswerRetry : kAnswerIgnore, throw_always};
  if (show_dialog) answer = ask_person(assert_dialog_text(report));
  if (trace_wanted) {
    static SourceLocation const where =
        TQCORE_SOURCE_LOCATION("tqcore::impl::report_failed_assert_aux()", kFileId);
    std::string const packed = packed_trace(report);
    trace_assert(where, kTraceTemplate, packed.data(), packed.size());
  }
  if (answer.choice == kAnswerAbort) abort_after_assert(answer.modifier);
  if (answer.choice == kAnswerRetry && answer.modifier) throw_assert_error(report);
  if (answer.choice == kAnswerRetry) return false;
  if (answer.choice == kAnswerIgnore && answer.modifier) ignore_always(report.file, report.line);
  return true;
}

}  // namespace impl

__attribute__((noinline)) bool report_failed_debug_assert(char const* file, unsigned int line,
                                                          char const* function,
                                                          char const* expression,
                                                          char const* details) {
  bool const go_on = impl::report_failed_assert_aux(file, line, function, expression, details, 1);
  asm volatile("" ::: "memory");  // no tail call: this frame is the one the report skips
  return go_on;
}

}  // namespace tqcore
