// StrongPtr/WeakPtr, ScopedPtr and RefCountPtrGuard on one thread; the races are in
// ownership_concurrency_test.cpp.
#include <tqcore/error_exception.h>
#include <tqcore/refcount_ptr_guard.h>
#include <tqcore/scoped_ptr.h>
#include <tqcore/strong_weak_ptr.h>
#include <tqcore/testing/matchers.h>

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Tracked : tqcore::StrongWeakRefCounted {
  explicit Tracked(int* disposed, int* deleted) : m_disposed(disposed), m_deleted(deleted) {}
  ~Tracked() override { ++*m_deleted; }
  void dispose() noexcept override { ++*m_disposed; }
  int* m_disposed;
  int* m_deleted;
};

TEST(StrongWeakPtr, DisposeWithTheLastStrongDeleteWithTheLastReference) {
  int disposed = 0, deleted = 0;
  tqcore::StrongPtr<Tracked> owner(new Tracked(&disposed, &deleted));
  tqcore::WeakPtr<Tracked> const observer(owner);
  tqcore::StrongPtr<Tracked> second = observer.promote();
  EXPECT_EQ(second, owner);
  owner.reset();
  EXPECT_FALSE(observer.expired());
  second.reset();
  EXPECT_EQ(disposed, 1);
  EXPECT_EQ(deleted, 0);  // the weak reference keeps the memory
  EXPECT_TRUE(observer.expired());
  EXPECT_FALSE(observer.lock());
  EXPECT_THROW(observer.promote(), tqcore::WeakRefPromoteException);
  EXPECT_THROW(tqcore::StrongPtr<Tracked>{observer}, tqcore::WeakRefPromoteException);
  {
    tqcore::WeakPtr<Tracked> const copy = observer;
    EXPECT_TRUE(copy.expired());
  }
  EXPECT_EQ(deleted, 0);
}

TEST(StrongWeakPtr, WithoutWeakReferencesTheObjectGoesAtOnce) {
  int disposed = 0, deleted = 0;
  {
    tqcore::StrongPtr<Tracked> const owner(new Tracked(&disposed, &deleted));
    tqcore::StrongPtr<tqcore::StrongWeakRefCounted> const as_base(owner);
  }
  EXPECT_EQ(disposed, 1);
  EXPECT_EQ(deleted, 1);
}

TEST(StrongWeakPtr, PromotionFailureIsRecognisedAsARecord) {
  tqcore::WeakPtr<Tracked> const empty;
  try {
    empty.promote();
    FAIL() << "promotion of an empty WeakPtr succeeded";
  } catch (std::exception const& e) {
    EXPECT_THAT(tqcore::ErrorInfo::from_exception(e, TQCORE_HERE),
                tqcore::testing::HasCode("error.exception.weakRefPromoteException"));
  }
}

TEST(ScopedPtr, OwnsMovesAndReleases) {
  int disposed = 0, deleted = 0;
  {
    tqcore::ScopedPtr<int> number(new int(3));
    tqcore::ScopedPtr<int> moved = std::move(number);
    EXPECT_FALSE(number);
    EXPECT_EQ(*moved, 3);
    moved.reset(new int(4));
    EXPECT_EQ(*moved, 4);
    delete moved.release();
    EXPECT_EQ(moved.get(), nullptr);
  }
  struct Plain {
    explicit Plain(int* count) : m_count(count) {}
    ~Plain() { ++*m_count; }
    int* m_count;
  };
  {
    tqcore::ScopedPtr<Plain> a(new Plain(&deleted));
    tqcore::ScopedPtr<Plain> b(new Plain(&deleted));
    a = std::move(b);
    EXPECT_EQ(deleted, 1);
  }
  EXPECT_EQ(deleted, 2);
  EXPECT_EQ(disposed, 0);
}

struct Config : tqcore::RefCounted<tqcore::AtomicRefCount> {
  explicit Config(int v) : value(v) {}
  int value;
};

TEST(RefCountPtrGuard, ReadersSeeOneValueAndOverflowRaises) {
  tqcore::RefCountPtrGuard<Config> guard(tqcore::RefCountPtr<Config>(new Config(1)));
  EXPECT_EQ(guard.read()->value, 1);
  tqcore::RefCountPtr<Config> const kept = guard.get();
  tqcore::RefCountPtr<Config> const old =
      guard.exchange(tqcore::RefCountPtr<Config>(new Config(2)));
  EXPECT_EQ(old, kept);
  EXPECT_EQ(guard.get()->value, 2);

  std::vector<tqcore::RefCountPtrGuard<Config>::Reader> readers;
  readers.reserve(tqcore::RefCountPtrGuard<Config>::max_readers);
  for (uint32_t i = 0; i < tqcore::RefCountPtrGuard<Config>::max_readers; ++i) {
    readers.push_back(guard.read());
  }
  try {
    guard.read();
    FAIL() << "a reader past the limit was admitted";
  } catch (tqcore::ErrorException const& e) {
    EXPECT_THAT(e, tqcore::testing::HasCode("error.exception.runtime_error.overflow_error"));
    EXPECT_THAT(e, tqcore::testing::HasMessage("Too many concurrent readers"));
  }
  readers.clear();
  EXPECT_EQ(guard.read()->value, 2);  // the failed reader left no count behind
}

}  // namespace
