// Caught exceptions of other kinds as records of the family "error.exception".
#include <tqcore/error_exception.h>
#include <tqcore/refcount_ptr.h>

#include <cxxabi.h>
#include <boost/lexical_cast/bad_lexical_cast.hpp>

#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "error_exception_internal.h"

namespace tqcore {
namespace {

SourceString what_of(std::exception const& e) { return SourceString(e.what()); }

// The code of the most derived recognised class; null for none of them.
ErrorCode const* standard_code(std::exception const& e) {
  if (dynamic_cast<std::bad_alloc const*>(&e)) return &error::exception_badAlloc;
  if (dynamic_cast<std::bad_cast const*>(&e)) return &error::exception_badCast;
  if (dynamic_cast<std::domain_error const*>(&e)) return &error::exception_logicError_domainError;
  if (dynamic_cast<std::invalid_argument const*>(&e)) {
    return &error::exception_logicError_invalidArgument;
  }
  if (dynamic_cast<std::length_error const*>(&e)) return &error::exception_logicError_lengthError;
  if (dynamic_cast<std::out_of_range const*>(&e)) return &error::exception_logicError_outOfRange;
  if (dynamic_cast<std::logic_error const*>(&e)) return &error::exception_logicError;
  if (dynamic_cast<std::range_error const*>(&e)) return &error::exception_runtimeError_rangeError;
  if (dynamic_cast<std::overflow_error const*>(&e)) {
    return &error::exception_runtimeError_overflowError;
  }
  if (dynamic_cast<std::underflow_error const*>(&e)) {
    return &error::exception_runtimeError_underflowError;
  }
  if (dynamic_cast<std::runtime_error const*>(&e)) return &error::exception_runtimeError;
  if (dynamic_cast<WeakRefPromoteException const*>(&e)) {
    return &error::exception_weakRefPromoteException;
  }
  return nullptr;
}

}  // namespace

// GCC's type names are mangled; a reader wants the demangled one, or the raw one if that fails.
std::string impl::demangled_type_name(std::type_info const& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(type.name());
}

ErrorInfo::Ptr ErrorInfo::from_exception(std::exception const& e, SourceLocation const& location) {
  if (auto const* carrier = dynamic_cast<ErrorException const*>(&e)) return carrier->error();
  if (auto const* lexical = dynamic_cast<boost::bad_lexical_cast const*>(&e)) {
    ErrorParams params;
    params.add(SourceString::create_reference("sourceType"),
               impl::demangled_type_name(lexical->source_type()));
    params.add(SourceString::create_reference("targetType"),
               impl::demangled_type_name(lexical->target_type()));
    return create(error::exception_badCast_badLexicalCast,
                  "Bad lexical cast: Unable to convert value of type '{@sourceType}' to "
                  "'{@targetType}'",
                  std::move(params), location);
  }
  // bad_lexical_cast is a bad_cast, and every row below stands after its more derived kin.
  if (ErrorCode const* code = standard_code(e)) return create(*code, what_of(e), location);
  ErrorParams params;
  params.add(SourceString::create_reference("classname"), impl::demangled_type_name(typeid(e)));
  return create(error::exception, what_of(e), std::move(params), location);
}

}  // namespace tqcore
