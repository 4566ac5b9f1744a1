// Identifiers and keys made on many threads at once; run under ThreadSanitizer too.
#include <tqcore/object_key.h>
#include <tqcore/random.h>
#include <tqcore/uuid.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "testing_seams.h"

namespace tqcore {
namespace {

template <class F>
void on_threads(int count, F body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread& thread : threads) thread.join();
}

TEST(KeyThreads, InterningAndDroppingLosesAndFreesNothingTwice) {
  size_t const before = impl::testing::interned_string_count();
  StringKey const held("threads-shared-0");  // one text stays interned throughout
  on_threads(4, [&held](int t) {
    for (int i = 0; i < 20000; ++i) {
      std::string const shared = "threads-shared-" + std::to_string(i % 64);
      std::string const own = "threads-own-" + std::to_string(t) + "-" + std::to_string(i % 500);
      StringKey const a(shared.c_str()), b(own.c_str());
      ASSERT_EQ(a.value(), shared);
      ASSERT_EQ(b.value(), own);
      if (i % 64 == 0) {
        ASSERT_EQ(a, held);
      }
      ASSERT_NE(a, b);
    }
  });
  EXPECT_EQ(impl::testing::interned_string_count(), before + 1);
}

TEST(KeyThreads, ManyThreadsInterningOneNewTextGetOneItem) {
  for (int round = 0; round < 50; ++round) {
    std::string const text = "threads-race-" + std::to_string(round);
    std::vector<StringKey> keys(4);
    on_threads(4, [&](int t) { keys[t] = StringKey(text.c_str()); });
    for (StringKey const& key : keys) ASSERT_EQ(key, keys[0]);
    ASSERT_EQ(&keys[3].value(), &keys[0].value());
  }
}

TEST(UuidThreads, SequentialIdentifiersFromTwoThreadsIncreaseAndNeverRepeat) {
  std::vector<std::vector<Uuid>> made(2);
  on_threads(2, [&made](int t) {
    for (int i = 0; i < 50000; ++i) made[t].push_back(Uuid::create_sequential());
  });
  std::set<Uuid> all;
  for (std::vector<Uuid> const& sequence : made) {
    for (size_t i = 1; i < sequence.size(); ++i) ASSERT_LT(sequence[i - 1], sequence[i]);
    all.insert(sequence.begin(), sequence.end());
  }
  EXPECT_EQ(all.size(), 100000u);
}

TEST(RandomThreads, FillsAndWordsFromManyThreads) {
  std::vector<std::vector<unsigned char>> buffers(4, std::vector<unsigned char>(20000));
  on_threads(4, [&buffers](int t) {
    for (int i = 0; i < 20; ++i) {
      random_fill(buffers[t].data(), buffers[t].size());
      random_uint32();
    }
  });
  // Four threads never hand out the same words.
  EXPECT_NE(buffers[0], buffers[1]);
  EXPECT_NE(buffers[2], buffers[3]);
}

}  // namespace
}  // namespace tqcore
