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

TEST(ErrorInfoCreate, EveryRecordSharesTheHostName) {
  ErrorInfo::Ptr a = make("error.a");
  ErrorInfo::Ptr b = ErrorInfo::create(ErrorCode("error.b"), SourceString("computed"),
                                       params_of({{"k", "v"}}), here(2));
  EXPECT_EQ(a->hostname().data(), b->hostname().data());
  EXPECT_EQ(b->params().get_value("k"), "v");
  EXPECT_FALSE(b->message().is_reference());
}

TEST(ErrorInfoCreate, ExplicitHostNameAndTransferForms) {
  ErrorInfo::Ptr cause = make("error.cause");
  ErrorInfo::Ptr remote =
      ErrorInfo::create(ErrorCode("error.remote"), SourceString("m"), ErrorParams(), here(3), cause,
                        SourceString("far-away-host"));
  EXPECT_EQ(remote->hostname(), "far-away-host");
  EXPECT_EQ(remote->nested(), cause);

  ErrorCode code("error.moved");
  SourceString message("moved message");
  ErrorParams params = params_of({{"a", "b"}});
  SourceLocation location = here(4);
  ErrorInfo::Ptr nested = cause;
  SourceString host("h");
  char const* message_text = message.data();
  ErrorInfo::Ptr moved = ErrorInfo::create(code.transfer(), message.transfer(), params.transfer(),
                                           location.transfer(), nested.transfer(), host.transfer());
  EXPECT_TRUE(code.empty() && message.empty() && params.empty() && location.empty());
  EXPECT_TRUE(nested.is_null());
  EXPECT_EQ(moved->message().data(), message_text);  // nothing was copied
  EXPECT_EQ(moved->nested(), cause);
}

// ---- Matching along the chain ----------------------------------------------------------------

class ErrorChain : public ::testing::Test {
 protected:
  ErrorInfo::Ptr root = make("error.io.disk.full");
  ErrorInfo::Ptr middle = make("error.io.write", "message", root);
  ErrorInfo::Ptr top = make("error.config.save", "message", middle);
};

TEST_F(ErrorChain, MatchesLooksAtThisRecordOnly) {
  EXPECT_TRUE(top->matches("error.config"));
  EXPECT_FALSE(top->matches("error.io"));
  EXPECT_TRUE(top->any_matches("error.io"));
  EXPECT_TRUE(top->any_matches(ErrorCode("error.io.disk")));
  EXPECT_TRUE(top->any_matches(SourceString("error.io.disk.full")));
  EXPECT_FALSE(top->any_matches("error.net"));
}

TEST_F(ErrorChain, FirstMatchingReturnsTheOutermostMatch) {
  EXPECT_EQ(top->first_matching("error.io"), middle);
  EXPECT_EQ(top->first_matching("error.io.disk"), root);
  EXPECT_EQ(top->first_matching("."), top);
  EXPECT_TRUE(top->first_matching("error.net").is_null());
  EXPECT_EQ(top->first_matching("error.io.disk.full.x", 13), root);
}

// ---- native_code -----------------------------------------------------------------------------

struct NativeCodeCase {
  Entries params;
  long expected;
};

class NativeCode : public ::testing::TestWithParam<NativeCodeCase> {};

