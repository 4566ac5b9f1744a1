#include <tqcore/error_exception.h>
#include <tqcore/result.h>

#include <gtest/gtest.h>

#include "test_support.h"

#include <string>

namespace tqcore {
namespace {

using tqcore_test::failure;
using tqcore_test::raised_by;

TEST(Result, EmptyIsNotAFailureButCannotBeWaitedOn) {
  Result<> const empty;
  EXPECT_FALSE(empty.is_ready());
  EXPECT_FALSE(empty.has_value());
  EXPECT_FALSE(empty.has_error());
  EXPECT_FALSE(empty.is_waitable());
  EXPECT_FALSE(empty.error_info());
  EXPECT_NO_THROW(empty.throw_if_error());
  EXPECT_NO_THROW(empty.cancel(false, nullptr));
  ErrorInfo::Ptr const first = raised_by([&] { empty.get(); });
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->matches(error::tqcore_result_notWaitable));
  EXPECT_EQ(first->message().as_string(),
            "Operation requiring a waitable object attemped on a Result which is not waitable.");
  EXPECT_EQ(first->location().function(), "tqcore::impl::raise_not_waitable_error()");
  // One record per process, shared by every raise.
  EXPECT_EQ(raised_by([&] { empty.wait(); }).get(), first.get());
  EXPECT_EQ(raised_by([&] { empty.wait(RelativeTime::seconds(1)); }).get(), first.get());
}

TEST(Result, ImmediateValuesAndErrorsIgnoreCancel) {
  Result<std::string> const value(impl::ValueResultImpl<std::string>::create("ready"));
  value.cancel(true, failure("error.test.reason"));
  EXPECT_TRUE(value.has_value());
  EXPECT_TRUE(value.wait(RelativeTime::zero));
  EXPECT_EQ(value.get(), "ready");

  ErrorInfo::Ptr const error = failure("error.test.immediate");
  Result<> const failed(impl::ErrorResultImpl<void>::create(error));
  failed.cancel(false, nullptr);
  EXPECT_TRUE(failed.is_ready());
  EXPECT_FALSE(failed.has_value());
  EXPECT_TRUE(failed.has_error());
  EXPECT_EQ(failed.error_info().get(), error.get());
  EXPECT_EQ(raised_by([&] { failed.get(); }).get(), error.get());
  EXPECT_EQ(raised_by([&] { failed.throw_if_error(); }).get(), error.get());
}

class PendingResult : public testing::Test {
 protected:
  Future<int> future;
  Result<int> result{impl::FutureResultImpl<int>::create(future)};
};

TEST_F(PendingResult, FollowsItsFuture) {
  EXPECT_FALSE(result.is_ready());
  EXPECT_FALSE(result.has_value());
  EXPECT_TRUE(result.is_waitable());
  EXPECT_FALSE(result.wait(RelativeTime::zero));
  EXPECT_NO_THROW(result.throw_if_error());  // nothing known yet
  future.set(7);
  EXPECT_TRUE(result.has_value());
  EXPECT_EQ(result.get(), 7);
  result.cancel(false, nullptr);  // too late: the outcome stays
  EXPECT_EQ(result.get(), 7);
}

TEST_F(PendingResult, CancelWithoutReasonSharesOneRecord) {
  result.cancel(false, nullptr);
  ErrorInfo::Ptr const raised = raised_by([&] { result.get(); });
  ASSERT_TRUE(raised);
  EXPECT_TRUE(raised->matches(error::tqcore_result_cancelled));
  EXPECT_EQ(raised->message().as_string(), "Operation cancelled");
  EXPECT_EQ(raised->location().function(), "tqcore:impl::create_result_cancel_error()");
  EXPECT_FALSE(raised->nested());
  EXPECT_EQ(impl::create_result_cancel_error(nullptr).get(), raised.get());
  EXPECT_EQ(raised_by([&] { result.throw_if_error(); }).get(), raised.get());
}

TEST_F(PendingResult, CancelWithAReasonNestsIt) {
  ErrorInfo::Ptr const reason = failure("error.test.shutdown");
  AsyncOpHandle handle(result);
  handle.cancel(false, reason);
  handle.cancel(false, failure("error.test.second"));  // the handle is empty now
  ErrorInfo::Ptr const raised = raised_by([&] { result.get(); });
  ASSERT_TRUE(raised);
  EXPECT_TRUE(raised->matches(error::tqcore_result_cancelled));
  EXPECT_EQ(raised->nested().get(), reason.get());
}

}  // namespace
}  // namespace tqcore
