// Fault records, the exception in flight, dump credits and paths, assertion reports and
// main_invoker, in this process or in a forked child where the state is process-wide.
#include <gtest/gtest.h>

#include <tqcore/bad_alloc_handler.h>
#include <tqcore/diagnostics.h>
#include <tqcore/error_exception.h>
#include <tqcore/main_intercept.h>

#include <ace/Object_Manager.h>

#include <ucontext.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "../src/tqcore/diagnostics_impl_assert.h"
#include "../src/tqcore/testing_seams.h"
#include "child_process.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using tqcore::ErrorInfo;
using tqcore::FaultRecord;

tqcore::SourceLocation const kHere = TQCORE_SOURCE_LOCATION("fault_test", "$Id: //t/f.cpp#1 $");

std::string param(ErrorInfo::Ptr const& error, char const* name) {
  std::string value;
  return error->params().query_value(name, std::strlen(name), &value) ? value : "<absent>";
}

TEST(AnonymousException, IntIsACppExceptionOfFourBytes) {
  ErrorInfo::Ptr error;
  try {
    throw 42;
  } catch (...) {
    error = ErrorInfo::from_anonymous_exception(kHere);
  }
  EXPECT_TRUE(error->code() == "error.exception.fault.cppException");
  EXPECT_EQ(param(error, "cppObjectType"), "int");
  EXPECT_EQ(param(error, "cppObjectSize"), "4");
  EXPECT_EQ(param(error, "cppObjectDump"), "2a000000");
  EXPECT_EQ(param(error, "windowsFaultCode"), "0xe06d7363");
  EXPECT_FALSE(error->nested());
}

TEST(AnonymousException, StdExceptionNestsItsOwnRecord) {
  ErrorInfo::Ptr error;
  try {
    throw std::runtime_error("gone");
  } catch (...) {
    error = ErrorInfo::from_anonymous_exception(kHere);
  }
  EXPECT_EQ(param(error, "cppObjectType"), "std::runtime_error");
  EXPECT_GE(std::stoul(param(error, "cppObjectSize")), sizeof(std::runtime_error));
  ASSERT_TRUE(error->nested());
  EXPECT_TRUE(error->nested()->code() == "error.exception.runtime_error");
}

TEST(AnonymousException, NothingInFlightIsUnknownWithTheCallersTrace) {
  ErrorInfo::Ptr const error = ErrorInfo::from_anonymous_exception(kHere);
  EXPECT_TRUE(error->code() == "error.exception.unknown");
  EXPECT_NE(param(error, "stackTrace").find("NothingInFlightIsUnknownWithTheCallersTrace"),
            std::string::npos);
  EXPECT_NE(param(error, "registers").find("RIP="), std::string::npos);
}

struct FaultCase {
  uint32_t code;
  uint32_t parameter_count;
  char const* error_code;
  char const* name;
  char const* value;
};

class FaultRecordTest : public ::testing::TestWithParam<FaultCase> {};

TEST_P(FaultRecordTest, ShowsTheTableText) {
  FaultCase const& row = GetParam();
  FaultRecord record;
  record.code = row.code;
  record.address = 0x401000;
  record.parameter_count = row.parameter_count;
  for (uint32_t i = 0; i < FaultRecord::PARAMETER_CAPACITY; ++i) record.parameters[i] = i + 1;
  ucontext_t context;
  getcontext(&context);
  tqcore::ExceptionPointers pointers;
  pointers.record = &record;
  pointers.context = &context;
  ErrorInfo::Ptr const error = tqcore::make_fault_error_info(pointers, kHere);
  EXPECT_TRUE(error->code() == row.error_code);
  EXPECT_EQ(param(error, row.name), row.value);
  EXPECT_EQ(param(error, "faultAddress"), "0x0000000000401000");
}

INSTANTIATE_TEST_SUITE_P(
    Table, FaultRecordTest,
    ::testing::Values(FaultCase{0xC0000005u, 2, "error.exception.fault.accessViolation",
                                "faultAccessType", "write"},
                      FaultCase{0xC0000005u, 2, "error.exception.fault.accessViolation",
                                "faultAccessAddress", "0x0000000000000002"},
                      FaultCase{0xC0000005u, 3, "error.exception.fault.accessViolation",
                                "faultAccessType", "<unknown>"},
                      FaultCase{0xC0000194u, 0, "error.exception.fault", "faultText",
                                "Possible Deadlock"},
                      FaultCase{0x12345678u, 0, "error.exception.fault", "faultText", "0x12345678"},
                      FaultCase{0xC00000FDu, 0, "error.exception.fault", "stackTrace", "<failed>"},
                      FaultCase{0xC0000094u, 20, "error.exception.fault", "faultParameters",
                                "0x0000000000000001, 0x0000000000000002, 0x0000000000000003, "
                                "0x0000000000000004, 0x0000000000000005, 0x0000000000000006, "
                                "0x0000000000000007, 0x0000000000000008, 0x0000000000000009, "
                                "0x000000000000000a, 0x000000000000000b, 0x000000000000000c, "
                                "0x000000000000000d, 0x000000000000000e, 0x000000000000000f"}));

