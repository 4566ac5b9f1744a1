// Future: the one-shot waitable cell under the asynchronous results.
#include <tqcore/error_exception.h>
#include <tqcore/future.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

#include "file_ids.h"

namespace tqcore {
namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("future");

// ACE allocates the event's data with a non-throwing new and, should that fail, only logs it:
// the data pointer, the handle's second word, stays null. A waiter then fails with an error
// instead of following it.
bool event_is_usable(ACE_Event_T<ACE_System_Time_Policy> const& event) {
  static_assert(std::is_standard_layout_v<ACE_event_t>, "the handle's words are read by place");
  ACE_event_t const handle = event.handle();
  void* data = nullptr;
  std::memcpy(&data, reinterpret_cast<unsigned char const*>(&handle) + sizeof(char*), sizeof(data));
  return data != nullptr;
}

}  // namespace

FutureImplBase::FutureImplBase()
    : m_event(1, 0, USYNC_THREAD, static_cast<ACE_TCHAR const*>(nullptr), nullptr,
              LPSECURITY_ATTRIBUTES()),
      m_eventUsable(event_is_usable(m_event)) {}

FutureImplBase::~FutureImplBase() {
  while (!m_observers.empty()) m_observers.pop_back();  // last registered first, none notified
}

void FutureImplBase::wait_failed() const {
  throw_errno(SourceLocation("tqcore::impl::FutureImplBase::wait()", kFileId, __LINE__), errno);
}

// Tells a setter to come, under the lock that the setter takes: either the future is set
// already, or the setter will see that it must signal the event.
bool FutureImplBase::announce_blocking() const {
  if (!m_eventUsable && !ready_unlocked()) {
    errno = ENOMEM;
    wait_failed();
  }
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (ready_unlocked()) return false;
  m_waiterMayBlock = true;
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
  std::vector<Observer> released;
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (ready_unlocked()) return false;
  notify_observers(released,
                   [&](IFutureObserverBase* observer) { observer->future_failed(error); });
  m_error.swap(error);
  signal_ready();
  return true;
}

// The event is signalled only if a waiter may sleep on it: a future that nobody blocked on
// (the common case: set before it is read, or read by a spinning waiter) skips the event's
// own lock and broadcast.
void FutureImplBase::signal_ready() {
  m_ready.store(true, std::memory_order_release);
  if (m_waiterMayBlock) m_event.signal();
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
  Observer removed;  // released after the lock, like the observers of set
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  Observer* const found = find_observer(observer);
  if (found == m_observers.data() + m_observers.size()) return false;
  removed = std::move(*found);
  m_observers.erase(m_observers.begin() + (found - m_observers.data()));
  return true;
}

bool FutureImpl<void>::set() {
  std::vector<Observer> released;
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (ready_unlocked()) return false;
  notify_observers(released, [](IFutureObserverBase* observer) { observer->future_succeeded(); });
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
