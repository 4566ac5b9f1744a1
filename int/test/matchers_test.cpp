// The matchers users put in their own tests: they must accept every form of a record, fail
// with the record's report, and never wait on a result.
#include <tqcore/error_exception.h>
#include <tqcore/error_params.h>
#include <tqcore/testing/matchers.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace tqcore::testing;
using ::testing::Not;

tqcore::ErrorInfo::Ptr make_record() {
  tqcore::ErrorParams params;
  params.add(tqcore::SourceString::create_reference("port"), "80x0");
  tqcore::ErrorInfo::Ptr const cause = tqcore::ErrorInfo::from_errno(TQCORE_HERE, 22);
  return tqcore::ErrorInfo::create(tqcore::ErrorCode("error.example.config.badPort"),
                                   "Not a port: {@port}.", std::move(params), TQCORE_HERE, cause);
}

TEST(Matchers, AcceptEveryFormOfARecord) {
  tqcore::ErrorInfo::Ptr const record = make_record();
  tqcore::ErrorException const exception(record);
  EXPECT_THAT(record, HasCode("error.example.config"));
  EXPECT_THAT(*record, HasCode("error.example.config.badPort"));
  EXPECT_THAT(exception, HasCode("error.example"));
  EXPECT_THAT(record, Not(HasCode("error.example.conf")));  // only at a dot
  EXPECT_THAT(record, Not(HasCode("error.errno")));         // not along the chain
  EXPECT_THAT(record, AnyMatches("error.errno.EINVAL"));
  EXPECT_THAT(exception, HasParam("port", "80x0"));
  EXPECT_THAT(record, Not(HasParam("port", "80")));
  EXPECT_THAT(record, HasMessage("Not a port: 80x0."));
  EXPECT_THAT(tqcore::ErrorInfo::Ptr(), IsSuccess());
  EXPECT_THAT(record, Not(IsSuccess()));
  EXPECT_THAT(tqcore::ErrorInfo::Ptr(), Not(HasCode("error")));
}

TEST(Matchers, AFailureExplainsWithTheReport) {
  tqcore::ErrorInfo::Ptr const record = make_record();
  ::testing::StringMatchResultListener listener;
  EXPECT_FALSE(::testing::ExplainMatchResult(HasCode("error.other"), record, &listener));
  EXPECT_THAT(listener.str(), ::testing::HasSubstr("error.example.config.badPort"));
  EXPECT_THAT(listener.str(), ::testing::HasSubstr("Not a port: 80x0."));
  EXPECT_EQ(::testing::DescribeMatcher<tqcore::ErrorInfo::Ptr>(HasCode("error.x")),
            "has a code matching error.x");
  EXPECT_EQ(::testing::DescribeMatcher<tqcore::ErrorInfo::Ptr>(HasCode("error.x"), true),
            "has no code matching error.x");
  ::testing::StringMatchResultListener none;
  EXPECT_FALSE(::testing::ExplainMatchResult(HasMessage("x"), tqcore::ErrorInfo::Ptr(), &none));
  EXPECT_EQ(none.str(), "which is success (no error record)");
}

TEST(Matchers, ResultAndFutureStatesWithoutWaiting) {
  tqcore::Future<int> pending;
  EXPECT_THAT(pending, IsPending());
  EXPECT_THAT(pending, Not(IsReadyWithValue(1)));  // would hang if it waited
  tqcore::Future<int> done;
  done.set(42);
  EXPECT_THAT(done, IsReadyWithValue(42));
  EXPECT_THAT(done, IsReadyWithValue(::testing::Gt(40)));
  EXPECT_THAT(done, Not(IsReadyWithError("error")));
  tqcore::Future<int> failed;
  failed.set(make_record());
  EXPECT_THAT(failed, IsReadyWithError("error.example.config"));
  ::testing::StringMatchResultListener listener;
  EXPECT_FALSE(::testing::ExplainMatchResult(IsReadyWithValue(42), failed, &listener));
  EXPECT_THAT(listener.str(), ::testing::HasSubstr("error.example.config.badPort"));
  EXPECT_THAT(tqcore::Result<int>::from_value(3), IsReadyWithValue(3));
}

}  // namespace