// The period handler is process-wide: each test puts the default back.
unsigned int g_period = 0;
unsigned int current_period() { return g_period; }

class DumpCredits : public ::testing::Test {
 protected:
  void TearDown() override {
    tqcore::set_diagnostic_trace_handlers(nullptr, nullptr, nullptr);
    tqcore::impl::testing::set_dump_credit_word(16);
  }
  static int take_all() {
    int taken = 0;
    while (tqcore::impl::testing::take_dump_credit() && taken < 100) ++taken;
    return taken;
  }
};

TEST_F(DumpCredits, SixteenAPeriodThenARefillWhenThePeriodChanges) {
  tqcore::impl::testing::set_dump_credit_word(16);
  EXPECT_EQ(take_all(), 16);  // no handler: period 0 for the life of the process
  tqcore::set_diagnostic_trace_handlers(current_period, nullptr, nullptr);
  g_period = 7;
  EXPECT_TRUE(tqcore::impl::testing::take_dump_credit());
  EXPECT_EQ(tqcore::impl::testing::dump_credit_word(), (uint64_t{7} << 32) | 15);
  EXPECT_EQ(take_all(), 15);
  g_period = 3;  // going back refills too: only a difference counts
  EXPECT_EQ(take_all(), 16);
}

std::string g_traced;
bool record_trace(tqcore::SourceLocation const&, tqcore::SourceString const& message,
                  char const* packed, size_t size) {
  g_traced = std::string(message.data(), message.size()) + "|" + std::string(packed, size);
  return true;
}

TEST_F(DumpCredits, ExhaustedCreditsWriteNoDumpButStillTrace) {
  tqcore::set_diagnostic_trace_handlers(nullptr, record_trace, nullptr);
  tqcore::impl::testing::set_dump_credit_word(0);
  try {
    throw 5;
  } catch (...) {
    tqcore::create_dump_and_trace_anonymous_exception(kHere);
  }
  EXPECT_EQ(g_traced.rfind("Unknown exception occurred on thread {} (no dump created as dump "
                           "credits exhausted).  Error: {}|0x",
                           0),
            0u)
      << g_traced;
  EXPECT_NE(g_traced.find("error.exception.fault.cppException"), std::string::npos);
  // The credits do not limit a dump asked for directly.
  char directory[] = "/tmp/tqcore_dump_XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  std::string const file = std::string(directory) + "/stacks-only-with-a-long-name.dmp";
  char path[512];
  EXPECT_TRUE(tqcore::create_diagnostic_memory_dump(tqcore::dump_stacks, file.c_str(), path, 20));
  EXPECT_EQ(std::string(path), file.substr(0, 19));  // cut to the buffer given
  EXPECT_GT(fs::file_size(file), 4096u);
  fs::remove_all(directory);
}

class DumpPath : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tqcore_path_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_root = pattern;
  }
  void TearDown() override {
    unsetenv("TQTQ_TRACE_ROOT");
    unsetenv("TMPDIR");
    fs::remove_all(m_root);
  }
  static std::string path(unsigned int capacity = 292) {
    char buffer[1024];
    return tqcore::make_dump_file_path(buffer, capacity) ? std::string(buffer) : "<failed>";
  }
  std::string m_root;
};

TEST_F(DumpPath, RootWithBackslashesAndSlashesGetsOneSlashAndTheDate) {
  std::string root = m_root + "\\traces//";
  setenv("TQTQ_TRACE_ROOT", root.c_str(), 1);
  fs::path const made = path();
  std::string const date = made.parent_path().filename();
  EXPECT_EQ(made.parent_path().parent_path(), m_root + "/traces") << made;
  EXPECT_TRUE(date.size() == 10 && date[4] == '-' && date[7] == '-') << made;
  EXPECT_TRUE(tqcore_test::is_dump_name(made.filename(), "tqcore_test")) << made;
  EXPECT_TRUE(fs::is_directory(fs::path(made).parent_path()));
}

