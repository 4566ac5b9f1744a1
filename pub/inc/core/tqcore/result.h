/// @file
/// What every asynchronous operation returns: nothing to report (Empty), a value or an error at
/// hand, or either arriving later through a Future. Callers read all four alike with get().
///
/// Failures: `get` raises the operation's record; waiting on an Empty result raises
/// "error.tqcore.result.notWaitable"; `cancel` never raises.
///
/// @code
/// tqcore::Future<int> f;
/// tqcore::ResultControlFutureRef<int> const control(f);
/// tqcore::Result<int> const result = control.signal_result(7);  // complete at once
/// std::cout << result.get() << ' ' << f.get() << '\n';          // 7 7
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/error_info.h>
#include <tqcore/future.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>
#include <tqcore/tqcore_export.h>

#include <type_traits>
#include <utility>

namespace tqcore {

class AnyResultBarrier;

namespace impl {
class AnyResultElement;

/// "Operation cancelled", with `reason` as its cause; without a reason, one shared record.
TQCORE_EXPORT ErrorInfo::Ptr create_result_cancel_error(ErrorInfo::Ptr const& reason);
[[noreturn]] TQCORE_EXPORT void raise_result_failure_null();
[[noreturn]] TQCORE_EXPORT void raise_not_waitable_error();
[[noreturn]] TQCORE_EXPORT void raise_result_error(ErrorInfo::Ptr const& error);

/// Every piece of an asynchronous operation can be cancelled; `force` is passed on, unread.
class TQCORE_EXPORT AsyncOp : public RefCounted<AtomicRefCount> {
 public:
  virtual void cancel(bool force, ErrorInfo::Ptr const& reason) const = 0;
};

class TQCORE_EXPORT ResultImplBase : public AsyncOp {
 public:
  virtual bool is_ready() const = 0;
  virtual bool has_error() const = 0;
  virtual bool is_waitable() const = 0;
  virtual bool wait(RelativeTime const& timeout) const = 0;
  virtual ErrorInfo::Ptr error_info() const = 0;
};

template <class T>
class ResultImpl : public ResultImplBase {
 public:
  using Got = std::add_lvalue_reference_t<T const>;  ///< void stays void
  virtual Got get() const = 0;
  /// Moves the value out; raises the error.
  virtual T take() const = 0;
};

/// Immediate results: no event and no lock.
template <class T>
class ValueResultImpl final : public ResultImpl<T> {
  struct Nothing {};

 public:
  using Got = typename ResultImpl<T>::Got;
  template <class... Value>
  static RefCountPtr<ResultImpl<T> const> create(Value&&... value) {
    return RefCountPtr<ResultImpl<T> const>(new ValueResultImpl(std::forward<Value>(value)...));
  }
  void cancel(bool, ErrorInfo::Ptr const&) const override {}
  bool is_ready() const override { return true; }
  bool has_error() const override { return false; }
  bool is_waitable() const override { return true; }
  bool wait(RelativeTime const&) const override { return true; }
  ErrorInfo::Ptr error_info() const override { return nullptr; }
  Got get() const override {
    if constexpr (!std::is_void_v<T>) return m_value;
  }
  T take() const override {
    if constexpr (!std::is_void_v<T>) return std::move(m_value);
  }

 private:
  template <class... Value>
  explicit ValueResultImpl(Value&&... value) : m_value(std::forward<Value>(value)...) {}
  // Mutable for take(): a result is shared as const, and taking is its one change.
  mutable std::conditional_t<std::is_void_v<T>, Nothing, T> m_value;
};

template <class T>
class ErrorResultImpl final : public ResultImpl<T> {
 public:
  using Got = typename ResultImpl<T>::Got;
  /// A null error raises before anything is allocated.
  static RefCountPtr<ResultImpl<T> const> create(ErrorInfo::Ptr const& error) {
    if (!error) raise_result_failure_null();
    return RefCountPtr<ResultImpl<T> const>(new ErrorResultImpl(error));
  }
  void cancel(bool, ErrorInfo::Ptr const&) const override {}
  bool is_ready() const override { return true; }
  bool has_error() const override { return true; }
  bool is_waitable() const override { return true; }
  bool wait(RelativeTime const&) const override { return true; }
  ErrorInfo::Ptr error_info() const override { return m_error; }
  Got get() const override { raise_result_error(m_error); }
  T take() const override { raise_result_error(m_error); }

 private:
  explicit ErrorResultImpl(ErrorInfo::Ptr error) : m_error(std::move(error)) {}
  ErrorInfo::Ptr m_error;
};

/// A result completing later: everything is the future's.
template <class T>
class FutureResultImpl final : public ResultImpl<T> {
 public:
  using Got = typename ResultImpl<T>::Got;
  static RefCountPtr<ResultImpl<T> const> create(Future<T> const& future) {
    return RefCountPtr<ResultImpl<T> const>(new FutureResultImpl(future));
  }
  /// A cancel after completion changes nothing: the first setter won.
  void cancel(bool, ErrorInfo::Ptr const& reason) const override {
    m_future.set(create_result_cancel_error(reason));
  }
  bool is_ready() const override { return m_future.is_ready(); }
  bool has_error() const override { return m_future.has_error(); }
  bool is_waitable() const override { return true; }
  bool wait(RelativeTime const& timeout) const override { return m_future.wait(timeout); }
  ErrorInfo::Ptr error_info() const override { return m_future.error_info(); }
  Got get() const override { return m_future.get(); }
  T take() const override {
    if constexpr (std::is_void_v<T>) {
      m_future.get();
    } else {
      return m_future.take();
    }
  }

