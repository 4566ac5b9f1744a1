// The reading side of asynchronous results, the records shared by every raise, and the
// records of the task model.
#include <tqcore/barrier.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/result.h>
#include <tqcore/streamers.h>
#include <tqcore/task.h>

#include <atomic>
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

}  // namespace

ErrorInfo::Ptr create_result_cancel_error(ErrorInfo::Ptr const& reason) {
  if (!reason) return g_cancelled.get();
  return ErrorInfo::create(error::tqcore_result_cancelled, kCancelled,
                           SourceLocation(kCancelFunction, kFileId, __LINE__), reason);
}

void raise_result_failure_null() { ErrorException::throw_error(g_null_error.get()); }

void raise_not_waitable_error() { ErrorException::throw_error(g_not_waitable.get()); }

void raise_result_error(ErrorInfo::Ptr const& error) { ErrorException::throw_error(error); }

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
