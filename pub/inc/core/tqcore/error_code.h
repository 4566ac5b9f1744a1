/// @file
/// ErrorCode: the dotted, hierarchical identity of a kind of failure, and the library's codes.
///
/// Failures: codes are plain values; only copying a dynamic code may raise std::bad_alloc. The
/// library's own codes are the constants of `tqcore::error`.
///
/// @code
/// tqcore::ErrorCode const code("error.example.config.badPort");
/// bool const family = code.matches("error.example.config");  // true: prefix at a dot
/// bool const other = code.matches("error.example.conf");      // false: not at a dot
/// tqcore::ErrorCode const system = tqcore::ErrorCode::from_errno(ENOENT);  // error.errno.ENOENT
/// @endcode
#pragma once

#include <tqcore/refcount_ptr.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>

namespace tqcore {

/// A code is segments joined by '.', beginning with "error". Handlers ask whether a code lies
/// at or below a node (`matches`) rather than comparing for equality, so that more specific
/// codes can be added under existing ones.
class TQCORE_EXPORT ErrorCode {
 public:
  static constexpr size_t npos = SourceString::npos;

  ErrorCode() noexcept = default;
  ErrorCode(char const* text) : m_value(text) {}
  /// True: an unmeasured reference, usable for constant-initialised codes.
  constexpr ErrorCode(char const* text, bool reference) : m_value(text, reference) {}
  ErrorCode(char const* text, size_t length, bool reference) : m_value(text, length, reference) {}
  ErrorCode(SourceString const& value) noexcept : m_value(value) {}
  ErrorCode(TransferSource<SourceString> value) noexcept : m_value(value) {}
  ErrorCode(ErrorCode const&) noexcept = default;
  ErrorCode(ErrorCode&& other) noexcept = default;
  ErrorCode(TransferSource<ErrorCode> source) noexcept
      : m_value(std::move(source.source().m_value)) {}

  ErrorCode& operator=(ErrorCode const& other) {
    m_value = other.m_value;
    return *this;
  }
  ErrorCode& operator=(ErrorCode&& other) noexcept {
    m_value = std::move(other.m_value);
    return *this;
  }
  void assign(ErrorCode const& other) { m_value = other.m_value; }
  void assign(char const* text) { m_value = SourceString(text); }
  void assign(char const* text, bool reference) { m_value = SourceString(text, reference); }
  void assign(char const* text, size_t length) { m_value = SourceString(text, length); }
  template <class Int, class = std::enable_if_t<std::is_integral<Int>::value &&
                                                !std::is_same<Int, bool>::value>>
  void assign(char const* text, Int length) {
    assign(text, static_cast<size_t>(length));
  }
  void assign(char const* text, size_t length, bool reference) {
    m_value = SourceString(text, length, reference);
  }
  void clear() noexcept { m_value.clear(); }
  void swap(ErrorCode& other) noexcept { m_value.swap(other.m_value); }
  TransferSource<ErrorCode> transfer() noexcept { return TransferSource<ErrorCode>(*this); }

  SourceString const& value() const noexcept { return m_value; }
  bool empty() const noexcept { return m_value.empty(); }

  /// True if `pattern` is a prefix of this code that ends at a segment boundary. A null or
  /// empty pattern matches everything; "." matches every non-empty code. `length` may be npos.
  bool matches(ErrorCode const& pattern) const noexcept {
    return matches(pattern.m_value.data(), pattern.m_value.size());
  }
  bool matches(char const* pattern) const noexcept { return matches(pattern, npos); }
  bool matches(char const* pattern, size_t length) const noexcept;

  int compare(ErrorCode const& other) const noexcept { return m_value.compare(other.m_value); }

  /// The code of an errno value: the catalogue's constant, or "error.errno.<n>" for a number
  /// without a name, or empty for 0. The second form reads errno.
  static ErrorCode from_errno(long value);
  static ErrorCode from_errno();

  bool operator==(ErrorCode const& o) const noexcept { return m_value == o.m_value; }
  bool operator!=(ErrorCode const& o) const noexcept { return m_value != o.m_value; }
  bool operator<(ErrorCode const& o) const noexcept { return m_value < o.m_value; }
  bool operator<=(ErrorCode const& o) const noexcept { return m_value <= o.m_value; }
  bool operator>(ErrorCode const& o) const noexcept { return m_value > o.m_value; }
  bool operator>=(ErrorCode const& o) const noexcept { return m_value >= o.m_value; }
  bool operator==(char const* text) const noexcept { return m_value == text; }
  bool operator!=(char const* text) const noexcept { return m_value != text; }
  bool operator<(char const* text) const noexcept { return m_value < text; }
  bool operator<=(char const* text) const noexcept { return m_value <= text; }
  bool operator>(char const* text) const noexcept { return m_value > text; }
  bool operator>=(char const* text) const noexcept { return m_value >= text; }

