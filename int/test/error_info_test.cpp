#include <tqcore/error_exception.h>
#include <tqcore/error_info.h>

#include <gtest/gtest.h>

#include <sstream>
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

// ---- Creation --------------------------------------------------------------------------------

TEST(ErrorInfoCreate, LiteralFormsReferTheirTexts) {
  static char const message[] = "literal message";
  SourceLocation location = here(12);
  ErrorInfo::Ptr error = ErrorInfo::create(error::tqcore_uuid_parse, message, location);
  EXPECT_EQ(error->message().data(), message);
  EXPECT_TRUE(error->message().is_reference());
  EXPECT_EQ(error->code().value().data(), error::tqcore_uuid_parse.value().data());
  EXPECT_EQ(error->location(), location);
  EXPECT_TRUE(error->nested().is_null());
  EXPECT_TRUE(error->params().empty());
  EXPECT_FALSE(error->hostname().empty());
  EXPECT_TRUE(error->has_unique_ref());
}

// ---- Matching along the chain ----------------------------------------------------------------

class ErrorChain : public ::testing::Test {
 protected:
  ErrorInfo::Ptr root = make("error.io.disk.full");
  ErrorInfo::Ptr middle = make("error.io.write", "message", root);
  ErrorInfo::Ptr top = make("error.config.save", "message", middle);
};

// ---- native_code -----------------------------------------------------------------------------

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

TEST(NativeCode, EmbeddedNulRaises) {
  ErrorParams params;
  params.add("errno", 5,
             "1\0"
             "2",
             3);
  ErrorInfo::Ptr error = ErrorInfo::create(ErrorCode("error.x"), "m", params, here(1));
  try {
    error->native_code();
    FAIL();
  } catch (ErrorException const& e) {
    EXPECT_TRUE(e.matches(error::tqcore_string_embeddedNul));
    EXPECT_EQ(e.error()->message(),
              "String contains embedded NUL character and cannot be converted to a 'C'-string");
    EXPECT_EQ(e.error()->location().function(), "tqcore::raise_embedded_nul_error()");
  }
}

// ---- Comparison and hash ---------------------------------------------------------------------

// ---- The report ------------------------------------------------------------------------------

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

TEST_F(ErrorReport, SingleRecordWithOneParameterOnTheLabelLine) {
  ErrorInfo::Ptr error = ErrorInfo::create(ErrorCode("error.x"), "Bad {@what}.",
                                           params_of({{"what", "input"}}), here(5));
  EXPECT_EQ(report(error), head("", "error.x") + "\nDescription: Bad input." + tail("", 5) +
                               "\nParameters:  'what' => \"input\"");
}

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

TEST_F(ErrorReport, LongMultiLineValueShowsItsFirst512Bytes) {
  std::string value = "top\n" + std::string(600, 'y');
  ErrorInfo::Ptr error =
      ErrorInfo::create(ErrorCode("error.x"), "m", params_of({{"v", value.c_str()}}), here(1));
  std::string const shown_tail(508, 'y');
  EXPECT_EQ(report(error), head("", "error.x") + "\nDescription: m" + tail("", 1) +
                               "\nParameters:  \n    'v' => \n        \"top\"\n        \"" +
                               shown_tail + "[...](92 omitted)");
}

TEST_F(ErrorReport, MessageValuesAreCutAt16384Bytes) {
  std::string const value(20000, 'q');
  ErrorInfo::Ptr error =
      ErrorInfo::create(ErrorCode("error.x"), "{@v}", params_of({{"v", value.c_str()}}), here(1));
  std::string const text = report(error);
  EXPECT_NE(text.find("\nDescription: " + std::string(16384, 'q') + "...\n"), std::string::npos);
}

}  // namespace
}  // namespace tqcore
