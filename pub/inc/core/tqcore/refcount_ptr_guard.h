/// @file
/// RefCountPtrGuard: a RefCountPtr shared by threads that read it often and replace it rarely,
/// such as a configuration snapshot. Readers are counted, not locked out of each other: a
/// reader holds the count for as long as it looks at the pointer, and a replacement waits
/// until no reader is inside (readers go first, so a reader may read again while it holds a
/// Reader; a writer can wait as long as readers keep overlapping). The old object is released after
/// the swap, outside the guard, so its destructor never runs while readers wait.
///
/// Failures: more than `max_readers` readers at once raises
/// "error.exception.runtime_error.overflow_error" ("Too many concurrent readers"); nothing
/// else raises.
///
/// @code
/// struct Config : tqcore::RefCounted<tqcore::AtomicRefCount> {
///   int port = 8080;
/// };
/// tqcore::RefCountPtrGuard<Config> current(tqcore::RefCountPtr<Config>(new Config));
/// int const port = current.read()->port;      // counted reader, no reference taken
/// tqcore::RefCountPtr<Config> const snapshot = current.get();  // a reference of its own
/// current.set(tqcore::RefCountPtr<Config>(new Config));        // waits for the readers
/// @endcode
#pragma once

#include <tqcore/refcount_ptr.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <utility>

namespace tqcore {

template <class T>
class RefCountPtrGuard : private RefCountPtrGuardBase {
 public:
  /// Readers the guard counts at once; one more raises.
  static constexpr uint32_t max_readers = 0xFFFF;

  /// Holds the reader count while it lives: the guarded pointer cannot change meanwhile.
  class Reader {
   public:
    Reader(Reader&& other) noexcept : m_guard(std::exchange(other.m_guard, nullptr)) {}
    Reader(Reader const&) = delete;
    Reader& operator=(Reader const&) = delete;
    Reader& operator=(Reader&&) = delete;
    ~Reader() {
      if (m_guard) m_guard->leave();
    }
    T* get() const noexcept { return m_guard->m_value.get(); }
    T& operator*() const noexcept { return *get(); }
    T* operator->() const noexcept { return get(); }
    explicit operator bool() const noexcept { return get() != nullptr; }

   private:
    friend class RefCountPtrGuard;
    explicit Reader(RefCountPtrGuard const* guard) noexcept : m_guard(guard) {}
    RefCountPtrGuard const* m_guard;
  };

  RefCountPtrGuard() noexcept = default;
  explicit RefCountPtrGuard(RefCountPtr<T> value) noexcept : m_value(std::move(value)) {}
  RefCountPtrGuard(RefCountPtrGuard const&) = delete;
  RefCountPtrGuard& operator=(RefCountPtrGuard const&) = delete;

  /// A counted reader; raises past `max_readers`.
  Reader read() const {
    enter();
    return Reader(this);
  }
  /// A reference of the caller's own to the current object.
  RefCountPtr<T> get() const { return RefCountPtr<T>(read().get()); }
  /// Replaces the object once no reader is inside; returns the old one.
  RefCountPtr<T> exchange(RefCountPtr<T> value) noexcept {
    lock_out_readers();
    m_value.swap(value);
    m_state.fetch_and(~kWriter, std::memory_order_release);
    return value;
  }
  /// The same; the old object is released here, after the guard is open again.
  void set(RefCountPtr<T> value) noexcept { exchange(std::move(value)); }

 private:
  static constexpr uint32_t kWriter = 0x80000000u;
  static constexpr uint32_t kReaders = 0x7FFFFFFFu;

  void enter() const {
    uint32_t seen = m_state.load(std::memory_order_relaxed);
    for (;;) {
      if (seen & kWriter) {
        std::this_thread::yield();
        seen = m_state.load(std::memory_order_relaxed);
        continue;
      }
      if ((seen & kReaders) >= max_readers) throw_too_many_readers_error();
      if (m_state.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
        return;
      }
    }
  }
  void leave() const noexcept { m_state.fetch_sub(1, std::memory_order_release); }
  void lock_out_readers() noexcept {
    // The writer enters only when no reader is inside, and readers wait only while it swaps:
    // a thread may hold a Reader and read again without ever waiting for a writer.
    uint32_t expected = 0;
    while (!m_state.compare_exchange_weak(expected, kWriter, std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
      expected = 0;
      std::this_thread::yield();
    }
  }

  mutable std::atomic<uint32_t> m_state{0};
  RefCountPtr<T> m_value;
};

}  // namespace tqcore
