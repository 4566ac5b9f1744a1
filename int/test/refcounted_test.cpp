#include <tqcore/error_exception.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <type_traits>

namespace tqcore {
namespace {

struct alignas(16) Pair {
  unsigned long long words[2];
};

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

TEST_F(RefCountPtrTest, AssignmentKeepsObjectOnlyTheOldOneHeldAlive) {
  RefCountPtr<Tracked> p(make());
  p->other = make();
  p = p->other;  // the new object would die with the old one if it were released first
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(p->has_unique_ref());
  p.reset();
  EXPECT_EQ(destroyed, 2);
}

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
