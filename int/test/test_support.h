// Helpers shared by the tests: records to raise, the record a call raises, objects whose end
// the test chooses.
#pragma once

#include <tqcore/error_exception.h>
#include <tqcore/error_info.h>

#include <new>
#include <string>
#include <utility>

namespace tqcore_test {

// Built with AddressSanitizer: some checks differ (locals moved to its own frames, its
// allocator's locks across fork).
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

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

// The code of the record a call raises, or "nothing raised".
template <class F>
std::string code_raised_by(F call) {
  tqcore::ErrorInfo::Ptr const error = raised_by(call);
  return error ? error->code().value().as_string() : "nothing raised";
}

// An object whose end the test chooses, so that the exception of a raising destructor can be
// caught (std::optional::reset or a scope end in a noexcept context would terminate).
template <class Object>
class Placed {
 public:
  template <class... Args>
  explicit Placed(Args&&... args) {
    new (m_storage) Object(std::forward<Args>(args)...);
  }
  Object& operator*() { return *std::launder(reinterpret_cast<Object*>(m_storage)); }
  Object* operator->() { return &**this; }
  // Runs the destructor; what it raised, or null.
  tqcore::ErrorInfo::Ptr end() {
    return raised_by([this] { (**this).~Object(); });
  }

 private:
  alignas(Object) unsigned char m_storage[sizeof(Object)];
};

}  // namespace tqcore_test
