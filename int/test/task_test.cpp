#include <tqcore/error_exception.h>
#include <tqcore/streamers.h>
#include <tqcore/task.h>

#include <gtest/gtest.h>

#include <sstream>

namespace tqcore {
namespace {

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

}  // namespace
}  // namespace tqcore
