/// @file
/// How an operation learns from its caller where its outcome goes, and how it delivers it.
///
/// An operation takes a `ResultControl<T> const&` and returns a `Result<T>`. It completes at once
/// with `return control.signal_result(value)` or `return control.signal_error(error)`, or later:
/// `handler = control.create_async_handler()`, `return handler->get_result()`, and from any
/// thread afterwards `handler->on_async_result_success(value)` or `on_async_result_error(error)`.
/// The caller picks the delivery by the control it passes: ignored, ignored unless immediate,
/// into a Future it holds, or into the handler of an enclosing operation.
///
/// For a `T` other than void the success signals take the value (by value: a move-only `T` is
/// moved through). For void they take nothing; their parameter is the empty `impl::Nil`.
///
/// With TQCORE_CHECK_ASYNC_RESULT_SIGNALING set (read once at load; empty or "y..." or "1..." turns
/// it on, unset or "0", "n", "f"... leaves it off) a handler signalled on the thread whose control
/// is still alive raises "error.tqcore.result.invalidAsyncSignalScope": that completion should
/// have gone through the control.
///
/// Failures: a second signal raises "error.tqcore.result.redundantSignal" (unless the first outcome
/// was a cancellation); a null error raises "error.tqcore.future.nullError"; a handler dropped
/// unsignalled fails its future with "error.tqcore.result.notSignaled"; with the signalling check
/// on, "error.tqcore.result.invalidAsyncSignalScope".
///
/// @code
/// tqcore::Future<int> f;
/// tqcore::ResultControlFutureRef<int> const control(f);  // the caller chooses: into f
/// auto handler = control.create_async_handler();           // the operation: later
/// tqcore::Result<int> const result = handler->get_result();
/// std::thread worker([handler] { handler->on_async_result_success(42); });
/// std::cout << result.get() << '\n';  // 42
/// worker.join();
/// @endcode
#pragma once

#include <tqcore/error_info.h>
#include <tqcore/future.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/result.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <type_traits>
#include <utility>

namespace tqcore {

class AsyncResultBase;
template <class T = void>
class AsyncResult;
template <class T>
class AsyncHandlerAdapterControl;
template <class T>
class ResultControlIgnoredIfAsync;

namespace impl {

/// The success value of a void operation.
struct Nil {
  friend constexpr bool operator==(Nil, Nil) noexcept { return true; }
  friend constexpr bool operator!=(Nil, Nil) noexcept { return false; }
};
inline constexpr Nil nil{};

template <class T>
struct SignalValueOf {
  using type = T;
};
template <>
struct SignalValueOf<void> {
  using type = Nil;
};

/// The default argument of every success signal: void operations signal without a value, and a
/// typed one that forgets its value fails to compile here rather than signal a default.
template <class T>
constexpr Nil success_without_value() noexcept {
  static_assert(std::is_void_v<T>, "a typed success signal needs its value");
  return nil;
}

template <class T>
RefCountPtr<ResultImpl<T> const> value_result(typename SignalValueOf<T>::type&& value) {
  if constexpr (std::is_void_v<T>) {
    return ValueResultImpl<void>::create();
  } else {
    return ValueResultImpl<T>::create(std::move(value));
  }
}

template <class T>
bool set_success(Future<T> const& future, typename SignalValueOf<T>::type&& value) {
  if constexpr (std::is_void_v<T>) {
    return future.set();
  } else {
    return future.set(std::move(value));
  }
}

TQCORE_EXPORT ErrorInfo::Ptr create_result_not_signaled_error();
TQCORE_EXPORT ErrorInfo::Ptr create_unexpected_asynchrony_error();
/// Null (success, or still pending) is not a cancellation; an inner-operation cancellation is.
TQCORE_EXPORT bool result_was_cancelled(ErrorInfo::Ptr const& error);
/// `error`, the later outcome, rides along as the inner error so that it is not lost.
[[noreturn]] TQCORE_EXPORT void raise_redundant_signal_error(ErrorInfo::Ptr error,
                                                             bool after_success_callback);
/// A `name_size` of size_t(-1) means `name` is zero-terminated; a null `name` reads as "".
[[noreturn]] TQCORE_EXPORT void raise_null_parameter_error(char const* name, size_t name_size,
                                                           SourceLocation const& location);

}  // namespace impl

namespace impl {
class ScopeCheck;
}  // namespace impl

/// The caller's side: a stack object, never shared between threads. Becomes active on its
/// thread when the first handler is built from it, and leaves that thread's list when destroyed.
class TQCORE_EXPORT ResultControlBase {
 public:
  /// An active control destroyed on another thread leaves the list of the thread that
  /// activated it, then raises "error.tqcore.result.wrongThread"; the exception leaves the
  /// destructor, unless an exception that began after the activation is unwinding the stack:
  /// then the error goes to the critical-error trace instead of ending the process.
  virtual ~ResultControlBase() noexcept(false) {
    if (m_id != 0) deactivate();
  }
  virtual bool is_ignored() const = 0;
  virtual bool is_cancelled() const { return false; }

