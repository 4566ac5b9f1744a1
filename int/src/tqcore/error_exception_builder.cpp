#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>

#include <new>
#include <string>

#include "error_exception_internal.h"

namespace tqcore {

// ---- ErrorBuilder ----------------------------------------------------------------------------

ErrorBuilder::ErrorBuilder() = default;
ErrorBuilder::~ErrorBuilder() = default;

ErrorInfo::Ptr ErrorBuilder::create(ErrorCode const& code, SourceLocation const& location) const {
  return create(code, location, 0, ErrorInfo::Ptr());
}

ErrorInfo::Ptr ErrorBuilder::create(ErrorCode const& code, SourceLocation const& location,
                                    ErrorInfo::Ptr const& nested) const {
  return create(code, location, 0, nested);
}

ErrorInfo::Ptr ErrorBuilder::create(ErrorCode const& code, SourceLocation const& location,
                                    long native_code) const {
  return create(code, location, native_code, ErrorInfo::Ptr());
}

ErrorInfo::Ptr ErrorBuilder::create(ErrorCode const& code, SourceLocation const& location,
                                    long native_code, ErrorInfo::Ptr const& nested) const {
  ErrorParams params;
  if (native_code != 0) {
    params.add(SourceString::create_reference("nativeCode"), std::to_string(native_code));
  }
  if (bad()) throw std::bad_alloc();  // the stream lost part of the message
  std::string const text = str();
  return ErrorInfo::create(code, SourceString(text.data(), text.size()), std::move(params),
                           location, nested);
}

ErrorInfo::Ptr ErrorBuilder::create(ErrorCode const& code, SourceLocation const& location,
                                    long native_code, ErrorInfo::Ptr const& nested,
                                    RefCountPtr<RefCounted<AtomicRefCount>> const&) const {
  return create(code, location, native_code, nested);
}

ErrorInfo::Ptr ErrorBuilder::create_with_nested_errno(ErrorCode const& code,
                                                      SourceLocation const& location,
                                                      int errno_value) const {
  return create(code, location, 0, ErrorInfo::from_errno(location, errno_value));
}

void ErrorBuilder::throw_error(ErrorCode const& code, SourceLocation const& location) const {
  ErrorException::throw_error(create(code, location));
}

void ErrorBuilder::throw_error(ErrorCode const& code, SourceLocation const& location,
                               ErrorInfo::Ptr const& nested) const {
  ErrorException::throw_error(create(code, location, nested));
}

void ErrorBuilder::throw_error(ErrorCode const& code, SourceLocation const& location,
                               long native_code) const {
  ErrorException::throw_error(create(code, location, native_code));
}

void ErrorBuilder::throw_error(ErrorCode const& code, SourceLocation const& location,
                               long native_code, ErrorInfo::Ptr const& nested) const {
  ErrorException::throw_error(create(code, location, native_code, nested));
}

void ErrorBuilder::throw_error(ErrorCode const& code, SourceLocation const& location,
                               long native_code, ErrorInfo::Ptr const& nested,
                               RefCountPtr<RefCounted<AtomicRefCount>> const& context) const {
  ErrorException::throw_error(create(code, location, native_code, nested, context));
}

void ErrorBuilder::throw_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                           int errno_value) const {
  ErrorException::throw_error(create_with_nested_errno(code, location, errno_value));
}

// ---- ErrorComposer ---------------------------------------------------------------------------

ErrorInfo::Ptr ErrorComposer::create(ErrorCode const& code, SourceLocation const& location) {
  return create(code, location, ErrorInfo::Ptr());
}

ErrorInfo::Ptr ErrorComposer::create(ErrorCode const& code, SourceLocation const& location,
                                     ErrorInfo::Ptr nested) {
  // The message and parameters move into the record only once its memory is had: should that
  // fail, the composer still holds them and may try again.
  ErrorCode code_copy(code);
  SourceLocation location_copy(location);
  SourceString hostname(impl::error_info_hostname());
  return ErrorInfo::create(code_copy.transfer(), m_message.transfer(), m_params.transfer(),
                           location_copy.transfer(), nested.transfer(), hostname.transfer());
}

ErrorInfo::Ptr ErrorComposer::create_with_nested_errno(ErrorCode const& code,
                                                       SourceLocation const& location,
                                                       int errno_value) {
  return create(code, location, ErrorInfo::from_errno(location, errno_value));
}

ErrorInfo::Ptr ErrorComposer::create_with_nested_winerror(ErrorCode const& code,
                                                          SourceLocation const& location,
                                                          uint32_t win_error, bool nest_original) {
  return create(code, location, ErrorInfo::from_winerror(location, win_error, nest_original));
}

ErrorInfo::Ptr ErrorComposer::create_with_nested_exception(ErrorCode const& code,
                                                           SourceLocation const& location,
                                                           std::exception const& cause) {
  return create(code, location, ErrorInfo::from_exception(cause, location));
}

void ErrorComposer::deliver(ErrorInfo::Ptr* error, ErrorInfo::Ptr record) {
  if (error == nullptr) ErrorException::throw_error(record);
  error->swap(record);  // the old content is released with `record`
}

void ErrorComposer::create_transfer(ErrorInfo::Ptr* error, ErrorCode const& code,
                                    SourceLocation const& location) {
  deliver(error, create(code, location));
}

void ErrorComposer::create_transfer(ErrorInfo::Ptr* error, ErrorCode const& code,
                                    SourceLocation const& location, ErrorInfo::Ptr nested) {
  deliver(error, create(code, location, std::move(nested)));
}

void ErrorComposer::create_transfer_with_nested_errno(ErrorInfo::Ptr* error, ErrorCode const& code,
                                                      SourceLocation const& location,
                                                      int errno_value) {
  deliver(error, create_with_nested_errno(code, location, errno_value));
}

void ErrorComposer::create_transfer_with_nested_winerror(ErrorInfo::Ptr* error,
                                                         ErrorCode const& code,
                                                         SourceLocation const& location,
                                                         uint32_t win_error, bool nest_original) {
  deliver(error, create_with_nested_winerror(code, location, win_error, nest_original));
}

void ErrorComposer::create_transfer_with_nested_exception(ErrorInfo::Ptr* error,
                                                          ErrorCode const& code,
                                                          SourceLocation const& location,
                                                          std::exception const& cause) {
  deliver(error, create_with_nested_exception(code, location, cause));
}

void ErrorComposer::throw_error(ErrorCode const& code, SourceLocation const& location) {
  ErrorException::throw_error(create(code, location));
}

void ErrorComposer::throw_error(ErrorCode const& code, SourceLocation const& location,
                                ErrorInfo::Ptr nested) {
  ErrorException::throw_error(create(code, location, std::move(nested)));
}

void ErrorComposer::throw_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                            int errno_value) {
  ErrorException::throw_error(create_with_nested_errno(code, location, errno_value));
}

void ErrorComposer::throw_with_nested_winerror(ErrorCode const& code,
                                               SourceLocation const& location, uint32_t win_error,
                                               bool nest_original) {
  ErrorException::throw_error(
      create_with_nested_winerror(code, location, win_error, nest_original));
}

void ErrorComposer::throw_with_nested_exception(ErrorCode const& code,
                                                SourceLocation const& location,
                                                std::exception const& cause) {
  ErrorException::throw_error(create_with_nested_exception(code, location, cause));
}

}  // namespace tqcore
