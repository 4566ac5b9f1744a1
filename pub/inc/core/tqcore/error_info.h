/// @file
/// ErrorInfo: the immutable, shared record by which every failure is reported.
///
/// Every fallible function of the library has one of three shapes:
///  1. `f_nothrow(...)` returns a RefCountPtr<ErrorInfo const>; null means success, results go
///     to output arguments. It never throws for a failure it reports.
///  2. `f(...)` returns its result by value and throws ErrorException; it is `f_nothrow`
///     followed by ErrorException::throw_if_error.
///  3. `f(..., RefCountPtr<ErrorInfo const>* error)` throws when `error` is null and stores the
///     record there otherwise, returning a default value; on success `*error` is untouched.
///
/// Failures: the factories raise only std::bad_alloc. A record keeps a pointer to text made with
/// `create_reference` or a `char const*` factory: that text must outlive every copy of the record.
///
/// @code
/// tqcore::ErrorInfo::Ptr const error = tqcore::ErrorInfo::from_errno(
///     TQCORE_SOURCE_LOCATION("open_config()", "$Id: //example/config.cpp#3 $"), ENOENT);
/// if (error && error->matches("error.errno.ENOENT")) {
///   std::cout << error->expanded_message().as_string() << '\n';
/// }
/// @endcode
#pragma once

#include <tqcore/error_code.h>
#include <tqcore/error_params.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <iosfwd>
#include <string>

namespace tqcore {

/// What went wrong (code, message template, parameters), where (host, function, file, line) and
/// why (the nested cause). Made only through the static factories; never changed afterwards.
class TQCORE_EXPORT ErrorInfo : public RefCounted<AtomicRefCount> {
 public:
  using Ptr = RefCountPtr<ErrorInfo const>;

  /// A record with a chosen depth for stream output.
  struct Trace {
    ErrorInfo const* error;
    unsigned int depth;
  };

  /// Keeps a pointer to `message` without copying it: pass literals only. The text is read
  /// when the message is expanded, so it must outlive every copy of the record; a computed
  /// message goes through the std::string forms below, which copy it.
  static Ptr create(ErrorCode const& code, char const* message, SourceLocation const& location);
  static Ptr create(ErrorCode const& code, char const* message, SourceLocation const& location,
                    Ptr nested);
  static Ptr create(ErrorCode const& code, char const* message, ErrorParams params,
                    SourceLocation const& location);
  static Ptr create(ErrorCode const& code, char const* message, ErrorParams params,
                    SourceLocation const& location, Ptr nested);
  /// Copy `message`: safe for a computed text, at the cost of one allocation.
  static Ptr create(ErrorCode const& code, std::string const& message,
                    SourceLocation const& location) {
    return create(code, SourceString::create_copy(message.c_str(), message.size()), location);
  }
  static Ptr create(ErrorCode const& code, std::string const& message,
                    SourceLocation const& location, Ptr nested) {
    return create(code, SourceString::create_copy(message.c_str(), message.size()), location,
                  std::move(nested));
  }
  static Ptr create(ErrorCode const& code, std::string const& message, ErrorParams params,
                    SourceLocation const& location) {
    return create(code, SourceString::create_copy(message.c_str(), message.size()),
                  std::move(params), location);
  }
  static Ptr create(ErrorCode const& code, std::string const& message, ErrorParams params,
                    SourceLocation const& location, Ptr nested) {
    return create(code, SourceString::create_copy(message.c_str(), message.size()),
                  std::move(params), location, std::move(nested));
  }
  static Ptr create(ErrorCode const& code, SourceString message, SourceLocation const& location);
  static Ptr create(ErrorCode const& code, SourceString message, SourceLocation const& location,
                    Ptr nested);
  static Ptr create(ErrorCode const& code, SourceString message, ErrorParams params,
                    SourceLocation const& location);
  static Ptr create(ErrorCode const& code, SourceString message, ErrorParams params,
                    SourceLocation const& location, Ptr nested);
  /// The one form with an explicit host name, for a record that comes from another host.
  static Ptr create(ErrorCode const& code, SourceString message, ErrorParams params,
                    SourceLocation const& location, Ptr nested, SourceString hostname);
  static Ptr create(TransferSource<ErrorCode> code, TransferSource<SourceString> message,
                    TransferSource<ErrorParams> params, TransferSource<SourceLocation> location,
                    TransferSource<Ptr> nested, TransferSource<SourceString> hostname);
  /// The same as create, with the record of `errno_value` as the cause.
  static Ptr create_with_nested_errno(ErrorCode const& code, char const* message,
                                      SourceLocation const& location, int errno_value);
  static Ptr create_with_nested_errno(ErrorCode const& code, char const* message,
                                      ErrorParams params, SourceLocation const& location,
                                      int errno_value);
  static Ptr create_with_nested_errno(ErrorCode const& code, SourceString message,
                                      SourceLocation const& location, int errno_value);
  static Ptr create_with_nested_errno(ErrorCode const& code, SourceString message,
                                      ErrorParams params, SourceLocation const& location,
                                      int errno_value);

