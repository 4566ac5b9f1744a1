// Weak-reference promotion racing the last strong release, and guarded readers racing
// writers: each round must end with exactly one disposal and one deletion, and no reader may
// see a released object.
#include <tqcore/refcount_ptr_guard.h>
#include <tqcore/strong_weak_ptr.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

struct Counted : tqcore::StrongWeakRefCounted {
  Counted(std::atomic<int>* disposed, std::atomic<int>* deleted)
      : m_disposed(disposed), m_deleted(deleted) {}
  ~Counted() override { m_deleted->fetch_add(1); }
  void dispose() noexcept override {
    alive = false;
    m_disposed->fetch_add(1);
  }
  bool alive = true;  // read by promoters: only ever through a strong reference
  std::atomic<int>* m_disposed;
  std::atomic<int>* m_deleted;
};

TEST(OwnershipConcurrency, PromotionRacesTheLastRelease) {
  constexpr int kRounds = 500;
  constexpr int kPromoters = 3;
  std::atomic<int> disposed{0}, deleted{0}, promoted{0}, refused{0};
  for (int round = 0; round < kRounds; ++round) {
    tqcore::StrongPtr<Counted> owner(new Counted(&disposed, &deleted));
    std::vector<tqcore::WeakPtr<Counted>> weak(kPromoters, tqcore::WeakPtr<Counted>(owner));
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kPromoters; ++t) {
      threads.emplace_back([&, t] {
        while (!go.load()) {
        }
        try {
          tqcore::StrongPtr<Counted> const strong = weak[t].promote();
          EXPECT_TRUE(strong->alive);
          promoted.fetch_add(1);
        } catch (tqcore::WeakRefPromoteException const&) {
          refused.fetch_add(1);
        }
        weak[t].reset();
      });
    }
    go.store(true);
    owner.reset();
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(disposed.load(), round + 1);
    ASSERT_EQ(deleted.load(), round + 1);
  }
  EXPECT_EQ(promoted.load() + refused.load(), kRounds * kPromoters);
}

struct Snapshot : tqcore::RefCounted<tqcore::AtomicRefCount> {
  explicit Snapshot(int v) : value(v), check(-v) {}
  ~Snapshot() override { value = check = 0; }
  int value;
  int check;
};

TEST(OwnershipConcurrency, GuardedReadersNeverSeeAReleasedSnapshot) {
  tqcore::RefCountPtrGuard<Snapshot> guard(tqcore::RefCountPtr<Snapshot>(new Snapshot(1)));
  std::atomic<bool> stop{false};
  std::atomic<long> reads{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        auto const reader = guard.read();
        ASSERT_GT(reader->value, 0);
        ASSERT_EQ(reader->value, -reader->check);
        tqcore::RefCountPtr<Snapshot> const own = guard.get();
        ASSERT_EQ(own->value, -own->check);
        reads.fetch_add(1);
      }
    });
  }
  // Replace until both sides have had plenty of turns.
  int v = 2;
  for (; v < 2000 || reads.load() < 2000; ++v) {
    guard.set(tqcore::RefCountPtr<Snapshot>(new Snapshot(v)));
  }
  stop.store(true);
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(guard.get()->value, v - 1);
}

}  // namespace
