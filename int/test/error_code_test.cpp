#include <tqcore/error_code.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace tqcore {
namespace {

struct MatchCase {
  char const* code;
  char const* pattern;
  bool expected;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(MatchCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.code);
}

class ErrorCodeMatches : public ::testing::TestWithParam<MatchCase> {};

TEST_P(ErrorCodeMatches, IsAPrefixAtASegmentBoundary) {
  MatchCase const& c = GetParam();
  ErrorCode code(c.code);
  EXPECT_EQ(code.matches(c.pattern), c.expected);
  if (c.pattern != nullptr) {
    EXPECT_EQ(code.matches(ErrorCode(c.pattern)), c.expected);
    EXPECT_EQ(code.matches(c.pattern, std::string(c.pattern).size()), c.expected);
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, ErrorCodeMatches,
    ::testing::Values(
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.string.utf8", true},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.string.utf8.invalid", true},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.str", false},
        MatchCase{"error.tqcore.string.utf8.invalid", "error.tqcore.string.", false},
        MatchCase{"error.tqcore.string.utf8.invalid", "tqcore", false},
        // case counts
        MatchCase{"error.tqcore", "error.tqcorf", false},
        MatchCase{"error.tqcore", ".", true},
        MatchCase{"error.tqcore", "", true},
        MatchCase{"", "", true},
        MatchCase{"", ".", false},
        MatchCase{"", "error", false}));
// clang-format on

// The standard exception classes keep their own names in codes; the constants spell them in
// camel case. Every other segment is the constant's segment as it stands.
std::string code_segment(std::string const& segment) {
  static std::map<std::string, std::string> const exception_names = {
      {"badAlloc", "bad_alloc"},
      {"badCast", "bad_cast"},
      {"badLexicalCast", "bad_lexical_cast"},
      {"logicError", "logic_error"},
      {"domainError", "domain_error"},
      {"invalidArgument", "invalid_argument"},
      {"lengthError", "length_error"},
      {"outOfRange", "out_of_range"},
      {"runtimeError", "runtime_error"},
      {"rangeError", "range_error"},
      {"overflowError", "overflow_error"},
      {"underflowError", "underflow_error"}};
  auto found = exception_names.find(segment);
  return found == exception_names.end() ? segment : found->second;
}

// The code a constant's name stands for: "error." and its segments joined by '.'. The errno
// family keeps each name whole, since errno names hold no underscores.
std::string expected_code(std::string name) {
  if (name == "errno_") return "error.errno";
  if (name.rfind("errno_", 0) == 0) return "error.errno." + name.substr(6);
  std::string code = "error";
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('_', start);
    if (end == std::string::npos) end = name.size();
    code += "." + code_segment(name.substr(start, end - start));
    start = end + 1;
  }
  return code;
}

// The constants as the public header declares them, each found by its exported symbol: a
// constant that is declared but missing, or whose literal has a typo, cannot hide.
struct CatalogueEntry {
  std::string name;
  ErrorCode const* code;
};

std::vector<CatalogueEntry> catalogue() {
  std::ifstream header(TQCORE_PUBLIC_INCLUDE_DIR "/tqcore/error_code.h");
  std::string const prefix = "extern TQCORE_EXPORT ErrorCode const ";
  std::vector<CatalogueEntry> entries;
  std::string line;
  while (std::getline(header, line)) {
    if (line.rfind(prefix, 0) != 0 || line.back() != ';') continue;
    std::string name = line.substr(prefix.size(), line.size() - prefix.size() - 1);
    std::string symbol = "_ZN6tqcore5error" + std::to_string(name.size()) + name + "E";
    entries.push_back({name, static_cast<ErrorCode const*>(dlsym(RTLD_DEFAULT, symbol.c_str()))});
  }
  return entries;
}

TEST(ErrorCatalogue, EveryConstantIsExportedAsAnUnmeasuredReference) {
  std::vector<CatalogueEntry> const entries = catalogue();
  ASSERT_EQ(entries.size(), 158u);
  std::set<std::string> texts;
  for (CatalogueEntry const& entry : entries) {
    ASSERT_NE(entry.code, nullptr) << entry.name << " is not exported";
    EXPECT_TRUE(entry.code->value().is_reference()) << entry.name;
    EXPECT_EQ(entry.code->value().as_string(), expected_code(entry.name)) << entry.name;
    texts.insert(entry.code->value().as_string());
  }
  EXPECT_EQ(texts.size(), 158u);
  EXPECT_EQ(catalogue()[0].code, &error::tqcore);  // the lookup finds the real objects
}

}  // namespace
}  // namespace tqcore
