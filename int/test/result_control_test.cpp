// Controls and handlers with the signalling check off (the default): what each delivers, what
// each refuses, cancellation at each stage, and the records they raise.
#include <tqcore/result_control.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "test_support.h"

namespace tqcore {
namespace {

using tqcore_test::failure;
using tqcore_test::raised_by;

std::string code_of(ErrorInfo::Ptr const& error) {
  return error ? error->code().value().as_string() : "(none)";
}

enum class Direct { Empty, Value, OnFuture };

struct ControlRow {
  char const* name;
  std::function<std::unique_ptr<ResultControl<>>(Future<> const&)> make;
  Direct direct;                // what signal_result / signal_error return
  bool reaches_future;          // whether signals (and handler signals) set the caller's future
  char const* null_error_code;  // what signal_error(nullptr) raises
};

// Rows show by their first field in test names and failure messages.
void PrintTo(ControlRow const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.name);
}

std::vector<ControlRow> const kControlRows = {
    {"Ignored", [](Future<> const&) { return std::make_unique<ResultControlIgnored<>>(); },
     Direct::Empty, false, "error.tqcore.result.badParameter"},
    {"IgnoredIfAsync",
     [](Future<> const&) { return std::make_unique<ResultControlIgnoredIfAsync<>>(); },
     Direct::Value, false, "error.tqcore.result.badParameter"},
    {"FutureRef", [](Future<> const& f) { return std::make_unique<ResultControlFutureRef<>>(f); },
     Direct::OnFuture, true, "error.tqcore.future.nullError"},
    {"Adapter",
     [](Future<> const& f) {
       return std::make_unique<AsyncHandlerAdapterControl<>>(ResultControlFutureRef<>(f));
     },
     Direct::Empty, true, "error.tqcore.result.badParameter"},
};

class VoidControl : public ::testing::TestWithParam<ControlRow> {
 protected:
  Future<> future;
  std::unique_ptr<ResultControl<>> control = GetParam().make(future);
};

TEST_P(VoidControl, SignalResult) {
  Result<> const result = control->signal_result();
  EXPECT_EQ(result.is_waitable(), GetParam().direct != Direct::Empty);
  EXPECT_EQ(result.has_value(), GetParam().direct != Direct::Empty);
  EXPECT_EQ(future.has_value(), GetParam().reaches_future);
  EXPECT_TRUE(control->is_ignored());  // every void control
  EXPECT_FALSE(control->is_cancelled());
}

TEST_P(VoidControl, SignalError) {
  ErrorInfo::Ptr const error = failure("error.test.op");
  Result<> const result = control->signal_error(error);
  EXPECT_EQ(result.error_info() == error, GetParam().direct != Direct::Empty);
  EXPECT_EQ(future.error_info() == error, GetParam().reaches_future);
  if (GetParam().direct == Direct::Empty) {
    EXPECT_FALSE(result.is_waitable());
  }
}

TEST_P(VoidControl, NullErrorRaisesAndChangesNothing) {
  EXPECT_EQ(code_of(raised_by([&] { control->signal_error(nullptr); })),
            GetParam().null_error_code);
  EXPECT_FALSE(future.is_ready());
}

TEST_P(VoidControl, HandlerDeliversWhereTheControlWould) {
  RefCountPtr<AsyncResult<>> const handler = control->create_async_handler();
  ASSERT_TRUE(handler);
  EXPECT_EQ(handler->activation_id(), 0u);  // the check is off
  EXPECT_TRUE(handler->ignored());
  Result<> const result = handler->get_result();
  EXPECT_EQ(result.is_waitable(), GetParam().reaches_future);
  EXPECT_FALSE(result.is_ready());
  handler->on_async_result_success();
  EXPECT_EQ(future.has_value(), GetParam().reaches_future);
  EXPECT_EQ(result.has_value(), GetParam().reaches_future);
}

TEST_P(VoidControl, CancelThroughTheHandlerReachesTheControl) {
  RefCountPtr<AsyncResult<>> const handler = control->create_async_handler();
  handler->cancel(false, failure("error.test.reason"));
  EXPECT_EQ(handler->cancelled(), GetParam().reaches_future);
  EXPECT_EQ(control->is_cancelled(), GetParam().reaches_future);
}

INSTANTIATE_TEST_SUITE_P(Controls, VoidControl, ::testing::ValuesIn(kControlRows),
                         [](auto const& info) { return std::string(info.param.name); });

TEST(ResultControl, FutureRefKeepsTheFirstOutcomeSilently) {
  Future<int> future;
  ResultControlFutureRef<int> const control(future);
  EXPECT_EQ(control.signal_result(1).get(), 1);
  Result<int> const second = control.signal_error(failure("error.test.late"));
  EXPECT_EQ(second.get(), 1);  // the same future: the late error is dropped
  EXPECT_EQ(ResultControlFutureRef<int>(control).future(), future);
}

TEST(TypedControl, MoveOnlyValuesPassThroughEveryDelivery) {
  using Box = std::unique_ptr<int>;
  Result<Box> const direct = ResultControlIgnoredIfAsync<Box>().signal_result(Box(new int(1)));
  EXPECT_EQ(*direct.get(), 1);

  Future<Box> future;
  ResultControlFutureRef<Box> const control(future);
  RefCountPtr<AsyncResult<Box>> const handler = control.create_async_handler();
  Result<Box> const later = handler->get_result();
  AsyncHandlerAdapterControl<Box> const adapter(handler);
  EXPECT_FALSE(adapter.signal_result(Box(new int(2))).is_waitable());
  EXPECT_EQ(*later.get(), 2);
  EXPECT_EQ(*future.get(), 2);
}

class FutureHandler : public ::testing::Test {
 protected:
  Future<int> future;
  std::unique_ptr<ResultControlFutureRef<int>> control =
      std::make_unique<ResultControlFutureRef<int>>(future);
  RefCountPtr<AsyncResult<int>> handler = control->create_async_handler();
};

TEST_F(FutureHandler, ASecondSuccessRaisesWithoutCause) {
  handler->on_async_result_success(1);
  ErrorInfo::Ptr const raised = raised_by([&] { handler->on_async_result_success(2); });
  ASSERT_TRUE(raised);
  EXPECT_EQ(code_of(raised), "error.tqcore.result.redundantSignal");
  EXPECT_EQ(raised->message(), "A result which had already been signaled, was signaled again.");
  EXPECT_EQ(raised->location().function(), "tqcore:impl::raise_redundant_signal_error()");
  EXPECT_FALSE(raised->nested());
  EXPECT_EQ(future.get(), 1);
}

TEST_F(FutureHandler, ASecondErrorRidesAlongAsTheCause) {
  handler->on_async_result_error(failure("error.test.first"));
  ErrorInfo::Ptr const late = failure("error.test.late");
  ErrorInfo::Ptr const raised = raised_by([&] { handler->on_async_result_error(late); });
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->nested(), late);
  EXPECT_EQ(code_of(future.error_info()), "error.test.first");
}