 protected:
  ResultControlBase() noexcept = default;
  /// The activation belongs to the original: a copy starts idle and assignment keeps its own.
  ResultControlBase(ResultControlBase const&) noexcept {}
  /// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): keeps its own state, copies nothing
  ResultControlBase& operator=(ResultControlBase const&) noexcept { return *this; }

  /// Raises if a control with this id is still active on the calling thread.
  static void validate_async_signal(unsigned int id);

 private:
  friend class AsyncResultBase;
  friend class impl::ScopeCheck;

  unsigned int activate() const;
  void deactivate() const;

  mutable unsigned int m_id = 0;
  mutable int m_uncaught = 0;  ///< exceptions in flight when it was activated
  mutable ResultControlBase const* m_previous = nullptr;
  mutable void* m_anchor = nullptr;  ///< the list of the thread that activated it
};

template <class T = void>
class ResultControl : public ResultControlBase {
 public:
  using Value = typename impl::SignalValueOf<T>::type;

  /// Content a caller may attach: built in place in the slot, destroyed by its first virtual
  /// operation with argument 0, never freed. Nothing in the library attaches any.
  class SlotContent {
   public:
    virtual void destroy(unsigned int flags) = 0;

   protected:
    ~SlotContent() = default;
  };
  static constexpr size_t kSlotSize = 32;

  ~ResultControl() noexcept(false) override {
    if (m_slotContent != nullptr) m_slotContent->destroy(0);
  }

  /// For void the outcome is never wanted; typed controls answer for themselves.
  bool is_ignored() const override { return std::is_void_v<T>; }
  virtual Result<T> signal_result(Value value = impl::success_without_value<T>()) const = 0;
  virtual Result<T> signal_error(ErrorInfo::Ptr const& error) const = 0;
  virtual RefCountPtr<AsyncResult<T>> create_async_handler() const = 0;

 protected:
  ResultControl() noexcept = default;
  /// A copy starts with an empty slot; assignment copies the slot as it stands, pointer and
  /// bytes alike. The asymmetry is deliberate: attached content is never owned twice by copies.
  ResultControl(ResultControl const& other) noexcept : ResultControlBase(other) {}
  /// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): two plain copies, harmless on itself
  ResultControl& operator=(ResultControl const& other) noexcept {
    m_slotContent = other.m_slotContent;
    std::memcpy(m_slot, other.m_slot, kSlotSize);
    return *this;
  }

  SlotContent* m_slotContent = nullptr;
  alignas(std::max_align_t) unsigned char m_slot[kSlotSize] = {};
};

// ---- Handlers: the completion side, shared and reference counted -----------------------------

class TQCORE_EXPORT AsyncResultBase : public impl::AsyncOp {
 public:
  virtual bool ignored() const = 0;
  virtual bool cancelled() const = 0;

  /// Scope check first, then a null error raises "error.tqcore.result.badParameter".
  void on_async_result_error(ErrorInfo::Ptr const& error);
  /// The id of the control this handler was built from; 0 when the check was off.
  unsigned int activation_id() const noexcept { return m_id; }

 protected:
  explicit AsyncResultBase(ResultControlBase const& control) : m_id(control.activate()) {}
  virtual void async_error_impl(ErrorInfo::Ptr const& error) = 0;
  void validate_signal() const {
    if (m_id != 0) ResultControlBase::validate_async_signal(m_id);
  }

 private:
  unsigned int const m_id;
};

template <class T>
class AsyncResult : public AsyncResultBase {
 public:
  using Value = typename impl::SignalValueOf<T>::type;

  virtual Result<T> get_result() = 0;
  void on_async_result_success(Value value = impl::success_without_value<T>()) {
    validate_signal();
    async_success_impl(std::move(value));
  }
  /// Hands this operation's completion to an inner operation.
  AsyncHandlerAdapterControl<T> as_control() {
    return AsyncHandlerAdapterControl<T>(RefCountPtr<AsyncResult<T>>(this));
  }

