// The condition variable beside ThreadMutex.
#include <tqcore/thread_mutex.h>

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
