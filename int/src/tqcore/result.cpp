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
#include "result_internal.h"

namespace tqcore {
namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("result");

char const kCancelled[] = "Operation cancelled";
// One colon, as callers have long matched it.
char const kCancelFunction[] = "tqcore:impl::create_result_cancel_error()";

CachedRecord g_cancelled(error::tqcore_result_cancelled, kCancelled, kCancelFunction, kFileId,
                         __LINE__);
CachedRecord g_nullError(error::tqcore_result_badParameter, "Null ErrorInfo pointer",
                         "tqcore::impl::raise_result_failure_null()", kFileId, __LINE__);
CachedRecord g_notWaitable(
    error::tqcore_result_notWaitable,
    "Operation requiring a waitable object attemped on a Result which is not waitable.",
    "tqcore::impl::raise_not_waitable_error()", kFileId, __LINE__);
CachedRecord g_notSignaled(
    error::tqcore_result_notSignaled,
    "An asynchronous result handler is being destroyed but the result has not been signaled.",
    "tqcore::impl::create_result_not_signaled_error()", kFileId, __LINE__);
CachedRecord g_unexpectedAsynchrony(error::tqcore_result_invalidAsynchrony,
                                    "Asynchronous operation initiated with result_error_if_async()",
                                    "tqcore::impl::create_unexpected_asynchrony_error()", kFileId,
                                    __LINE__);
CachedRecord g_outerCancelled(
    error::tqcore_result_cancelled_innerOperation,
    "The outer operation was cancelled before the inner operation completed.",
    "tqcore::impl::ResultInnerInvokerTagBase::outer_operation_cancelled()", kFileId, __LINE__);

// Built while the library loads: handlers dropped unsignalled and cancels need theirs on paths
// that must not fail for want of memory.
[[maybe_unused]] bool const g_recordsBuilt =
    (g_cancelled.get(), g_notSignaled.get(), g_outerCancelled.get(), true);

}  // namespace

ErrorInfo::Ptr create_result_cancel_error(ErrorInfo::Ptr const& reason) {
  if (!reason) return g_cancelled.get();
  return ErrorInfo::create(error::tqcore_result_cancelled, kCancelled,
                           SourceLocation(kCancelFunction, kFileId, __LINE__), reason);
}

void raise_result_failure_null() { ErrorException::throw_error(g_nullError.get()); }

void raise_not_waitable_error() { ErrorException::throw_error(g_notWaitable.get()); }

void raise_result_error(ErrorInfo::Ptr const& error) { ErrorException::throw_error(error); }

ErrorInfo::Ptr create_result_not_signaled_error() { return g_notSignaled.get(); }

ErrorInfo::Ptr create_unexpected_asynchrony_error() { return g_unexpectedAsynchrony.get(); }

ErrorInfo::Ptr ResultInnerInvokerTagBase::outer_operation_cancelled() {
  return g_outerCancelled.get();
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

// The handle lets go of the operation only once the cancel went through: should making the
// cancel record fail, the caller still holds something to cancel.
void AsyncOpHandle::cancel(bool force, ErrorInfo::Ptr const& reason) {
  RefCountPtr<impl::AsyncOp const> const op = m_op;
  if (!op) return;
  op->cancel(force, reason);
  m_op.reset();
}

}  // namespace tqcore