 protected:
  using AsyncResultBase::AsyncResultBase;
  virtual void async_success_impl(Value value) = 0;
};

namespace impl {

/// What the three handlers that deliver nowhere share: cancel, signals and get_result do
/// nothing; whether they report cancellation is theirs to say.
template <class T>
class AsyncResultInertBase : public AsyncResult<T> {
 public:
  void cancel(bool, ErrorInfo::Ptr const&) const override {}
  bool ignored() const override { return true; }
  Result<T> get_result() override { return Result<T>(); }

 protected:
  using AsyncResult<T>::AsyncResult;
  void async_error_impl(ErrorInfo::Ptr const&) override {}
};

template <class T>
class AsyncResultIgnored;
template <class T>
class AsyncResultCancelled;
template <class T>
class AsyncResultError;
template <class T>
class AsyncResultFuture;

template <class T>
class AsyncResultIgnoredBase : public AsyncResultInertBase<T> {
 public:
  static RefCountPtr<AsyncResult<T>> create(ResultControlBase const& control) {
    return RefCountPtr<AsyncResult<T>>(new AsyncResultIgnored<T>(control));
  }
  bool cancelled() const override { return false; }

 protected:
  using AsyncResultInertBase<T>::AsyncResultInertBase;
};

/// Reports cancellation from the start.
template <class T>
class AsyncResultCancelledBase : public AsyncResultInertBase<T> {
 public:
  static RefCountPtr<AsyncResult<T>> create(ResultControlBase const& control) {
    return RefCountPtr<AsyncResult<T>>(new AsyncResultCancelled<T>(control));
  }
  bool cancelled() const override { return true; }

 protected:
  using AsyncResultInertBase<T>::AsyncResultInertBase;
};

/// Stands behind a control that forbids asynchrony: the result is that error.
template <class T>
class AsyncResultErrorBase : public AsyncResultInertBase<T> {
 public:
  static RefCountPtr<AsyncResult<T>> create(ResultControlBase const& control) {
    return RefCountPtr<AsyncResult<T>>(new AsyncResultError<T>(control));
  }
  bool cancelled() const override { return true; }
  Result<T> get_result() override {
    return Result<T>(ErrorResultImpl<T>::create(create_unexpected_asynchrony_error()));
  }

 protected:
  using AsyncResultInertBase<T>::AsyncResultInertBase;
};

/// Delivers into a Future. The first outcome wins; a later one is swallowed after a cancel and
/// raises "error.tqcore.result.redundantSignal" otherwise.
template <class T>
class AsyncResultFutureBase : public AsyncResult<T> {
 public:
  static RefCountPtr<AsyncResult<T>> create(ResultControlBase const& control,
                                            Future<T> const& future) {
    return RefCountPtr<AsyncResult<T>>(new AsyncResultFuture<T>(control, future));
  }
  /// A handler dropped unsignalled tells the reader why no outcome will come. Nothing leaves:
  /// should an observer raise, the future stays as its observers left it.
  ~AsyncResultFutureBase() override {
    if (m_future.is_ready()) return;
    try {
      m_future.set(create_result_not_signaled_error());
    } catch (...) {
    }
  }
  void cancel(bool, ErrorInfo::Ptr const& reason) const override {
    m_future.set(create_result_cancel_error(reason));
  }
  bool ignored() const override { return std::is_void_v<T>; }
  bool cancelled() const override { return result_was_cancelled(m_future.error_info()); }
  Result<T> get_result() override { return Result<T>(FutureResultImpl<T>::create(m_future)); }

 protected:
  AsyncResultFutureBase(ResultControlBase const& control, Future<T> const& future)
      : AsyncResult<T>(control), m_future(future) {}
  void async_error_impl(ErrorInfo::Ptr const& error) override {
    if (!m_future.set(error)) after_lost_signal(error);
  }
  /// The future was set before: normal after a cancel, a fault otherwise.
  void after_lost_signal(ErrorInfo::Ptr const& error) const {
    if (!result_was_cancelled(m_future.error_info())) raise_redundant_signal_error(error, false);
  }

