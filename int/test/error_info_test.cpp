#include <tqcore/error_exception.h>
#include <tqcore/error_info.h>
#include <tqcore/error_params.h>

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tqcore {
namespace {

char const kFileId[] = "$Id: //tqcore/int/test/error_info_test.cpp#7 $";

SourceLocation here(unsigned int line) { return SourceLocation("test::fn()", kFileId, line); }

ErrorInfo::Ptr make(char const* code, char const* message = "message",
                    ErrorInfo::Ptr nested = ErrorInfo::Ptr()) {
  return ErrorInfo::create(ErrorCode(code), message, here(1), std::move(nested));
}

using Entries = std::vector<std::pair<char const*, char const*>>;

ErrorParams params_of(Entries const& entries) {
  ErrorParams params;
  for (auto const& entry : entries) {
    params.add(entry.first, SourceString::npos, entry.second, SourceString::npos);
  }
  return params;
}

std::string report(ErrorInfo::Ptr const& error, unsigned int depth = 0) {
  std::ostringstream out;
  out << ErrorInfo::Trace{error.get(), depth};
  return out.str();
}

class ErrorChain : public ::testing::Test {
 protected:
  ErrorInfo::Ptr root = make("error.io.disk.full");
  ErrorInfo::Ptr middle = make("error.io.write", "message", root);
  ErrorInfo::Ptr top = make("error.config.save", "message", middle);
};

struct NativeCodeCase {
  Entries params;
  long expected;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(NativeCodeCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.params);
}

class NativeCode : public ::testing::TestWithParam<NativeCodeCase> {};

TEST_P(NativeCode, TheFirstPresentNameDecides) {
  ErrorInfo::Ptr error =
      ErrorInfo::create(ErrorCode("error.x"), "m", params_of(GetParam().params), here(1));
  EXPECT_EQ(error->native_code(), GetParam().expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, NativeCode,
    ::testing::Values(
        NativeCodeCase{{{"errno", "13"}}, 13},
        NativeCodeCase{{{"nativeCode", "0x10"}}, 16},
        NativeCodeCase{{{"nativeCode", "010"}}, 8},
        NativeCodeCase{{{"nativeCode", "-5"}}, -5},
        NativeCodeCase{{{"nativeCode", "12abc"}, {"errno", "4"}}, 0},
        NativeCodeCase{{{"errno", "4"}, {"winErrorCode", "5"}}, 4},
        NativeCodeCase{{{"winErrorCode", "5"}}, 5},
        NativeCodeCase{{{"other", "5"}}, 0},
        NativeCodeCase{{}, 0}));
// clang-format on

class ErrorReport : public ::testing::Test {
 protected:
  std::string host = impl_host();
  static std::string impl_host() { return make("error.x")->hostname().as_string(); }
  std::string head(std::string const& indent, char const* code) {
    return "\n" + indent + "ErrorCode:   " + code;
  }
  std::string tail(std::string const& indent, unsigned int line) {
    return "\n" + indent + "Hostname:    " + host + "\n" + indent + "Function:    test::fn()\n" +
           indent + "File(Line):  //tqcore/int/test/error_info_test.cpp#7(" + std::to_string(line) +
           ")";
  }
};

TEST_F(ErrorReport, NestedRecordsIndentByTwoPerLevel) {
  ErrorInfo::Ptr error = make("error.outer", "outer", make("error.inner", "inner"));
  std::string const expected =
      head("    ", "error.outer") + "\n    Description: outer" + tail("    ", 1) +
      "\n    Parameters:  " + "\n    Nested: " + head("      ", "error.inner") +
      "\n      Description: inner" + tail("      ", 1) + "\n      Parameters:  ";
  EXPECT_EQ(report(error, 2), expected);
  std::ostringstream plain;
  plain << *error;
  EXPECT_EQ(plain.str(), report(error, 0));
}

TEST_F(ErrorReport, ParametersOnTheirOwnLines) {
  std::string const long_value(600, 'v');
  ErrorInfo::Ptr error = ErrorInfo::create(
      ErrorCode("error.x"), "m",
      params_of({{"a", "one"}, {"b", "line1\nline2"}, {"c", long_value.c_str()}, {"d", "x\n"}}),
      here(9));
  std::string const expected = head("", "error.x") + "\nDescription: m" + tail("", 9) +
                               "\nParameters:  "
                               "\n    'a' => \"one\""
                               "\n    'b' => \n        \"line1\"\n        \"line2"
                               "\n    'c' => \"" +
                               long_value +
                               "\"[...](88 omitted)"
                               "\n    'd' => \n        \"x\"\n        \"";
  EXPECT_EQ(report(error), expected);
}

TEST_F(ErrorReport, MessageValuesAreCutAt16384Bytes) {
  std::string const value(20000, 'q');
  ErrorInfo::Ptr error =
      ErrorInfo::create(ErrorCode("error.x"), "{@v}", params_of({{"v", value.c_str()}}), here(1));
  std::string const text = report(error);
  EXPECT_NE(text.find("\nDescription: " + std::string(16384, 'q') + "...\n"), std::string::npos);
}

ErrorParams params_of(std::initializer_list<std::pair<char const*, char const*>> entries) {
  ErrorParams params;
  for (auto const& entry : entries) {
    params.add(entry.first, SourceString::npos, entry.second, SourceString::npos);
  }
  return params;
}

TEST(ErrorParams, AbsentNamesAreEmptyAndNotFound) {
  ErrorParams params = params_of({{"name", "value"}});
  EXPECT_EQ(params.get_value("other"), "");
  std::string out = "untouched";
  EXPECT_FALSE(params.query_value("other", 5, &out));
  EXPECT_EQ(out, "untouched");
  EXPECT_TRUE(params.query_value("name", 4, &out));
  EXPECT_EQ(out, "value");
  EXPECT_TRUE(params.query_value("name", 4, nullptr));
  EXPECT_EQ(params.count("name"), 1u);
  EXPECT_EQ(params.count("nam"), 0u);
  EXPECT_EQ(params.find("namex", 4), params.begin());  // an explicit length cuts the name
}

TEST(ErrorParams, OrderingWalksKeysThenValues) {
  EXPECT_EQ(params_of({}).compare(params_of({})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"b", "0"}})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"a", "2"}})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"a", "1"}, {"b", "1"}})), 0);
  EXPECT_GT(params_of({{"b", "1"}}).compare(params_of({{"a", "1"}, {"c", "1"}})), 0);
  EXPECT_TRUE(params_of({{"a", "1"}}) < params_of({{"a", "2"}}));
  EXPECT_TRUE(params_of({{"a", "1"}}) != params_of({{"a", "1"}, {"b", "1"}}));
}

