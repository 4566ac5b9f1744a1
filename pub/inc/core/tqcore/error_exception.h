/// @file
/// ErrorException, the library's one exception class, and the basic throw functions.
///
/// Failures: the throw functions raise ErrorException (never anything else but std::bad_alloc while
/// building it); `what()` never raises.
///
/// @code
/// try {
///   tqcore::throw_error(tqcore::ErrorCode("error.example.disk.full"), "The disk is full.",
///                       TQCORE_SOURCE_LOCATION("example()", "$Id: //example/disk.cpp#2 $"));
/// } catch (tqcore::ErrorException const& e) {
///   if (e.any_matches("error.example.disk")) std::cerr << e.what();  // the whole report
/// }
/// @endcode
#pragma once

#include <tqcore/error_code.h>
#include <tqcore/error_info.h>
#include <tqcore/error_params.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <iosfwd>
#include <memory>
#include <string>

namespace tqcore {

/// A thin carrier of an ErrorInfo: an exception turns back into a result, and a result into an
/// exception, without loss. The record is never null.
class TQCORE_EXPORT ErrorException : public std::exception {
 public:
  /// A null record is replaced by one with the code "error.tqcore", so nothing throws empty.
  explicit ErrorException(ErrorInfo::Ptr const& error);
  explicit ErrorException(ErrorInfo::Ptr&& error);
  /// Shares the record; the copy builds its own what() text on demand.
  ErrorException(ErrorException const& other) noexcept;
  ErrorException& operator=(ErrorException const& other) noexcept;
  ~ErrorException() override;

  ErrorInfo::Ptr const& error() const noexcept { return m_error; }

  bool matches(char const* pattern) const noexcept { return m_error->matches(pattern); }
  bool matches(char const* pattern, size_t length) const noexcept {
    return m_error->matches(pattern, length);
  }
  bool matches(ErrorCode const& pattern) const noexcept { return m_error->matches(pattern); }
  bool matches(SourceString const& pattern) const noexcept { return m_error->matches(pattern); }
  bool any_matches(char const* pattern) const noexcept { return m_error->any_matches(pattern); }
  bool any_matches(char const* pattern, size_t length) const noexcept {
    return m_error->any_matches(pattern, length);
  }
  bool any_matches(ErrorCode const& pattern) const noexcept {
    return m_error->any_matches(pattern);
  }
  bool any_matches(SourceString const& pattern) const noexcept {
    return m_error->any_matches(pattern);
  }
  ErrorInfo::Ptr first_matching(char const* pattern) const {
    return m_error->first_matching(pattern);
  }
  ErrorInfo::Ptr first_matching(char const* pattern, size_t length) const {
    return m_error->first_matching(pattern, length);
  }
  ErrorInfo::Ptr first_matching(ErrorCode const& pattern) const {
    return m_error->first_matching(pattern);
  }
  ErrorInfo::Ptr first_matching(SourceString const& pattern) const {
    return m_error->first_matching(pattern);
  }

  /// The report of the record, built at most once and only when asked for. Never throws: if
  /// building fails the result is "tqcore::ErrorException".
  char const* what() const noexcept override;
  /// Throws a new exception with this record; derived classes keep their own type.
  [[noreturn]] virtual void rethrow() const;

  [[noreturn]] static void throw_error(ErrorInfo::Ptr const& error);
  /// Returns at once for null (success), throws otherwise: joins `f_nothrow` to `f`.
  static void throw_if_error(ErrorInfo::Ptr const& error) {
    if (error) throw_error(error);
  }

 protected:
  virtual std::string build_what_text() const;

 private:
  ErrorInfo::Ptr m_error;
  mutable std::atomic<std::string*> m_whatText{nullptr};
};

TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, ErrorException const& exception);

/// Each creates the record that ErrorInfo::create makes of the same arguments and throws it.
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorInfo::Ptr const& error);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, char const* message,
                                            SourceLocation const& location);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, char const* message,
                                            SourceLocation const& location, ErrorInfo::Ptr nested);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, char const* message,
                                            ErrorParams params, SourceLocation const& location);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, char const* message,
                                            ErrorParams params, SourceLocation const& location,
                                            ErrorInfo::Ptr nested);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, SourceString message,
                                            SourceLocation const& location);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, SourceString message,
                                            SourceLocation const& location, ErrorInfo::Ptr nested);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, SourceString message,
                                            ErrorParams params, SourceLocation const& location);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, SourceString message,
                                            ErrorParams params, SourceLocation const& location,
                                            ErrorInfo::Ptr nested);
