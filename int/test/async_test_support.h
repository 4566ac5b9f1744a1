// Helpers shared by the tests of the asynchronous results.
#pragma once

#include <tqcore/error_exception.h>
#include <tqcore/error_info.h>

namespace tqcore_test {

inline tqcore::ErrorInfo::Ptr failure(char const* code) {
  return tqcore::ErrorInfo::create(tqcore::ErrorCode(code), "failed",
                                   tqcore::SourceLocation("test", "async_test", 1));
}

// The record a call raises, or null when it returns.
template <class F>
tqcore::ErrorInfo::Ptr raised_by(F call) {
  try {
    call();
  } catch (tqcore::ErrorException const& e) {
    return e.error();
  }
  return nullptr;
}

}  // namespace tqcore_test
