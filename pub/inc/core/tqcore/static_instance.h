// Process-wide objects built on first use and destroyed, newest first, by the object
// manager's exit processing rather than by the C++ runtime.
#pragma once

#include <tqcore/tqcore_export.h>

#include <atomic>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

namespace tqcore {
namespace impl {

// The compiled core of StaticInstance.
class TQCORE_EXPORT StaticInstanceBase {
 protected:
  // Queues `function(argument)` for the exit processing; raises
  // "error.tqcore.objectManager.closed" once that has run.
  static void register_cleanup_aux(void (*function)(void*), void* argument);
  // Raises "error.tqcore.objectManager.closed" for access to a destroyed instance.
  [[noreturn]] static void throw_destroyed_error();
};

}  // namespace impl

// A process-wide T, built by the first `get()` and destroyed at exit in reverse order of
// construction. Declare it at namespace scope or as a function-local static: it is
// constant-initialised and trivially destructible, so it is usable before any constructor of
// its translation unit has run and still tells "destroyed" after every destructor has.
//
//   tqcore::StaticInstance<Registry> g_registry;
//   g_registry->add(...);  // built here, on first use, by exactly one thread
template <class T>
class StaticInstance : private impl::StaticInstanceBase {
 public:
  constexpr StaticInstance() noexcept = default;
  StaticInstance(StaticInstance const&) = delete;
  StaticInstance& operator=(StaticInstance const&) = delete;

  // Builds the instance if this is the first use; raises once it has been destroyed.
  T& get() {
    static_assert(std::is_trivially_destructible<StaticInstance>::value,
                  "the C++ runtime must not end a static instance");
    State state = m_state.load(std::memory_order_acquire);
    if (state != State::built) build_or_raise(state);
    return *std::launder(reinterpret_cast<T*>(m_storage));
  }
  T& operator*() { return get(); }
  T* operator->() { return &get(); }

  bool is_built() const noexcept { return m_state.load(std::memory_order_acquire) == State::built; }
  bool is_destroyed() const noexcept {
    return m_state.load(std::memory_order_acquire) == State::destroyed;
  }

 private:
  enum class State : int { unbuilt, built, destroyed };

  void build_or_raise(State state) {
    if (state == State::destroyed) throw_destroyed_error();
    std::lock_guard<std::mutex> lock(m_buildLock);
    state = m_state.load(std::memory_order_acquire);
    if (state == State::destroyed) throw_destroyed_error();
    if (state == State::built) return;
    T* object = new (m_storage) T();
    try {
      register_cleanup_aux(&StaticInstance::destroy, this);
    } catch (...) {
      object->~T();  // nobody could ever destroy it
      throw;
    }
    m_state.store(State::built, std::memory_order_release);
  }

  static void destroy(void* argument) {
    auto* self = static_cast<StaticInstance*>(argument);
    self->m_state.store(State::destroyed, std::memory_order_release);
    std::launder(reinterpret_cast<T*>(self->m_storage))->~T();
  }

  std::atomic<State> m_state{State::unbuilt};
  std::mutex m_buildLock;
  alignas(T) unsigned char m_storage[sizeof(T)] = {};
};

}  // namespace tqcore
