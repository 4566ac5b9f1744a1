/// @file
/// Checked casts: integer narrowing that refuses to lose information, and a dynamic cast of a
/// reference that tells a null source from a source of the wrong type.
///
/// Failures: `safe_cast` raises "error.tqcore.cast.negativeToUnsigned",
/// "error.tqcore.cast.valueTooBig" or "error.tqcore.cast.valueTooBig.signReversal";
/// `dynamic_reference_cast` raises BadCastNullRef for a null source and BadDynamicRefCast for one
/// of the wrong type.
///
/// @code
/// int const size = tqcore::safe_cast<int>(size_t{1024});
/// try {
///   tqcore::safe_cast<uint8_t>(300);
/// } catch (tqcore::ErrorException const& e) {
///   std::cerr << e.what();  // error.tqcore.cast...
/// }
/// @endcode
#pragma once

#include <tqcore/refcount_ptr.h>
#include <tqcore/tqcore_export.h>

#include <limits>
#include <type_traits>
#include <typeinfo>

namespace tqcore {
namespace impl {

/// The failure paths stay out of line, so that each cast inlines to a comparison or two.
[[noreturn]] TQCORE_EXPORT void safe_cast_throw_negative_to_unsigned(
    std::type_info const& dest_type, long long value);
[[noreturn]] TQCORE_EXPORT void safe_cast_throw_value_truncated(std::type_info const& dest_type,
                                                                unsigned long long value);
[[noreturn]] TQCORE_EXPORT void safe_cast_throw_value_truncated(std::type_info const& dest_type,
                                                                long long value);
[[noreturn]] TQCORE_EXPORT void safe_cast_throw_sign_reversal(std::type_info const& dest_type,
                                                              unsigned long long value);
/// Throws BadCastNullRef for a null source, BadDynamicRefCast otherwise.
[[noreturn]] TQCORE_EXPORT void throw_bad_dynamic_ref_cast(void const* source);

class TQCORE_EXPORT BadCastNullRef : public std::bad_cast {
 public:
  char const* what() const noexcept override;
};

class TQCORE_EXPORT BadDynamicRefCast : public std::bad_cast {
 public:
  char const* what() const noexcept override;
};

}  // namespace impl

/// Converts between integer types, raising "error.tqcore.cast.negativeToUnsigned",
/// "error.tqcore.cast.valueTooBig" or "error.tqcore.cast.valueTooBig.signReversal" (an unsigned
/// value that fits the target's width but not its sign) instead of changing the value.
template <class To, class From>
To safe_cast(From value) {
  static_assert(std::is_integral<To>::value && std::is_integral<From>::value,
                "safe_cast converts between integer types");
  using ToLimits = std::numeric_limits<To>;
  if constexpr (std::is_signed<From>::value && !std::is_signed<To>::value) {
    if (value < 0) impl::safe_cast_throw_negative_to_unsigned(typeid(To), value);
    if (static_cast<std::make_unsigned_t<From>>(value) > ToLimits::max()) {
      impl::safe_cast_throw_value_truncated(typeid(To), static_cast<long long>(value));
    }
  } else if constexpr (!std::is_signed<From>::value && std::is_signed<To>::value) {
    if (value > static_cast<std::make_unsigned_t<To>>(ToLimits::max())) {
      if (value <= std::numeric_limits<std::make_unsigned_t<To>>::max()) {
        impl::safe_cast_throw_sign_reversal(typeid(To), value);
      }
      impl::safe_cast_throw_value_truncated(typeid(To), static_cast<unsigned long long>(value));
    }
  } else if constexpr (std::is_signed<From>::value) {
    if (value < ToLimits::min() || value > ToLimits::max()) {
      impl::safe_cast_throw_value_truncated(typeid(To), static_cast<long long>(value));
    }
  } else if (value > ToLimits::max()) {
    impl::safe_cast_throw_value_truncated(typeid(To), static_cast<unsigned long long>(value));
  }
  return static_cast<To>(value);
}

/// A dynamic cast to a reference: std::bad_cast for a null source (BadCastNullRef) or a source of
/// another type (BadDynamicRefCast), never a null result.
template <class To, class From>
To& dynamic_reference_cast(From* source) {
  if (source != nullptr) {
    if (To* target = dynamic_cast<To*>(source)) return *target;
  }
  impl::throw_bad_dynamic_ref_cast(source);
}

template <class To, class From>
To& dynamic_reference_cast(RefCountPtr<From> const& source) {
  return dynamic_reference_cast<To>(source.get());
}

}  // namespace tqcore
