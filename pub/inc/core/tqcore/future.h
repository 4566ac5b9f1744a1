/// @file
/// A one-shot waitable cell: set exactly once, with success (and a value) or with an ErrorInfo;
/// any number of threads can test it, block until it is set, or have observers called at the
/// moment it is set. The only object of the asynchronous results that blocks a thread.
///
/// Failures: `get` raises the record the future was set with; `set` on a future already set returns
/// false and stores nothing (a null error raises even then); waiting never raises.
///
/// @code
/// tqcore::Future<int> answer;
/// std::thread worker([answer] { answer.set(42); });
/// if (answer.wait(tqcore::RelativeTime::seconds(1))) std::cout << answer.get() << '\n';  // 42
/// worker.join();
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/error_info.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>
#include <tqcore/tqcore_export.h>

#include <ace/Event.h>
#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Policy.h>

#include <atomic>
#include <optional>
#include <utility>
#include <vector>

namespace tqcore {

/// Called on the setting thread with the future's lock held: do little, and never wait on
/// anything that could need this future.
class IFutureObserverBase {
 public:
  virtual void future_failed(ErrorInfo::Ptr const& error) = 0;
  /// Success of a Future<void>.
  virtual void future_succeeded() = 0;

 protected:
  ~IFutureObserverBase() = default;
};

/// The observer of a Future<T>: success comes with the value.
template <class T>
class IFutureObserver : public IFutureObserverBase {
 public:
  virtual void future_succeeded(T const& value) = 0;

 protected:
  ~IFutureObserver() = default;

 private:
  void future_succeeded() final {}  // a typed future makes the call above instead
};

template <>
class IFutureObserver<void> : public IFutureObserverBase {
 protected:
  ~IFutureObserver() = default;
};

namespace impl {

class TQCORE_EXPORT FutureImplBase : public RefCounted<AtomicRefCount> {
 public:
  using Observer = InterfacePtr<IFutureObserverBase, RefCountPtr<RefCounted<AtomicRefCount>>>;

  ~FutureImplBase() override;

  /// A set future costs no lock: one byte load.
  void wait() const;
  bool wait(AbsoluteTime const& deadline) const;  ///< false on timeout
  bool wait(RelativeTime const& timeout) const;
  bool is_ready() const;
  bool has_error() const;
  bool has_value() const;
  ErrorInfo::Ptr error_info() const;
  /// Fails the future; a null error raises even on a future already set. False when it was set.
  bool set(ErrorInfo::Ptr error);

  /// Adds an observer kept alive by `owner` until the future is set or it is removed. On a
  /// future already set nothing is stored and false comes back: the caller reads the outcome.
  bool add_observer(IFutureObserverBase* observer, RefCountPtr<RefCounted<AtomicRefCount>> owner);
  bool remove_observer(IFutureObserverBase* observer);

 protected:
  FutureImplBase();

  /// For a derived class that holds the lock.
  void signal_ready();
  Observer* find_observer(IFutureObserverBase* observer);
  bool ready_unlocked() const noexcept { return m_ready.load(std::memory_order_acquire); }
  /// Calls `notify` on every observer in order, then hands them all to `released`, which the
  /// caller declares before taking the lock: an owner may hold the last reference to something
  /// that asks this future again, so none is released under the lock. An exception leaves with
  /// every observer still in place.
  template <class F>
  void notify_observers(std::vector<Observer>& released, F notify) {
    for (Observer& observer : m_observers) notify(observer.get());
    released.swap(m_observers);
  }
  void wait_failed() const;
  bool announce_blocking() const;

  mutable ACE_Thread_Mutex m_lock;
  /// Atomic only so that the unlocked reads are defined; on x86-64 they are plain byte loads.
  std::atomic<bool> m_ready{false};
  mutable bool m_waiterMayBlock = false;  ///< under m_lock
  ErrorInfo::Ptr m_error;
  std::vector<Observer> m_observers;
  mutable ACE_Event_T<ACE_System_Time_Policy> m_event;
  bool m_eventUsable;  ///< ACE reports a failed set-up of the event only by leaving it empty
};

template <class T>
class FutureImpl : public FutureImplBase {
 public:
  using FutureImplBase::set;