TEST_F(DumpPath, WithoutAUsableRootTheTemporaryDirectory) {
  setenv("TMPDIR", (m_root + "///").c_str(), 1);
  EXPECT_EQ(path().rfind(m_root + "/tqcore_test_", 0), 0u) << path();
  setenv("TQTQ_TRACE_ROOT", "/proc/no/such/place", 1);
  EXPECT_EQ(path().rfind(m_root + "/tqcore_test_", 0), 0u) << path();
  setenv("TQTQ_TRACE_ROOT", std::string(400, 'x').c_str(), 1);  // longer than the capacity
  EXPECT_EQ(path().rfind(m_root + "/tqcore_test_", 0), 0u) << path();
  EXPECT_EQ(path(static_cast<unsigned int>(m_root.size()) + 8), "<failed>");
}

TEST_F(DumpPath, NoRoomForTheDateDirectoryFails) {
  setenv("TQTQ_TRACE_ROOT", m_root.c_str(), 1);
  EXPECT_EQ(path(static_cast<unsigned int>(m_root.size()) + 10), "<failed>");
}

struct ThrowAlwaysCase {
  char const* value;
  bool throws;
};

class ThrowAlways : public ::testing::TestWithParam<ThrowAlwaysCase> {
 protected:
  void TearDown() override { unsetenv("TQTQ_ASSERT_THROW_ALWAYS"); }
};

TEST_P(ThrowAlways, ReadsTheVariable) {
  if (GetParam().value != nullptr) setenv("TQTQ_ASSERT_THROW_ALWAYS", GetParam().value, 1);
  EXPECT_EQ(tqcore::impl::assert_throw_always(), GetParam().throws);
}

INSTANTIATE_TEST_SUITE_P(Values, ThrowAlways,
                         ::testing::Values(ThrowAlwaysCase{"TRUE", true},
                                           ThrowAlwaysCase{"Yes", true}, ThrowAlwaysCase{"1", true},
                                           ThrowAlwaysCase{"", true}, ThrowAlwaysCase{"0", false},
                                           ThrowAlwaysCase{"on", false},
                                           ThrowAlwaysCase{"11", false},
                                           ThrowAlwaysCase{nullptr, false}));

TEST_F(ThrowAlways, RaisesTheAssertRecordWithoutTracing) {
  setenv("TQTQ_ASSERT_THROW_ALWAYS", "yes", 1);
  g_traced.clear();
  tqcore::set_diagnostic_trace_handlers(nullptr, nullptr, record_trace);
  try {
    tqcore::report_failed_debug_assert("f.cpp", 9, "fn", "a < b", nullptr);
    ADD_FAILURE() << "no exception";
  } catch (tqcore::ErrorException const& e) {
    EXPECT_TRUE(e.error()->code() == "error.exception.assert");
    EXPECT_NE(std::string(e.what()).find("Expression: a < b"), std::string::npos);
  }
  tqcore::set_diagnostic_trace_handlers(nullptr, nullptr, nullptr);
  EXPECT_TRUE(g_traced.empty()) << g_traced;
}

int g_probes = 0;
bool refuse_traces(tqcore::SourceLocation const& at, tqcore::SourceString const&, char const*,
                   size_t) {
  g_probes += at.function().empty() ? 1 : 100;
  return false;
}

TEST(AssertReport, WithoutAPersonOrATraceItGoesOn) {
  tqcore::set_diagnostic_trace_handlers(nullptr, nullptr, refuse_traces);
  EXPECT_TRUE(tqcore::report_failed_debug_assert("f.cpp", 10, nullptr, nullptr, nullptr));
  tqcore::set_diagnostic_trace_handlers(nullptr, nullptr, nullptr);
  EXPECT_EQ(g_probes, 1);  // the probe only
}

struct DialogCase {
  size_t frames;
  bool filled;
  char const* ending;
};

class DialogText : public ::testing::TestWithParam<DialogCase> {};

