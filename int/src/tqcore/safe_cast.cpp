#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>
#include <tqcore/safe_cast.h>

#include <string>

#include "error_exception_internal.h"
#include "file_ids.h"

namespace tqcore {
namespace impl {
namespace {

template <class Value>
[[noreturn]] void throw_cast_error(ErrorCode const& code, char const* message, char const* function,
                                   unsigned int line, std::type_info const& dest_type,
                                   Value value) {
  ErrorParams params;
  params.add(SourceString::create_reference("srcValue"), std::to_string(value));
  params.add(SourceString::create_reference("destType"), demangled_type_name(dest_type));
  throw_error(code, message, std::move(params),
              SourceLocation(function, TQCORE_FILE_ID("safe_cast"), line));
}

char const kTooBig[] =
    "Source value of cast does not fit into destination type.  SrcValue: {@srcValue}, "
    "DestType: {@destType}";

}  // namespace

void safe_cast_throw_negative_to_unsigned(std::type_info const& dest_type, long long value) {
  throw_cast_error(error::tqcore_cast_negativeToUnsigned,
                   "Attempt to cast negative value into unsigned type.  SrcValue: {@srcValue}, "
                   "DestType: {@destType}",
                   "tqcore::impl::safe_cast_throw_negative_to_unsigned()", 41, dest_type, value);
}

void safe_cast_throw_value_truncated(std::type_info const& dest_type, unsigned long long value) {
  throw_cast_error(error::tqcore_cast_valueTooBig, kTooBig,
                   "tqcore::impl::safe_cast_throw_value_truncated()", 53, dest_type, value);
}

void safe_cast_throw_value_truncated(std::type_info const& dest_type, long long value) {
  throw_cast_error(error::tqcore_cast_valueTooBig, kTooBig,
                   "tqcore::impl::safe_cast_throw_value_truncated()", 65, dest_type, value);
}

void safe_cast_throw_sign_reversal(std::type_info const& dest_type, unsigned long long value) {
  throw_cast_error(error::tqcore_cast_valueTooBig_signReversal,
                   "Unsigned source value of cast does not fit into signed destination type "
                   "(sign reversal).  SrcValue: {@srcValue}, DestType: {@destType}",
                   "tqcore::impl::safe_cast_throw_sign_reversal()", 77, dest_type, value);
}

void throw_bad_dynamic_ref_cast(void const* source) {
  if (source == nullptr) throw BadCastNullRef();
  throw BadDynamicRefCast();
}

char const* BadCastNullRef::what() const noexcept {
  return "Bad tqcore::dynamic_reference_cast<> (NULL source)";
}

char const* BadDynamicRefCast::what() const noexcept {
  return "Bad tqcore::dynamic_reference_cast<> (cast failed)";
}

}  // namespace impl
}  // namespace tqcore
