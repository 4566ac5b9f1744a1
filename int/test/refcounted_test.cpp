#include <tqcore/error_exception.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <type_traits>

namespace tqcore {
namespace {

// ---- AtomicOp --------------------------------------------------------------------------------

template <class T>
class AtomicOpTest : public ::testing::Test {};
using AtomicTypes =
    ::testing::Types<int, long, long long, unsigned int, unsigned long, unsigned long long>;
TYPED_TEST_SUITE(AtomicOpTest, AtomicTypes);

TYPED_TEST(AtomicOpTest, ReadModifyWriteReturnsTheDocumentedValue) {
  using Op = AtomicOp<TypeParam>;
  TypeParam v = 5;
  EXPECT_EQ(Op::increment(&v), TypeParam(6));
  EXPECT_EQ(Op::decrement(&v), TypeParam(5));
  EXPECT_EQ(Op::add(&v, 10), TypeParam(15));
  EXPECT_EQ(Op::sub(&v, 3), TypeParam(12));
  EXPECT_EQ(Op::exchange(&v, 40), TypeParam(12));  // the previous value
  EXPECT_EQ(Op::read(&v), TypeParam(40));
  Op::write(&v, 7);
  EXPECT_EQ(v, TypeParam(7));
}

TYPED_TEST(AtomicOpTest, CompareExchangeTakesNewValueFirst) {
  using Op = AtomicOp<TypeParam>;
  TypeParam v = 1;
  EXPECT_EQ(Op::compare_exchange(&v, 9, 2), TypeParam(1));  // wrong comparand
  EXPECT_EQ(v, TypeParam(1));
  EXPECT_EQ(Op::compare_exchange(&v, 9, 1), TypeParam(1));  // success also returns the old value
  EXPECT_EQ(v, TypeParam(9));
}

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

TEST(AtomicCompareExchange128, SuccessStoresBothWordsAndReturnsComparand) {
  alignas(16) long long target[2] = {-1, 5};
  long long const exchange[2] = {LLONG_MIN, LLONG_MAX};
  long long const comparand[2] = {-1, 5};
  long long result[2] = {0, 0};
  EXPECT_TRUE(atomic_compare_exchange_128(target, exchange, comparand, result));
  EXPECT_EQ(target[0], LLONG_MIN);
  EXPECT_EQ(target[1], LLONG_MAX);
  EXPECT_EQ(result[0], -1);
  EXPECT_EQ(result[1], 5);
}

// ---- Counters --------------------------------------------------------------------------------

template <class Count>
class RefCountTest : public ::testing::Test {};
using CountTypes = ::testing::Types<AtomicRefCount, NonAtomicRefCount>;
TYPED_TEST_SUITE(RefCountTest, CountTypes);

TYPED_TEST(RefCountTest, DecrementTellsExactlyZero) {
  TypeParam count(2);
  EXPECT_FALSE(count.is_unique());
  EXPECT_FALSE(count.decrement());  // 2 -> 1
  EXPECT_TRUE(count.is_unique());
  EXPECT_TRUE(count.decrement());  // 1 -> 0
  EXPECT_FALSE(count.has_refs());
  EXPECT_FALSE(count.decrement());  // 0 -> -1: no guard, and not "zero"
  EXPECT_TRUE(count.has_refs());
  count.increment();
  EXPECT_FALSE(count.has_refs());
}

TEST(AtomicStrongWeakRefCount, StartsWithOneOfEach) {
  AtomicStrongWeakRefCount count;
  EXPECT_TRUE(count.has_strong_refs());
  EXPECT_TRUE(count.decrement_strong());
  EXPECT_TRUE(count.decrement_weak());
}

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

TEST_F(RefCountPtrTest, IsOnePointerWide) {
  EXPECT_EQ(sizeof(RefCountPtr<Tracked>), sizeof(void*));
  EXPECT_FALSE((std::is_convertible<RefCountPtr<Tracked>, int>::value));
}

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

TEST_F(RefCountPtrTest, AdoptionAndDetachMoveNoCount) {
  Tracked* raw = make();
  RefCountPtr<Tracked> p(raw);
  Tracked* detached = p.detach();
  EXPECT_TRUE(p.is_null());
  EXPECT_TRUE(raw->has_unique_ref());
  RefCountPtr<Tracked> q(detached, false);
  EXPECT_TRUE(raw->has_unique_ref());
  EXPECT_EQ(destroyed, 0);
  q.clear();
  EXPECT_EQ(destroyed, 1);
}

TEST_F(RefCountPtrTest, AdoptingAFreshObjectDrivesItsCountBelowZero) {
  Tracked* raw = make();
  { RefCountPtr<Tracked> p(raw, false); }  // 0 -> -1: not zero, so not destroyed
  EXPECT_EQ(destroyed, 0);
  RefCountPtr<Tracked>(raw).detach();  // -1 -> 0 by an increment: still alive
  RefCountPtr<Tracked> owner(raw);     // 0 -> 1
  owner.clear();                       // 1 -> 0 by a release
  EXPECT_EQ(destroyed, 1);
}

TEST_F(RefCountPtrTest, MovesAndTransfersLeaveTheSourceNull) {
  RefCountPtr<Tracked> a(make());
  RefCountPtr<Tracked> b(std::move(a));
  EXPECT_TRUE(a.is_null());
  RefCountPtr<Tracked> c(b.transfer());
  EXPECT_TRUE(b.is_null());
  EXPECT_TRUE(c->has_unique_ref());
  RefCountPtr<Tracked> d(make());
  d = std::move(c);  // releases d's old object after taking c's
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(c.is_null());
  RefCountPtr<Tracked const> e(std::move(d));
  EXPECT_TRUE(d.is_null());
  EXPECT_TRUE(e->has_unique_ref());
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

TEST_F(RefCountPtrTest, BooleanTestsAndComparisons) {
  RefCountPtr<Tracked> null;
  RefCountPtr<Tracked> p(make());
  EXPECT_FALSE(null);
  EXPECT_TRUE(!null);
  EXPECT_TRUE(p);
  EXPECT_TRUE(null == nullptr);
  EXPECT_TRUE(p != null);
  RefCountPtr<Tracked> q(p);
  EXPECT_TRUE(p == q);
  EXPECT_EQ(&p.as_const_ptr(), static_cast<void const*>(&p));
  EXPECT_EQ(p.as_const_ptr().get(), p.get());
  EXPECT_TRUE(p->has_unique_ref() == false);
  null.clear();  // a null pointer's clear does nothing
  EXPECT_TRUE(null.is_null());
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