  Future<T> m_future;
};

template <class T>
class AsyncResultIgnored final : public AsyncResultIgnoredBase<T> {
  friend class AsyncResultIgnoredBase<T>;
  explicit AsyncResultIgnored(ResultControlBase const& control)
      : AsyncResultIgnoredBase<T>(control) {}
  void async_success_impl(typename AsyncResult<T>::Value) override {}
};

template <class T>
class AsyncResultCancelled final : public AsyncResultCancelledBase<T> {
  friend class AsyncResultCancelledBase<T>;
  explicit AsyncResultCancelled(ResultControlBase const& control)
      : AsyncResultCancelledBase<T>(control) {}
  void async_success_impl(typename AsyncResult<T>::Value) override {}
};

template <class T>
class AsyncResultError final : public AsyncResultErrorBase<T> {
  friend class AsyncResultErrorBase<T>;
  explicit AsyncResultError(ResultControlBase const& control) : AsyncResultErrorBase<T>(control) {}
  void async_success_impl(typename AsyncResult<T>::Value) override {}
};

template <class T>
class AsyncResultFuture final : public AsyncResultFutureBase<T> {
  friend class AsyncResultFutureBase<T>;
  AsyncResultFuture(ResultControlBase const& control, Future<T> const& future)
      : AsyncResultFutureBase<T>(control, future) {}
  void async_success_impl(typename AsyncResult<T>::Value value) override {
    if (!set_success(this->m_future, std::move(value))) this->after_lost_signal(nullptr);
  }
};

// ---- The controls ----------------------------------------------------------------------------

template <class T>
class ResultControlIgnoredBase : public ResultControl<T> {
 public:
  using Value = typename ResultControl<T>::Value;
  bool is_ignored() const override { return true; }
  Result<T> signal_result(Value = success_without_value<T>()) const override { return Result<T>(); }
  Result<T> signal_error(ErrorInfo::Ptr const& error) const override {
    if (!error) raise_result_failure_null();
    return Result<T>();
  }
  RefCountPtr<AsyncResult<T>> create_async_handler() const override {
    return AsyncResultIgnoredBase<T>::create(*this);
  }
  /// The outcome is wanted if it is there at once, and ignored otherwise.
  ResultControlIgnoredIfAsync<T> if_not_ready() const { return ResultControlIgnoredIfAsync<T>(); }
};

/// Immediate outcomes come back as Value or Error results, with no Future and no lock.
template <class T>
class ResultControlDirectIfSynchronousBase : public ResultControl<T> {
 public:
  using Value = typename ResultControl<T>::Value;
  Result<T> signal_result(Value value = success_without_value<T>()) const override {
    return Result<T>(value_result<T>(std::move(value)));
  }
  Result<T> signal_error(ErrorInfo::Ptr const& error) const override {
    return Result<T>(ErrorResultImpl<T>::create(error));
  }
};

template <class T>
class ResultControlFutureRefBase : public ResultControl<T> {
 public:
  using Value = typename ResultControl<T>::Value;
  /// A second signal is not detected: the future keeps the first outcome.
  Result<T> signal_result(Value value = success_without_value<T>()) const override {
    set_success(m_future, std::move(value));
    return Result<T>(FutureResultImpl<T>::create(m_future));
  }
  /// A null error raises "error.tqcore.future.nullError", the future's own code.
  Result<T> signal_error(ErrorInfo::Ptr const& error) const override {
    m_future.set(error);
    return Result<T>(FutureResultImpl<T>::create(m_future));
  }
  RefCountPtr<AsyncResult<T>> create_async_handler() const override {
    return AsyncResultFutureBase<T>::create(*this, m_future);
  }
  bool is_ignored() const override { return std::is_void_v<T>; }
  bool is_cancelled() const override { return result_was_cancelled(m_future.error_info()); }
  Future<T> const& future() const noexcept { return m_future; }

 protected:
  explicit ResultControlFutureRefBase(Future<T> const& future) : m_future(future) {}
  ResultControlFutureRefBase(ResultControlFutureRefBase const& other)
      : ResultControl<T>(other), m_future(other.m_future) {}

 private:
  Future<T> m_future;
};

/// Outcome of a completion handed to another thread: success (with its value) or an error.
template <class T>
class DispatchedCompletion {
 public:
  DispatchedCompletion(T value) : m_value(std::move(value)) {}
  /// A typed completion without a value must carry an error.
  DispatchedCompletion(ErrorInfo::Ptr error) : m_error(std::move(error)) {
    if (!m_error) raise_result_failure_null();
  }
  ErrorInfo::Ptr const& error() const noexcept { return m_error; }
  T const& value() const { return *m_value; }
  T& value() { return *m_value; }

 private:
  ErrorInfo::Ptr m_error;
  std::optional<T> m_value;
};

template <>
class DispatchedCompletion<void> {
 public:
  static constexpr Nil const& value = nil;

