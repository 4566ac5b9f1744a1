// The reading side of asynchronous results, controls and their scope check, the records shared
// by every raise, and the records of the task model.
#include <tqcore/barrier.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/result.h>
#include <tqcore/result_auto_signal.h>
#include <tqcore/result_control.h>
#include <tqcore/streamers.h>
#include <tqcore/task.h>

#include <ace/OS_NS_Thread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <typeinfo>

#include "file_ids.h"

namespace tqcore {
namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("result");

// One record per process, built at first use and published by compare-and-exchange; the cell
// keeps its own reference, so the record is never released and never rebuilt. The constexpr
// constructor makes the cells constant-initialised: nothing runs at load.
class CachedRecord {
 public:
  constexpr CachedRecord(ErrorCode const& code, char const* message, char const* function, int line)
      : m_code(code), m_message(message), m_function(function), m_line(line) {}

  ErrorInfo::Ptr get() {
    ErrorInfo const* cached = m_cell.load(std::memory_order_acquire);
    if (cached != nullptr) return ErrorInfo::Ptr(cached);
    ErrorInfo::Ptr own =
        ErrorInfo::create(m_code, m_message, SourceLocation(m_function, kFileId, m_line));
    if (!m_cell.compare_exchange_strong(cached, own.get(), std::memory_order_acq_rel)) {
      return ErrorInfo::Ptr(cached);  // another thread won: its record, ours is dropped
    }
    ErrorInfo::Ptr(own).detach();  // the reference the cell keeps
    return own;
  }

 private:
  ErrorCode const& m_code;
  char const* m_message;
  char const* m_function;
  int m_line;
  std::atomic<ErrorInfo const*> m_cell{nullptr};
};

char const kCancelled[] = "Operation cancelled";
// One colon, as callers have long matched it.
char const kCancelFunction[] = "tqcore:impl::create_result_cancel_error()";

CachedRecord g_cancelled(error::tqcore_result_cancelled, kCancelled, kCancelFunction, __LINE__);
CachedRecord g_null_error(error::tqcore_result_badParameter, "Null ErrorInfo pointer",
                          "tqcore::impl::raise_result_failure_null()", __LINE__);
CachedRecord g_not_waitable(
    error::tqcore_result_notWaitable,
    "Operation requiring a waitable object attemped on a Result which is not waitable.",
    "tqcore::impl::raise_not_waitable_error()", __LINE__);
CachedRecord g_not_signaled(
    error::tqcore_result_notSignaled,
    "An asynchronous result handler is being destroyed but the result has not been signaled.",
    "tqcore::impl::create_result_not_signaled_error()", __LINE__);
CachedRecord g_unexpected_asynchrony(
    error::tqcore_result_invalidAsynchrony,
    "Asynchronous operation initiated with result_error_if_async()",
    "tqcore::impl::create_unexpected_asynchrony_error()", __LINE__);
CachedRecord g_outer_cancelled(
    error::tqcore_result_cancelled_innerOperation,
    "The outer operation was cancelled before the inner operation completed.",
    "tqcore::impl::ResultInnerInvokerTagBase::outer_operation_cancelled()", __LINE__);

}  // namespace

ErrorInfo::Ptr create_result_cancel_error(ErrorInfo::Ptr const& reason) {
  if (!reason) return g_cancelled.get();
  return ErrorInfo::create(error::tqcore_result_cancelled, kCancelled,
                           SourceLocation(kCancelFunction, kFileId, __LINE__), reason);
}

void raise_result_failure_null() { ErrorException::throw_error(g_null_error.get()); }

void raise_not_waitable_error() { ErrorException::throw_error(g_not_waitable.get()); }

void raise_result_error(ErrorInfo::Ptr const& error) { ErrorException::throw_error(error); }

ErrorInfo::Ptr create_result_not_signaled_error() { return g_not_signaled.get(); }

ErrorInfo::Ptr create_unexpected_asynchrony_error() { return g_unexpected_asynchrony.get(); }

ErrorInfo::Ptr ResultInnerInvokerTagBase::outer_operation_cancelled() {
  return g_outer_cancelled.get();
}

bool result_was_cancelled(ErrorInfo::Ptr const& error) {
  return error && error->code().matches(error::tqcore_result_cancelled);
}

