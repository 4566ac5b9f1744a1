// Thread primitives and the future under the asynchronous results.
#include <tqcore/barrier.h>
#include <tqcore/error_exception.h>
#include <tqcore/future.h>
#include <tqcore/thread_mutex.h>

#include <cerrno>
#include <typeinfo>

#include "file_ids.h"

namespace tqcore {

ThreadCondition::ThreadCondition(ThreadMutex& mutex) : m_mutex(mutex) {
  ACE_OS::cond_init(&m_condition, static_cast<short>(USYNC_THREAD),
                    static_cast<char const*>(nullptr), nullptr);
}

ThreadCondition::~ThreadCondition() { ACE_OS::cond_destroy(&m_condition); }

int ThreadCondition::wait() { return ACE_OS::cond_wait(&m_condition, &m_mutex.m_mutex.lock()); }

int ThreadCondition::wait(ACE_Time_Value const* deadline) {
  if (deadline == nullptr) return wait();
  ACE_Time_Value until(*deadline);  // ACE takes a mutable pointer; the caller's value stays as is
  return ACE_OS::cond_timedwait(&m_condition, &m_mutex.m_mutex.lock(), &until);
}

int ThreadCondition::wait(AbsoluteTime const& deadline) {
  // The proxy (and the time value it points to) lives until the wait has returned.
  return wait(static_cast<ACE_Time_Value const*>(deadline.as_ace_timeout()));
}

int ThreadCondition::signal() { return ACE_OS::cond_signal(&m_condition); }

int ThreadCondition::broadcast() { return ACE_OS::cond_broadcast(&m_condition); }

}  // namespace tqcore

// ---- Future ----------------------------------------------------------------------------------

namespace tqcore {
namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("future");

}  // namespace

FutureImplBase::FutureImplBase()
    : m_event(1, 0, USYNC_THREAD, static_cast<ACE_TCHAR const*>(nullptr), nullptr,
              LPSECURITY_ATTRIBUTES()) {}

FutureImplBase::~FutureImplBase() {
  while (!m_observers.empty()) m_observers.pop_back();  // last registered first, none notified
}

void FutureImplBase::wait_failed() const {
  throw_errno(SourceLocation("tqcore::impl::FutureImplBase::wait()", kFileId, __LINE__), errno);
}

// Tells a setter to come, under the lock that the setter takes: either the future is set
// already, or the setter will see that it must signal the event.
bool FutureImplBase::announce_blocking() const {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (ready_unlocked()) return false;
  m_waiter_may_block = true;
  return true;
}

void FutureImplBase::wait() const {
  // A short, bounded spin first (tens of microseconds at most): a future set by another thread
  // meanwhile is taken without the kernel's sleep and wake-up, which cost far more.
  for (int spin = 0; spin < 1000; ++spin) {
    if (ready_unlocked()) return;
    __builtin_ia32_pause();
  }
  if (announce_blocking() && m_event.wait() == -1) wait_failed();
}

bool FutureImplBase::wait(AbsoluteTime const& deadline) const {
  if (ready_unlocked() || !announce_blocking()) return true;
  if (m_event.wait(deadline.as_ace_timeout(), 1) != -1) return true;
  if (errno != ETIME) wait_failed();
  return false;
}

bool FutureImplBase::wait(RelativeTime const& timeout) const {
  if (ready_unlocked() || !announce_blocking()) return true;
  if (m_event.wait(timeout.as_ace_timeout(), 0) != -1) return true;
  if (errno != ETIME) wait_failed();
  return false;
}

bool FutureImplBase::is_ready() const {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  return ready_unlocked();
}

bool FutureImplBase::has_error() const {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  return ready_unlocked() && m_error;
}

bool FutureImplBase::has_value() const {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  return ready_unlocked() && !m_error;
}

ErrorInfo::Ptr FutureImplBase::error_info() const {
  if (!ready_unlocked()) return nullptr;
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  return m_error;
}

bool FutureImplBase::set(ErrorInfo::Ptr error) {
  if (!error) {
    throw_with_nested_errno(
        error::tqcore_future_nullError, "Cannot signal Future with a NULL error",
        SourceLocation("tqcore::impl::FutureImplBase::set()", kFileId, __LINE__), EINVAL);
  }
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (ready_unlocked()) return false;
  notify_observers([&](IFutureObserverBase* observer) { observer->future_failed(error); });
  m_error.swap(error);
  signal_ready();
  return true;
}

// The event is signalled only if a waiter may sleep on it: a future that nobody blocked on
// (the common case: set before it is read, or read by a spinning waiter) skips the event's
// own lock and broadcast.
void FutureImplBase::signal_ready() {
  m_ready.store(true, std::memory_order_release);
  if (m_waiter_may_block) m_event.signal();
}

FutureImplBase::Observer* FutureImplBase::find_observer(IFutureObserverBase* observer) {
  for (Observer& entry : m_observers) {
    if (entry.get() == observer) return &entry;
  }
  return m_observers.data() + m_observers.size();
}

bool FutureImplBase::add_observer(IFutureObserverBase* observer,
                                  RefCountPtr<RefCounted<AtomicRefCount>> owner) {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (ready_unlocked()) return false;
  m_observers.emplace_back(observer, std::move(owner));
  return true;
}

bool FutureImplBase::remove_observer(IFutureObserverBase* observer) {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  Observer* const found = find_observer(observer);
  if (found == m_observers.data() + m_observers.size()) return false;
  m_observers.erase(m_observers.begin() + (found - m_observers.data()));
  return true;
}

bool FutureImpl<void>::set() {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (ready_unlocked()) return false;
  notify_observers([](IFutureObserverBase* observer) { observer->future_succeeded(); });
  signal_ready();
  return true;
}

void FutureImpl<void>::get() const {
  wait();
  // Once ready the error never changes, and the flag's acquire load made it visible: no lock.
  if (m_error) raise_future_error(m_error);
}

void raise_future_error(ErrorInfo::Ptr const& error) { ErrorException::throw_error(error); }

}  // namespace impl
}  // namespace tqcore

// ---- Barrier of futures ----------------------------------------------------------------------

namespace tqcore {
namespace {

// A plain exception of the standard kind: typed access is a programming error, not an outcome.
class BadFutureCast : public std::bad_cast {
 public:
  char const* what() const noexcept override { return "AnyFutureBarrier : bad future cast"; }
};

}  // namespace

size_t AnyFutureBarrier::set_error_if_not_ready(ErrorInfo::Ptr const& error) const {
  size_t count = 0;
  for (AnyFuture const& element : m_elements) count += element.cell().set(error) ? 1 : 0;
  return count;
}

void AnyFutureBarrier::raise_bad_future_cast() { throw BadFutureCast(); }

}  // namespace tqcore