struct ExpansionCase {
  char const* message;
  size_t limit;
  char const* expected;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(ExpansionCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.message);
}

class Expansion : public ::testing::TestWithParam<ExpansionCase> {
 protected:
  ErrorParams params = params_of({{"name", "value"},
                                  {"", "empty-key"},
                                  {"ten", "0123456789"},
                                  {"utf8", "ab\xC3\xA9z"},
                                  {"brace", "{@name}"}});
};

TEST_P(Expansion, ReplacesKnownPlaceholders) {
  ExpansionCase const& c = GetParam();
  SourceString message(c.message, true);
  EXPECT_EQ(params.expanded_message_with_limit(message, c.limit).as_string(), c.expected);
  EXPECT_EQ(
      params.expanded_message_with_limit(c.message, std::strlen(c.message), c.limit).as_string(),
      c.expected);
}

constexpr size_t kNone = SourceString::npos;

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, Expansion,
    ::testing::Values(
        ExpansionCase{"plain text", kNone, "plain text"},
        ExpansionCase{"a {@name} b", kNone, "a value b"},
        ExpansionCase{"a {@unknown} b", kNone, "a {@unknown} b"},
        ExpansionCase{"open {@name", kNone, "open {@name"},
        ExpansionCase{"{@}", kNone, "empty-key"},
        ExpansionCase{"{@{@name}", kNone, "{@{@name}"},
        // the name is "{@name"
        ExpansionCase{"{@brace}", kNone, "{@name}"},
        // values are not scanned again
        ExpansionCase{"{@name} then {@ open", kNone, "value then {@ open"},
        ExpansionCase{"{@ten}", 4, "0123..."},
        // exactly the limit: not cut
        ExpansionCase{"{@ten}", 0, "..."},
        ExpansionCase{"{@utf8}", 3, "ab..."},
        // byte 3 continues the character at 2
        ExpansionCase{"{@utf8}", 4, "ab\xC3\xA9..."}));
// clang-format on

TEST(ExpansionWithoutPlaceholder, SourceStringFormReturnsTheArgumentItself) {
  static char const literal[] = "nothing to expand";
  ErrorParams params;
  SourceString reference(literal, true);
  EXPECT_EQ(params.expanded_message(reference).data(), literal);
  SourceString dynamic("dynamic");
  EXPECT_EQ(params.expanded_message(dynamic).data(), dynamic.data());
  SourceString single("{", true);
  EXPECT_EQ(params.expanded_message(single).data(), single.data());
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {}  // namespace
}  // namespace tqcore