void raise_redundant_signal_error(ErrorInfo::Ptr error, bool after_success_callback) {
  char const* message = after_success_callback
                            ? "A success callback PROBABLY allowed an exception to escape."
                            : "A result which had already been signaled, was signaled again.";
  // One colon, as callers have long matched it.
  tqcore::throw_error(
      error::tqcore_result_redundantSignal, message,
      SourceLocation("tqcore:impl::raise_redundant_signal_error()", kFileId, __LINE__),
      std::move(error));
}

void raise_null_parameter_error(char const* name, size_t name_size,
                                SourceLocation const& location) {
  if (name == nullptr) name = "";
  if (name_size == size_t(-1)) name_size = std::strlen(name);
  ErrorParams params;
  params.add(SourceString::create_reference("param"), std::string_view(name, name_size));
  params.add(SourceString::create_reference("value"), "NULL");
  tqcore::throw_error(error::tqcore_result_badParameter, "Invalid '{@param}' value: {@value}",
                      std::move(params), location);
}

}  // namespace impl

void ResultBase::throw_if_error() const {
  if (ErrorInfo::Ptr error = error_info()) ErrorException::throw_error(error);
}

void AsyncOpHandle::cancel(bool force, ErrorInfo::Ptr const& reason) {
  RefCountPtr<impl::AsyncOp const> op;
  op.swap(m_op);
  if (op) op->cancel(force, reason);
}

}  // namespace tqcore

// ---- Controls and the signalling scope check -------------------------------------------------

namespace tqcore {
namespace {

// Read once while the library loads. The thread key holds each thread's newest active control;
// older ones follow through `previous`, so the list needs no lock.
class ScopeCheck {
 public:
  ScopeCheck() : m_enabled(requested(std::getenv("TQCORE_CHECK_ASYNC_RESULT_SIGNALING"))) {
    if (m_enabled && ACE_OS::thr_keycreate(&m_key, nullptr) != 0) m_enabled = false;
  }
  // Only a key this object created is freed: freeing an unused key value could take another
  // library's key.
  ~ScopeCheck() {
    if (m_enabled) ACE_OS::thr_keyfree(m_key);
  }
  ScopeCheck(ScopeCheck const&) = delete;
  ScopeCheck& operator=(ScopeCheck const&) = delete;

  bool enabled() const noexcept { return m_enabled; }
  ResultControlBase const* head() const {
    void* head = nullptr;
    ACE_OS::thr_getspecific(m_key, &head);
    return static_cast<ResultControlBase const*>(head);
  }
  void set_head(ResultControlBase const* control) const {
    ACE_OS::thr_setspecific(m_key, const_cast<ResultControlBase*>(control));
  }
  unsigned int next_id() {
    unsigned int id;
    do {
      id = m_last_id.fetch_add(1, std::memory_order_relaxed) + 1;
    } while (id == 0);  // 0 means "never activated"; skip it when the counter wraps
    return id;
  }

 private:
  // Unset, or starting with 0, N, n, F or f: off. Anything else, the empty text included: on.
  static bool requested(char const* value) {
    if (value == nullptr) return false;
    return value[0] == '\0' || std::strchr("0NnFf", value[0]) == nullptr;  // strchr finds '\0'
  }

  bool m_enabled;
  ACE_thread_key_t m_key{};
  std::atomic<unsigned int> m_last_id{0};
};

ScopeCheck g_scope_check;

}  // namespace

unsigned int ResultControlBase::activate() const {
  if (m_id != 0 || !g_scope_check.enabled()) return m_id;
  m_id = g_scope_check.next_id();
  m_previous = g_scope_check.head();
  g_scope_check.set_head(this);
  return m_id;
}

void ResultControlBase::deactivate() const {
  ResultControlBase const* node = g_scope_check.head();
  if (node == this) {
    g_scope_check.set_head(m_previous);
    return;
  }
  // Controls may end in another order than they began: unlink from the middle.
  for (; node != nullptr; node = node->m_previous) {
    if (node->m_previous == this) {
      node->m_previous = m_previous;
      return;
    }
  }
  tqcore::throw_error(
      error::tqcore_result_wrongThread,
      "ResultControl deactivated on a thread other than the one for which it was activated.",
      SourceLocation("tqcore::ResultControlBase::deactivate()", impl::kFileId, __LINE__));
}

void ResultControlBase::validate_async_signal(unsigned int id) {
  if (!g_scope_check.enabled()) return;
  for (ResultControlBase const* node = g_scope_check.head(); node != nullptr;
       node = node->m_previous) {
    if (node->m_id != id) continue;
    tqcore::throw_error(error::tqcore_result_invalidAsyncSignalScope,
                        "Attempt to use an AsyncResult object to signal a result synchronously.",
                        SourceLocation("tqcore::ResultControlBase::validate_async_signal()",
                                       impl::kFileId, __LINE__));
  }
}

void AsyncResultBase::on_async_result_error(ErrorInfo::Ptr const& error) {
  validate_signal();
  if (!error) impl::raise_result_failure_null();
  async_error_impl(error);
}

}  // namespace tqcore

