// AutoSignalAsyncResult: the guard that fails every handler it still holds when it ends.
#include <tqcore/error_exception.h>
#include <tqcore/result_auto_signal.h>

#include <vector>

#include "file_ids.h"
#include "result_internal.h"

// ---- Scope guard over handlers ---------------------------------------------------------------

namespace tqcore {
namespace impl {
namespace {

char const kFileId[] = TQCORE_FILE_ID("result");

// Releases the handlers last first, on the normal path and when a signal raises alike.
struct HandlersReleasedLastFirst {
  std::vector<RefCountPtr<AsyncResultBase>> handlers;
  ~HandlersReleasedLastFirst() {
    while (!handlers.empty()) handlers.pop_back();
  }
};

// Made while the library loads: the destructor that needs it may run because memory ran out.
CachedRecord g_notCompleted(
    error::tqcore_result, "Derived class neither set the failure nor called signal_success().",
    "tqdispatcher::impl::AutoSignalAsyncResultBase::~AutoSignalAsyncResultBase()", kFileId,
    __LINE__);
[[maybe_unused]] bool const g_notCompletedBuilt = (g_notCompleted.get(), true);

}  // namespace

AutoSignalAsyncResultBase::~AutoSignalAsyncResultBase() noexcept(false) {
  if (m_handlers.empty()) return;
  if (!m_failure) m_failure = g_notCompleted.get();
  HandlersReleasedLastFirst local{take_handlers()};
  ErrorInfo::Ptr const failure = m_failure;  // a handler may set_failure on this guard meanwhile
  for (RefCountPtr<AsyncResultBase> const& handler : local.handlers) {
    // Left by an exception, the guard still signals every handler and reports what they raise.
    raise_unless_unwinding(m_uncaught, [&] { handler->on_async_result_error(failure); });
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
