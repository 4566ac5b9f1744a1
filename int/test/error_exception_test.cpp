#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/testing/matchers.h>

#include <gtest/gtest.h>
#include <boost/lexical_cast.hpp>

#include <cerrno>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>

#include "test_support.h"

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

// A failure while the text is built must not escape what().
class FailingText : public ErrorException {
 public:
  using ErrorException::ErrorException;

 protected:
  std::string build_what_text() const override { throw std::bad_alloc(); }
};

SourceLocation const kHere("test::fn()", "$Id: //tqcore/int/test/error_mapping_test.cpp#1 $", 1);

struct ErrnoCase {
  int value;
  char const* code;
  char const* message;
  char const* errno_param;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(ErrnoCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.value);
}

class FromErrno : public ::testing::TestWithParam<ErrnoCase> {};

TEST_P(FromErrno, RecordCarriesCodeMessageAndNumber) {
  ErrnoCase const& c = GetParam();
  ErrorInfo::Ptr error = ErrorInfo::from_errno(kHere, c.value);
  EXPECT_EQ(error->code(), c.code);
  EXPECT_EQ(error->message(), c.message);
  EXPECT_EQ(error->params().get_value("errno"), c.errno_param);
  EXPECT_EQ(ErrorCode::from_errno(c.value), c.code);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, FromErrno,
    ::testing::Values(
        ErrnoCase{ENOENT, "error.errno.ENOENT", "No such file, directory, or resource", "2"},
        ErrnoCase{10035, "error.errno.EAGAIN", "Resource temporarily unavailable or a non-blocking operation could not be completed immediately", "11"},
        ErrnoCase{EBUSY, "error.errno.EBUSY", "Device or resource busy ", "16"},
        ErrnoCase{ETIME, "error.errno.ETIME", "The request was not completed in the allotted time; a timeout occurred", "62"},
        ErrnoCase{EINPROGRESS, "error.errno.EINPROGRESS", "A blocking operation is currently executing", "115"},
        ErrnoCase{0, "", "No Error", "0"}));
// clang-format on

TEST(WindowsMapping, LandsOnThisPlatformsNumbersByName) {
  struct {
    uint32_t win_error;
    int expected;
  } const cases[] = {{190, ENOEXEC},   {187, 0},   {203, 0},
                     {1816, ENOMEM},   {10066, 0}, {10063, ENAMETOOLONG},
                     {5, EACCES},      {0, 0},     {10036, EINPROGRESS},
                     {10071, EREMOTE}, {10067, 0}, {121, ETIME},
                     {10035, EAGAIN}};
  for (auto const& c : cases)
    EXPECT_EQ(errno_from_winerror(c.win_error), c.expected) << c.win_error;
  EXPECT_EQ(set_errno_from_winerror(100000), EINVAL);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(set_errno_from_winerror(2), ENOENT);
}

struct DerivedOutOfRange : std::out_of_range {
  DerivedOutOfRange() : std::out_of_range("past the end") {}
};
struct PlainException : std::exception {
  char const* what() const noexcept override { return "plain"; }
};

template <class E>
ErrorInfo::Ptr translated(E const& e) {
  return ErrorInfo::from_exception(e, kHere);
}

TEST(FromException, TheMostDerivedRecognisedClassDecides) {
  struct {
    ErrorInfo::Ptr record;
    char const* code;
  } const cases[] = {
      {translated(std::bad_alloc()), "error.exception.bad_alloc"},
      {translated(std::bad_cast()), "error.exception.bad_cast"},
      {translated(std::domain_error("d")), "error.exception.logic_error.domain_error"},
      {translated(std::invalid_argument("i")), "error.exception.logic_error.invalid_argument"},
      {translated(std::length_error("l")), "error.exception.logic_error.length_error"},
      {translated(DerivedOutOfRange()), "error.exception.logic_error.out_of_range"},
      {translated(std::logic_error("l")), "error.exception.logic_error"},
      {translated(std::range_error("r")), "error.exception.runtime_error.range_error"},
      {translated(std::overflow_error("o")), "error.exception.runtime_error.overflow_error"},
      {translated(std::underflow_error("u")), "error.exception.runtime_error.underflow_error"},
      {translated(std::runtime_error("r")), "error.exception.runtime_error"},
      {translated(WeakRefPromoteException()), "error.exception.weakRefPromoteException"},
      {translated(PlainException()), "error.exception"}};
  for (auto const& c : cases) EXPECT_EQ(c.record->code(), c.code);
  EXPECT_EQ(cases[5].record->message(), "past the end");
  EXPECT_EQ(cases[12].record->params().get_value("classname"),
            "tqcore::(anonymous namespace)::PlainException");
}

// A class derived from each recognised one keeps its base's code.
template <class Base>
struct Derived : Base {
  using Base::Base;
};

template <class E, class... Args>
std::string derived_code(Args... args) {
  return translated(Derived<E>(args...))->code().value().as_string();
}

TEST(FromException, BadLexicalCastNamesBothTypes) {
  try {
    boost::lexical_cast<int>("not a number");
    FAIL();
  } catch (boost::bad_lexical_cast const& e) {
    ErrorInfo::Ptr record = translated(e);
    EXPECT_TRUE(record->matches("error.exception.bad_cast.bad_lexical_cast"));
    EXPECT_EQ(record->expanded_message().as_string(),
              "Bad lexical cast: Unable to convert value of type 'char [13]' to 'int'");
  }
}

TEST(ErrorBuilder, MessageIsACopyAndNativeCodeAParameter) {
  ErrorInfo::Ptr with_code;
  ErrorInfo::Ptr without_code;
  {
    ErrorBuilder builder;
    builder << "disk " << 3 << " failed";
    with_code = builder.create(error::tqcore_hardware, kHere, -1);
    without_code = builder.create(error::tqcore_hardware, kHere, 0);
  }
  EXPECT_EQ(with_code->message(), "disk 3 failed");
  EXPECT_FALSE(with_code->message().is_reference());
  EXPECT_EQ(with_code->params().get_value("nativeCode"), "-1");
  EXPECT_EQ(with_code->native_code(), -1);
  EXPECT_EQ(without_code->params().count("nativeCode"), 0u);
}

TEST(NestingThrows, KeepTheCallersCodeOutside) {
  using tqcore_test::raised_by;
  ErrorInfo::Ptr e =
      raised_by([] { throw_with_nested_errno(error::tqcore_hardware, "o", kHere, EACCES); });
  using tqcore::testing::AnyMatches;
  using tqcore::testing::HasCode;
  EXPECT_THAT(e, ::testing::AllOf(HasCode("error.tqcore.hardware"), AnyMatches("error.errno")));
  e = raised_by([] { throw_errno(kHere, EACCES); });
  EXPECT_THAT(e, HasCode("error.errno.EACCES"));
  e = raised_by(
      [] { throw_with_nested_exception(error::tqcore, "outer", kHere, std::overflow_error("o")); });
  EXPECT_THAT(e, AnyMatches("error.exception.runtime_error.overflow_error"));
  e = raised_by([] { throw_winerror(kHere, 10054, true); });
  EXPECT_THAT(
      e, ::testing::AllOf(HasCode("error.errno.ECONNRESET"), AnyMatches("error.os.windows.10054")));
}

}  // namespace
}  // namespace tqcore
