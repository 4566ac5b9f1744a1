// The signalling scope check, on: a handler may not complete on the thread whose control is
// still alive, and controls leave their thread's list in any order but on no other thread.
// The check is read at load, so main() makes sure the process starts with it on.
#include <tqcore/result_auto_signal.h>
#include <tqcore/result_control.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

#include "child_process.h"
#include "test_support.h"

namespace tqcore {
namespace {

using tqcore_test::failure;
using tqcore_test::Placed;
using tqcore_test::raised_by;

char const kVariable[] = "TQCORE_CHECK_ASYNC_RESULT_SIGNALING";

bool raises_scope_error(std::function<void()> const& call) {
  ErrorInfo::Ptr const raised = raised_by(call);
  return raised && raised->matches("error.tqcore.result.invalidAsyncSignalScope");
}

TEST(ScopeCheck, SignalsInsideTheScopeRaiseAndChangeNothing) {
  Future<> future;
  RefCountPtr<AsyncResult<>> handler;
  {
    ResultControlFutureRef<> const control(future);
    handler = control.create_async_handler();
    EXPECT_NE(handler->activation_id(), 0u);
    ErrorInfo::Ptr const raised = raised_by([&] { handler->on_async_result_success(); });
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->code().value(), "error.tqcore.result.invalidAsyncSignalScope");
    EXPECT_EQ(raised->message(),
              "Attempt to use an AsyncResult object to signal a result synchronously.");
    EXPECT_EQ(raised->location().function(), "tqcore::ResultControlBase::validate_async_signal()");
    EXPECT_TRUE(raises_scope_error([&] { handler->on_async_result_error(failure("e.x")); }));
    // The scope check comes before the null test.
    EXPECT_TRUE(raises_scope_error([&] { handler->on_async_result_error(nullptr); }));
    EXPECT_FALSE(future.is_ready());
    // Completing through the control is what the scope is for.
    EXPECT_TRUE(control.signal_result().has_value());
  }
}

TEST(ScopeCheck, ControlsMayEndInTheOrderTheyBegan) {
  Placed<ResultControlIgnored<>> older, newer;
  RefCountPtr<AsyncResult<>> const a = older->create_async_handler();
  RefCountPtr<AsyncResult<>> const b = newer->create_async_handler();
  EXPECT_FALSE(older.end());  // from the middle of the list
  EXPECT_FALSE(raised_by([&] { a->on_async_result_success(); }));
  EXPECT_TRUE(raises_scope_error([&] { b->on_async_result_success(); }));
  EXPECT_FALSE(newer.end());
  EXPECT_FALSE(raised_by([&] { b->on_async_result_success(); }));
}

// The control ended elsewhere leaves its thread's list first: that thread goes on walking it.
TEST(ScopeCheck, EndingOnAnotherThreadUnlinksTheControlFirst) {
  using Control = Placed<ResultControlIgnored<>>;
  auto* const foreign = new Control();
  Future<> made, ended;
  bool still_checked = false;
  std::thread owner([&] {
    (*foreign)->create_async_handler();
    ResultControlIgnored<> const newer;
    RefCountPtr<AsyncResult<>> const handler = newer.create_async_handler();
    made.set();
    ended.wait();
    // The list runs newer -> foreign; foreign's memory is gone by now.
    still_checked = raises_scope_error([&] { handler->on_async_result_success(); });
  });
  made.wait();
  ErrorInfo::Ptr const raised = foreign->end();
  delete foreign;
  ended.set();
  owner.join();
  EXPECT_TRUE(raised && raised->matches("error.tqcore.result.wrongThread"));
  EXPECT_TRUE(still_checked);
}

// Left by an exception, a guard still signals; what that raises is traced, not thrown.
TEST(ScopeCheck, AGuardUnwoundByAnExceptionTracesInsteadOfEndingTheProcess) {
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    Future<> future;
    ResultControlFutureRef<> const control(future);
    try {
      AutoSignalAsyncResult<> const guard(control.create_async_handler());
      throw std::runtime_error("the work failed");
    } catch (std::runtime_error const&) {
      std::printf("caught\n");
    }
    return 0;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
  EXPECT_NE(child.output.find("*** CRITICAL-ERROR - "), std::string::npos) << child.output;
  EXPECT_NE(child.output.find("error.tqcore.result.invalidAsyncSignalScope"), std::string::npos);
  EXPECT_NE(child.output.find("caught\n"), std::string::npos);
}

TEST(ScopeCheck, AnAdapterSignalledSynchronouslyInsideTheOuterScopeRaises) {
  Future<> future;
  ResultControlFutureRef<> const outer(future);
  AsyncHandlerAdapterControl<> const adapter(outer);
  auto inner_operation = [](ResultControl<> const& control) { return control.signal_result(); };
  EXPECT_TRUE(raises_scope_error([&] { inner_operation(adapter); }));
  // The same adapter completed from a worker is the intended use.
  std::thread([&] { inner_operation(adapter); }).join();
  EXPECT_TRUE(future.has_value());
}

TEST(ScopeCheck, AWorkerMaySignalWhileTheControlIsAlive) {
  Future<> future;
  ResultControlFutureRef<> const control(future);
  RefCountPtr<AsyncResult<>> const handler = control.create_async_handler();
  Result<> const result = handler->get_result();
  std::thread([handler] { handler->on_async_result_error(failure("error.test.worker")); }).join();
  EXPECT_EQ(result.error_info()->code().value(), "error.test.worker");
}

TEST(ScopeCheck, AGuardEndingInsideTheScopeRaisesFromItsDestructor) {
  Future<> future;
  ResultControlFutureRef<> const control(future);
  Placed<AutoSignalAsyncResult<>> guard(control.create_async_handler());
  ErrorInfo::Ptr const raised = guard.end();
  EXPECT_TRUE(raised && raised->matches("error.tqcore.result.invalidAsyncSignalScope"));
}

struct SwitchRow {
  char const* value;  // null: unset
  char const* expected;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(SwitchRow const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.value);
}

class ScopeCheckSwitch : public ::testing::TestWithParam<SwitchRow> {};

TEST_P(ScopeCheckSwitch, FirstCharacterDecides) {
  std::string const entry = GetParam().value ? std::string(kVariable) + "=" + GetParam().value
                                             : std::string(kVariable);  // putenv(NAME) unsets
  tqcore_test::ChildResult const probe =
      tqcore_test::run_program(TQCORE_SCOPE_CHECK_PROBE, {}, {entry});
  EXPECT_TRUE(probe.exited(0)) << probe.output;
  EXPECT_EQ(probe.output, std::string(GetParam().expected) + "\n");
}

INSTANTIATE_TEST_SUITE_P(Values, ScopeCheckSwitch,
                         ::testing::Values(SwitchRow{nullptr, "off"}, SwitchRow{"", "on"},
                                           SwitchRow{"0", "off"}, SwitchRow{"no", "off"},
                                           SwitchRow{"N", "off"}, SwitchRow{"false", "off"},
                                           SwitchRow{"F", "off"}, SwitchRow{"y", "on"},
                                           SwitchRow{"1", "on"}, SwitchRow{"Yes", "on"},
                                           SwitchRow{"true", "on"}, SwitchRow{" 0", "on"}));

}  // namespace
}  // namespace tqcore

int main(int argc, char** argv) {
  char const* value = std::getenv(tqcore::kVariable);
  if (value == nullptr || std::strcmp(value, "1") != 0) {
    setenv(tqcore::kVariable, "1", 1);
    execv("/proc/self/exe", argv);
    std::perror("execv");
    return 2;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
