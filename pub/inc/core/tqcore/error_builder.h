/// @file
/// Convenient ways to a record at a raising site: a stream for the message (ErrorBuilder) or a
/// template with parameters collected fluently (ErrorComposer).
///
/// Failures: building a record raises only std::bad_alloc; `throw_error` raises ErrorException with
/// the record built.
///
/// @code
/// tqcore::ErrorBuilder message;
/// message << "Queue '" << "orders" << "' is full (" << 1000 << " entries).";
/// tqcore::ErrorInfo::Ptr const error = message.create(
///     tqcore::ErrorCode("error.example.queue.full"),
///     TQCORE_SOURCE_LOCATION("example()", "$Id: //example/queue.cpp#1 $"));
/// @endcode
#pragma once

#include <tqcore/error_code.h>
#include <tqcore/error_info.h>
#include <tqcore/error_params.h>
#include <tqcore/refcount_ptr.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstdint>
#include <exception>
#include <sstream>
#include <string_view>

namespace tqcore {

/// An output string stream whose text becomes the message of the record it creates. The text is
/// copied, so the record outlives the builder; `create` leaves the stream's text as it is.
class TQCORE_EXPORT ErrorBuilder : public std::ostringstream {
 public:
  ErrorBuilder();
  ~ErrorBuilder() override;

  ErrorInfo::Ptr create(ErrorCode const& code, SourceLocation const& location) const;
  ErrorInfo::Ptr create(ErrorCode const& code, SourceLocation const& location,
                        ErrorInfo::Ptr const& nested) const;
  /// A non-zero `native_code` becomes the parameter "nativeCode".
  ErrorInfo::Ptr create(ErrorCode const& code, SourceLocation const& location,
                        long native_code) const;
  ErrorInfo::Ptr create(ErrorCode const& code, SourceLocation const& location, long native_code,
                        ErrorInfo::Ptr const& nested) const;
  /// `context` is accepted for callers that have one, and not used.
  ErrorInfo::Ptr create(ErrorCode const& code, SourceLocation const& location, long native_code,
                        ErrorInfo::Ptr const& nested,
                        RefCountPtr<RefCounted<AtomicRefCount>> const& context) const;
  ErrorInfo::Ptr create_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                          int errno_value) const;

  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location) const;
  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location,
                                ErrorInfo::Ptr const& nested) const;
  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location,
                                long native_code) const;
  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location,
                                long native_code, ErrorInfo::Ptr const& nested) const;
  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location,
                                long native_code, ErrorInfo::Ptr const& nested,
                                RefCountPtr<RefCounted<AtomicRefCount>> const& context) const;
  [[noreturn]] void throw_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                            int errno_value) const;
};

/// A message template and its parameters, collected one call after another, then created or
/// thrown. Each creation moves both into the record, so one composer gives one record.
///
/// @code
/// ErrorComposer("No route to {@host}.").param("host", 4, name.data(), name.size())
///     .throw_error(error::tqcore, TQCORE_SOURCE_LOCATION("net::route()", kFileId));
/// @endcode
class TQCORE_EXPORT ErrorComposer {
 public:
  ErrorComposer() = default;
  /// For literals: the text is kept as a reference.
  explicit ErrorComposer(char const* message) : m_message(message, true) {}
  explicit ErrorComposer(SourceString message) : m_message(std::move(message)) {}
  ErrorComposer(TransferSource<SourceString> message) : m_message(message) {}
  ErrorComposer(SourceString message, ErrorParams params)
      : m_message(std::move(message)), m_params(params.transfer()) {}

  ErrorComposer& message(char const* text) {
    m_message = SourceString(text, true);
    return *this;
  }
  ErrorComposer& message(SourceString text) {
    m_message = std::move(text);
    return *this;
  }
  ErrorComposer& message(TransferSource<SourceString> text) {
    m_message = text;
    return *this;
  }
  SourceString const& message() const noexcept { return m_message; }
  ErrorComposer& params(ErrorParams params) {
    m_params = params.transfer();
    return *this;
  }
  ErrorParams& params() noexcept { return m_params; }
  ErrorParams const& params() const noexcept { return m_params; }
  ErrorComposer& param(char const* name, size_t name_length, char const* value,
                       size_t value_length) {
    m_params.add(name, name_length, value, value_length);
    return *this;
  }
  /// A parameter under a literal name, which costs no copy of the name.
  ErrorComposer& param(SourceString const& name, std::string_view value) {
    m_params.add(name, value);
    return *this;
  }

  ErrorInfo::Ptr create(ErrorCode const& code, SourceLocation const& location);
  ErrorInfo::Ptr create(ErrorCode const& code, SourceLocation const& location,
                        ErrorInfo::Ptr nested);
  ErrorInfo::Ptr create_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                          int errno_value);
  ErrorInfo::Ptr create_with_nested_winerror(ErrorCode const& code, SourceLocation const& location,
                                             uint32_t win_error, bool nest_original);
  ErrorInfo::Ptr create_with_nested_exception(ErrorCode const& code, SourceLocation const& location,
                                              std::exception const& cause);

  /// The third shape of a fallible call: throws when `error` is null, stores the record in
  /// `*error` (releasing what it held) otherwise.
  void create_transfer(ErrorInfo::Ptr* error, ErrorCode const& code,
                       SourceLocation const& location);
  void create_transfer(ErrorInfo::Ptr* error, ErrorCode const& code, SourceLocation const& location,
                       ErrorInfo::Ptr nested);
  void create_transfer_with_nested_errno(ErrorInfo::Ptr* error, ErrorCode const& code,
                                         SourceLocation const& location, int errno_value);
  void create_transfer_with_nested_winerror(ErrorInfo::Ptr* error, ErrorCode const& code,
                                            SourceLocation const& location, uint32_t win_error,
                                            bool nest_original);
  void create_transfer_with_nested_exception(ErrorInfo::Ptr* error, ErrorCode const& code,
                                             SourceLocation const& location,
                                             std::exception const& cause);

  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location);
  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location,
                                ErrorInfo::Ptr nested);
  [[noreturn]] void throw_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                            int errno_value);
  [[noreturn]] void throw_with_nested_winerror(ErrorCode const& code,
                                               SourceLocation const& location, uint32_t win_error,
                                               bool nest_original);
  [[noreturn]] void throw_with_nested_exception(ErrorCode const& code,
                                                SourceLocation const& location,
                                                std::exception const& cause);

 private:
  static void deliver(ErrorInfo::Ptr* error, ErrorInfo::Ptr record);

  SourceString m_message;
  ErrorParams m_params;
};

}  // namespace tqcore
