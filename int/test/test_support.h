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

// A dump file's name: "<program>_<YYYYMMDDhhmmss>_<process id>_<thread id in hex>.dmp".
inline bool is_dump_name(std::string const& name, std::string const& program) {
  auto const all_of = [](std::string const& text, char const* characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
  };
  std::string const prefix = program + "_";
  std::string const suffix = ".dmp";
  if (name.rfind(prefix, 0) != 0 || name.size() < prefix.size() + suffix.size() ||
      name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
    return false;
  }
  std::string const fields =
      name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
  size_t const first = fields.find('_');
  size_t const second = fields.find('_', first + 1);
  if (first != 14 || second == std::string::npos) return false;
  return all_of(fields.substr(0, first), "0123456789") &&
         all_of(fields.substr(first + 1, second - first - 1), "0123456789") &&
         all_of(fields.substr(second + 1), "0123456789abcdef");
}

}  // namespace tqcore_test