  /// The record of an errno value: code "error.errno.<NAME>" (or "error.errno.<n>" for a number
  /// without a name), its message, and the parameter "errno". 0 gives an empty code.
  static Ptr from_errno(SourceLocation const& location, int value);
  static Ptr from_errno(SourceLocation const& location, Ptr nested, int value);
  /// The record of a Windows error code, as records from Windows hosts carry them: the nearest
  /// errno record, with the Windows record ("error.os.windows.<n>", parameter "winErrorCode")
  /// nested when `nest_original` asks for it or when no errno value fits.
  static Ptr from_winerror(SourceLocation const& location, uint32_t win_error, bool nest_original);
  static Ptr from_winerror(SourceLocation const& location, Ptr nested, uint32_t win_error,
                           bool nest_original);
  static Ptr from_winerror_nomap(SourceLocation const& location, Ptr nested, uint32_t win_error);
  /// A caught exception as a record in "error.exception"; an ErrorException gives back the
  /// record it carries, the same object.
  static Ptr from_exception(std::exception const& exception, SourceLocation const& location);
  /// For a catch-all block: "error.exception.unknown".
  static Ptr from_anonymous_exception(SourceLocation const& location);

  ErrorCode const& code() const noexcept { return m_code; }
  SourceString const& message() const noexcept { return m_message; }
  ErrorParams const& params() const noexcept { return m_params; }
  SourceLocation const& location() const noexcept { return m_location; }
  Ptr const& nested() const noexcept { return m_nested; }
  SourceString const& hostname() const noexcept { return m_hostname; }

  SourceString expanded_message() const { return m_params.expanded_message(m_message); }
  SourceString expanded_message(size_t limit) const {
    return m_params.expanded_message_with_limit(m_message, limit);
  }

  /// This record's code alone.
  bool matches(ErrorCode const& pattern) const noexcept { return m_code.matches(pattern); }
  bool matches(SourceString const& pattern) const noexcept {
    return m_code.matches(pattern.data(), pattern.size());
  }
  bool matches(char const* pattern) const noexcept { return m_code.matches(pattern); }
  bool matches(char const* pattern, size_t length) const noexcept {
    return m_code.matches(pattern, length);
  }
  /// This record or any record of its chain of causes.
  bool any_matches(ErrorCode const& pattern) const noexcept {
    return first_match(pattern.value().data(), pattern.value().size()) != nullptr;
  }
  bool any_matches(SourceString const& pattern) const noexcept {
    return first_match(pattern.data(), pattern.size()) != nullptr;
  }
  bool any_matches(char const* pattern) const noexcept {
    return first_match(pattern, ErrorCode::npos) != nullptr;
  }
  bool any_matches(char const* pattern, size_t length) const noexcept {
    return first_match(pattern, length) != nullptr;
  }
  /// The outermost record of the chain whose code matches, this one included; null if none.
  Ptr first_matching(ErrorCode const& pattern) const {
    return Ptr(first_match(pattern.value().data(), pattern.value().size()));
  }
  Ptr first_matching(SourceString const& pattern) const {
    return Ptr(first_match(pattern.data(), pattern.size()));
  }
  Ptr first_matching(char const* pattern) const {
    return Ptr(first_match(pattern, ErrorCode::npos));
  }
  Ptr first_matching(char const* pattern, size_t length) const {
    return Ptr(first_match(pattern, length));
  }

  /// The number in "nativeCode", else "errno", else "winErrorCode" (strtol, base 0); 0 if none
  /// is present or the first present one is not wholly a number.
  long native_code() const;

  int compare(ErrorInfo const& other) const;
  /// Decides on the nested records when there are any: two records whose causes are equal are
  /// equal whatever their own fields say. `compare` does not share that rule.
  bool operator==(ErrorInfo const& other) const;
  bool operator!=(ErrorInfo const& other) const { return !(*this == other); }
  bool operator<(ErrorInfo const& other) const { return compare(other) < 0; }
  bool operator<=(ErrorInfo const& other) const { return compare(other) <= 0; }
  bool operator>(ErrorInfo const& other) const { return compare(other) > 0; }
  bool operator>=(ErrorInfo const& other) const { return compare(other) >= 0; }

  uint64_t hash() const;

  /// Writes the report: one labelled line per field, each beginning with a newline and
  /// 2 * depth spaces, then the nested records one level deeper.
  virtual void write_trace(std::ostream& stream, unsigned int depth) const;

 protected:
  ErrorInfo(ErrorCode const& code, TransferSource<SourceString> message,
            SourceLocation const& location);
  ErrorInfo(ErrorCode const& code, TransferSource<SourceString> message,
            TransferSource<ErrorParams> params, SourceLocation const& location);
  ErrorInfo(ErrorCode const& code, TransferSource<SourceString> message,
            TransferSource<ErrorParams> params, SourceLocation const& location,
            TransferSource<Ptr> nested);
  ErrorInfo(TransferSource<ErrorCode> code, TransferSource<SourceString> message,
            TransferSource<ErrorParams> params, TransferSource<SourceLocation> location,
            TransferSource<Ptr> nested, TransferSource<SourceString> hostname);
  ~ErrorInfo() override;

 private:
  static Ptr from_errno_aux(SourceLocation const& location, Ptr nested, int value);
  /// Hands out the first reference of a record that nobody else can see yet.
  static Ptr owned(ErrorInfo* fresh) noexcept;
  ErrorInfo const* first_match(char const* pattern, size_t length) const noexcept;

  ErrorCode m_code;
  SourceString m_message;
  ErrorParams m_params;
  SourceLocation m_location;
  Ptr m_nested;
  SourceString m_hostname;
};

TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, ErrorInfo const& error);
/// Writes "##NULL##" for a null pointer.
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, ErrorInfo::Ptr const& error);
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, ErrorInfo::Trace const& trace);

}  // namespace tqcore
