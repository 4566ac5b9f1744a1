#include <tqcore/barrier.h>
#include <tqcore/error_exception.h>

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

namespace tqcore {
namespace {

ErrorInfo::Ptr failure() {
  return ErrorInfo::create(ErrorCode("error.test.barrier"), "failed", SourceLocation("t", "b", 1));
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
    if (state == 'e') future.set(failure());
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

TEST(AnyFutureBarrier, FailsOnlyWhatIsLeft) {
  AnyFutureBarrier barrier = barrier_of("pvp");
  EXPECT_EQ(barrier.set_error_if_not_ready(failure()), 2u);
  EXPECT_TRUE(barrier.begin()[1].succeeded());
  EXPECT_EQ(barrier.set_error_if_not_ready(failure()), 0u);
  EXPECT_THROW(barrier.set_error_if_not_ready(nullptr), ErrorException);
  EXPECT_EQ(AnyFutureBarrier().set_error_if_not_ready(nullptr), 0u);
}

TEST(AnyFutureBarrier, RemovesReadyKeepingOrder) {
  Future<int> first;
  Future<int> second;
  AnyFutureBarrier barrier = barrier_of("v");
  barrier.push_back(first);
  barrier.push_back(barrier_of("e").begin()[0]);
  barrier.push_back(second);
  barrier.remove_all_ready();
  ASSERT_EQ(barrier.size(), 2u);
  EXPECT_EQ(barrier.begin()[0].get<int>(), first);
  EXPECT_EQ(barrier.begin()[1].get<int>(), second);
  barrier.remove_all_ready();
  EXPECT_EQ(barrier.size(), 2u);
  AnyFutureBarrier::AnyFuture* const next = barrier.erase(barrier.begin());
  EXPECT_EQ(next, barrier.begin());
  EXPECT_EQ(barrier.begin()->get<int>(), second);
  second.set(2);
  barrier.remove_all_ready();
  EXPECT_TRUE(barrier.empty());
}

TEST(AnyResultBarrier, CancelsWhatIsPendingAndRefusesEmptyResults) {
  Future<int> pending;
  AnyResultBarrier barrier;
  barrier.push_back(Result<int>(impl::FutureResultImpl<int>::create(pending)));
  barrier.push_back(Result<std::string>(impl::ValueResultImpl<std::string>::create("kept")));
  EXPECT_THROW(barrier.push_back(Result<int>()), ErrorException);
  EXPECT_EQ(barrier.size(), 2u);
  EXPECT_FALSE(barrier.all_ready());
  EXPECT_TRUE(barrier.any_successful());
  barrier.cancel(failure());
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
