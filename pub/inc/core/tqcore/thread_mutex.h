/// @file
/// Mutual exclusion and condition waiting: thin, non-virtual wrappers over ACE whose one addition
/// is waiting on a condition until an AbsoluteTime, so that no caller converts a deadline by hand.
///
/// Failures: the calls return ACE's status (0, or -1 with errno: ETIME on a deadline) and never
/// raise.
///
/// @code
/// tqcore::ThreadMutex mutex;
/// tqcore::ThreadCondition ready(mutex);
/// bool done = false;
/// mutex.acquire();
/// while (!done && ready.wait(tqcore::AbsoluteTime::now() + tqcore::RelativeTime::seconds(1)) == 0)
/// {
/// }
/// mutex.release();
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/tqcore_export.h>

#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Mutex.h>

namespace tqcore {

class ThreadMutex {
 public:
  ThreadMutex() : m_mutex(static_cast<ACE_TCHAR const*>(nullptr), nullptr) {}
  ThreadMutex(ThreadMutex const&) = delete;
  ThreadMutex& operator=(ThreadMutex const&) = delete;

  /// Always 0: a failed acquire is not reported, unlike the two below.
  int acquire() noexcept {
    m_mutex.acquire();
    return 0;
  }
  /// 0 when taken, -1 when not.
  int tryacquire() noexcept { return m_mutex.tryacquire(); }
  int release() noexcept { return m_mutex.release(); }

  /// The standard Lockable names, so that std::lock_guard, std::unique_lock and std::scoped_lock
  /// work over it.
  void lock() noexcept { acquire(); }
  bool try_lock() noexcept { return tryacquire() == 0; }
  void unlock() noexcept { release(); }

 private:
  friend class ThreadCondition;
  ACE_Thread_Mutex m_mutex;
};

/// The operations of ThreadMutex, doing nothing: for a class built against a lock type that
/// needs no locking. tryacquire always succeeds.
class NullMutex {
 public:
  NullMutex() noexcept = default;
  NullMutex(NullMutex const&) = delete;
  NullMutex& operator=(NullMutex const&) = delete;

  int acquire() noexcept { return 0; }
  int tryacquire() noexcept { return 0; }
  int release() noexcept { return 0; }
  void lock() noexcept {}
  bool try_lock() noexcept { return true; }
  void unlock() noexcept {}
};

/// A condition over a ThreadMutex it does not own; the mutex must outlive it. Every wait hands
/// that mutex to ACE: the caller holds it on entry and holds it again on return. -1 with errno
/// ETIME is a timeout. Waits do not loop on spurious wake-ups: test the predicate in a loop.
class TQCORE_EXPORT ThreadCondition {
 public:
  explicit ThreadCondition(ThreadMutex& mutex);
  ~ThreadCondition();
  ThreadCondition(ThreadCondition const&) = delete;
  ThreadCondition& operator=(ThreadCondition const&) = delete;

  int wait();
  /// A null deadline waits without limit; otherwise it is an absolute time as ACE means it.
  int wait(ACE_Time_Value const* deadline);
  /// AbsoluteTime::infinite waits for ever; it is never turned into a far-away date.
  int wait(AbsoluteTime const& deadline);
  int signal();
  int broadcast();
  ThreadMutex& mutex() const noexcept { return m_mutex; }

 private:
  ACE_cond_t m_condition;
  ThreadMutex& m_mutex;
};

}  // namespace tqcore
