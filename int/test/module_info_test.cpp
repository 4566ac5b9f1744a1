#include <tqcore/error_code.h>
#include <tqcore/version.h>
#include <tqmoduleregistry/module_registry.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "child_process.h"

namespace {

using tqcore_test::ChildResult;
using tqcore_test::run_program;

std::string const kMarker = "***TQTQ*MODULE*INFO*F70397B5E6FEBE4447157E5A1C9D5E64***\n";

TEST(ModuleRegistry, TqcoreRegisteredItselfAtLoad) {
  ASSERT_EQ(tqcore::error::tqcore, "error.tqcore");  // this process uses tqcore, so loads it
  tqmoduleregistry::ModuleInfo info;
  ASSERT_TRUE(tqmoduleregistry::query_module_info("tqcore", &info));
  EXPECT_EQ(std::string(info.xml()).rfind("<ModuleInfo name=\"tqcore\"", 0), 0u);
}

std::string library_bytes() {
  std::ifstream file(TQCORE_LIBRARY_FILE, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The record as it stands in the file: from the marker to its terminating NUL.
std::string record_in_library() {
  std::string bytes = library_bytes();
  size_t start = bytes.find(kMarker);
  if (start == std::string::npos) return "";
  return bytes.substr(start, bytes.find('\0', start) - start);
}

TEST(ModuleInfoRecord, StandsInTheLibraryWithItsItemsInOrder) {
  std::string record = record_in_library();
  ASSERT_FALSE(record.empty()) << "no marker in " << TQCORE_LIBRARY_FILE;
  EXPECT_EQ(record.back(), '\n');
  EXPECT_NE(record.find("\n<ModuleInfo name=\"tqcore\" type=\"so\" tool=\"gcc\" build=\""),
            std::string::npos);
  EXPECT_NE(record.find("\" arch=\"x86_64\">\n <FileInfo>\n"), std::string::npos);
  size_t position = 0;
  for (char const* item :
       {"CompanyName", "FileVersion", "InternalName", "OriginalFilename", "LegalCopyright",
        "TQTQBuildMachine", "TQTQBuildName", "TQTQBuildChangelist", "TQTQBuildNum",
        "TQTQBuildTimestamp", "TQTQGCCBuildId"}) {
    position = record.find(std::string("  <Item name=\"") + item + "\">", position);
    ASSERT_NE(position, std::string::npos) << item << " missing or out of order";
  }
  EXPECT_NE(record.find("<Item name=\"FileVersion\">" TQCORE_VERSION_STRING "</Item>"),
            std::string::npos);
}

class SecondCopy : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = std::filesystem::temp_directory_path() /
            ("tqcore-second-copy-" + std::to_string(::getpid()));
    std::filesystem::create_directories(m_dir);
    m_copy = (m_dir / "libtqcore_second_copy.so").string();
    std::filesystem::copy_file(TQCORE_LIBRARY_FILE, m_copy,
                               std::filesystem::copy_options::overwrite_existing);
  }
  void TearDown() override { std::filesystem::remove_all(m_dir); }

  ChildResult load(std::vector<std::string> environment) {
    // Two instrumented copies define the same globals on purpose.
    environment.push_back("ASAN_OPTIONS=detect_odr_violation=0");
    return run_program(TQCORE_MODULE_LOAD_HELPER, {m_copy}, environment);
  }

  static void expect_both_records(std::string const& output) {
    std::string const head =
        "ModuleRegistry: Module tqcore is already loaded into this process!\n"
        "This is typically caused by a version or debug/release mismatch between libraries "
        "referenced by this process.\n"
        "Data of module that was already registered:\n<ModuleInfo name=\"tqcore\"";
    EXPECT_NE(output.find(head), std::string::npos) << output;
    EXPECT_NE(output.find("</ModuleInfo>\n\nData of new module that conflicts:\n<ModuleInfo"),
              std::string::npos)
        << output;
    EXPECT_NE(output.find("</ModuleInfo>\n\n\nAborting...\n"), std::string::npos) << output;
  }

  std::filesystem::path m_dir;
  std::string m_copy;
};

TEST_F(SecondCopy, PrintsBothRecordsAndTraps) {
  ChildResult child = load({});
  EXPECT_TRUE(child.killed_by(SIGTRAP)) << "status " << child.status << "\n" << child.output;
  expect_both_records(child.output);
  EXPECT_EQ(child.output.find("going on"), std::string::npos);
}

TEST_F(SecondCopy, GoesOnWhenTheEnvironmentSaysSo) {
  ChildResult child = load({"TQTQ_MODULEREGISTRY_DONT_FAIL_ON_DUPLICATES="});
  EXPECT_TRUE(child.exited(0)) << "status " << child.status << "\n" << child.output;
  expect_both_records(child.output);
  EXPECT_NE(child.output.find("second copy loaded, going on\n"), std::string::npos);
}

// A renamed copy stands for a plugin's own tqcore: it registers, and unloads leaving nothing.
TEST_F(SecondCopy, ACopyUnloadsAndLeavesTheRegistryAsItFoundIt) {
  ChildResult const child =
      run_program(TQCORE_MODULE_UNLOAD_HELPER, {m_copy}, {"ASAN_OPTIONS=detect_leaks=0"});
  EXPECT_TRUE(child.exited(0)) << child.status << "\n" << child.output;
  EXPECT_EQ(child.output, "before: absent\nloaded: registered\nunloaded: gone, absent\n");
}

}  // namespace
