#include <tqcore/error_code.h>
#include <tqcore/version.h>
#include <tqmoduleregistry/module_registry.h>

#include <gtest/gtest.h>

#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "child_process.h"

namespace {

using tqcore_test::ChildResult;
using tqcore_test::run_program;

std::string const kMarker = "***TQTQ*MODULE*INFO*F70397B5E6FEBE4447157E5A1C9D5E64***\n";

// ---- The registry ----------------------------------------------------------------------------

TEST(ModuleRegistry, OneRecordPerName) {
  using namespace tqmoduleregistry;
  EXPECT_TRUE(add_module_info("test.module", "<a/>"));
  EXPECT_FALSE(add_module_info("test.module", "<b/>"));
  ModuleInfo info;
  ASSERT_TRUE(query_module_info("test.module", &info));
  EXPECT_STREQ(info.xml(), "<a/>");
  remove_module_info("test.module");
  EXPECT_FALSE(query_module_info("test.module", &info));
  EXPECT_TRUE(add_module_info("test.module", "<c/>"));
  remove_module_info("test.module");
}

TEST(ModuleRegistry, TqcoreRegisteredItselfAtLoad) {
  ASSERT_EQ(tqcore::error::tqcore, "error.tqcore");  // this process uses tqcore, so loads it
  tqmoduleregistry::ModuleInfo info;
  ASSERT_TRUE(tqmoduleregistry::query_module_info("tqcore", &info));
  EXPECT_EQ(std::string(info.xml()).rfind("<ModuleInfo name=\"tqcore\"", 0), 0u);
}

// ---- The record in the library file ----------------------------------------------------------

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

// A small checker for the XML subset the record uses: elements, quoted attributes, text and
// the five predefined entities. It fails on anything else.
class XmlChecker {
 public:
  explicit XmlChecker(std::string text) : m_text(std::move(text)) {}

  bool well_formed() {
    skip_space();
    if (!element()) return false;
    skip_space();
    return m_pos == m_text.size();
  }
  std::vector<std::string> const& item_names() const { return m_items; }
  std::map<std::string, std::string> const& root_attributes() const { return m_rootAttributes; }

 private:
  bool element() {
    if (!take('<')) return false;
    std::string tag = name();
    if (tag.empty()) return false;
    std::map<std::string, std::string> attributes;
    while (true) {
      skip_space();
      if (take('/')) return take('>') && record(tag, attributes);
      if (take('>')) break;
      std::string attribute = name();
      std::string value;
      if (attribute.empty() || !take('=') || !quoted(&value)) return false;
      if (!attributes.emplace(attribute, value).second) return false;
    }
    if (!record(tag, attributes)) return false;
    while (true) {
      if (!text()) return false;
      if (m_text.compare(m_pos, 2, "</") == 0) break;
      if (!element()) return false;
    }
    m_pos += 2;
    return name() == tag && take('>');
  }
  bool record(std::string const& tag, std::map<std::string, std::string> const& attributes) {
    if (m_depth++ == 0) m_rootAttributes = attributes;
    if (tag == "Item") {
      auto found = attributes.find("name");
      if (found == attributes.end()) return false;
      m_items.push_back(found->second);
    }
    return true;
  }
  bool text() {
    while (m_pos < m_text.size() && m_text[m_pos] != '<') {
      if (m_text[m_pos] == '&' && !entity()) return false;
      if (m_text[m_pos] == '>') return false;
      ++m_pos;
    }
    return m_pos < m_text.size();
  }
  bool entity() {
    for (char const* known : {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"}) {
      if (m_text.compare(m_pos, std::strlen(known), known) == 0) {
        m_pos += std::strlen(known) - 1;
        return true;
      }
    }
    return false;
  }
  bool quoted(std::string* value) {
    if (!take('"')) return false;
    size_t end = m_text.find('"', m_pos);
    if (end == std::string::npos) return false;
    *value = m_text.substr(m_pos, end - m_pos);
    if (value->find('<') != std::string::npos) return false;
    m_pos = end + 1;
    return true;
  }
  std::string name() {
    size_t start = m_pos;
    while (m_pos < m_text.size() && (std::isalnum(static_cast<unsigned char>(m_text[m_pos])) ||
                                     m_text[m_pos] == '_' || m_text[m_pos] == '-')) {
      ++m_pos;
    }
    return m_text.substr(start, m_pos - start);
  }
  bool take(char c) {
    if (m_pos >= m_text.size() || m_text[m_pos] != c) return false;
    ++m_pos;
    return true;
  }
  void skip_space() {
    while (m_pos < m_text.size() && std::isspace(static_cast<unsigned char>(m_text[m_pos])))
      ++m_pos;
  }

  std::string m_text;
  size_t m_pos = 0;
  int m_depth = 0;
  std::vector<std::string> m_items;
  std::map<std::string, std::string> m_rootAttributes;
};

TEST(ModuleInfoRecord, StandsInTheLibraryAsWellFormedXml) {
  std::string record = record_in_library();
  ASSERT_FALSE(record.empty()) << "no marker in " << TQCORE_LIBRARY_FILE;
  ASSERT_EQ(record.back(), '\n');
  XmlChecker checker(record.substr(record.find('<')));
  ASSERT_TRUE(checker.well_formed()) << record;
  std::vector<std::string> const expected_items = {
      "CompanyName",    "FileVersion",        "InternalName",  "OriginalFilename",
      "LegalCopyright", "TQTQBuildMachine",   "TQTQBuildName", "TQTQBuildChangelist",
      "TQTQBuildNum",   "TQTQBuildTimestamp", "TQTQGCCBuildId"};
  EXPECT_EQ(checker.item_names(), expected_items);
  std::map<std::string, std::string> const root = checker.root_attributes();
  EXPECT_EQ(root.at("name"), "tqcore");
  EXPECT_EQ(root.at("type"), "so");
  EXPECT_EQ(root.at("tool"), "gcc");
  EXPECT_EQ(root.at("arch"), "x86_64");
  EXPECT_NE(record.find("<Item name=\"FileVersion\">" TQCORE_VERSION_STRING "</Item>"),
            std::string::npos);
}

TEST(ModuleInfoRecord, CheckerRefusesBrokenXml) {
  for (char const* broken : {"<a><b></a></b>", "<a x=\"1>", "<a>&bogus;</a>", "<a></a><b/>",
                             "<a x=\"1\" x=\"2\"/>", "<a>"}) {
    EXPECT_FALSE(XmlChecker(broken).well_formed()) << broken;
  }
  EXPECT_TRUE(XmlChecker("<a x=\"1\"><b>t &amp; u</b><c/></a>").well_formed());
}

// ---- A second copy in one process ------------------------------------------------------------

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

}  // namespace
