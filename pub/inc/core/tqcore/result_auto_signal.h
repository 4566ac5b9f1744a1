/// @file
/// A scope guard over asynchronous handlers: code that has taken on an operation may leave by
/// any path, and every handler still held when the guard ends is signalled with an error, so no
/// handler dies unsignalled. The path that succeeds calls signal_success(), which empties it.
///
/// Failures: a guard left unsignalled fails its handler with "error.tqcore.result.notSignaled"; a
/// null handler raises "error.tqcore.result.badParameter".
///
/// @code
/// tqcore::Future<int> f;
/// auto handler = tqcore::ResultControlFutureRef<int>(f).create_async_handler();
/// std::thread worker([handler] {
///   tqcore::AutoSignalAsyncResult<int> guard(handler);
///   guard.signal_success(7);  // left unsignalled, the guard would fail the future
/// });
/// worker.join();
/// @endcode
#pragma once

#include <tqcore/error_info.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/result_control.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <exception>
#include <type_traits>
#include <utility>
#include <vector>

namespace tqcore {
namespace impl {

class TQCORE_EXPORT AutoSignalAsyncResultBase {
 public:
  /// Copies share the handlers: each copy that ends with handlers signals them.
  AutoSignalAsyncResultBase(AutoSignalAsyncResultBase const& other)
      : m_handlers(other.m_handlers), m_failure(other.m_failure) {}
  AutoSignalAsyncResultBase& operator=(AutoSignalAsyncResultBase const& other) {
    m_handlers = other.m_handlers;
    m_failure = other.m_failure;
    return *this;
  }
  /// Leaves the source empty, so that handing a guard to another thread (a lambda capture, a
  /// std::function) does not leave a second owner behind to fail the handlers.
  AutoSignalAsyncResultBase(AutoSignalAsyncResultBase&& other) noexcept
      : m_handlers(other.take_handlers()), m_failure(std::move(other.m_failure)) {}

  bool has_failure() const noexcept { return static_cast<bool>(m_failure); }
  /// The old failure is released when the argument ends.
  void set_failure(ErrorInfo::Ptr failure) noexcept { m_failure.swap(failure); }

 protected:
  explicit AutoSignalAsyncResultBase(ErrorInfo::Ptr const& failure = nullptr)
      : m_failure(failure) {}
  /// Signals the failure (or, when none was set, "Derived class neither set the failure nor
  /// called signal_success().") to each handler left, in order. A handler that raises leaves by
  /// the exception; the ones after it go unsignalled and report that themselves. While an
  /// exception that began after the guard was made unwinds the stack, every handler is
  /// signalled and what they raise goes to the critical-error trace instead.
  ~AutoSignalAsyncResultBase() noexcept(false);

  void reserve(size_t count) { m_handlers.reserve(count); }
  size_t handler_count() const noexcept { return m_handlers.size(); }
  /// A null handler raises "error.tqcore.result.badParameter".
  void push_back(RefCountPtr<AsyncResultBase> handler);
  /// Empties the guard and gives its handlers, so that a handler running during the signal
  /// finds nothing left to signal.
  std::vector<RefCountPtr<AsyncResultBase>> take_handlers() noexcept;
  /// A move-only value cannot reach more than one handler.
  [[noreturn]] static void raise_value_not_copyable();

 private:
  std::vector<RefCountPtr<AsyncResultBase>> m_handlers;
  ErrorInfo::Ptr m_failure;
  int m_uncaught = std::uncaught_exceptions();  ///< exceptions in flight when it was made
};

}  // namespace impl

template <class T = void>
class AutoSignalAsyncResult : public impl::AutoSignalAsyncResultBase {
 public:
  using Handler = RefCountPtr<AsyncResult<T>>;
  using Value = typename AsyncResult<T>::Value;

  explicit AutoSignalAsyncResult(ErrorInfo::Ptr const& failure = nullptr)
      : AutoSignalAsyncResultBase(failure) {}
  explicit AutoSignalAsyncResult(Handler handler, ErrorInfo::Ptr const& failure = nullptr)
      : AutoSignalAsyncResultBase(failure) {
    push_back(std::move(handler));
  }
  explicit AutoSignalAsyncResult(std::vector<Handler> const& handlers,
                                 ErrorInfo::Ptr const& failure = nullptr)
      : AutoSignalAsyncResultBase(failure) {
    reserve(handlers.size());
    for (Handler const& handler : handlers) push_back(handler);
  }
  AutoSignalAsyncResult(AutoSignalAsyncResult const&) = default;
  AutoSignalAsyncResult(AutoSignalAsyncResult&&) noexcept = default;
  AutoSignalAsyncResult& operator=(AutoSignalAsyncResult const&) = default;
  ~AutoSignalAsyncResult() noexcept(false) = default;

  void push_back(Handler handler) { AutoSignalAsyncResultBase::push_back(std::move(handler)); }

  /// Signals success to every handler, in order, and leaves the guard empty; a failure set
  /// before is dropped unused, since this is the path that succeeded. Each handler but the last
  /// gets a copy of the value, the last gets it moved. A handler that raises leaves by the
  /// exception, and the ones after it report themselves unsignalled.
  /// A move-only value with more than one handler raises before signalling anything, and the
  /// guard keeps its handlers for its destructor.
  void signal_success(Value value = impl::success_without_value<T>()) {
    if constexpr (!std::is_copy_constructible_v<Value>) {
      if (handler_count() > 1) raise_value_not_copyable();
    }
    std::vector<RefCountPtr<AsyncResultBase>> handlers = take_handlers();
    if (handlers.empty()) return;
    if constexpr (std::is_copy_constructible_v<Value>) {
      for (size_t i = 0; i + 1 < handlers.size(); ++i) {
        as_typed(handlers[i]).on_async_result_success(value);
      }
    }
    as_typed(handlers.back()).on_async_result_success(std::move(value));
  }

 private:
  /// Only AsyncResult<T> handlers get in, through the typed push_back.
  static AsyncResult<T>& as_typed(RefCountPtr<AsyncResultBase> const& handler) {
    return static_cast<AsyncResult<T>&>(*handler);
  }
};

}  // namespace tqcore