 private:
  explicit FutureResultImpl(Future<T> future) : m_future(std::move(future)) {}
  Future<T> m_future;
};

}  // namespace impl

/// The type-independent reading side of a Result; one pointer, null when Empty.
class TQCORE_EXPORT ResultBase {
 public:
  bool is_ready() const { return m_impl && m_impl->is_ready(); }
  /// Two separate calls: a result completing in between reads as not ready, never wrongly.
  bool has_value() const { return m_impl && m_impl->is_ready() && !m_impl->has_error(); }
  bool has_error() const { return m_impl && m_impl->has_error(); }
  bool is_waitable() const { return m_impl && m_impl->is_waitable(); }
  /// An Empty result raises "error.tqcore.result.notWaitable".
  void wait() const { impl()->wait(RelativeTime::infinite); }
  bool wait(RelativeTime const& timeout) const { return impl()->wait(timeout); }
  /// False when the deadline passed first; the infinite deadline waits for ever.
  bool wait(AbsoluteTime const& deadline) const {
    return impl()->wait(deadline.is_infinite() ? RelativeTime::infinite : deadline.remaining());
  }
  /// A null reason is allowed; Empty, Value and Error results ignore it.
  void cancel(bool force, ErrorInfo::Ptr const& reason) const {
    if (m_impl) m_impl->cancel(force, reason);
  }
  ErrorInfo::Ptr error_info() const { return m_impl ? m_impl->error_info() : nullptr; }
  /// Raises a known error without waiting: a pending result passes.
  void throw_if_error() const;

 protected:
  ResultBase() noexcept = default;
  explicit ResultBase(RefCountPtr<impl::ResultImplBase const> implementation) noexcept
      : m_impl(std::move(implementation)) {}
  impl::ResultImplBase const* impl() const {
    if (!m_impl) impl::raise_not_waitable_error();
    return m_impl.get();
  }

  RefCountPtr<impl::ResultImplBase const> m_impl;

 private:
  friend class AsyncOpHandle;
  friend class impl::AnyResultElement;
};

template <class T = void>
class Result : public ResultBase {
 public:
  Result() noexcept = default;
  /// Takes the reference over, leaving the argument null.
  Result(RefCountPtr<impl::ResultImpl<T> const> implementation) noexcept
      : ResultBase(std::move(implementation)) {}
  Result(Result const&) = default;
  Result& operator=(Result const&) = default;
  Result(Result&& other) noexcept { swap(other); }
  Result& operator=(Result&& other) noexcept {
    Result(std::move(other)).swap(*this);
    return *this;
  }
  Result(TransferSource<Result> source) noexcept { swap(source.source()); }
  TransferSource<Result> transfer() noexcept { return TransferSource<Result>(*this); }
  void swap(Result& other) noexcept { m_impl.swap(other.m_impl); }

  /// Blocks until complete; returns the value or raises the error. Empty raises not-waitable.
  typename impl::ResultImpl<T>::Got get() const {
    return static_cast<impl::ResultImpl<T> const*>(impl())->get();
  }
  /// Waits, then moves the value out (a move-only value included) or raises the error. Every
  /// copy of this result shares the value: take once, from the one holder that owns it.
  T take() const { return static_cast<impl::ResultImpl<T> const*>(impl())->take(); }

  /// A result complete with `value` (constructed in place from the arguments).
  template <class... Value>
  static Result from_value(Value&&... value) {
    return Result(impl::ValueResultImpl<T>::create(std::forward<Value>(value)...));
  }
  /// A result failed with `error`; a null `error` raises "error.tqcore.result.badParameter".
  static Result from_error(ErrorInfo::Ptr const& error) {
    return Result(impl::ErrorResultImpl<T>::create(error));
  }
  /// A result that completes when `future` is set; cancelling it fails the future.
  static Result from_future(Future<T> const& future) {
    return Result(impl::FutureResultImpl<T>::create(future));
  }

 private:
  friend class AnyResultBarrier;
  /// The typed result behind an untyped one; a different type gives an Empty result.
  static Result dynamic_cast_from(RefCountPtr<impl::ResultImplBase const> const& result) {
    return Result(RefCountPtr<impl::ResultImpl<T> const>(
        dynamic_cast<impl::ResultImpl<T> const*>(result.get())));
  }
};

/// Cancels an operation without knowing its result type.
class TQCORE_EXPORT AsyncOpHandle {
 public:
  AsyncOpHandle() noexcept = default;
  AsyncOpHandle(ResultBase const& result) noexcept : m_op(result.m_impl) {}
  AsyncOpHandle& operator=(ResultBase const& result) noexcept {
    m_op = result.m_impl;
    return *this;
  }
  /// Empties the handle first, so a second call does nothing and the operation is let go.
  void cancel(bool force, ErrorInfo::Ptr const& reason);

 private:
  RefCountPtr<impl::AsyncOp const> m_op;
};

}  // namespace tqcore
