/// @file
/// Atomic operations, reference counts and the intrusive base of every shared object.
///
/// Failures: none: the counts and atomic operations never raise.
///
/// @code
/// struct Buffer : tqcore::RefCounted<tqcore::AtomicRefCount> {
///   std::vector<char> bytes;
/// };
/// tqcore::RefCountPtr<Buffer> const shared(new Buffer);  // the last pointer deletes it
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <cstdint>

namespace tqcore {

/// Static atomic operations on naturally aligned integers. Read-modify-write operations are
/// sequentially consistent; `read` is a plain load with no ordering. The members are defined
/// out of line for the exported instantiations below and stay leaf functions.
template <class T>
class AtomicOp {
 public:
  static T increment(T* target);
  static T decrement(T* target);
  static T add(T* target, T value);
  static T sub(T* target, T value);
  static T exchange(T* target, T value);
  /// Note the argument order: the new value first, the expected one second. The result is
  /// the value found before the operation; success is told by comparing it with `comparand`.
  static T compare_exchange(T* target, T exchange, T comparand);
  static T read(T const* target);
  /// A full barrier (an atomic exchange), not a plain store.
  static void write(T* target, T value);
};

extern template class TQCORE_EXPORT AtomicOp<int>;
extern template class TQCORE_EXPORT AtomicOp<long>;
extern template class TQCORE_EXPORT AtomicOp<long long>;
extern template class TQCORE_EXPORT AtomicOp<unsigned int>;
extern template class TQCORE_EXPORT AtomicOp<unsigned long>;
extern template class TQCORE_EXPORT AtomicOp<unsigned long long>;

/// One 16-byte compare-and-swap. Each pointer addresses two 64-bit words, low word first;
/// `target` must be 16-byte aligned and `result` may not alias it. `result` always receives
/// the pair `target` held before the operation; returns true if the exchange took place.
TQCORE_EXPORT bool atomic_compare_exchange_128(long long* target, long long const* exchange,
                                               long long const* comparand, long long* result);
TQCORE_EXPORT bool atomic_compare_exchange_128(unsigned long long* target,
                                               unsigned long long const* exchange,
                                               unsigned long long const* comparand,
                                               unsigned long long* result);

/// A signed 32-bit count changed by single locked instructions.
class AtomicRefCount {
 public:
  AtomicRefCount() noexcept : m_count(0) {}
  explicit AtomicRefCount(int count) noexcept : m_count(count) {}

  void increment() noexcept { __atomic_add_fetch(&m_count, 1, __ATOMIC_SEQ_CST); }
  /// True if the count has reached exactly 0.
  bool decrement() noexcept { return __atomic_sub_fetch(&m_count, 1, __ATOMIC_SEQ_CST) == 0; }
  bool is_unique() const noexcept { return __atomic_load_n(&m_count, __ATOMIC_RELAXED) == 1; }
  bool has_refs() const noexcept { return __atomic_load_n(&m_count, __ATOMIC_RELAXED) != 0; }

 private:
  int32_t m_count;
};

/// The same interface with plain arithmetic, for objects confined to one thread.
class NonAtomicRefCount {
 public:
  NonAtomicRefCount() noexcept : m_count(0) {}
  explicit NonAtomicRefCount(int count) noexcept : m_count(count) {}

  void increment() noexcept { ++m_count; }
  bool decrement() noexcept { return --m_count == 0; }
  bool is_unique() const noexcept { return m_count == 1; }
  bool has_refs() const noexcept { return m_count != 0; }

 private:
  int32_t m_count;
};

/// Strong and weak counts for weak references. Both start at 1; a strong count that has once
/// reached 0 never rises again, which is what makes promotion of a weak reference safe.
class AtomicStrongWeakRefCount {
 public:
  AtomicStrongWeakRefCount() noexcept : m_strong(1), m_weak(1) {}

  /// Adds 1 to strong unless it is 0; true if it added.
  bool increment_strong() noexcept {
    int32_t seen = __atomic_load_n(&m_strong, __ATOMIC_RELAXED);
    while (seen != 0) {
      // A failed exchange leaves the value it observed in `seen`; no fresh read is needed.
      if (__atomic_compare_exchange_n(&m_strong, &seen, seen + 1, false, __ATOMIC_SEQ_CST,
                                      __ATOMIC_SEQ_CST)) {
        return true;
      }
    }
    return false;
  }
  bool decrement_strong() noexcept {
    return __atomic_sub_fetch(&m_strong, 1, __ATOMIC_SEQ_CST) == 0;
  }
  void increment_weak() noexcept { __atomic_add_fetch(&m_weak, 1, __ATOMIC_SEQ_CST); }
  bool decrement_weak() noexcept { return __atomic_sub_fetch(&m_weak, 1, __ATOMIC_SEQ_CST) == 0; }
  bool has_strong_refs() const noexcept {
    return __atomic_load_n(&m_strong, __ATOMIC_RELAXED) != 0;
  }

 private:
  int32_t m_strong;
  int32_t m_weak;
};

template <class T>
class RefCountPtr;

/// Intrusive base of every shared object. A new object has the count 0 and is owned only once
/// a RefCountPtr takes it; the release that brings the count to 0 calls `destroy`.
template <class Count>
class TQCORE_EXPORT RefCounted {
 public:
  /// Meaningful only to a holder of a reference who knows no other thread can take a new one.
  bool has_unique_ref() const noexcept { return m_count.is_unique(); }

 protected:
  RefCounted() noexcept = default;
  /// A copy is a new object: it starts unowned, and assignment leaves the count alone.
  RefCounted(RefCounted const&) noexcept {}
  RefCounted& operator=(RefCounted const&) noexcept { return *this; }
  virtual void destroy() { delete this; }
  /// For a factory that hands out the first reference itself (RefCountPtr(p, false)): sets
  /// the count of a new object to 1 with a plain store, saving a locked instruction. Only
  /// valid while no other thread can see the object.
  void take_first_reference() const noexcept { m_count = Count(1); }
  virtual ~RefCounted() = default;

 private:
  template <class T>
  friend class RefCountPtr;

  void add_ref() const noexcept { m_count.increment(); }
  void release() const {
    if (m_count.decrement()) const_cast<RefCounted*>(this)->destroy();
  }

  mutable Count m_count;
};

}  // namespace tqcore