[[noreturn]] TQCORE_EXPORT void throw_error(ErrorCode const& code, SourceString message,
                                            ErrorParams params, SourceLocation const& location,
                                            ErrorInfo::Ptr nested, SourceString hostname);

/// Throws the record of create with the record of `errno_value` as its cause.
[[noreturn]] TQCORE_EXPORT void throw_with_nested_errno(ErrorCode const& code, char const* message,
                                                        SourceLocation const& location,
                                                        int errno_value);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_errno(ErrorCode const& code, char const* message,
                                                        ErrorParams params,
                                                        SourceLocation const& location,
                                                        int errno_value);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_errno(ErrorCode const& code, SourceString message,
                                                        SourceLocation const& location,
                                                        int errno_value);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_errno(ErrorCode const& code, SourceString message,
                                                        ErrorParams params,
                                                        SourceLocation const& location,
                                                        int errno_value);
/// Throws the record of create with ErrorInfo::from_winerror as its cause.
[[noreturn]] TQCORE_EXPORT void throw_with_nested_winerror(ErrorCode const& code,
                                                           char const* message,
                                                           SourceLocation const& location,
                                                           uint32_t win_error, bool nest_original);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_winerror(ErrorCode const& code,
                                                           char const* message, ErrorParams params,
                                                           SourceLocation const& location,
                                                           uint32_t win_error, bool nest_original);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_winerror(ErrorCode const& code,
                                                           SourceString message,
                                                           SourceLocation const& location,
                                                           uint32_t win_error, bool nest_original);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_winerror(ErrorCode const& code,
                                                           SourceString message, ErrorParams params,
                                                           SourceLocation const& location,
                                                           uint32_t win_error, bool nest_original);
/// Throws the record of create with ErrorInfo::from_exception as its cause.
[[noreturn]] TQCORE_EXPORT void throw_with_nested_exception(ErrorCode const& code,
                                                            char const* message,
                                                            SourceLocation const& location,
                                                            std::exception const& cause);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_exception(ErrorCode const& code,
                                                            char const* message, ErrorParams params,
                                                            SourceLocation const& location,
                                                            std::exception const& cause);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_exception(ErrorCode const& code,
                                                            SourceString message,
                                                            SourceLocation const& location,
                                                            std::exception const& cause);
[[noreturn]] TQCORE_EXPORT void throw_with_nested_exception(ErrorCode const& code,
                                                            SourceString message,
                                                            ErrorParams params,
                                                            SourceLocation const& location,
                                                            std::exception const& cause);
/// Throw ErrorInfo::from_errno and ErrorInfo::from_winerror.
[[noreturn]] TQCORE_EXPORT void throw_errno(SourceLocation const& location, int value);
[[noreturn]] TQCORE_EXPORT void throw_errno(SourceLocation const& location, ErrorInfo::Ptr nested,
                                            int value);
[[noreturn]] TQCORE_EXPORT void throw_winerror(SourceLocation const& location, uint32_t win_error,
                                               bool nest_original);
[[noreturn]] TQCORE_EXPORT void throw_winerror(SourceLocation const& location,
                                               ErrorInfo::Ptr nested, uint32_t win_error,
                                               bool nest_original);

/// Sets errno to `value` and returns it; the Windows would-block number 10035 becomes 11.
TQCORE_EXPORT int set_errno(int value);

/// The errno value nearest to a Windows error code, by name; 0 where none fits. Records may
/// come from Windows hosts, so the mapping is kept as a pure function.
TQCORE_EXPORT int errno_from_winerror(uint32_t win_error);
/// Sets errno to the mapping of `win_error` (EINVAL where none fits) and returns it.
TQCORE_EXPORT int set_errno_from_winerror(uint32_t win_error);

namespace impl {
/// Raises "error.tqcore.string.embeddedNul": for a text that must become a C string and holds
/// a zero byte.
[[noreturn]] TQCORE_EXPORT void raise_embedded_nul_error();
}  // namespace impl

}  // namespace tqcore