TEST_P(DialogText, SaysWhatWasLeftOut) {
  auto report = std::make_unique<tqcore::impl::AssertReport>();
  report->program = std::string(100, 'p');
  report->file = "f.cpp";
  for (auto& frame : report->frames) frame = tqcore::StackFrameRecord{0, 0, 0x10, 0};
  report->first = report->frames + 1;
  report->end = report->first + GetParam().frames;
  report->filled = GetParam().filled;
  std::string const text = tqcore::impl::assert_dialog_text(*report);
  std::string const tail = "\n\n(Press Retry to debug";
  std::string const before = text.substr(0, text.find(tail));
  EXPECT_EQ(before.substr(before.size() - std::strlen(GetParam().ending)), GetParam().ending);
  EXPECT_NE(text.find("Program: " + report->program + "\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Frames, DialogText,
                         ::testing::Values(DialogCase{24, false, "<bad code ptr>\n"},
                                           DialogCase{25, false, "\n(1 frames omitted)"},
                                           DialogCase{127, true, "\n(subsequent frames omitted)"},
                                           DialogCase{0, false, "Stack Trace:\n"}));

TEST(AssertReport, LongProgramPathKeepsItsLastHundredCharacters) {
  auto report = std::make_unique<tqcore::impl::AssertReport>();
  report->program = "q" + std::string(100, 'p');
  report->file = "f.cpp";
  std::string const text = tqcore::impl::assert_dialog_text(*report);
  EXPECT_NE(text.find("Program: ..." + std::string(100, 'p') + "\n"), std::string::npos);
  EXPECT_NE(text.find("Stack trace failed!"), std::string::npos);
}

TEST(AssertReport, AnswerLines) {
  struct Row {
    char const* line;
    int choice;
    bool modifier;
  } const rows[] = {{"a", 3, false}, {"  R\n", 4, true}, {"ignore", 5, false},
                    {"I", 5, true},  {"x", 0, false},    {"", 0, false}};
  for (Row const& row : rows) {
    tqcore::impl::AssertAnswer const answer = tqcore::impl::parse_assert_answer(row.line);
    EXPECT_EQ(answer.choice, row.choice) << row.line;
    EXPECT_EQ(answer.modifier, row.modifier) << row.line;
  }
}

// What main sees of main_invoker, in a child: the state is the process's.
int g_seen = 0;
int child_main(int, char**) {
  g_seen = (tqcore::has_main_exited() ? 1 : 0) + (tqcore::is_main_thread() ? 2 : 0) +
           (tqcore::program_path() == "prog" ? 4 : 0);
  return 7;
}

TEST(MainInvoker, KnowsMainAndReturnsItsResult) {
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    bool const before = tqcore::program_path().empty() && !tqcore::has_main_exited();
    char name[] = "prog";
    char* argv[] = {name, nullptr};
    int const result = tqcore::main_invoker(child_main, 1, argv);
    tqcore_managed_init();
    tqcore_managed_init();
    tqcore_managed_fini();
    bool const started = !ACE_Object_Manager::shutting_down();
    return before && result == 7 && g_seen == 6 && tqcore::has_main_exited() && started &&
                   tqcore::program_arguments().size() == 1
               ? 0
               : 1;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
}

int g_forwarded = 0;
void count_forwarded(int) { ++g_forwarded; }

// Sent by raise or kill, a fault signal is not a fault: it goes where it went before.
TEST(DiagnosticSignalHandler, SentSignalsGoToThePreviousDisposition) {
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    std::signal(SIGTRAP, SIG_IGN);
    std::signal(SIGFPE, count_forwarded);
    {
      tqcore::ScopedDiagnosticSignalHandler const guard;
      std::raise(SIGTRAP);
      std::raise(SIGFPE);
      kill(getpid(), SIGFPE);
    }
    struct sigaction restored {};
    sigaction(SIGFPE, nullptr, &restored);
    return g_forwarded == 2 && restored.sa_handler == count_forwarded ? 0 : 1;
  });
  EXPECT_TRUE(child.exited(0)) << child.status << child.output;
}

bool call_handler_again(tqcore::SourceLocation const&, tqcore::SourceString const&, char const*,
                        size_t) {
  try {
    tqcore::default_bad_alloc_handler();
  } catch (std::bad_alloc const& e) {
    std::fprintf(stderr, "second: %s\n", e.what());
  }
  return true;
}

TEST(BadAllocHandler, ASecondFailureRaisesAtOnce) {
  if (tqcore_test::kAddressSanitizer) GTEST_SKIP() << "the sanitizer's allocator owns failures";
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    tqcore::set_diagnostic_trace_handlers(nullptr, call_handler_again, nullptr);
    setenv("TQTQ_TRACE_ROOT", "/proc/none", 1);
    setenv("TMPDIR", "/proc/none", 1);  // no dump file left behind
    tqcore::BadAllocHandler const handler;
    EXPECT_EQ(tqcore::set_bad_alloc_handler(tqcore::default_bad_alloc_handler),
              tqcore::default_bad_alloc_handler);
    tqcore::default_bad_alloc_handler();
    return 0;
  });
  EXPECT_TRUE(child.killed_by(SIGABRT)) << child.output;
  EXPECT_NE(child.output.find("second: bad allocation"), std::string::npos) << child.output;
}

}  // namespace
