// Prints whether the signalling scope check is on in this process: "on" or "off".
#include <tqcore/error_exception.h>
#include <tqcore/result_control.h>

#include <cstdio>

int main() {
  tqcore::Future<> future;
  tqcore::ResultControlFutureRef<> control(future);
  tqcore::RefCountPtr<tqcore::AsyncResult<>> const handler = control.create_async_handler();
  try {
    handler->on_async_result_success();  // inside the control's scope
  } catch (tqcore::ErrorException const& e) {
    bool const on = e.error()->matches("error.tqcore.result.invalidAsyncSignalScope");
    std::puts(on ? "on" : "unexpected error");
    return on ? 0 : 1;
  }
  std::puts("off");
  return 0;
}
