#include <tqcore/error_exception.h>
#include <tqcore/future.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

namespace tqcore {
namespace {

ErrorInfo::Ptr failure(char const* code) {
  return ErrorInfo::create(ErrorCode(code), "failed", SourceLocation("test", "future_test", 1));
}

// Records what it was told; may throw on demand. Owned by the test through a RefCountPtr.
struct Recorder : RefCounted<AtomicRefCount>, IFutureObserver<void> {
  Recorder(std::vector<std::string>* log, std::string name) : log(log), name(std::move(name)) {}
  void future_failed(ErrorInfo::Ptr const& error) override {
    log->push_back(name + " failed " + error->code().value().as_string());
    if (throw_next) {
      throw_next = false;
      throw std::runtime_error("observer");
    }
  }
  void future_succeeded() override { log->push_back(name + " succeeded"); }
  std::vector<std::string>* log;
  std::string name;
  bool throw_next = false;
};

class FutureStates : public testing::Test {
 protected:
  Future<> future;
};

TEST_F(FutureStates, FirstErrorWinsAndIsRaisedItselfEveryTime) {
  ErrorInfo::Ptr const first = failure("error.test.first");
  EXPECT_TRUE(future.set(first));
  EXPECT_FALSE(future.set(failure("error.test.second")));
  EXPECT_FALSE(future.set());
  EXPECT_TRUE(future.has_error());
  EXPECT_FALSE(future.has_value());
  EXPECT_EQ(future.error_info().get(), first.get());
  for (int k = 0; k < 2; ++k) {
    try {
      future.get();
      FAIL();
    } catch (ErrorException const& e) {
      EXPECT_EQ(e.error().get(), first.get());
    }
  }
  EXPECT_TRUE(future.wait(AbsoluteTime::infinite));
  EXPECT_TRUE(future.wait(AbsoluteTime::now() - RelativeTime::seconds(1)));
}

TEST_F(FutureStates, NullErrorRaisesEvenWhenSet) {
  for (int k = 0; k < 2; ++k) {
    try {
      future.set(ErrorInfo::Ptr());
      FAIL();
    } catch (ErrorException const& e) {
      EXPECT_TRUE(e.matches(error::tqcore_future_nullError));
      EXPECT_EQ(e.error()->message().as_string(), "Cannot signal Future with a NULL error");
      ASSERT_TRUE(e.error()->nested());
      EXPECT_EQ(e.error()->nested()->native_code(), EINVAL);
    }
    EXPECT_EQ(future.is_ready(), k == 1);
    if (k == 0) future.set();
  }
}

TEST(FutureObservers, CalledInOrderOnceThenForgotten) {
  std::vector<std::string> log;
  Future<> future;
  RefCountPtr<Recorder> a(new Recorder(&log, "a"));
  RefCountPtr<Recorder> b(new Recorder(&log, "b"));
  RefCountPtr<Recorder> c(new Recorder(&log, "c"));
  EXPECT_TRUE(future.add_observer(a.get(), a));
  EXPECT_TRUE(future.add_observer(b.get(), b));
  EXPECT_TRUE(future.add_observer(c.get(), c));
  EXPECT_TRUE(future.remove_observer(b.get()));
  EXPECT_FALSE(future.remove_observer(b.get()));
  EXPECT_TRUE(b->has_unique_ref());  // the future let go of its reference
  EXPECT_TRUE(future.set());
  EXPECT_EQ(log, (std::vector<std::string>{"a succeeded", "c succeeded"}));
  EXPECT_TRUE(a->has_unique_ref());
  EXPECT_FALSE(future.add_observer(b.get(), b));  // already set: not stored, not called
  EXPECT_EQ(log.size(), 2u);
}

TEST(FutureObservers, AThrowingObserverLeavesTheFutureUnset) {
  std::vector<std::string> log;
  Future<> future;
  RefCountPtr<Recorder> a(new Recorder(&log, "a"));
  RefCountPtr<Recorder> b(new Recorder(&log, "b"));
  future.add_observer(a.get(), a);
  future.add_observer(b.get(), b);
  b->throw_next = true;
  EXPECT_THROW(future.set(failure("error.test.x")), std::runtime_error);
  EXPECT_FALSE(future.is_ready());
  EXPECT_TRUE(future.set(failure("error.test.y")));  // and the first observer hears it twice
  EXPECT_EQ(log, (std::vector<std::string>{"a failed error.test.x", "b failed error.test.x",
                                           "a failed error.test.y", "b failed error.test.y"}));
}

struct TextObserver : RefCounted<AtomicRefCount>, IFutureObserver<std::string> {
  void future_failed(ErrorInfo::Ptr const&) override { seen = "failed"; }
  void future_succeeded(std::string const& value) override { seen = value; }
  std::string seen;
};

}  // namespace
}  // namespace tqcore
