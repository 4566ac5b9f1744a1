/// @file
/// Weak references: StrongPtr owns an object derived from StrongWeakRefCounted, WeakPtr
/// observes it without keeping it alive and can be promoted back to a StrongPtr while any
/// strong owner remains. The counts live in the object (AtomicStrongWeakRefCount), so both
/// pointers are one pointer wide. When the last StrongPtr goes the object is disposed of
/// (`dispose()`, then nothing can promote it again); its memory goes with the last reference
/// of either kind.
///
/// Failures: promotion of a WeakPtr whose object has been disposed of throws
/// WeakRefPromoteException (`lock()` returns an empty StrongPtr instead); nothing else raises.
///
/// @code
/// struct Session : tqcore::StrongWeakRefCounted {
///   int id = 7;
/// };
/// tqcore::StrongPtr<Session> owner(new Session);
/// tqcore::WeakPtr<Session> const observer(owner);
/// if (tqcore::StrongPtr<Session> const alive = observer.lock()) std::cout << alive->id << '\n';
/// owner.reset();  // disposed of: observer.lock() is empty, observer.promote() throws
/// @endcode
#pragma once

#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace tqcore {

template <class T>
class StrongPtr;
template <class T>
class WeakPtr;

/// Base of objects that weak references can observe. A new object's counts are both 1: the
/// first StrongPtr adopts that strong reference, and the strong owners together hold the one
/// weak reference that keeps the memory until they are gone.
class StrongWeakRefCounted {
 public:
  StrongWeakRefCounted(StrongWeakRefCounted const&) = delete;
  StrongWeakRefCounted& operator=(StrongWeakRefCounted const&) = delete;

  bool has_strong_refs() const noexcept { return m_counts.has_strong_refs(); }

 protected:
  StrongWeakRefCounted() noexcept = default;
  virtual ~StrongWeakRefCounted() = default;
  /// Called once, by the release of the last strong reference: give up what the object holds.
  /// Weak references may still point at the object, which is deleted with the last of them.
  virtual void dispose() noexcept {}

 private:
  template <class T>
  friend class StrongPtr;
  template <class T>
  friend class WeakPtr;

  void add_strong() const noexcept { m_counts.increment_strong(); }
  bool try_add_strong() const noexcept { return m_counts.increment_strong(); }
  void release_strong() const noexcept {
    if (m_counts.decrement_strong()) {
      const_cast<StrongWeakRefCounted*>(this)->dispose();
      release_weak();
    }
  }
  void add_weak() const noexcept { m_counts.increment_weak(); }
  void release_weak() const noexcept {
    if (m_counts.decrement_weak()) delete this;
  }

  mutable AtomicStrongWeakRefCount m_counts;
};

/// An owning pointer to a StrongWeakRefCounted object.
template <class T>
class StrongPtr {
 public:
  StrongPtr() noexcept = default;
  StrongPtr(std::nullptr_t) noexcept {}
  /// Adopts a new object's first strong reference: pass only what `new` has just returned.
  explicit StrongPtr(T* fresh) noexcept : m_object(fresh) {}
  StrongPtr(StrongPtr const& other) noexcept : m_object(other.m_object) { add(); }
  StrongPtr(StrongPtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  StrongPtr(StrongPtr<U> const& other) noexcept : m_object(other.get()) {
    add();
  }
  /// Promotes a weak reference; throws WeakRefPromoteException when the object is disposed
  /// of (or `weak` is empty).
  explicit StrongPtr(WeakPtr<T> const& weak);
  ~StrongPtr() { release(); }

  StrongPtr& operator=(StrongPtr other) noexcept {
    swap(other);
    return *this;
  }
  void swap(StrongPtr& other) noexcept { std::swap(m_object, other.m_object); }
  /// The release happens after the pointer has changed, so a `dispose()` that reaches this
  /// pointer sees it empty.
  void reset() noexcept { StrongPtr().swap(*this); }

  T* get() const noexcept { return m_object; }
  T& operator*() const noexcept { return *m_object; }
  T* operator->() const noexcept { return m_object; }
  explicit operator bool() const noexcept { return m_object != nullptr; }

  friend bool operator==(StrongPtr const& a, StrongPtr const& b) noexcept {
    return a.m_object == b.m_object;
  }
  friend bool operator!=(StrongPtr const& a, StrongPtr const& b) noexcept { return !(a == b); }

 private:
  template <class U>
  friend class WeakPtr;
  struct Promoted {};
  StrongPtr(T* counted, Promoted) noexcept : m_object(counted) {}
  void add() const noexcept {
    if (m_object) base()->add_strong();
  }
  void release() noexcept {
    if (m_object) base()->release_strong();
  }
  StrongWeakRefCounted const* base() const noexcept { return m_object; }

  T* m_object = nullptr;
};

/// A non-owning pointer that can be promoted to a StrongPtr while the object is alive.
template <class T>
class WeakPtr {
 public:
  WeakPtr() noexcept = default;
  WeakPtr(StrongPtr<T> const& strong) noexcept : m_object(strong.get()) { add(); }
  WeakPtr(WeakPtr const& other) noexcept : m_object(other.m_object) { add(); }
  WeakPtr(WeakPtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
  ~WeakPtr() { release(); }

  WeakPtr& operator=(WeakPtr other) noexcept {
    std::swap(m_object, other.m_object);
    return *this;
  }
  void reset() noexcept { WeakPtr().swap(*this); }
  void swap(WeakPtr& other) noexcept { std::swap(m_object, other.m_object); }

  /// A strong reference, or an empty StrongPtr when the object has been disposed of.
  StrongPtr<T> lock() const noexcept {
    if (m_object == nullptr || !base()->try_add_strong()) return StrongPtr<T>();
    return StrongPtr<T>(m_object, typename StrongPtr<T>::Promoted{});
  }
  /// A strong reference; throws WeakRefPromoteException when there is none to be had.
  StrongPtr<T> promote() const {
    StrongPtr<T> strong = lock();
    if (!strong) throw WeakRefPromoteException();
    return strong;
  }
  /// True once the object has been disposed of; a false answer can be stale at once.
  bool expired() const noexcept { return m_object == nullptr || !base()->has_strong_refs(); }

  friend bool operator==(WeakPtr const& a, WeakPtr const& b) noexcept {
    return a.m_object == b.m_object;
  }
  friend bool operator!=(WeakPtr const& a, WeakPtr const& b) noexcept { return !(a == b); }

 private:
  void add() const noexcept {
    if (m_object) base()->add_weak();
  }
  void release() noexcept {
    if (m_object) base()->release_weak();
  }
  StrongWeakRefCounted const* base() const noexcept { return m_object; }

  T* m_object = nullptr;
};

template <class T>
StrongPtr<T>::StrongPtr(WeakPtr<T> const& weak) : StrongPtr(weak.promote()) {}

}  // namespace tqcore

namespace std {
template <class T>
struct hash<tqcore::StrongPtr<T>> {
  size_t operator()(tqcore::StrongPtr<T> const& p) const noexcept { return hash<T*>()(p.get()); }
};
}  // namespace std