TEST_P(NativeCode, TheFirstPresentNameDecides) {
  ErrorInfo::Ptr error =
      ErrorInfo::create(ErrorCode("error.x"), "m", params_of(GetParam().params), here(1));
  EXPECT_EQ(error->native_code(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, NativeCode,
    ::testing::Values(NativeCodeCase{{{"errno", "13"}}, 13},
                      NativeCodeCase{{{"nativeCode", "0x10"}}, 16},
                      NativeCodeCase{{{"nativeCode", "010"}}, 8},
                      NativeCodeCase{{{"nativeCode", "-5"}}, -5},
                      NativeCodeCase{{{"nativeCode", "12abc"}, {"errno", "4"}}, 0},
                      NativeCodeCase{{{"errno", "4"}, {"winErrorCode", "5"}}, 4},
                      NativeCodeCase{{{"winErrorCode", "5"}}, 5},
                      NativeCodeCase{{{"other", "5"}}, 0}, NativeCodeCase{{}, 0}));

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

TEST(ErrorInfoCompare, EqualityDecidesOnTheNestedRecords) {
  ErrorInfo::Ptr a = make("error.a", "message", make("error.cause"));
  ErrorInfo::Ptr b = make("error.b", "other", make("error.cause"));
  EXPECT_TRUE(*a == *b);  // the causes are equal, so the records are
  EXPECT_NE(a->compare(*b), 0);
  EXPECT_TRUE(*a < *b);
  EXPECT_FALSE(*make("error.a", "m", make("error.c1")) == *make("error.a", "m", make("error.c2")));
  EXPECT_FALSE(*make("error.a", "m", make("error.c")) == *make("error.a", "m"));
}

TEST(ErrorInfoCompare, FieldsDecideInOrder) {
  EXPECT_LT(make("error.a", "z")->compare(*make("error.b", "a")), 0);  // code first
  EXPECT_LT(make("error.a", "a")->compare(*make("error.a", "b")), 0);  // then message
  ErrorInfo::Ptr with_params =
      ErrorInfo::create(ErrorCode("error.a"), "a", params_of({{"k", "v"}}), here(1));
  EXPECT_LT(make("error.a", "a")->compare(*with_params), 0);  // then params
  ErrorInfo::Ptr later = ErrorInfo::create(ErrorCode("error.a"), "a", here(2));
  EXPECT_LT(make("error.a", "a")->compare(*later), 0);  // then location
  EXPECT_LT(make("error.a", "a")->compare(*make("error.a", "a", make("error.n"))), 0);
  EXPECT_EQ(make("error.a", "a")->compare(*make("error.a", "a")), 0);
  EXPECT_TRUE(*make("error.a") == *make("error.a"));
  EXPECT_FALSE(*make("error.a") == *later);
}

TEST(ErrorInfoHash, EqualRecordsHashAlikeAndFieldsCount) {
  EXPECT_EQ(make("error.a")->hash(), make("error.a")->hash());
  EXPECT_NE(make("error.a")->hash(), make("error.b")->hash());
  EXPECT_NE(make("error.a")->hash(), make("error.a", "message", make("error.n"))->hash());
  ErrorInfo::Ptr on_line_2 = ErrorInfo::create(ErrorCode("error.a"), "message", here(2));
  EXPECT_NE(make("error.a")->hash(), on_line_2->hash());
}

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

TEST_F(ErrorReport, MultiLineMessageGoesBelowTheLabel) {
  ErrorInfo::Ptr error = make("error.x", "first\n\nthird\n");
  EXPECT_EQ(report(error), head("", "error.x") + "\nDescription: \n    first\n    \n    third" +
                               tail("", 1) + "\nParameters:  ");
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

TEST_F(ErrorReport, SingleParameterIsShownInFullWithoutLimit) {
  std::string const value(2000, 'z');
  ErrorInfo::Ptr error =
      ErrorInfo::create(ErrorCode("error.x"), "m", params_of({{"v", value.c_str()}}), here(1));
  EXPECT_EQ(report(error), head("", "error.x") + "\nDescription: m" + tail("", 1) +
                               "\nParameters:  'v' => \"" + value + "\"");
}

TEST_F(ErrorReport, MessageValuesAreCutAt16384Bytes) {
  std::string const value(20000, 'q');
  ErrorInfo::Ptr error =
      ErrorInfo::create(ErrorCode("error.x"), "{@v}", params_of({{"v", value.c_str()}}), here(1));
  std::string const text = report(error);
  EXPECT_NE(text.find("\nDescription: " + std::string(16384, 'q') + "...\n"), std::string::npos);
}

TEST(ErrorInfoStream, NullPointerWritesMarker) {
  std::ostringstream out;
  out << ErrorInfo::Ptr() << '|' << ErrorInfo::Trace{nullptr, 3};
  EXPECT_EQ(out.str(), "##NULL##|##NULL##");
}

}  // namespace
}  // namespace tqcore