  /// False when the future was already set. The value is stored before any observer hears of
  /// it and before the flag: should moving it in fail, nobody was told of a success that did not
  /// happen; should an observer raise, it is taken back out.
  bool set(T value) {
    std::vector<Observer> released;
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (ready_unlocked()) return false;
    m_value.emplace(std::move(value));
    try {
      notify_observers(released, [&](IFutureObserverBase* o) {
        static_cast<IFutureObserver<T>*>(o)->future_succeeded(*m_value);
      });
    } catch (...) {
      m_value.reset();
      throw;
    }
    signal_ready();
    return true;
  }
  /// Blocks until set; raises the stored error, the same record on every call.
  /// Returns a reference to the stored value, valid while any handle lives; a move-only T is
  /// read in place.
  /// Moves the value out once it is ready; raises the stored error. What stays behind is the
  /// moved-from value, so only the one reader that owns the outcome should take it.
  T take() {
    wait();
    if (m_error) raise_stored_error();
    return std::move(*m_value);
  }
  T const& get() const {
    wait();
    // Once ready, the error and the value never change, and the flag's acquire load made them
    // visible: no lock needed.
    if (m_error) raise_stored_error();
    return *m_value;
  }

 private:
  [[noreturn]] void raise_stored_error() const;
  std::optional<T> m_value;
};

template <>
class TQCORE_EXPORT FutureImpl<void> : public FutureImplBase {
 public:
  using FutureImplBase::set;
  bool set();
  void get() const;
};

[[noreturn]] TQCORE_EXPORT void raise_future_error(ErrorInfo::Ptr const& error);

template <class T>
void FutureImpl<T>::raise_stored_error() const {
  raise_future_error(m_error);
}

}  // namespace impl

/// A handle on a shared cell: copies share it, and it lives as long as any handle.
template <class T = void>
class Future {
 public:
  Future() : m_impl(new impl::FutureImpl<T>) {}
  /// Another handle on an existing cell.
  explicit Future(RefCountPtr<impl::FutureImpl<T>> cell) noexcept : m_impl(std::move(cell)) {}

  void wait() const { m_impl->wait(); }
  bool wait(AbsoluteTime const& deadline) const { return m_impl->wait(deadline); }
  bool wait(RelativeTime const& timeout) const { return m_impl->wait(timeout); }
  bool is_ready() const { return m_impl->is_ready(); }
  bool has_value() const { return m_impl->has_value(); }
  bool has_error() const { return m_impl->has_error(); }
  ErrorInfo::Ptr error_info() const { return m_impl->error_info(); }

  bool set(ErrorInfo::Ptr error) const { return m_impl->set(std::move(error)); }
  template <class... Value>
  bool set(Value&&... value) const {
    return m_impl->set(std::forward<Value>(value)...);
  }
  decltype(auto) get() const { return m_impl->get(); }
  /// Waits, then moves the value out (a move-only value included) or raises the error. The
  /// future keeps a moved-from value: take once, from the one holder that owns the outcome.
  template <class U = T, class = std::enable_if_t<!std::is_void<U>::value>>
  U take() const {
    return m_impl->take();
  }

  bool add_observer(IFutureObserver<T>* observer,
                    RefCountPtr<RefCounted<AtomicRefCount>> owner) const {
    return m_impl->add_observer(observer, std::move(owner));
  }
  bool remove_observer(IFutureObserver<T>* observer) const {
    return m_impl->remove_observer(observer);
  }

  RefCountPtr<impl::FutureImpl<T>> const& cell() const noexcept { return m_impl; }

  friend bool operator==(Future const& a, Future const& b) noexcept { return a.m_impl == b.m_impl; }
  friend bool operator!=(Future const& a, Future const& b) noexcept { return !(a == b); }

 private:
  RefCountPtr<impl::FutureImpl<T>> m_impl;
};

}  // namespace tqcore
