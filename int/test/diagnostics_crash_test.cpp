// Real crashes: the helper fails under main_invoker in a child process, and the test reads
// how the child ended, the report on its standard error, and the dump it left.
#include <gtest/gtest.h>

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

struct CrashCase {
  char const* mode;
  char const* throw_always;  // TQTQ_ASSERT_THROW_ALWAYS, or null for unset
  int signal;                // how the child ends: a signal, or 0 for exit code 5
  bool dump;
  char const* debugger_frame;  // what `gdb bt` shows, or null
  std::vector<char const*> texts;
};

std::vector<CrashCase> const kCrashes = {
    {"null-write",
     nullptr,
     SIGABRT,
     true,
     "crash_null_write",
     {"error.exception.fault.accessViolation",
      "attempted 'write' access at virtual address "
      "0x0000000000000000",
      "'signal' => \"SIGSEGV\"", "crash_null_write(value=",
      "Application main() function exited with unknown exception!", "Created memory dump: /"}},
    {"null-read",
     nullptr,
     SIGABRT,
     true,
     nullptr,
     {"attempted 'read' access", "crash_null_read()"}},
    {"execute", nullptr, SIGABRT, true, nullptr, {"attempted 'execute' access"}},
    {"divide",
     nullptr,
     SIGABRT,
     true,
     "crash_divide",
     {"Fault \"Integer divide-by-zero\" by thread 0x", "'windowsFaultCode' => \"0xc0000094\"",
      "'signal' => \"SIGFPE\"", "crash_divide(value="}},
    {"overflow",
     nullptr,
     SIGABRT,
     true,
     nullptr,
     {"Fault \"Stack overflow\"", "'stackTrace' => \"<failed>\""}},
    {"abort", nullptr, SIGABRT, false, nullptr, {}},
    {"throw-int",
     nullptr,
     SIGABRT,
     true,
     nullptr,
     {"C++ exception of type 'int' thrown by thread", "ObjectSize: 4", "ObjectDump: 2a000000",
      "'windowsFaultCode' => \"0xe06d7363\"", "!!!!! Aborting process NOW !!!!!"}},
    {"throw-runtime",
     nullptr,
     SIGABRT,
     true,
     nullptr,
     {"Application main() function exited with an exception!  Exception: helper gave up",
      "Exception that probably caused termination: ", "error.exception.runtime_error"}},
    {"terminate-thread",
     nullptr,
     SIGABRT,
     true,
     nullptr,
     {"!!! std::terminate() called; exception thrown while unwinding stack",
      "error.exception.unknown"}},
    {"new", nullptr, SIGABRT, true, nullptr, {"Memory allocation failed! Dump: /"}},
    {"assert",
     "yes",
     SIGABRT,
     true,
     nullptr,
     {"error.exception.assert", "Expression: 1 == 2", "crash_assert()"}},
    {"assert",
     "0",
     0,
     false,
     nullptr,
     {"*** ASSERT - tqcore::impl::report_failed_assert_aux()", "Line:       42",
      "---BeginStackTrace---\n[0x", "crash_assert() - crash_helper.cpp("}},
    {"thread-fault",
     nullptr,
     SIGABRT,
     true,
     "crash_null_write",
     {"Fault \"Access violation\" (0xc0000005, SIGSEGV)", "tqcore_crash_helper+0x",
      "!!!!! Aborting process NOW !!!!!"}},
};

class CrashTest : public ::testing::TestWithParam<CrashCase> {
 protected:
  void SetUp() override {
    if (tqcore_test::kAddressSanitizer || tqcore_test::kThreadSanitizer) {
      GTEST_SKIP() << "a sanitizer owns the fault signals and the address space";
    }
    char pattern[] = "/tmp/tqcore_crash_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_root = pattern;
  }
  void TearDown() override {
    if (!m_root.empty()) fs::remove_all(m_root);
  }

  std::vector<fs::path> dumps() const {
    std::vector<fs::path> found;
    for (auto const& entry : fs::recursive_directory_iterator(m_root)) {
      if (entry.path().extension() == ".dmp") found.push_back(entry.path());
    }
    return found;
  }

  fs::path m_root;
};

bool is_core_file(fs::path const& path) {
  std::ifstream file(path, std::ios::binary);
  Elf64_Ehdr header{};
  file.read(reinterpret_cast<char*>(&header), sizeof(header));
  return file && std::string(reinterpret_cast<char*>(header.e_ident), SELFMAG) == ELFMAG &&
         header.e_type == ET_CORE && header.e_machine == EM_X86_64;
}

TEST_P(CrashTest, EndsReportsAndDumpsAsItShould) {
  CrashCase const& crash = GetParam();
  std::vector<std::string> environment{"TQTQ_TRACE_ROOT=" + m_root.string()};
  if (crash.throw_always != nullptr) {
    environment.push_back(std::string("TQTQ_ASSERT_THROW_ALWAYS=") + crash.throw_always);
  }
  tqcore_test::ChildResult const child =
      tqcore_test::run_program(TQCORE_CRASH_HELPER, {crash.mode}, environment);
  if (crash.signal != 0) {
    EXPECT_TRUE(child.killed_by(crash.signal)) << child.status << "\n" << child.output;
  } else {
    EXPECT_TRUE(child.exited(5)) << child.status << "\n" << child.output;
  }
  for (char const* text : crash.texts)
    EXPECT_NE(child.output.find(text), std::string::npos) << text;
  std::vector<fs::path> const written = dumps();
  ASSERT_EQ(written.size(), crash.dump ? 1u : 0u) << child.output;  // one crash, one dump
  if (!crash.dump) return;
  EXPECT_TRUE(tqcore_test::is_dump_name(written[0].filename(), "tqcore_crash_helper"))
      << written[0];
  EXPECT_TRUE(is_core_file(written[0]));
  EXPECT_NE(child.output.find(written[0].string()), std::string::npos) << "the report names it";
  if (crash.debugger_frame == nullptr || access("/usr/bin/gdb", X_OK) != 0) return;
  tqcore_test::ChildResult const gdb = tqcore_test::run_program(
      "/usr/bin/gdb", {"-batch", "-nx", "-ex", "bt", TQCORE_CRASH_HELPER, written[0].string()});
  EXPECT_NE(gdb.output.find(std::string(" in (anonymous namespace)::") + crash.debugger_frame),
            std::string::npos)
      << gdb.output;
}

INSTANTIATE_TEST_SUITE_P(Helper, CrashTest, ::testing::ValuesIn(kCrashes),
                         [](::testing::TestParamInfo<CrashCase> const& info) {
                           std::string name = info.param.mode;
                           if (info.param.throw_always != nullptr) name += "_throw_always";
                           for (char& c : name) c = c == '-' ? '_' : c;
                           return name + "_" + std::to_string(info.index);
                         });

// The program's name loses its last extension only; the thread id is in lower-case hex.
TEST_F(CrashTest, DumpNameTakesTheProgramNameUpToItsLastDot) {
  fs::path const copy = m_root / "a.b.exe";
  fs::copy_file(TQCORE_CRASH_HELPER, copy);
  tqcore_test::ChildResult const child = tqcore_test::run_program(
      copy.string(), {"dump-path"}, {"TQTQ_TRACE_ROOT=" + m_root.string()});
  fs::path const path = child.output.substr(0, child.output.find('\n'));
  EXPECT_EQ(path.parent_path().parent_path(), m_root) << child.output;
  EXPECT_TRUE(tqcore_test::is_dump_name(path.filename(), "a.b")) << child.output;
}

}  // namespace