TEST_F(FutureHandler, SignalsAfterACancelAreSwallowed) {
  Result<int> const result = handler->get_result();
  ErrorInfo::Ptr const reason = failure("error.test.shutdown");
  AsyncOpHandle(result).cancel(false, reason);
  EXPECT_TRUE(handler->cancelled());
  EXPECT_TRUE(control->is_cancelled());
  EXPECT_FALSE(raised_by([&] { handler->on_async_result_success(7); }));
  EXPECT_FALSE(raised_by([&] { handler->on_async_result_error(failure("error.test.x")); }));
  ErrorInfo::Ptr const error = result.error_info();
  EXPECT_EQ(code_of(error), "error.tqcore.result.cancelled");
  EXPECT_EQ(error->nested(), reason);
}

TEST_F(FutureHandler, DroppedUnsignalledTellsTheReaderWhy) {
  Result<int> const result = handler->get_result();
  handler = nullptr;
  EXPECT_EQ(result.error_info(), impl::create_result_not_signaled_error());
}

struct ThrowingObserver : RefCounted<AtomicRefCount>, IFutureObserver<int> {
  void future_failed(ErrorInfo::Ptr const&) override { throw std::runtime_error("observer"); }
  void future_succeeded(int const&) override {}
};

TEST_F(FutureHandler, DroppedWhileAnObserverRaisesLetsNothingOut) {
  RefCountPtr<ThrowingObserver> const observer(new ThrowingObserver);
  future.add_observer(observer.get(), observer);
  EXPECT_NO_THROW(handler = nullptr);
  EXPECT_FALSE(future.is_ready());
}

TEST(Cancellation, BeforeTheOperationLooks) {
  Future<> future;
  Result<> const result(impl::FutureResultImpl<void>::create(future));
  result.cancel(false, nullptr);
  ResultControlFutureRef<> const control(future);
  EXPECT_TRUE(control.is_cancelled());
  control.signal_result();  // silently changes nothing
  EXPECT_EQ(future.error_info(), impl::create_result_cancel_error(nullptr));
}

TEST(Cancellation, AfterCompletionChangesNothing) {
  Future<int> future;
  ResultControlFutureRef<int> const control(future);
  RefCountPtr<AsyncResult<int>> const handler = control.create_async_handler();
  Result<int> const result = handler->get_result();
  handler->on_async_result_success(3);
  result.cancel(true, failure("error.test.late"));
  handler->cancel(true, nullptr);
  EXPECT_FALSE(handler->cancelled());
  EXPECT_EQ(result.get(), 3);
}

TEST(ResultRecords, WhatCountsAsACancellation) {
  struct Row {
    ErrorInfo::Ptr error;
    bool cancelled;
  } const rows[] = {
      {nullptr, false},
      {impl::create_result_cancel_error(nullptr), true},
      {impl::create_result_cancel_error(failure("error.test.why")), true},
      {impl::ResultInnerInvokerTagBase::outer_operation_cancelled(), true},
      {failure("error.tqcore.result"), false},
      {failure("error.tqcore.result.cancelledLater"), false},
      {impl::create_result_not_signaled_error(), false},
  };
  for (Row const& row : rows)
    EXPECT_EQ(impl::result_was_cancelled(row.error), row.cancelled) << code_of(row.error);
}

}  // namespace
}  // namespace tqcore
