/// @file
/// ScopedPtr: the sole owner of an object allocated with `new`, deleted when the pointer leaves
/// its scope. It can be moved, never copied; unlike RefCountPtr it needs no count in the object.
///
/// Failures: none; a ScopedPtr never raises.
///
/// @code
/// tqcore::ScopedPtr<std::string> name(new std::string("orders"));
/// name->append("-2024");
/// tqcore::ScopedPtr<std::string> other = std::move(name);  // name is empty now
/// std::string* const mine = other.release();                // the caller deletes it
/// delete mine;
/// @endcode
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace tqcore {

template <class T>
class ScopedPtr {
  static_assert(!std::is_array<T>::value, "ScopedPtr holds one object, not an array");

 public:
  ScopedPtr() noexcept = default;
  ScopedPtr(std::nullptr_t) noexcept {}
  explicit ScopedPtr(T* object) noexcept : m_object(object) {}
  ScopedPtr(ScopedPtr const&) = delete;
  ScopedPtr& operator=(ScopedPtr const&) = delete;
  ScopedPtr(ScopedPtr&& other) noexcept : m_object(other.release()) {}
  template <class U, class = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  ScopedPtr(ScopedPtr<U>&& other) noexcept : m_object(other.release()) {}
  ScopedPtr& operator=(ScopedPtr&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~ScopedPtr() { delete m_object; }

  /// Deletes the object held, after the pointer holds `object`: a destructor that reaches
  /// this pointer finds the new value.
  void reset(T* object = nullptr) noexcept {
    T* const old = std::exchange(m_object, object);
    delete old;
  }
  /// Gives the object up without deleting it.
  T* release() noexcept { return std::exchange(m_object, nullptr); }
  void swap(ScopedPtr& other) noexcept { std::swap(m_object, other.m_object); }

  T* get() const noexcept { return m_object; }
  T& operator*() const noexcept { return *m_object; }
  T* operator->() const noexcept { return m_object; }
  explicit operator bool() const noexcept { return m_object != nullptr; }

 private:
  T* m_object = nullptr;
};

template <class T>
void swap(ScopedPtr<T>& a, ScopedPtr<T>& b) noexcept {
  a.swap(b);
}

}  // namespace tqcore
