/// @file
/// Process-wide objects built on first use and destroyed, newest first, by the object
/// manager's exit processing rather than by the C++ runtime.
///
/// After fork(): the library holds every lock of its own across the call, so a child may call
/// any of its functions, even when another thread of the parent was inside the library (a
/// static instance being built, a key being interned, an identifier being drawn). Locks of the
/// caller's own objects (a Future, a ThreadMutex) are the caller's to mind.
///
/// Failures: `get` raises "error.tqcore.objectManager.closed" after exit processing has destroyed
/// the instance, and passes on what the constructor raises (a later `get` tries again).
///
/// @code
/// // At namespace scope in real code: built on first use, destroyed at exit, newest first.
/// static tqcore::StaticInstance<std::map<std::string, int>> registry;
/// registry->emplace("orders", 1);
/// @endcode
#pragma once

#include <tqcore/tqcore_export.h>

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

namespace tqcore {
namespace impl {

/// The compiled core of StaticInstance.
class TQCORE_EXPORT StaticInstanceBase {
 protected:
  /// Queues `function(argument)` for the exit processing; raises
  /// "error.tqcore.objectManager.closed" once that has run.
  static void register_cleanup_aux(void (*function)(void*), void* argument);
  /// Raises "error.tqcore.objectManager.closed" for access to a destroyed instance.
  [[noreturn]] static void throw_destroyed_error();

  enum : int { kUnbuilt, kBuilding, kBuilt, kDestroyed };
  /// True when the caller is to build the instance; false when another thread built it
  /// meanwhile (this one waited); raises once it has been destroyed.
  static bool begin_build(std::atomic<int>& state);
  /// Ends a build with kBuilt, or kUnbuilt when the constructor raised, and wakes the waiters.
  static void end_build(std::atomic<int>& state, int outcome) noexcept;
};

}  // namespace impl

/// A process-wide T, built by the first `get()` and destroyed at exit in reverse order of
/// construction. Declare it at namespace scope or as a function-local static: it is
/// constant-initialised and trivially destructible, so it is usable before any constructor of
/// its translation unit has run and still tells "destroyed" after every destructor has.
///
/// @code
/// tqcore::StaticInstance<Registry> g_registry;
/// g_registry->add(...);  // built here, on first use, by exactly one thread
/// @endcode
template <class T>
class StaticInstance : private impl::StaticInstanceBase {
 public:
  constexpr StaticInstance() noexcept = default;
  StaticInstance(StaticInstance const&) = delete;
  StaticInstance& operator=(StaticInstance const&) = delete;

  /// Builds the instance if this is the first use; raises once it has been destroyed.
  T& get() {
    static_assert(std::is_trivially_destructible<StaticInstance>::value,
                  "the C++ runtime must not end a static instance");
    if (m_state.load(std::memory_order_acquire) != kBuilt) build_or_raise();
    return *std::launder(reinterpret_cast<T*>(m_storage));
  }
  T& operator*() { return get(); }
  T* operator->() { return &get(); }

  bool is_built() const noexcept { return m_state.load(std::memory_order_acquire) == kBuilt; }
  bool is_destroyed() const noexcept {
    return m_state.load(std::memory_order_acquire) == kDestroyed;
  }

 private:
  /// One thread builds; others wait for it. The constructor runs with no lock held, so it may
  /// use other instances; it must not use this one.
  void build_or_raise() {
    if (!begin_build(m_state)) return;
    try {
      T* object = new (m_storage) T();
      try {
        register_cleanup_aux(&StaticInstance::destroy, this);
      } catch (...) {
        object->~T();  // nobody could ever destroy it
        throw;
      }
    } catch (...) {
      end_build(m_state, kUnbuilt);  // the next use tries again
      throw;
    }
    end_build(m_state, kBuilt);
  }

  static void destroy(void* argument) {
    auto* self = static_cast<StaticInstance*>(argument);
    self->m_state.store(kDestroyed, std::memory_order_release);
    std::launder(reinterpret_cast<T*>(self->m_storage))->~T();
  }

  std::atomic<int> m_state{kUnbuilt};
  alignas(T) unsigned char m_storage[sizeof(T)] = {};
};

}  // namespace tqcore