// ---- Scope guard over handlers ---------------------------------------------------------------

namespace tqcore {
namespace impl {
namespace {

// Releases the handlers last first, on the normal path and when a signal raises alike.
struct HandlersReleasedLastFirst {
  std::vector<RefCountPtr<AsyncResultBase>> handlers;
  ~HandlersReleasedLastFirst() {
    while (!handlers.empty()) handlers.pop_back();
  }
};

}  // namespace

AutoSignalAsyncResultBase::~AutoSignalAsyncResultBase() noexcept(false) {
  if (!m_failure && !m_handlers.empty()) {
    m_failure = ErrorInfo::create(
        error::tqcore_result, "Derived class neither set the failure nor called signal_success().",
        SourceLocation(
            "tqdispatcher::impl::AutoSignalAsyncResultBase::~AutoSignalAsyncResultBase()", kFileId,
            __LINE__));
  }
  HandlersReleasedLastFirst local{take_handlers()};
  ErrorInfo::Ptr const failure = m_failure;  // a handler may set_failure on this guard meanwhile
  for (RefCountPtr<AsyncResultBase> const& handler : local.handlers) {
    handler->on_async_result_error(failure);
  }
}

void AutoSignalAsyncResultBase::push_back(RefCountPtr<AsyncResultBase> handler) {
  if (!handler) {
    raise_null_parameter_error(
        "handler", size_t(-1),
        SourceLocation("tqdispatcher::impl::AutoSignalAsyncResultBase::push_back()", kFileId,
                       __LINE__));
  }
  m_handlers.emplace_back();
  m_handlers.back().swap(handler);
}

std::vector<RefCountPtr<AsyncResultBase>> AutoSignalAsyncResultBase::take_handlers() noexcept {
  std::vector<RefCountPtr<AsyncResultBase>> handlers;
  handlers.swap(m_handlers);
  return handlers;
}

void AutoSignalAsyncResultBase::raise_value_not_copyable() {
  tqcore::throw_error(
      error::tqcore_result_badParameter,
      "A move-only value cannot be signalled to more than one handler.",
      SourceLocation("tqdispatcher::impl::AutoSignalAsyncResultBase::signal_success()", kFileId,
                     __LINE__));
}

}  // namespace impl
}  // namespace tqcore

// ---- Tasks -----------------------------------------------------------------------------------

namespace tqcore {
namespace impl {
namespace {

std::string address_of(void const* task) {
  std::ostringstream text;
  text << streamers::Pointer(task);
  return text.str();
}

ErrorComposer task_record(char const* message, void const* task) {
  ErrorComposer composer(message);
  composer.param(SourceString::create_reference("address"), address_of(task));
  return composer;
}

}  // namespace

void throw_redundant_task_execution_error(void const* task, SourceLocation const& location) {
  task_record("The single-use task at {@address} has been executed previously.", task)
      .throw_error(error::tqcore_task_redundantExecution, location);
}

ErrorInfo::Ptr task_not_executed_error(void const* task, SourceLocation const& location) {
  return task_record("The task at {@address} was never executed.", task)
      .create(error::tqcore_task_notExecuted, location);
}

ErrorInfo::Ptr task_expired_error(void const* task, RelativeTime const& remaining,
                                  SourceLocation const& location) {
  std::ostringstream overtime;
  overtime << remaining * -1.0;
  return task_record("The deadline for executing the task at {@address} expired {@overtime} ago.",
                     task)
      .param(SourceString::create_reference("overtime"), overtime.str())
      .create(error::tqcore_task_timeLimitExpired, location);
}

}  // namespace impl
}  // namespace tqcore

// ---- Barrier of results ----------------------------------------------------------------------

namespace tqcore {
namespace impl {

class BadResultCast : public std::bad_cast {
 public:
  char const* what() const noexcept override { return "AnyResultBarrier : bad result cast"; }
};

}  // namespace impl

void AnyResultBarrier::raise_bad_result_cast() { throw impl::BadResultCast(); }

}  // namespace tqcore
