// The signalling scope check of result controls: which controls are active on this thread.
#include <tqcore/error_exception.h>
#include <tqcore/result_control.h>

#include <tqcore/diagnostics.h>

#include <ace/OS_NS_Thread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "file_ids.h"
#include "result_internal.h"
#include "static_instance_internal.h"

namespace tqcore {
namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("result");

}  // namespace

// Read once while the library loads, and never destroyed: controls may be used by static
// instances that end after this file's static destructors. The thread key leads to each
// thread's list of active controls, newest first, older ones through `previous`. One small
// lock guards every list, so that a control ended on another thread can still unlink itself
// from the list of the thread that activated it.
class ScopeCheck {
 public:
  ScopeCheck() : m_enabled(requested(std::getenv("TQCORE_CHECK_ASYNC_RESULT_SIGNALING"))) {
    if (m_enabled && ACE_OS::thr_keycreate(&m_key, &thread_ended) != 0) m_enabled = false;
    m_keyCreated = m_enabled;
  }
  ScopeCheck(ScopeCheck const&) = delete;
  ScopeCheck& operator=(ScopeCheck const&) = delete;

  bool enabled() const noexcept { return m_enabled.load(std::memory_order_acquire); }

  void activate(ResultControlBase const& control) {
    List* list = own_list();
    if (list == nullptr) {
      auto fresh = std::make_unique<List>();
      // The key's only failure is want of memory for its second-level block.
      if (ACE_OS::thr_setspecific(m_key, fresh.get()) != 0) throw std::bad_alloc();
      list = fresh.release();
    }
    std::lock_guard<std::mutex> guard(m_lock);
    control.m_id = next_id();
    control.m_uncaught = std::uncaught_exceptions();
    control.m_previous = list->head;
    control.m_anchor = list;
    list->head = &control;
  }

  // Unlinks the control wherever it is; true when it was active on the calling thread (or the
  // check has been closed and nobody can tell any more).
  bool deactivate(ResultControlBase const& control) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto* const list = static_cast<List*>(control.m_anchor);
    if (list == nullptr) return false;  // its thread has ended
    unlink(*list, control);
    return !enabled() || list == own_list();
  }

  bool is_active_here(unsigned int id) {
    std::lock_guard<std::mutex> guard(m_lock);
    List const* list = own_list();
    for (auto const* node = list != nullptr ? list->head : nullptr; node != nullptr;
         node = node->m_previous) {
      if (node->m_id == id) return true;
    }
    return false;
  }

  // The process's last cleanup, after every static instance: the key goes (a library that
  // unloads must leave no destructor of its own behind in the thread library), and controls
  // activated from now on stay idle.
  void close() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_enabled.store(false, std::memory_order_release);
    if (m_keyCreated) ACE_OS::thr_keyfree(m_key);
    m_keyCreated = false;
  }

  std::mutex& lock() noexcept { return m_lock; }

 private:
  struct List {
    ResultControlBase const* head = nullptr;
  };

  List* own_list() const {
    if (!enabled()) return nullptr;
    void* list = nullptr;
    ACE_OS::thr_getspecific(m_key, &list);
    return static_cast<List*>(list);
  }

  static void unlink(List& list, ResultControlBase const& control) {
    ResultControlBase const** link = &list.head;
    while (*link != nullptr && *link != &control) link = &(*link)->m_previous;
    if (*link != nullptr) *link = control.m_previous;
    control.m_anchor = nullptr;
  }

  // A thread that ends with controls still active leaves them orphaned: ending one of them
  // later, elsewhere, raises the wrong-thread error without touching freed memory.
  static void thread_ended(void* list) {
    auto* const own = static_cast<List*>(list);
    {
      std::lock_guard<std::mutex> guard(instance().m_lock);
      for (auto const* node = own->head; node != nullptr; node = node->m_previous) {
        node->m_anchor = nullptr;
      }
    }
    delete own;
  }

  unsigned int next_id() {
    unsigned int id;
    do {
      id = m_lastId.fetch_add(1, std::memory_order_relaxed) + 1;
    } while (id == 0);  // 0 means "never activated"; skip it when the counter wraps
    return id;
  }

  // Unset, or starting with 0, N, n, F or f: off. Anything else, the empty text included: on.
  static bool requested(char const* value) {
    if (value == nullptr) return false;
    return value[0] == '\0' || std::strchr("0NnFf", value[0]) == nullptr;  // strchr finds '\0'
  }

 public:
  static ScopeCheck& instance() {
    alignas(ScopeCheck) static unsigned char storage[sizeof(ScopeCheck)];
    static ScopeCheck* const check = new (storage) ScopeCheck;
    return *check;
  }

 private:
  std::atomic<bool> m_enabled;
  bool m_keyCreated = false;
  ACE_thread_key_t m_key{};
  std::atomic<unsigned int> m_lastId{0};
  std::mutex m_lock;
};

namespace {

[[maybe_unused]] ScopeCheck& g_scopeCheckAtLoad = ScopeCheck::instance();

}  // namespace

void scope_check_before_fork() { ScopeCheck::instance().lock().lock(); }
void scope_check_after_fork() { ScopeCheck::instance().lock().unlock(); }
void scope_check_close() { ScopeCheck::instance().close(); }

void trace_exception_during_unwinding(std::exception_ptr const& error) {
  SourceLocation const location("tqcore::impl::trace_exception_during_unwinding()", kFileId,
                                __LINE__);
  try {
    try {
      std::rethrow_exception(error);
    } catch (std::exception const& e) {
      std::string const text = e.what();
      trace_critical_error(location, "Exception while the stack unwinds, not raised: {}",
                           text.data(), text.size());
    }
  } catch (...) {
    trace_critical_error(location, "Exception while the stack unwinds, not raised: {}", "<unknown>",
                         9);
  }
}

}  // namespace impl

unsigned int ResultControlBase::activate() const {
  impl::ScopeCheck& check = impl::ScopeCheck::instance();
  if (m_id != 0 || !check.enabled()) return m_id;
  check.activate(*this);
  return m_id;
}

void ResultControlBase::deactivate() const {
  if (impl::ScopeCheck::instance().deactivate(*this)) return;
  impl::raise_unless_unwinding(m_uncaught, [] {
    tqcore::throw_error(
        error::tqcore_result_wrongThread,
        "ResultControl deactivated on a thread other than the one for which it was activated.",
        SourceLocation("tqcore::ResultControlBase::deactivate()", impl::kFileId, __LINE__));
  });
}

void ResultControlBase::validate_async_signal(unsigned int id) {
  impl::ScopeCheck& check = impl::ScopeCheck::instance();
  if (!check.enabled() || !check.is_active_here(id)) return;
  tqcore::throw_error(error::tqcore_result_invalidAsyncSignalScope,
                      "Attempt to use an AsyncResult object to signal a result synchronously.",
                      SourceLocation("tqcore::ResultControlBase::validate_async_signal()",
                                     impl::kFileId, __LINE__));
}

void AsyncResultBase::on_async_result_error(ErrorInfo::Ptr const& error) {
  validate_signal();
  if (!error) impl::raise_result_failure_null();
  async_error_impl(error);
}

}  // namespace tqcore