  DispatchedCompletion(Nil const&) noexcept {}
  /// Null is success.
  DispatchedCompletion(ErrorInfo::Ptr error) noexcept : m_error(std::move(error)) {}
  ErrorInfo::Ptr const& error() const noexcept { return m_error; }

 private:
  ErrorInfo::Ptr m_error;
};

/// Tags by which invocation templates pick their overloads.
class TQCORE_EXPORT ResultInnerInvokerTagBase {
 public:
  /// What an inner operation ends with when its enclosing operation was cancelled first.
  static ErrorInfo::Ptr outer_operation_cancelled();
};
class ResultMethodInvokerTagBase {};
class ResultDispatchedInvokerTagBase {};

}  // namespace impl

/// Nobody wants the outcome.
template <class T = void>
class ResultControlIgnored : public impl::ResultControlIgnoredBase<T> {
 public:
  ResultControlIgnored() noexcept = default;
  ResultControlIgnored(ResultControlIgnored const&) noexcept = default;
  ResultControlIgnored& operator=(ResultControlIgnored const&) noexcept = default;
};

/// The outcome is wanted when the operation completes in its call, and ignored when it goes on.
template <class T = void>
class ResultControlIgnoredIfAsync : public impl::ResultControlDirectIfSynchronousBase<T> {
 public:
  ResultControlIgnoredIfAsync() noexcept = default;
  ResultControlIgnoredIfAsync(ResultControlIgnoredIfAsync const&) noexcept = default;
  ResultControlIgnoredIfAsync& operator=(ResultControlIgnoredIfAsync const&) noexcept = default;

  bool is_ignored() const override { return std::is_void_v<T>; }
  RefCountPtr<AsyncResult<T>> create_async_handler() const override {
    return impl::AsyncResultIgnoredBase<T>::create(*this);
  }
};

/// The outcome goes into a Future the caller holds.
template <class T = void>
class ResultControlFutureRef : public impl::ResultControlFutureRefBase<T> {
 public:
  explicit ResultControlFutureRef(Future<T> const& future)
      : impl::ResultControlFutureRefBase<T>(future) {}
  ResultControlFutureRef(ResultControlFutureRef const&) = default;
};

/// Passes an enclosing operation's handler down as a control: the inner operation completes
/// the outer one directly, through the handler's own signals and their checks.
template <class T = void>
class AsyncHandlerAdapterControl : public ResultControl<T> {
 public:
  using Value = typename ResultControl<T>::Value;

  /// Takes the reference over, leaving the argument null; a null handler raises.
  explicit AsyncHandlerAdapterControl(RefCountPtr<AsyncResult<T>> handler) {
    m_handler.swap(handler);
    if (!m_handler) raise_null_handler();
  }
  /// Turns the control an operation was given into one that outlives the call.
  explicit AsyncHandlerAdapterControl(ResultControl<T> const& control)
      : m_handler(control.create_async_handler()) {
    if (!m_handler) raise_null_handler();
  }
  AsyncHandlerAdapterControl(AsyncHandlerAdapterControl const& other)
      : ResultControl<T>(other), m_handler(other.m_handler) {}
  AsyncHandlerAdapterControl& operator=(AsyncHandlerAdapterControl const& other) {
    ResultControl<T>::operator=(other);
    m_handler = other.m_handler;
    return *this;
  }

  bool is_ignored() const override { return std::is_void_v<T> || m_handler->ignored(); }
  bool is_cancelled() const override { return m_handler->cancelled(); }
  Result<T> signal_result(Value value = impl::success_without_value<T>()) const override {
    m_handler->on_async_result_success(std::move(value));
    return Result<T>();
  }
  Result<T> signal_error(ErrorInfo::Ptr const& error) const override {
    m_handler->on_async_result_error(error);
    return Result<T>();
  }
  RefCountPtr<AsyncResult<T>> create_async_handler() const override { return m_handler; }
  operator RefCountPtr<AsyncResult<T>> const&() const noexcept { return m_handler; }

 private:
  [[noreturn]] static void raise_null_handler() {
    impl::raise_null_parameter_error(
        "handler", size_t(-1),
        SourceLocation("tqcore::AsyncHandlerAdapterControl::AsyncHandlerAdapterControl()",
                       "$Id: //tqcore/pub/inc/core/tqcore/result_control.h#1 $", __LINE__));
  }

  RefCountPtr<AsyncResult<T>> m_handler;
};

}  // namespace tqcore
