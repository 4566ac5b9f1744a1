#include <tqcore/error_exception.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>

namespace tqcore {
namespace {

char const kFileId[] = "$Id: //tqcore/int/test/error_exception_test.cpp#1 $";

ErrorInfo::Ptr make(char const* code, ErrorInfo::Ptr nested = ErrorInfo::Ptr()) {
  return ErrorInfo::create(ErrorCode(code), "message", SourceLocation("f()", kFileId, 1),
                           std::move(nested));
}

template <class F>
ErrorException caught(F&& f) {
  try {
    f();
  } catch (ErrorException const& e) {
    return e;
  }
  ADD_FAILURE() << "nothing was thrown";
  return ErrorException(make("error.test.nothingThrown"));
}

TEST(ErrorException, NullRecordIsReplaced) {
  ErrorException e = caught([] { ErrorException::throw_error(ErrorInfo::Ptr()); });
  ASSERT_TRUE(e.error());
  EXPECT_TRUE(e.matches("error.tqcore"));
  EXPECT_EQ(e.error()->message(), "Unknown error (NULL ErrorInfo pointer)");
  EXPECT_EQ(e.error()->location().function(), "tqcore::ErrorException::ErrorException()");
  EXPECT_EQ(e.error()->location().file_path(), "//tqcore/int/src/tqcore/error_exception.cpp");
  EXPECT_EQ(e.error()->location().line(), 43u);
}

TEST(ErrorException, WhatIsBuiltOnceAndIsTheReport) {
  ErrorException e(make("error.x", make("error.y")));
  char const* first = e.what();
  EXPECT_EQ(e.what(), first);
  std::ostringstream report;
  report << *e.error();
  EXPECT_EQ(std::string(first), report.str());
  EXPECT_EQ(first[0], '\n');
  ErrorException copy(e);
  EXPECT_NE(copy.what(), first);
  EXPECT_STREQ(copy.what(), first);
  std::ostringstream streamed;
  streamed << e;
  EXPECT_EQ(streamed.str(), report.str());
}

// A failure while the text is built must not escape what().
class FailingText : public ErrorException {
 public:
  using ErrorException::ErrorException;

 protected:
  std::string build_what_text() const override { throw std::bad_alloc(); }
};

// ---- Throw functions -------------------------------------------------------------------------

TEST(ThrowError, EachFormBuildsTheRecordCreateWouldBuild) {
  SourceLocation const location("f()", kFileId, 5);
  ErrorInfo::Ptr const nested = make("error.cause");
  ErrorParams params;
  params.add("k", 1, "v", 1);
  ErrorCode const code("error.thrown");
  ErrorInfo::Ptr const records[] = {
      caught([&] { throw_error(code, "m", location); }).error(),
      caught([&] { throw_error(code, "m", location, nested); }).error(),
      caught([&] { throw_error(code, "m", params, location); }).error(),
      caught([&] { throw_error(code, "m", params, location, nested); }).error(),
      caught([&] { throw_error(code, SourceString("m"), location); }).error(),
      caught([&] { throw_error(code, SourceString("m"), location, nested); }).error(),
      caught([&] { throw_error(code, SourceString("m"), params, location); }).error(),
      caught([&] { throw_error(code, SourceString("m"), params, location, nested); }).error(),
      caught([&] {
        throw_error(code, SourceString("m"), params, location, nested, SourceString("h"));
      }).error()};
  ErrorInfo::Ptr const expected[] = {
      ErrorInfo::create(code, "m", location),
      ErrorInfo::create(code, "m", location, nested),
      ErrorInfo::create(code, "m", params, location),
      ErrorInfo::create(code, "m", params, location, nested),
      ErrorInfo::create(code, "m", location),
      ErrorInfo::create(code, "m", location, nested),
      ErrorInfo::create(code, "m", params, location),
      ErrorInfo::create(code, "m", params, location, nested),
      ErrorInfo::create(code, SourceString("m"), params, location, nested, SourceString("h"))};
  for (size_t i = 0; i < sizeof(records) / sizeof(records[0]); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(records[i]->compare(*expected[i]), 0);
  }
  EXPECT_EQ(caught([&] { throw_error(nested); }).error(), nested);
}

}  // namespace
}  // namespace tqcore
