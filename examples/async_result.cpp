// An operation that hands back a Result<T> and completes on a worker thread; the caller picks
// how the outcome is delivered by the control it passes.
#include <tqcore/result_auto_signal.h>
#include <tqcore/result_control.h>

#include <iostream>
#include <stdexcept>
#include <thread>

// Squares `n` on a worker. A negative `n` fails: the guard turns the exception into the
// handler's error, so no caller waits for ever.
tqcore::Result<int> square_later(int n, tqcore::ResultControl<int> const& control) {
  tqcore::RefCountPtr<tqcore::AsyncResult<int>> handler = control.create_async_handler();
  tqcore::Result<int> result = handler->get_result();
  std::thread([handler, n] {
    tqcore::AutoSignalAsyncResult<int> guard(handler);
    try {
      if (n < 0) throw std::invalid_argument("no squares of negative numbers here");
      guard.signal_success(n * n);
    } catch (std::exception const& e) {
      guard.set_failure(tqcore::ErrorInfo::from_exception(
          e, TQCORE_SOURCE_LOCATION("square_later()", "$Id: //examples/async_result.cpp#1 $")));
    }
  }).detach();
  return result;
}

int main() {
  tqcore::Future<int> answer;
  tqcore::Result<int> const result = square_later(12, tqcore::ResultControlFutureRef<int>(answer));
  std::cout << "12 squared is " << result.get() << '\n';

  tqcore::Future<int> failed;
  tqcore::Result<int> const refused = square_later(-1, tqcore::ResultControlFutureRef<int>(failed));
  refused.wait();
  std::cout << "-1 gave: " << refused.error_info()->code().value().as_string() << '\n';
  return result.get() == 144 && refused.error_info() ? 0 : 1;
}
