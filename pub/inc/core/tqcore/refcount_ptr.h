/// @file
/// Owning pointers: RefCountPtr, the explicit move marker TransferSource, and InterfacePtr.
///
/// Failures: the pointers never raise; promoting a weak reference whose object is gone raises
/// WeakRefPromoteException, and a reader count past its limit raises
/// "error.exception.runtime_error.overflow_error".
///
/// @code
/// struct Session : tqcore::RefCounted<tqcore::AtomicRefCount> {
///   int id = 0;
/// };
/// tqcore::RefCountPtr<Session> session(new Session);
/// tqcore::RefCountPtr<Session const> reader(session);  // one atomic increment
/// tqcore::RefCountPtr<Session> taken(session.transfer());  // an explicit move
/// @endcode
#pragma once

#include <tqcore/refcounted.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <type_traits>
#include <utility>

namespace tqcore {

/// Names the object a receiver is to take its value from: `x.transfer()`. It owns nothing; the
/// constructor or assignment that accepts it leaves the source empty.
template <class T>
class TransferSource {
 public:
  explicit TransferSource(T& source) noexcept : m_source(&source) {}
  T& source() const noexcept { return *m_source; }

 private:
  T* m_source;
};

/// Intrusive owning pointer, exactly one pointer wide. T derives from RefCounted<Count> and may
/// be const. Operations on a null pointer take no locked instruction.
template <class T>
class RefCountPtr {
  using SafeBool = T* RefCountPtr::*;

 public:
  using element_type = T;

  RefCountPtr() noexcept : m_p(nullptr) {}
  RefCountPtr(std::nullptr_t) noexcept : m_p(nullptr) {}
  RefCountPtr(T* p) noexcept : m_p(safe_add_ref(p)) {}
  /// With `add_ref` false the pointer adopts a reference the caller held (see `detach`).
  RefCountPtr(T* p, bool add_ref) noexcept : m_p(add_ref ? safe_add_ref(p) : p) {}
  RefCountPtr(RefCountPtr const& other) noexcept : m_p(safe_add_ref(other.m_p)) {}
  RefCountPtr(RefCountPtr&& other) noexcept : m_p(other.m_p) { other.m_p = nullptr; }
  RefCountPtr(TransferSource<RefCountPtr> source) noexcept : m_p(source.source().m_p) {
    source.source().m_p = nullptr;
  }
  template <class U, class = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  RefCountPtr(RefCountPtr<U> const& other) noexcept : m_p(safe_add_ref(other.get())) {}
  template <class U, class = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  RefCountPtr(RefCountPtr<U>&& other) noexcept : m_p(other.detach()) {}
  ~RefCountPtr() {
    if (m_p != nullptr) m_p->release();
  }

  /// Safe on itself: reset adds the new reference before dropping the old one.
  RefCountPtr& operator=(RefCountPtr const& other) {  // NOLINT(bugprone-unhandled-self-assignment)
    reset(other.m_p);
    return *this;
  }
  RefCountPtr& operator=(T* p) {
    reset(p);
    return *this;
  }
  /// Not noexcept: dropping the old object may run a destructor that raises.
  RefCountPtr& operator=(RefCountPtr&& other) {  // NOLINT(performance-noexcept-move-constructor)
    T* p = other.m_p;
    other.m_p = nullptr;
    attach(p);
    return *this;
  }

  /// Adds the new reference before dropping the old one: self-assignment is safe, and an
  /// object kept alive only by the old one survives.
  void reset(T* p = nullptr) {
    safe_add_ref(p);
    std::swap(m_p, p);
    if (p != nullptr) p->release();
  }
  /// Stores `p` without a new reference; the old object is released last, so a destructor
  /// that reaches back finds the new value.
  void attach(T* p) {
    T* old = m_p;
    m_p = p;
    if (old != nullptr) old->release();
  }
  /// Gives up the reference without releasing it; the caller now owns it.
  T* detach() noexcept {
    T* p = m_p;
    m_p = nullptr;
    return p;
  }
  void clear() {
    if (m_p != nullptr) {
      T* old = m_p;
      m_p = nullptr;
      old->release();
    }
  }
  void swap(RefCountPtr& other) noexcept { std::swap(m_p, other.m_p); }
  TransferSource<RefCountPtr> transfer() noexcept { return TransferSource<RefCountPtr>(*this); }