  /// Appends "." and `segment` (just `segment` on an empty code); the result is always a
  /// dynamic copy, and a failure leaves the code unchanged. A null segment does nothing.
  void append_segment(char const* segment) { append_segment(segment, npos); }
  void append_segment(char const* segment, size_t length);

 private:
  SourceString m_value;
};

inline void swap(ErrorCode& a, ErrorCode& b) noexcept { a.swap(b); }

TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, ErrorCode const& code);

/// The codes of this library. Each is constant-initialised as an unmeasured reference to its
/// literal, so it costs no start-up work and is never copied.
namespace error {

extern TQCORE_EXPORT ErrorCode const tqcore;
extern TQCORE_EXPORT ErrorCode const tqcore_string;
extern TQCORE_EXPORT ErrorCode const tqcore_string_embeddedNul;
extern TQCORE_EXPORT ErrorCode const tqcore_string_utf8;
extern TQCORE_EXPORT ErrorCode const tqcore_string_utf8_invalid;
extern TQCORE_EXPORT ErrorCode const tqcore_string_utf8_overlong;
extern TQCORE_EXPORT ErrorCode const tqcore_string_utf8_partial;
extern TQCORE_EXPORT ErrorCode const tqcore_string_conversion;
extern TQCORE_EXPORT ErrorCode const tqcore_string_extraction;
extern TQCORE_EXPORT ErrorCode const tqcore_uuid;
extern TQCORE_EXPORT ErrorCode const tqcore_uuid_parse;
extern TQCORE_EXPORT ErrorCode const tqcore_processPrivileges_osError;
extern TQCORE_EXPORT ErrorCode const tqcore_hardware;
extern TQCORE_EXPORT ErrorCode const tqcore_hardware_timeError;
extern TQCORE_EXPORT ErrorCode const tqcore_hardware_priorityClass;
extern TQCORE_EXPORT ErrorCode const tqcore_hardware_threadPriority;
extern TQCORE_EXPORT ErrorCode const tqcore_hardware_threadAffinity;
extern TQCORE_EXPORT ErrorCode const tqcore_hardware_invalidCpuId;
extern TQCORE_EXPORT ErrorCode const tqcore_cast;
extern TQCORE_EXPORT ErrorCode const tqcore_cast_negativeToUnsigned;
extern TQCORE_EXPORT ErrorCode const tqcore_cast_valueTooBig;
extern TQCORE_EXPORT ErrorCode const tqcore_cast_valueTooBig_signReversal;
extern TQCORE_EXPORT ErrorCode const tqcore_future;
extern TQCORE_EXPORT ErrorCode const tqcore_future_nullError;
extern TQCORE_EXPORT ErrorCode const tqcore_objectManager;
extern TQCORE_EXPORT ErrorCode const tqcore_objectManager_closed;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base64;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base64_invalid;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base64_truncated;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base64_padding;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base32;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base32_invalid;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base32_truncated;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_base32_padding;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_hex;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_hex_invalid;
extern TQCORE_EXPORT ErrorCode const tqcore_transforms_hex_truncated;
extern TQCORE_EXPORT ErrorCode const tqcore_absoluteTime;
extern TQCORE_EXPORT ErrorCode const tqcore_absoluteTime_range;
extern TQCORE_EXPORT ErrorCode const tqcore_absoluteTime_invalidUtcString;
extern TQCORE_EXPORT ErrorCode const tqcore_relativeTime;
extern TQCORE_EXPORT ErrorCode const tqcore_relativeTime_invalidTimeString;
extern TQCORE_EXPORT ErrorCode const tqcore_simpleDateTime;
extern TQCORE_EXPORT ErrorCode const tqcore_simpleDateTime_invalidString;
extern TQCORE_EXPORT ErrorCode const tqcore_simpleDateTime_timezoneOffset;
extern TQCORE_EXPORT ErrorCode const tqcore_result;
extern TQCORE_EXPORT ErrorCode const tqcore_result_notWaitable;
extern TQCORE_EXPORT ErrorCode const tqcore_result_badParameter;
extern TQCORE_EXPORT ErrorCode const tqcore_result_notSignaled;
extern TQCORE_EXPORT ErrorCode const tqcore_result_redundantSignal;
extern TQCORE_EXPORT ErrorCode const tqcore_result_invalidAsyncSignalScope;
extern TQCORE_EXPORT ErrorCode const tqcore_result_wrongThread;
extern TQCORE_EXPORT ErrorCode const tqcore_result_cancelled;
extern TQCORE_EXPORT ErrorCode const tqcore_result_cancelled_innerOperation;
extern TQCORE_EXPORT ErrorCode const tqcore_result_invalidAsynchrony;
extern TQCORE_EXPORT ErrorCode const tqcore_task;
extern TQCORE_EXPORT ErrorCode const tqcore_task_notExecuted;
extern TQCORE_EXPORT ErrorCode const tqcore_task_redundantExecution;
extern TQCORE_EXPORT ErrorCode const tqcore_task_timeLimitExpired;
extern TQCORE_EXPORT ErrorCode const exception;
extern TQCORE_EXPORT ErrorCode const exception_badAlloc;
extern TQCORE_EXPORT ErrorCode const exception_badCast;
extern TQCORE_EXPORT ErrorCode const exception_badCast_badLexicalCast;
extern TQCORE_EXPORT ErrorCode const exception_logicError;
extern TQCORE_EXPORT ErrorCode const exception_logicError_domainError;
extern TQCORE_EXPORT ErrorCode const exception_logicError_invalidArgument;
extern TQCORE_EXPORT ErrorCode const exception_logicError_lengthError;
extern TQCORE_EXPORT ErrorCode const exception_logicError_outOfRange;
extern TQCORE_EXPORT ErrorCode const exception_runtimeError;
extern TQCORE_EXPORT ErrorCode const exception_runtimeError_rangeError;
extern TQCORE_EXPORT ErrorCode const exception_runtimeError_overflowError;
extern TQCORE_EXPORT ErrorCode const exception_runtimeError_underflowError;
extern TQCORE_EXPORT ErrorCode const exception_weakRefPromoteException;
extern TQCORE_EXPORT ErrorCode const exception_unknown;
extern TQCORE_EXPORT ErrorCode const exception_fault;
extern TQCORE_EXPORT ErrorCode const exception_fault_accessViolation;
extern TQCORE_EXPORT ErrorCode const exception_fault_cppException;
extern TQCORE_EXPORT ErrorCode const exception_assert;
extern TQCORE_EXPORT ErrorCode const errno_;
extern TQCORE_EXPORT ErrorCode const errno_EPERM;
extern TQCORE_EXPORT ErrorCode const errno_ENOENT;
extern TQCORE_EXPORT ErrorCode const errno_ESRCH;
extern TQCORE_EXPORT ErrorCode const errno_EINTR;
extern TQCORE_EXPORT ErrorCode const errno_EIO;
extern TQCORE_EXPORT ErrorCode const errno_ENXIO;
extern TQCORE_EXPORT ErrorCode const errno_E2BIG;
extern TQCORE_EXPORT ErrorCode const errno_ENOEXEC;
extern TQCORE_EXPORT ErrorCode const errno_EBADF;
extern TQCORE_EXPORT ErrorCode const errno_ECHILD;
extern TQCORE_EXPORT ErrorCode const errno_EAGAIN;
extern TQCORE_EXPORT ErrorCode const errno_ENOMEM;
extern TQCORE_EXPORT ErrorCode const errno_EACCES;
extern TQCORE_EXPORT ErrorCode const errno_EFAULT;
extern TQCORE_EXPORT ErrorCode const errno_EBUSY;
extern TQCORE_EXPORT ErrorCode const errno_EEXIST;
extern TQCORE_EXPORT ErrorCode const errno_EXDEV;
extern TQCORE_EXPORT ErrorCode const errno_ENODEV;
extern TQCORE_EXPORT ErrorCode const errno_ENOTDIR;
extern TQCORE_EXPORT ErrorCode const errno_EISDIR;
extern TQCORE_EXPORT ErrorCode const errno_EINVAL;
extern TQCORE_EXPORT ErrorCode const errno_ENFILE;
extern TQCORE_EXPORT ErrorCode const errno_EMFILE;
extern TQCORE_EXPORT ErrorCode const errno_ENOTTY;
extern TQCORE_EXPORT ErrorCode const errno_EFBIG;
extern TQCORE_EXPORT ErrorCode const errno_ENOSPC;
extern TQCORE_EXPORT ErrorCode const errno_ESPIPE;
extern TQCORE_EXPORT ErrorCode const errno_EROFS;
extern TQCORE_EXPORT ErrorCode const errno_EMLINK;
extern TQCORE_EXPORT ErrorCode const errno_EPIPE;
extern TQCORE_EXPORT ErrorCode const errno_EDOM;
extern TQCORE_EXPORT ErrorCode const errno_ERANGE;
extern TQCORE_EXPORT ErrorCode const errno_EDEADLK;
extern TQCORE_EXPORT ErrorCode const errno_ENAMETOOLONG;
extern TQCORE_EXPORT ErrorCode const errno_ENOLCK;
extern TQCORE_EXPORT ErrorCode const errno_ENOSYS;
extern TQCORE_EXPORT ErrorCode const errno_ENOTEMPTY;
extern TQCORE_EXPORT ErrorCode const errno_EILSEQ;
extern TQCORE_EXPORT ErrorCode const errno_ETIME;
extern TQCORE_EXPORT ErrorCode const errno_EINPROGRESS;
extern TQCORE_EXPORT ErrorCode const errno_EALREADY;
extern TQCORE_EXPORT ErrorCode const errno_ENOTSOCK;
extern TQCORE_EXPORT ErrorCode const errno_EDESTADDRREQ;
extern TQCORE_EXPORT ErrorCode const errno_EMSGSIZE;
extern TQCORE_EXPORT ErrorCode const errno_EPROTOTYPE;
extern TQCORE_EXPORT ErrorCode const errno_ENOPROTOOPT;
extern TQCORE_EXPORT ErrorCode const errno_EPROTONOSUPPORT;
extern TQCORE_EXPORT ErrorCode const errno_ESOCKTNOSUPPORT;
extern TQCORE_EXPORT ErrorCode const errno_EOPNOTSUPP;
extern TQCORE_EXPORT ErrorCode const errno_EPFNOSUPPORT;
extern TQCORE_EXPORT ErrorCode const errno_EAFNOSUPPORT;
extern TQCORE_EXPORT ErrorCode const errno_EADDRINUSE;
extern TQCORE_EXPORT ErrorCode const errno_EADDRNOTAVAIL;
extern TQCORE_EXPORT ErrorCode const errno_ENETDOWN;
extern TQCORE_EXPORT ErrorCode const errno_ENETUNREACH;
extern TQCORE_EXPORT ErrorCode const errno_ENETRESET;
extern TQCORE_EXPORT ErrorCode const errno_ECONNABORTED;
extern TQCORE_EXPORT ErrorCode const errno_ECONNRESET;
extern TQCORE_EXPORT ErrorCode const errno_ENOBUFS;
extern TQCORE_EXPORT ErrorCode const errno_EISCONN;
extern TQCORE_EXPORT ErrorCode const errno_ENOTCONN;
extern TQCORE_EXPORT ErrorCode const errno_ESHUTDOWN;
extern TQCORE_EXPORT ErrorCode const errno_ETOOMANYREFS;
extern TQCORE_EXPORT ErrorCode const errno_ETIMEDOUT;
extern TQCORE_EXPORT ErrorCode const errno_ECONNREFUSED;
extern TQCORE_EXPORT ErrorCode const errno_ELOOP;
extern TQCORE_EXPORT ErrorCode const errno_EHOSTDOWN;
extern TQCORE_EXPORT ErrorCode const errno_EHOSTUNREACH;
extern TQCORE_EXPORT ErrorCode const errno_EUSERS;
extern TQCORE_EXPORT ErrorCode const errno_EDQUOT;
extern TQCORE_EXPORT ErrorCode const errno_ESTALE;
extern TQCORE_EXPORT ErrorCode const errno_EREMOTE;
extern TQCORE_EXPORT ErrorCode const errno_EPROCLIM;
extern TQCORE_EXPORT ErrorCode const errno_ENOTBLK;
extern TQCORE_EXPORT ErrorCode const errno_ETXTBSY;
extern TQCORE_EXPORT ErrorCode const errno_EUCLEAN;
extern TQCORE_EXPORT ErrorCode const os;
extern TQCORE_EXPORT ErrorCode const os_windows;

}  // namespace error
}  // namespace tqcore

namespace std {
/// By the code's text, as equality compares it.
template <>
struct hash<tqcore::ErrorCode> {
  size_t operator()(tqcore::ErrorCode const& code) const noexcept {
    return hash<string_view>()(string_view(code.value().data(), code.value().size()));
  }
};
}  // namespace std
