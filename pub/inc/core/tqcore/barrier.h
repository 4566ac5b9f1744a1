/// @file
/// Barriers: futures or results of any mixture of types, waited for all together under one
/// deadline, asked about as a group, and failed or cancelled where they are left. A barrier is
/// a plain vector of shared references: no thread, event or lock of its own.
///
/// Failures: waiting never raises (false on timeout); adding an Empty result raises
/// "error.tqcore.result.notWaitable"; failing or cancelling the rest never raises.
///
/// @code
/// tqcore::Future<int> a;
/// tqcore::Future<std::string> b;
/// tqcore::AnyFutureBarrier barrier;
/// barrier.push_back(a);
/// barrier.push_back(b);
/// if (!barrier.wait(tqcore::RelativeTime::seconds(5))) {
///   barrier.set_error_if_not_ready(tqcore::ErrorInfo::from_errno(  // give up on the rest
///       TQCORE_SOURCE_LOCATION("example()", "$Id: //example/wait.cpp#1 $"), ETIMEDOUT));
/// }
/// @endcode
#pragma once

#include <tqcore/abs_rel_time.h>
#include <tqcore/future.h>
#include <tqcore/result.h>
#include <tqcore/tqcore_export.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace tqcore {
namespace impl {

/// The shape both barriers share. An element answers is_ready, failed, succeeded and
/// wait(RelativeTime).
template <class Element>
class BarrierBase {
 public:
  void swap(BarrierBase& other) noexcept { m_elements.swap(other.m_elements); }
  bool empty() const noexcept { return m_elements.empty(); }
  size_t size() const noexcept { return m_elements.size(); }
  Element* begin() noexcept { return m_elements.data(); }
  Element* end() noexcept { return m_elements.data() + m_elements.size(); }
  Element const* begin() const noexcept { return m_elements.data(); }
  Element const* end() const noexcept { return m_elements.data() + m_elements.size(); }
  Element* erase(Element* const& position) {
    auto const index = position - begin();
    m_elements.erase(m_elements.begin() + index);
    return begin() + index;
  }
  void push_back(Element const& element) { m_elements.push_back(element); }
  void clear() noexcept { m_elements.clear(); }
  /// Keeps the order of the others; each element is tested once.
  void remove_all_ready() {
    m_elements.erase(std::remove_if(m_elements.begin(), m_elements.end(),
                                    [](Element const& e) { return e.is_ready(); }),
                     m_elements.end());
  }

  void wait() const { wait(AbsoluteTime::infinite); }
  /// One element at a time, front to back, each with what is left of the one deadline; true
  /// when all are ready (failed ones included), false at the first timeout.
  bool wait(AbsoluteTime const& deadline) const {
    for (Element const& element : m_elements) {
      if (!element.is_ready() && !element.wait(deadline.remaining())) return false;
    }
    return true;
  }
  bool wait(RelativeTime const& timeout) const {
    return wait(timeout.is_infinite() ? AbsoluteTime::infinite : AbsoluteTime::now() + timeout);
  }

  /// On an empty barrier: any_ready and all_ready true, the four others false.
  bool any_ready() const {
    return empty() || any([](Element const& e) { return e.is_ready(); });
  }
  bool any_failed() const {
    return any([](Element const& e) { return e.failed(); });
  }
  bool any_successful() const {
    return any([](Element const& e) { return e.succeeded(); });
  }
  bool all_ready() const {
    return !any([](Element const& e) { return !e.is_ready(); });
  }
  bool all_failed() const {
    return !empty() && !any([](Element const& e) { return !e.failed(); });
  }
  bool all_successful() const {
    return !empty() && !any([](Element const& e) { return !e.succeeded(); });
  }

 protected:
  template <class Test>
  bool any(Test test) const {  // stops at the first element that settles it
    return std::any_of(m_elements.begin(), m_elements.end(), test);
  }

  std::vector<Element> m_elements;
};

}  // namespace impl

class AnyFutureBarrier;
class AnyResultBarrier;

namespace impl {

/// A future of any type.
class AnyFutureElement {
 public:
  template <class T>
  AnyFutureElement(Future<T> const& future) noexcept : m_cell(future.cell()) {}

  bool is_ready() const { return m_cell->is_ready(); }
  bool failed() const { return m_cell->has_error(); }
  bool succeeded() const { return m_cell->has_value(); }
  bool wait(RelativeTime const& timeout) const { return m_cell->wait(timeout); }
  FutureImplBase& cell() const noexcept { return *m_cell; }
  /// The typed future again; another type raises a std::bad_cast.
  template <class T>
  Future<T> get() const;

 private:
  RefCountPtr<FutureImplBase> m_cell;
};

/// A result of any type; never Empty.
class AnyResultElement {
 public:
  /// An Empty result raises "error.tqcore.result.notWaitable".
  template <class T>
  AnyResultElement(Result<T> const& result)
      : AnyResultElement(static_cast<ResultBase const&>(result)) {}

  bool is_ready() const { return m_result->is_ready(); }
  bool failed() const { return m_result->is_ready() && m_result->has_error(); }
  bool succeeded() const { return m_result->is_ready() && !m_result->has_error(); }
  bool wait(RelativeTime const& timeout) const { return m_result->wait(timeout); }
  void cancel(bool force, ErrorInfo::Ptr const& reason) const { m_result->cancel(force, reason); }
  /// The typed result again; another type raises a std::bad_cast.
  template <class T>
  Result<T> get() const;

 private:
  explicit AnyResultElement(ResultBase const& result) : m_result(result.impl()) {}
  RefCountPtr<ResultImplBase const> m_result;
};

}  // namespace impl

class TQCORE_EXPORT AnyFutureBarrier : public impl::BarrierBase<impl::AnyFutureElement> {
 public:
  using AnyFuture = impl::AnyFutureElement;
  /// Fails every future not yet set, with its own reference to `error`; returns how many this
  /// call set. A future completing at the same moment keeps its outcome and is not counted.
  size_t set_error_if_not_ready(ErrorInfo::Ptr const& error) const;

 private:
  friend class impl::AnyFutureElement;
  [[noreturn]] static void raise_bad_future_cast();
};

class TQCORE_EXPORT AnyResultBarrier : public impl::BarrierBase<impl::AnyResultElement> {
 public:
  using AnyResult = impl::AnyResultElement;
  /// cancel(true, reason) on every element, front to back.
  void cancel(ErrorInfo::Ptr const& reason) const {
    for (AnyResult const& element : m_elements) element.cancel(true, reason);
  }

 private:
  friend class impl::AnyResultElement;
  template <class T>
  static Result<T> typed(RefCountPtr<impl::ResultImplBase const> const& result) {
    return Result<T>::dynamic_cast_from(result);
  }
  [[noreturn]] static void raise_bad_result_cast();
};

template <class T>
Future<T> impl::AnyFutureElement::get() const {
  auto* typed = dynamic_cast<FutureImpl<T>*>(m_cell.get());
  if (typed == nullptr) AnyFutureBarrier::raise_bad_future_cast();
  return Future<T>(RefCountPtr<FutureImpl<T>>(typed));
}

template <class T>
Result<T> impl::AnyResultElement::get() const {
  Result<T> typed = AnyResultBarrier::typed<T>(m_result);
  if (!typed.is_waitable()) AnyResultBarrier::raise_bad_result_cast();
  return typed;
}

}  // namespace tqcore
