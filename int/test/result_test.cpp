#include <tqcore/barrier.h>
#include <tqcore/error_exception.h>
#include <tqcore/result.h>
#include <tqcore/streamers.h>
#include <tqcore/task.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <typeinfo>

#include "test_support.h"

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

struct ThisThread : IThreadAffinity {
  bool is_current_thread() const override { return true; }
};

TEST(Task, DeadlinesOfTheInvocationContext) {
  ThisThread thread;
  TaskInvocationContext context(thread);
  EXPECT_EQ(&context.thread(), &thread);
  EXPECT_TRUE(context.options().deadline.is_infinite());
  EXPECT_TRUE(context.cancel_after(RelativeTime::infinite).options().deadline.is_infinite());
  AbsoluteTime const before = AbsoluteTime::now();
  context.cancel_after(RelativeTime::seconds(10));
  EXPECT_GE(context.options().deadline, before + RelativeTime::seconds(10));
  EXPECT_LE(context.options().deadline, AbsoluteTime::now() + RelativeTime::seconds(10));
  TaskInvocationContext copy = context;
  copy = TaskInvocationContext(thread);  // plain assignment
  EXPECT_TRUE(copy.options().deadline.is_infinite());
}

std::string address(void const* p) {
  std::ostringstream text;
  text << streamers::Pointer(p);
  return text.str();
}

TEST(Task, RecordsNameTheTaskAndTheOvertime) {
  int task = 0;
  SourceLocation const here("runner", "task_test", 7);
  ErrorInfo::Ptr const expired = impl::task_expired_error(&task, RelativeTime::seconds(-2), here);
  EXPECT_TRUE(expired->matches(error::tqcore_task_timeLimitExpired));
  EXPECT_EQ(expired->expanded_message().as_string(),
            "The deadline for executing the task at " + address(&task) + " expired 2.0s ago.");
  EXPECT_EQ(expired->params().get_value("overtime"), "2.0s");

  ErrorInfo::Ptr const never = impl::task_not_executed_error(&task, here);
  EXPECT_TRUE(never->matches(error::tqcore_task_notExecuted));
  EXPECT_EQ(never->expanded_message().as_string(),
            "The task at " + address(&task) + " was never executed.");
  EXPECT_EQ(never->location().function(), "runner");

  try {
    impl::throw_redundant_task_execution_error(&task, here);
    FAIL();
  } catch (ErrorException const& e) {
    EXPECT_TRUE(e.matches(error::tqcore_task_redundantExecution));
    EXPECT_EQ(e.error()->params().get_value("address"), address(&task));
  }
}

struct Queries {
  bool any_ready, any_failed, any_successful, all_ready, all_failed, all_successful;
};

Queries queries_of(AnyFutureBarrier const& b) {
  return {b.any_ready(), b.any_failed(), b.any_successful(),
          b.all_ready(), b.all_failed(), b.all_successful()};
}

// Futures in given states: 'p' pending, 'v' value, 'e' error.
AnyFutureBarrier barrier_of(std::string const& states) {
  AnyFutureBarrier barrier;
  for (char state : states) {
    Future<int> future;
    if (state == 'v') future.set(1);
    if (state == 'e') future.set(tqcore_test::failure("error.test.barrier"));
    barrier.push_back(future);
  }
  return barrier;
}

struct GroupCase {
  char const* states;
  Queries expected;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(GroupCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.states);
}

class BarrierQueries : public testing::TestWithParam<GroupCase> {};

TEST_P(BarrierQueries, AnswerAsAGroup) {
  Queries const got = queries_of(barrier_of(GetParam().states));
  Queries const& want = GetParam().expected;
  EXPECT_EQ(got.any_ready, want.any_ready);
  EXPECT_EQ(got.any_failed, want.any_failed);
  EXPECT_EQ(got.any_successful, want.any_successful);
  EXPECT_EQ(got.all_ready, want.all_ready);
  EXPECT_EQ(got.all_failed, want.all_failed);
  EXPECT_EQ(got.all_successful, want.all_successful);
}

INSTANTIATE_TEST_SUITE_P(States, BarrierQueries,
                         testing::Values(GroupCase{"", {true, false, false, true, false, false}},
                                         GroupCase{"p", {false, false, false, false, false, false}},
                                         GroupCase{"ee", {true, true, false, true, true, false}},
                                         GroupCase{"vv", {true, false, true, true, false, true}},
                                         GroupCase{"pve",
                                                   {true, true, true, false, false, false}}));

TEST(AnyResultBarrier, CancelsWhatIsPendingAndRefusesEmptyResults) {
  Future<int> pending;
  AnyResultBarrier barrier;
  barrier.push_back(Result<int>(impl::FutureResultImpl<int>::create(pending)));
  barrier.push_back(Result<std::string>(impl::ValueResultImpl<std::string>::create("kept")));
  EXPECT_THROW(barrier.push_back(Result<int>()), ErrorException);
  EXPECT_EQ(barrier.size(), 2u);
  EXPECT_FALSE(barrier.all_ready());
  EXPECT_TRUE(barrier.any_successful());
  barrier.cancel(tqcore_test::failure("error.test.barrier"));
  EXPECT_TRUE(barrier.wait(RelativeTime::zero));
  EXPECT_TRUE(pending.has_error());
  EXPECT_TRUE(pending.error_info()->matches(error::tqcore_result_cancelled));
  EXPECT_EQ(barrier.begin()[1].get<std::string>().get(), "kept");
  try {
    barrier.begin()[1].get<int>();
    FAIL();
  } catch (std::bad_cast const& e) {
    EXPECT_STREQ(e.what(), "AnyResultBarrier : bad result cast");
  }
}

}  // namespace
}  // namespace tqcore
