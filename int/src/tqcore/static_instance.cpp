#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/static_instance.h>

#include <ace/Guard_T.h>
#include <ace/Object_Manager.h>
#include <ace/Thread_Mutex.h>

#include <pthread.h>

#include <cerrno>
#include <deque>
#include <iostream>
#include <new>

#include "file_ids.h"
#include "static_instance_internal.h"

namespace tqcore {
namespace impl {
namespace {

// Queues cleanups and runs them, newest first, from the object manager's exit processing.
class StaticInstanceCleanup {
 public:
  StaticInstanceCleanup();
  StaticInstanceCleanup(StaticInstanceCleanup const&) = delete;
  StaticInstanceCleanup& operator=(StaticInstanceCleanup const&) = delete;

  void register_for_cleanup(void (*function)(void*), void* argument);
  // At unload: a registry whose cleanups have not run takes its hook back from the object
  // manager, which outlives this library, and runs them now.
  void run_at_unload();

  void lock() { m_lock.acquire(); }
  void unlock() { m_lock.release(); }

 private:
  struct Cleanup {
    void (*function)(void*);
    void* argument;
  };

  static void run_cleanups(void* object, void* parameter);
  void report_registration_failure(int errno_value);

  ACE_Thread_Mutex m_lock;
  std::deque<Cleanup> m_cleanups;
  bool m_closed = false;
};

// The process's last cleanup: the state that static instances may use while they end.
void close_process_state(void*) {
  key_caches_close();
  scope_check_close();
}

// The first cleanup queued is the last to run: it closes the state every instance may use.
StaticInstanceCleanup::StaticInstanceCleanup()
    : m_cleanups{Cleanup{&close_process_state, nullptr}} {
  if (ACE_Object_Manager::instance()->at_exit(this, &run_cleanups, nullptr, nullptr) == -1) {
    report_registration_failure(errno);
  }
}

void StaticInstanceCleanup::run_at_unload() {
  m_lock.acquire();
  bool const closed = m_closed;
  m_lock.release();
  if (closed) return;
  ACE_Object_Manager::remove_at_exit(this);
  run_cleanups(this, nullptr);
}

// Not fatal: instances still work, they are only never destroyed.
void StaticInstanceCleanup::report_registration_failure(int errno_value) {
  ErrorInfo::Ptr error = ErrorInfo::from_errno(
      SourceLocation("tqcore::impl::StaticInstanceCleanup::StaticInstanceCleanup()",
                     TQCORE_FILE_ID("static_instance"), 65),
      errno_value);
  std::cerr << "tqcore: Error registering with ACE Object Manager for cleanup: " << error
            << std::endl;
}

void StaticInstanceCleanup::register_for_cleanup(void (*function)(void*), void* argument) {
  ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
  if (m_closed) {
    throw_error(error::tqcore_objectManager_closed,
                "Cannot register objects for cleanup after object manager has already been "
                "closed",
                SourceLocation("tqcore::impl::StaticInstanceCleanup::register_for_cleanup()",
                               TQCORE_FILE_ID("static_instance"), 96));
  }
  m_cleanups.push_back(Cleanup{function, argument});
}

// Newest first, each without the lock held, so a cleanup may register another one, which then
// runs next.
void StaticInstanceCleanup::run_cleanups(void* object, void*) {
  auto* self = static_cast<StaticInstanceCleanup*>(object);
  self->m_lock.acquire();
  while (!self->m_cleanups.empty()) {
    Cleanup cleanup = self->m_cleanups.back();
    self->m_cleanups.pop_back();
    self->m_lock.release();
    cleanup.function(cleanup.argument);
    self->m_lock.acquire();
  }
  self->m_closed = true;
  self->m_lock.release();
}

// Built at load and never destroyed by the C++ runtime: the object manager's exit processing
// runs after this library's static destructors.
StaticInstanceCleanup& cleanup_registry() {
  alignas(StaticInstanceCleanup) static unsigned char storage[sizeof(StaticInstanceCleanup)];
  static StaticInstanceCleanup* const registry = new (storage) StaticInstanceCleanup();
  return *registry;
}

[[maybe_unused]] StaticInstanceCleanup& g_registryAtLoad = cleanup_registry();

// Runs when the library unloads, by dlclose or at exit. At exit the object manager's own exit
// processing would come later still, but nothing between the two may use a static instance:
// only the libraries this one depends on end in between.
// Built before every other static object of the library, so ended after all of them.
struct UnloadHook {
  UnloadHook() noexcept = default;
  ~UnloadHook() { cleanup_registry().run_at_unload(); }
};
__attribute__((init_priority(101))) UnloadHook g_unloadHook;

// One lock for every build: held only to change a state, never while a constructor runs, so
// that a constructor may use other instances (or wait for a thread that does).
pthread_mutex_t g_buildLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_buildDone = PTHREAD_COND_INITIALIZER;

}  // namespace

bool StaticInstanceBase::begin_build(std::atomic<int>& state) {
  pthread_mutex_lock(&g_buildLock);
  for (;;) {
    int const current = state.load(std::memory_order_acquire);
    if (current == kBuilding) {
      pthread_cond_wait(&g_buildDone, &g_buildLock);
      continue;
    }
    if (current == kUnbuilt) state.store(kBuilding, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_buildLock);
    if (current == kDestroyed) throw_destroyed_error();
    return current == kUnbuilt;
  }
}

void StaticInstanceBase::end_build(std::atomic<int>& state, int outcome) noexcept {
  pthread_mutex_lock(&g_buildLock);
  state.store(outcome, std::memory_order_release);
  pthread_cond_broadcast(&g_buildDone);
  pthread_mutex_unlock(&g_buildLock);
}

void static_instance_before_fork() {
  pthread_mutex_lock(&g_buildLock);
  cleanup_registry().lock();
}

void static_instance_after_fork() {
  cleanup_registry().unlock();
  pthread_mutex_unlock(&g_buildLock);
}

void StaticInstanceBase::register_cleanup_aux(void (*function)(void*), void* argument) {
  cleanup_registry().register_for_cleanup(function, argument);
}

void StaticInstanceBase::throw_destroyed_error() {
  throw_error(error::tqcore_objectManager_closed,
              "Attempt to access static that has already been destroyed through object "
              "manager.  If this error is raised during application startup, it may be due to "
              "an initialization order issue (static object is being accessed before it has "
              "been constructed).",
              SourceLocation("tqcore::impl::StaticInstanceBase::throw_destroyed_error()",
                             TQCORE_FILE_ID("static_instance"), 231));
}

}  // namespace impl
}  // namespace tqcore
