// The additions users reach for: std::chrono, std::hash, string overloads, Lockable mutexes,
// TQCORE_HERE, and results made, waited on and emptied without naming the implementation.
#include <tqcore/abs_rel_time.h>
#include <tqcore/error_info.h>
#include <tqcore/future.h>
#include <tqcore/murmur_hash.h>
#include <tqcore/object_key.h>
#include <tqcore/result.h>
#include <tqcore/result_control.h>
#include <tqcore/testing/matchers.h>
#include <tqcore/thread_mutex.h>
#include <tqcore/uuid.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace {

using namespace std::chrono;
using tqcore::AbsoluteTime;
using tqcore::RelativeTime;
using tqcore::testing::HasCode;
using tqcore::testing::IsPending;
using tqcore::testing::IsReadyWithError;
using tqcore::testing::IsReadyWithValue;

struct ChronoCase {
  char const* name;
  RelativeTime converted;
  long long expected;
};

// One row a rule: exact units, truncation below a nanosecond, saturation in both directions,
// floating counts, and NaN and the infinities.
TEST(ChronoInterop, DurationsConvertExactlyOrSaturate) {
  ChronoCase const cases[] = {
      {"seconds", RelativeTime(seconds(90)), 90'000'000'000},
      {"negative milliseconds", RelativeTime(milliseconds(-1500)), -1'500'000'000},
      {"picoseconds truncate", RelativeTime(duration<long long, std::pico>(2'999)), 2},
      {"hours", RelativeTime(hours(2)), 7'200'000'000'000},
      {"minutes past the range", RelativeTime(minutes(LLONG_MAX / 60)), LLONG_MAX},
      {"hours below the range", RelativeTime(hours(-LLONG_MAX / 3600)), LLONG_MIN},
      {"unsigned beyond int64", RelativeTime(duration<unsigned long long, std::nano>(ULLONG_MAX)),
       LLONG_MAX},
      {"the largest nanoseconds is infinite", RelativeTime(nanoseconds::max()), LLONG_MAX},
      {"floating seconds", RelativeTime(duration<double>(1.5)), 1'500'000'000},
      {"floating past the range", RelativeTime(duration<double>(1e300)), LLONG_MAX},
      {"floating infinity below", RelativeTime(duration<double>(-HUGE_VAL)), LLONG_MIN},
      {"floating NaN", RelativeTime(duration<double>(std::nan(""))), LLONG_MIN},
  };
  for (ChronoCase const& c : cases) {
    EXPECT_EQ(c.converted.as_nsec(), c.expected) << c.name;
  }
  EXPECT_TRUE(RelativeTime(nanoseconds::max()).is_infinite());
  EXPECT_EQ(RelativeTime::infinite.as_duration(), nanoseconds::max());
  EXPECT_EQ(RelativeTime::milliseconds(-7).as_duration(), milliseconds(-7));
}

TEST(ChronoInterop, SystemClockPointsRoundTrip) {
  system_clock::time_point const now = system_clock::now();
  AbsoluteTime const converted(now);
  EXPECT_EQ(converted.as_time_point(), now);
  EXPECT_EQ(AbsoluteTime(system_clock::time_point()).as_nsec(), 0);  // both count from 1970
  EXPECT_EQ(AbsoluteTime(system_clock::from_time_t(86400)), AbsoluteTime(86400LL));
  EXPECT_TRUE(AbsoluteTime(system_clock::time_point::max()).is_infinite());
  EXPECT_EQ(AbsoluteTime::infinite.as_time_point(), system_clock::time_point::max());
  // A deadline from std::chrono waits on the library's side.
  tqcore::Future<int> never;
  EXPECT_FALSE(never.wait(AbsoluteTime(system_clock::now() + milliseconds(5))));
}

TEST(ChronoInterop, IntegerSecondsAreNotAmbiguous) {
  EXPECT_EQ(RelativeTime(5).as_nsec(), 5'000'000'000);
  EXPECT_EQ(RelativeTime(5u).as_nsec(), 5'000'000'000);
  EXPECT_EQ(RelativeTime(short{-2}).as_nsec(), -2'000'000'000);
  EXPECT_EQ(AbsoluteTime(60), AbsoluteTime(60LL));
  RelativeTime span;
  span.set(7);
  EXPECT_EQ(span, RelativeTime::seconds(7));
  AbsoluteTime point;
  point.set(8u);
  EXPECT_EQ(point, AbsoluteTime(8LL));
}

TEST(HashInterop, ValuesGoIntoUnorderedContainers) {
  std::unordered_set<tqcore::ErrorCode> codes{tqcore::ErrorCode("error.a"),
                                              tqcore::ErrorCode("error.b")};
  EXPECT_EQ(codes.count(tqcore::ErrorCode(std::string("error.a").c_str())), 1u);
  EXPECT_EQ(codes.count(tqcore::ErrorCode("error.c")), 0u);

  std::unordered_map<tqcore::StringKey, int> counts;
  std::string const name = "orders";
  ++counts[tqcore::StringKey(name)];
  ++counts[tqcore::StringKey(std::string_view(name))];
  ++counts[tqcore::StringKey("orders")];
  EXPECT_EQ(counts.size(), 1u);
  EXPECT_EQ(counts.begin()->second, 3);

  std::unordered_set<RelativeTime> spans{RelativeTime::seconds(1), RelativeTime::seconds(1),
                                         RelativeTime::infinite};
  EXPECT_EQ(spans.size(), 2u);
  std::unordered_set<AbsoluteTime> points{AbsoluteTime(10LL), AbsoluteTime(10)};
  EXPECT_EQ(points.size(), 1u);
}

TEST(StringOverloads, AgreeWithThePointerAndSizeForms) {
  std::string const text = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
  EXPECT_EQ(tqcore::Uuid::from_string(text), tqcore::Uuid::from_string(text.c_str()));
  EXPECT_THROW(tqcore::Uuid::from_string(std::string_view(text).substr(1)), tqcore::ErrorException);
  std::string const with_nul("a\0b", 3);
  EXPECT_EQ(tqcore::murmur_hash(with_nul), tqcore::murmur_hash(with_nul.data(), 3));
  EXPECT_NE(tqcore::StringKey(with_nul), tqcore::StringKey("a"));
}

TEST(ErrorInfoText, StringMessagesAreCopied) {
  tqcore::ErrorInfo::Ptr error;
  unsigned int line = 0;
  {
    std::string message = "computed: ";
    message += std::to_string(42);
    line = __LINE__ + 1;
    error = tqcore::ErrorInfo::create(tqcore::ErrorCode("error.example.x"), message, TQCORE_HERE);
    message.assign(message.size(), '#');  // the record must not see this
  }
  EXPECT_THAT(error, tqcore::testing::HasMessage("computed: 42"));
  EXPECT_STREQ(error->location().function().as_string().c_str(), "TestBody");
  EXPECT_EQ(error->location().line(), line);
  EXPECT_NE(error->location().file_id().as_string().find("interop_test.cpp"), std::string::npos);
}

TEST(Lockable, StandardGuardsWorkOverTheMutexes) {
  tqcore::ThreadMutex mutex;
  int counter = 0;
  std::thread other([&] {
    for (int i = 0; i < 1000; ++i) {
      std::lock_guard<tqcore::ThreadMutex> const hold(mutex);
      ++counter;
    }
  });
  for (int i = 0; i < 1000; ++i) {
    std::unique_lock<tqcore::ThreadMutex> hold(mutex);
    ++counter;
  }
  other.join();
  EXPECT_EQ(counter, 2000);
  std::unique_lock<tqcore::ThreadMutex> held(mutex);
  std::thread([&] { EXPECT_FALSE(mutex.try_lock()); }).join();
  held.unlock();
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
  tqcore::NullMutex none;
  std::scoped_lock<tqcore::NullMutex> const nothing(none);
}

struct Widget {
  explicit Widget(int v) : value(v) {}
  int value;
};

TEST(ResultFactories, ValueErrorTakeAndDeadline) {
  auto made = tqcore::Result<std::unique_ptr<Widget>>::from_value(std::make_unique<Widget>(7));
  EXPECT_THAT(made, IsReadyWithValue(::testing::Pointee(::testing::Field(&Widget::value, 7))));
  std::unique_ptr<Widget> const taken = made.take();
  ASSERT_NE(taken, nullptr);
  EXPECT_EQ(taken->value, 7);
  EXPECT_EQ(made.get(), nullptr);  // what stays behind is moved-from

  auto const failed = tqcore::Result<int>::from_error(
      tqcore::ErrorInfo::create(tqcore::ErrorCode("error.example.failed"), "Failed.", TQCORE_HERE));
  EXPECT_THAT(failed, IsReadyWithError("error.example"));
  EXPECT_THROW(failed.take(), tqcore::ErrorException);
  EXPECT_THROW(tqcore::Result<int>::from_error(nullptr), tqcore::ErrorException);

  tqcore::Future<std::unique_ptr<Widget>> future;
  tqcore::ResultControlFutureRef<std::unique_ptr<Widget>> const control(future);
  auto handler = control.create_async_handler();
  tqcore::Result<std::unique_ptr<Widget>> const later = handler->get_result();
  EXPECT_THAT(later, IsPending());
  EXPECT_FALSE(later.wait(AbsoluteTime::now() + RelativeTime::milliseconds(2)));
  std::thread worker([handler] { handler->on_async_result_success(std::make_unique<Widget>(9)); });
  EXPECT_TRUE(later.wait(AbsoluteTime::infinite));
  EXPECT_EQ(later.take()->value, 9);
  worker.join();
  EXPECT_THROW(tqcore::Result<int>().wait(AbsoluteTime::infinite), tqcore::ErrorException);
}

TEST(FutureTake, MovesTheValueOrRaisesTheError) {
  tqcore::Future<std::unique_ptr<int>> value;
  value.set(std::make_unique<int>(5));
  EXPECT_EQ(*value.take(), 5);
  tqcore::Future<std::string> failed;
  failed.set(
      tqcore::ErrorInfo::create(tqcore::ErrorCode("error.example.gone"), "Gone.", TQCORE_HERE));
  try {
    failed.take();
    FAIL() << "take() of a failed future returned";
  } catch (tqcore::ErrorException const& e) {
    EXPECT_THAT(e, HasCode("error.example.gone"));
  }
}

}  // namespace