  T* get() const noexcept { return m_p; }
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  /// Deliberately the same as get(): no pointer access of this class checks for null.
  T* checked_get() const noexcept { return m_p; }
  bool is_null() const noexcept { return m_p == nullptr; }
  bool operator!() const noexcept { return m_p == nullptr; }
  /// Tests as a boolean without converting to an integer.
  operator SafeBool() const noexcept { return m_p != nullptr ? &RefCountPtr::m_p : nullptr; }

  RefCountPtr<T const> const& as_const_ptr() const noexcept {
    return reinterpret_cast<RefCountPtr<T const> const&>(*this);
  }

 private:
  static T* safe_add_ref(T* p) noexcept {
    if (p != nullptr) p->add_ref();
    return p;
  }

  T* m_p;
};

template <class T, class U>
bool operator==(RefCountPtr<T> const& a, RefCountPtr<U> const& b) noexcept {
  return a.get() == b.get();
}
template <class T, class U>
bool operator!=(RefCountPtr<T> const& a, RefCountPtr<U> const& b) noexcept {
  return a.get() != b.get();
}
template <class T, class U>
bool operator<(RefCountPtr<T> const& a, RefCountPtr<U> const& b) noexcept {
  return std::less<void const*>()(a.get(), b.get());
}
template <class T>
bool operator==(RefCountPtr<T> const& a, T const* b) noexcept {
  return a.get() == b;
}
template <class T>
bool operator!=(RefCountPtr<T> const& a, T const* b) noexcept {
  return a.get() != b;
}
template <class T>
bool operator==(RefCountPtr<T> const& a, std::nullptr_t) noexcept {
  return a.is_null();
}
template <class T>
bool operator!=(RefCountPtr<T> const& a, std::nullptr_t) noexcept {
  return !a.is_null();
}
template <class T>
void swap(RefCountPtr<T>& a, RefCountPtr<T>& b) noexcept {
  a.swap(b);
}

/// A pointer to an interface that has no count of its own, with the owner that keeps the
/// interface's object alive. Copying copies the pointer and adds a reference through the owner.
template <class I, class Owner>
class InterfacePtr {
 public:
  InterfacePtr() noexcept : m_interface(nullptr) {}
  InterfacePtr(I* interface, Owner owner) noexcept
      : m_interface(interface), m_owner(std::move(owner)) {}
  InterfacePtr(InterfacePtr const&) = default;
  InterfacePtr(InterfacePtr&& other) noexcept
      : m_interface(other.m_interface), m_owner(std::move(other.m_owner)) {
    other.m_interface = nullptr;
  }
  InterfacePtr(TransferSource<InterfacePtr> source) noexcept
      : InterfacePtr(std::move(source.source())) {}
  InterfacePtr& operator=(InterfacePtr other) noexcept {
    swap(other);
    return *this;
  }

  void swap(InterfacePtr& other) noexcept {
    std::swap(m_interface, other.m_interface);
    m_owner.swap(other.m_owner);
  }
  void clear() {
    m_interface = nullptr;
    m_owner.clear();
  }
  TransferSource<InterfacePtr> transfer() noexcept { return TransferSource<InterfacePtr>(*this); }

  I* get() const noexcept { return m_interface; }
  I* operator->() const noexcept { return m_interface; }
  I& operator*() const noexcept { return *m_interface; }
  Owner const& owner() const noexcept { return m_owner; }
  bool is_null() const noexcept { return m_interface == nullptr; }
  explicit operator bool() const noexcept { return m_interface != nullptr; }

 private:
  I* m_interface;
  Owner m_owner;
};

/// Non-template base of reader-counting guards over a RefCountPtr.
class TQCORE_EXPORT RefCountPtrGuardBase {
 protected:
  /// Raises "error.exception.runtime_error.overflow_error"; does not return.
  [[noreturn]] static void throw_too_many_readers_error();
};

/// Thrown by an attempt to promote a weak reference whose strong count has reached 0.
class TQCORE_EXPORT WeakRefPromoteException : public std::exception {
 public:
  char const* what() const noexcept override;
};

}  // namespace tqcore

namespace std {
template <class T>
struct hash<tqcore::RefCountPtr<T>> {
  size_t operator()(tqcore::RefCountPtr<T> const& p) const noexcept { return hash<T*>()(p.get()); }
};
}  // namespace std
