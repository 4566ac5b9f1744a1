// Long mixed runs of the thread-shared parts, bounded by time rather than by count: every
// scenario runs for TQCORE_STRESS_SECONDS (1 s without it; ./stress.sh runs minutes under
// ThreadSanitizer), each thread choosing its next step at random, and checks at the end what
// must hold however the steps interleaved.
#include <tqcore/diagnostics.h>
#include <tqcore/error_exception.h>
#include <tqcore/future.h>
#include <tqcore/object_key.h>
#include <tqcore/random.h>
#include <tqcore/result_control.h>
#include <tqcore/uuid.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "testing_seams.h"

namespace tqcore {
namespace {

constexpr int kThreads = 4;

std::chrono::milliseconds stress_time() {
  char const* seconds = std::getenv("TQCORE_STRESS_SECONDS");
  double const chosen = seconds != nullptr ? std::atof(seconds) : 1.0;
  return std::chrono::milliseconds(static_cast<long long>((chosen > 0 ? chosen : 1.0) * 1000));
}

// Runs `step(thread, random)` on kThreads threads over and over until the time is up.
template <class Step>
void run_for_stress_time(Step step) {
  auto const end = std::chrono::steady_clock::now() + stress_time();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t) * 7919u + 1u);
      while (std::chrono::steady_clock::now() < end) {
        for (int k = 0; k < 64; ++k) step(t, random);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Stress, KeysInternedHeldAndDroppedAtRandom) {
  size_t const before = impl::testing::interned_string_count();
  std::vector<std::string> texts;
  for (int k = 0; k < 200; ++k) texts.push_back("stress-key-" + std::to_string(k));
  std::vector<std::vector<StringKey>> held(kThreads);
  std::atomic<int> wrong{0};
  run_for_stress_time([&](int t, std::mt19937& random) {
    std::string const& text = texts[random() % texts.size()];
    StringKey const key(text);
    if (key.value() != text || key != StringKey(text.c_str())) wrong.fetch_add(1);
    std::vector<StringKey>& mine = held[t];
    if (random() % 3 == 0 && mine.size() < 100) mine.push_back(key);
    if (random() % 3 == 0 && !mine.empty()) mine.erase(mine.begin() + random() % mine.size());
  });
  EXPECT_EQ(wrong.load(), 0);
  held.clear();
  EXPECT_EQ(impl::testing::interned_string_count(), before);  // every key dropped its text
}

// Operations any thread may complete, cancel or wait for with a short deadline. However the
// steps fall, each future ends with one outcome that every observer saw, and only the losers
// of a signal race raise, with "redundantSignal".
struct Operation {
  Future<int> future;
  RefCountPtr<AsyncResult<int>> handler;
  Result<int> result;
  std::atomic<intptr_t> seen{-1};  // the outcome's record as first observed (0 for a value)
};

void observe(Operation& op, std::atomic<int>& disagreements) {
  auto const outcome = reinterpret_cast<intptr_t>(op.result.error_info().get());
  intptr_t first = -1;
  if (!op.seen.compare_exchange_strong(first, outcome) && first != outcome) {
    disagreements.fetch_add(1);
  }
}

TEST(Stress, FuturesSignalledCancelledAndAwaitedAtRandom) {
  constexpr size_t kOperations = 64;
  std::vector<std::shared_ptr<Operation>> ops;
  std::mutex ops_lock;
  std::atomic<int> disagreements{0}, wrong_raises{0}, rounds{0};
  auto renew = [&](size_t slot) {  // under ops_lock
    auto op = std::make_shared<Operation>();
    op->handler = ResultControlFutureRef<int>(op->future).create_async_handler();
    op->result = op->handler->get_result();
    ops[slot] = std::move(op);
  };
  ops.resize(kOperations);
  for (size_t slot = 0; slot < kOperations; ++slot) renew(slot);
  run_for_stress_time([&](int, std::mt19937& random) {
    size_t const slot = random() % kOperations;
    std::shared_ptr<Operation> op;
    {
      std::lock_guard<std::mutex> lock(ops_lock);
      if (ops[slot]->seen.load() != -1 && random() % 4 == 0) {
        renew(slot);
        rounds.fetch_add(1);
      }
      op = ops[slot];  // a thread still using the slot's old operation keeps it alive
    }
    try {
      switch (random() % 4) {
        case 0:
          op->handler->on_async_result_success(static_cast<int>(slot));
          break;
        case 1:
          op->handler->on_async_result_error(tqcore_test::failure("error.test.stress"));
          break;
        case 2:
          AsyncOpHandle(op->result).cancel(random() % 2 == 0, nullptr);
          break;
        default:
          if (op->result.wait(RelativeTime::microseconds(random() % 50)))
            observe(*op, disagreements);
      }
    } catch (ErrorException const& e) {
      if (!e.error()->matches("error.tqcore.result.redundantSignal")) wrong_raises.fetch_add(1);
    }
  });
  for (auto& op : ops) {
    if (op->future.is_ready()) observe(*op, disagreements);
  }
  EXPECT_EQ(disagreements.load(), 0);
  EXPECT_EQ(wrong_raises.load(), 0);
  EXPECT_GT(rounds.load(), 0);
}

TEST(Stress, SequentialUuidsIncreaseOnEveryThreadAndNeverRepeat) {
  constexpr size_t kKept = 100000;  // a thread keeps this many for the uniqueness check
  std::vector<std::vector<Uuid>> made(kThreads);
  std::vector<Uuid> last(kThreads);
  std::atomic<int> decreases{0};
  run_for_stress_time([&](int t, std::mt19937&) {
    Uuid const id = Uuid::create_sequential();
    if (!(last[t] < id)) decreases.fetch_add(1);
    last[t] = id;
    if (made[t].size() < kKept) made[t].push_back(id);
  });
  EXPECT_EQ(decreases.load(), 0);
  std::set<Uuid> all;
  size_t total = 0;
  for (auto const& sequence : made) {
    all.insert(sequence.begin(), sequence.end());
    total += sequence.size();
  }
  EXPECT_EQ(all.size(), total);
}

TEST(Stress, RandomFillsOfAnySizeNeverRepeatAcrossThreads) {
  std::vector<std::set<std::string>> drawn(kThreads);
  run_for_stress_time([&](int t, std::mt19937& random) {
    unsigned char buffer[512];
    size_t const size = 16 + random() % (sizeof(buffer) - 16);
    random_fill(buffer, size);
    if (drawn[t].size() < 20000) drawn[t].emplace(reinterpret_cast<char*>(buffer), 16);
  });
  std::set<std::string> all;
  size_t total = 0;
  for (auto const& mine : drawn) {
    all.insert(mine.begin(), mine.end());
    total += mine.size();
  }
  EXPECT_EQ(all.size(), total);  // 128 random bits: a repeat is a broken generator
}

// Two handlers swapped by one thread while the others trace: every trace reaches exactly one
// of them, whole.
std::atomic<long> g_first{0}, g_second{0}, g_torn{0};
constexpr char kPacked[] = "value\0other";

template <std::atomic<long>& count>
bool count_into(SourceLocation const&, SourceString const& text, char const* packed, size_t size) {
  if (size != 0 && (text.size() == 0 || std::memcmp(packed, kPacked, size) != 0)) g_torn++;
  count++;
  return true;
}
constexpr auto count_first = count_into<g_first>;
constexpr auto count_second = count_into<g_second>;
unsigned int no_credit_period() { return 0; }

TEST(Stress, TraceHandlersSwappedWhileOtherThreadsTrace) {
  set_diagnostic_trace_handlers(no_credit_period, count_first, count_first);
  std::atomic<long> traced{0};
  run_for_stress_time([&](int t, std::mt19937& random) {
    if (t == 0) {
      bool const first = random() % 2 == 0;
      set_diagnostic_trace_handlers(no_credit_period, first ? count_first : count_second,
                                    first ? count_second : count_first);
      return;
    }
    SourceLocation const here = TQCORE_HERE;
    if (random() % 2 == 0) {
      trace_critical_error(here, "stress {} {}", kPacked, sizeof(kPacked));
    } else {
      trace_assert(here, "stress {} {}", kPacked, sizeof(kPacked));
    }
    traced++;
  });
  set_diagnostic_trace_handlers(nullptr, nullptr, nullptr);
  EXPECT_EQ(g_first.load() + g_second.load(), traced.load());
  EXPECT_EQ(g_torn.load(), 0);
}

}  // namespace
}  // namespace tqcore
