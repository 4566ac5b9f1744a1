#include <tqcore/error_exception.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <type_traits>

namespace tqcore {
namespace {

// ---- The 128-bit exchange -------------------------------------------------------------------

struct alignas(16) Pair {
  unsigned long long words[2];
};

TEST(AtomicCompareExchange128, FailureLeavesTargetAndReportsIt) {
  Pair target{{1, 2}};
  unsigned long long const exchange[2] = {7, 8};
  unsigned long long const comparand[2] = {1, 3};
  unsigned long long result[2] = {0, 0};
  EXPECT_FALSE(atomic_compare_exchange_128(target.words, exchange, comparand, result));
  EXPECT_EQ(target.words[0], 1u);
  EXPECT_EQ(target.words[1], 2u);
  EXPECT_EQ(result[0], 1u);
  EXPECT_EQ(result[1], 2u);
}

// ---- Counters --------------------------------------------------------------------------------

TEST(AtomicStrongWeakRefCount, StrongCountNeverRisesFromZero) {
  AtomicStrongWeakRefCount count;
  EXPECT_TRUE(count.increment_strong());  // 1 -> 2
  EXPECT_FALSE(count.decrement_strong());
  EXPECT_TRUE(count.decrement_strong());
  EXPECT_FALSE(count.increment_strong());
  EXPECT_FALSE(count.has_strong_refs());
  count.increment_weak();
  EXPECT_FALSE(count.decrement_weak());
  EXPECT_TRUE(count.decrement_weak());
}

// ---- RefCounted and RefCountPtr --------------------------------------------------------------

// Records its destruction, and may hold another object alive.
class Tracked : public RefCounted<AtomicRefCount> {
 public:
  explicit Tracked(int* destroyed) : m_destroyed(destroyed) {}
  RefCountPtr<Tracked> other;

 protected:
  ~Tracked() override { ++*m_destroyed; }

 private:
  int* m_destroyed;
};

class RefCountPtrTest : public ::testing::Test {
 protected:
  Tracked* make() { return new Tracked(&destroyed); }
  int destroyed = 0;
};

TEST_F(RefCountPtrTest, LastReleaseDestroysOnce) {
  Tracked* raw = make();
  EXPECT_FALSE(raw->has_unique_ref());  // count 0 before anyone owns it
  {
    RefCountPtr<Tracked> a(raw);
    EXPECT_TRUE(raw->has_unique_ref());
    RefCountPtr<Tracked> b(a);
    EXPECT_FALSE(raw->has_unique_ref());
    RefCountPtr<Tracked const> c(b);  // a const pointer owns as well
    b.clear();
    a.clear();
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST_F(RefCountPtrTest, SelfAssignmentOfRawPointerKeepsTheObject) {
  RefCountPtr<Tracked> p(make());
  p = p.get();
  EXPECT_EQ(destroyed, 0);
  EXPECT_TRUE(p->has_unique_ref());
  p = *&p;
  EXPECT_TRUE(p->has_unique_ref());
}

TEST_F(RefCountPtrTest, AssignmentKeepsObjectOnlyTheOldOneHeldAlive) {
  RefCountPtr<Tracked> p(make());
  p->other = make();
  p = p->other;  // the new object would die with the old one if it were released first
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(p->has_unique_ref());
  p.reset();
  EXPECT_EQ(destroyed, 2);
}

TEST_F(RefCountPtrTest, AttachReleasesTheOldObjectLast) {
  RefCountPtr<Tracked> p(make());
  Tracked* next = make();
  RefCountPtr<Tracked>(next).detach();  // a reference for attach to adopt
  p.attach(next);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(p.get(), next);
  EXPECT_TRUE(next->has_unique_ref());
}

// ---- InterfacePtr ----------------------------------------------------------------------------

struct Speaker {
  virtual int speak() const = 0;

 protected:
  ~Speaker() = default;
};

class SpeakingObject : public RefCounted<AtomicRefCount>, public Speaker {
 public:
  explicit SpeakingObject(int* destroyed) : m_destroyed(destroyed) {}
  int speak() const override { return 42; }

 protected:
  ~SpeakingObject() override { ++*m_destroyed; }

 private:
  int* m_destroyed;
};

TEST(InterfacePtr, OwnerKeepsTheInterfaceAlive) {
  using Ptr = InterfacePtr<Speaker const, RefCountPtr<RefCounted<AtomicRefCount> const>>;
  int destroyed = 0;
  Ptr copy;
  {
    auto* object = new SpeakingObject(&destroyed);
    Ptr original(object, RefCountPtr<RefCounted<AtomicRefCount> const>(object));
    copy = original;
    EXPECT_FALSE(object->has_unique_ref());
  }
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(copy->speak(), 42);
  Ptr moved(copy.transfer());
  EXPECT_TRUE(copy.is_null());
  moved.clear();
  EXPECT_EQ(destroyed, 1);
}

// ---- Failures of pointer use -----------------------------------------------------------------

struct ReaderGuard : RefCountPtrGuardBase {
  static void overflow() { throw_too_many_readers_error(); }
};

TEST(RefCountPtrGuardBase, TooManyReadersIsAnOverflowError) {
  try {
    ReaderGuard::overflow();
    FAIL() << "did not throw";
  } catch (ErrorException const& e) {
    ErrorInfo const& error = *e.error();
    EXPECT_EQ(error.code(), "error.exception.runtime_error.overflow_error");
    EXPECT_EQ(error.message(), "Too many concurrent readers");
    EXPECT_EQ(error.location().function(),
              "tqcore::RefCountPtrGuardBase::throw_too_many_readers_error()");
    EXPECT_EQ(error.location().file_path(), "//tqcore/int/src/tqcore/refcounted.cpp");
    EXPECT_EQ(error.location().line(), 34u);
  }
}

}  // namespace
}  // namespace tqcore
