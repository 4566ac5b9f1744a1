#include <tqcore/error_code.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

namespace tqcore {

bool ErrorCode::matches(char const* pattern, size_t length) const noexcept {
  if (pattern == nullptr) return true;
  if (length == npos) length = std::strlen(pattern);
  size_t code_length = m_value.size();
  if (length > code_length) return false;
  if (length == 0) return true;
  // "." stands for any error at all; an empty code has been refused above.
  if (length == 1 && pattern[0] == '.') return true;
  char const* code = m_value.data();
  // The byte after the prefix: the terminating NUL when both are of equal length.
  if (code[length] != '\0' && code[length] != '.') return false;
  // Codes differ mostly in their last segments, so the last word is compared first and most
  // mismatches end there; the rest goes to memcmp.
  if (length < sizeof(uint64_t)) return std::memcmp(code, pattern, length) == 0;
  uint64_t code_tail;
  uint64_t pattern_tail;
  std::memcpy(&code_tail, code + length - sizeof(uint64_t), sizeof(uint64_t));
  std::memcpy(&pattern_tail, pattern + length - sizeof(uint64_t), sizeof(uint64_t));
  return code_tail == pattern_tail && std::memcmp(code, pattern, length - sizeof(uint64_t)) == 0;
}

void ErrorCode::append_segment(char const* segment, size_t length) {
  if (segment == nullptr) return;
  if (length == npos) length = std::strlen(segment);
  if (m_value.empty()) {
    m_value = SourceString(segment, length);
    return;
  }
  std::string text;
  text.reserve(m_value.size() + 1 + length);
  text.append(m_value.data(), m_value.size()).append(1, '.').append(segment, length);
  m_value = SourceString(text.data(), text.size());
}

std::ostream& operator<<(std::ostream& stream, ErrorCode const& code) {
  return stream << code.value();
}

namespace error {

#define TQCORE_ERROR_CODE(name, text) ErrorCode const name(text, true)

TQCORE_ERROR_CODE(tqcore, "error.tqcore");
TQCORE_ERROR_CODE(tqcore_string, "error.tqcore.string");
TQCORE_ERROR_CODE(tqcore_string_embeddedNul, "error.tqcore.string.embeddedNul");
TQCORE_ERROR_CODE(tqcore_string_utf8, "error.tqcore.string.utf8");
TQCORE_ERROR_CODE(tqcore_string_utf8_invalid, "error.tqcore.string.utf8.invalid");
TQCORE_ERROR_CODE(tqcore_string_utf8_overlong, "error.tqcore.string.utf8.overlong");
TQCORE_ERROR_CODE(tqcore_string_utf8_partial, "error.tqcore.string.utf8.partial");
TQCORE_ERROR_CODE(tqcore_string_conversion, "error.tqcore.string.conversion");
TQCORE_ERROR_CODE(tqcore_string_extraction, "error.tqcore.string.extraction");
TQCORE_ERROR_CODE(tqcore_uuid, "error.tqcore.uuid");
TQCORE_ERROR_CODE(tqcore_uuid_parse, "error.tqcore.uuid.parse");
TQCORE_ERROR_CODE(tqcore_processPrivileges_osError, "error.tqcore.processPrivileges.osError");
TQCORE_ERROR_CODE(tqcore_hardware, "error.tqcore.hardware");
TQCORE_ERROR_CODE(tqcore_hardware_timeError, "error.tqcore.hardware.timeError");
TQCORE_ERROR_CODE(tqcore_hardware_priorityClass, "error.tqcore.hardware.priorityClass");
TQCORE_ERROR_CODE(tqcore_hardware_threadPriority, "error.tqcore.hardware.threadPriority");
TQCORE_ERROR_CODE(tqcore_hardware_threadAffinity, "error.tqcore.hardware.threadAffinity");
TQCORE_ERROR_CODE(tqcore_hardware_invalidCpuId, "error.tqcore.hardware.invalidCpuId");
TQCORE_ERROR_CODE(tqcore_cast, "error.tqcore.cast");
TQCORE_ERROR_CODE(tqcore_cast_negativeToUnsigned, "error.tqcore.cast.negativeToUnsigned");
TQCORE_ERROR_CODE(tqcore_cast_valueTooBig, "error.tqcore.cast.valueTooBig");
TQCORE_ERROR_CODE(tqcore_cast_valueTooBig_signReversal,
                  "error.tqcore.cast.valueTooBig.signReversal");
TQCORE_ERROR_CODE(tqcore_future, "error.tqcore.future");
TQCORE_ERROR_CODE(tqcore_future_nullError, "error.tqcore.future.nullError");
TQCORE_ERROR_CODE(tqcore_objectManager, "error.tqcore.objectManager");
TQCORE_ERROR_CODE(tqcore_objectManager_closed, "error.tqcore.objectManager.closed");
TQCORE_ERROR_CODE(tqcore_transforms, "error.tqcore.transforms");
TQCORE_ERROR_CODE(tqcore_transforms_base64, "error.tqcore.transforms.base64");
TQCORE_ERROR_CODE(tqcore_transforms_base64_invalid, "error.tqcore.transforms.base64.invalid");
TQCORE_ERROR_CODE(tqcore_transforms_base64_truncated, "error.tqcore.transforms.base64.truncated");
TQCORE_ERROR_CODE(tqcore_transforms_base64_padding, "error.tqcore.transforms.base64.padding");
TQCORE_ERROR_CODE(tqcore_transforms_base32, "error.tqcore.transforms.base32");
TQCORE_ERROR_CODE(tqcore_transforms_base32_invalid, "error.tqcore.transforms.base32.invalid");
TQCORE_ERROR_CODE(tqcore_transforms_base32_truncated, "error.tqcore.transforms.base32.truncated");
TQCORE_ERROR_CODE(tqcore_transforms_base32_padding, "error.tqcore.transforms.base32.padding");
TQCORE_ERROR_CODE(tqcore_transforms_hex, "error.tqcore.transforms.hex");
TQCORE_ERROR_CODE(tqcore_transforms_hex_invalid, "error.tqcore.transforms.hex.invalid");
TQCORE_ERROR_CODE(tqcore_transforms_hex_truncated, "error.tqcore.transforms.hex.truncated");
TQCORE_ERROR_CODE(tqcore_absoluteTime, "error.tqcore.absoluteTime");
TQCORE_ERROR_CODE(tqcore_absoluteTime_range, "error.tqcore.absoluteTime.range");
TQCORE_ERROR_CODE(tqcore_absoluteTime_invalidUtcString,
                  "error.tqcore.absoluteTime.invalidUtcString");
TQCORE_ERROR_CODE(tqcore_relativeTime, "error.tqcore.relativeTime");
TQCORE_ERROR_CODE(tqcore_relativeTime_invalidTimeString,
                  "error.tqcore.relativeTime.invalidTimeString");
TQCORE_ERROR_CODE(tqcore_simpleDateTime, "error.tqcore.simpleDateTime");
TQCORE_ERROR_CODE(tqcore_simpleDateTime_invalidString, "error.tqcore.simpleDateTime.invalidString");
TQCORE_ERROR_CODE(tqcore_simpleDateTime_timezoneOffset,
                  "error.tqcore.simpleDateTime.timezoneOffset");
TQCORE_ERROR_CODE(tqcore_result, "error.tqcore.result");
TQCORE_ERROR_CODE(tqcore_result_notWaitable, "error.tqcore.result.notWaitable");
TQCORE_ERROR_CODE(tqcore_result_badParameter, "error.tqcore.result.badParameter");
TQCORE_ERROR_CODE(tqcore_result_notSignaled, "error.tqcore.result.notSignaled");
TQCORE_ERROR_CODE(tqcore_result_redundantSignal, "error.tqcore.result.redundantSignal");
TQCORE_ERROR_CODE(tqcore_result_invalidAsyncSignalScope,
                  "error.tqcore.result.invalidAsyncSignalScope");
TQCORE_ERROR_CODE(tqcore_result_wrongThread, "error.tqcore.result.wrongThread");
TQCORE_ERROR_CODE(tqcore_result_cancelled, "error.tqcore.result.cancelled");
TQCORE_ERROR_CODE(tqcore_result_cancelled_innerOperation,
                  "error.tqcore.result.cancelled.innerOperation");
TQCORE_ERROR_CODE(tqcore_result_invalidAsynchrony, "error.tqcore.result.invalidAsynchrony");
TQCORE_ERROR_CODE(tqcore_task, "error.tqcore.task");
TQCORE_ERROR_CODE(tqcore_task_notExecuted, "error.tqcore.task.notExecuted");
TQCORE_ERROR_CODE(tqcore_task_redundantExecution, "error.tqcore.task.redundantExecution");
TQCORE_ERROR_CODE(tqcore_task_timeLimitExpired, "error.tqcore.task.timeLimitExpired");
TQCORE_ERROR_CODE(exception, "error.exception");
TQCORE_ERROR_CODE(exception_badAlloc, "error.exception.bad_alloc");
TQCORE_ERROR_CODE(exception_badCast, "error.exception.bad_cast");
TQCORE_ERROR_CODE(exception_badCast_badLexicalCast, "error.exception.bad_cast.bad_lexical_cast");
TQCORE_ERROR_CODE(exception_logicError, "error.exception.logic_error");
TQCORE_ERROR_CODE(exception_logicError_domainError, "error.exception.logic_error.domain_error");
TQCORE_ERROR_CODE(exception_logicError_invalidArgument,
                  "error.exception.logic_error.invalid_argument");
TQCORE_ERROR_CODE(exception_logicError_lengthError, "error.exception.logic_error.length_error");
TQCORE_ERROR_CODE(exception_logicError_outOfRange, "error.exception.logic_error.out_of_range");
TQCORE_ERROR_CODE(exception_runtimeError, "error.exception.runtime_error");
TQCORE_ERROR_CODE(exception_runtimeError_rangeError, "error.exception.runtime_error.range_error");
TQCORE_ERROR_CODE(exception_runtimeError_overflowError,
                  "error.exception.runtime_error.overflow_error");
TQCORE_ERROR_CODE(exception_runtimeError_underflowError,
                  "error.exception.runtime_error.underflow_error");
TQCORE_ERROR_CODE(exception_weakRefPromoteException, "error.exception.weakRefPromoteException");
TQCORE_ERROR_CODE(exception_unknown, "error.exception.unknown");
TQCORE_ERROR_CODE(exception_fault, "error.exception.fault");
TQCORE_ERROR_CODE(exception_fault_accessViolation, "error.exception.fault.accessViolation");
TQCORE_ERROR_CODE(exception_fault_cppException, "error.exception.fault.cppException");
TQCORE_ERROR_CODE(exception_assert, "error.exception.assert");
TQCORE_ERROR_CODE(errno_, "error.errno");
TQCORE_ERROR_CODE(errno_EPERM, "error.errno.EPERM");
TQCORE_ERROR_CODE(errno_ENOENT, "error.errno.ENOENT");
TQCORE_ERROR_CODE(errno_ESRCH, "error.errno.ESRCH");
TQCORE_ERROR_CODE(errno_EINTR, "error.errno.EINTR");
TQCORE_ERROR_CODE(errno_EIO, "error.errno.EIO");
TQCORE_ERROR_CODE(errno_ENXIO, "error.errno.ENXIO");
TQCORE_ERROR_CODE(errno_E2BIG, "error.errno.E2BIG");
TQCORE_ERROR_CODE(errno_ENOEXEC, "error.errno.ENOEXEC");
TQCORE_ERROR_CODE(errno_EBADF, "error.errno.EBADF");
TQCORE_ERROR_CODE(errno_ECHILD, "error.errno.ECHILD");
TQCORE_ERROR_CODE(errno_EAGAIN, "error.errno.EAGAIN");
TQCORE_ERROR_CODE(errno_ENOMEM, "error.errno.ENOMEM");
TQCORE_ERROR_CODE(errno_EACCES, "error.errno.EACCES");
TQCORE_ERROR_CODE(errno_EFAULT, "error.errno.EFAULT");
TQCORE_ERROR_CODE(errno_EBUSY, "error.errno.EBUSY");
TQCORE_ERROR_CODE(errno_EEXIST, "error.errno.EEXIST");
TQCORE_ERROR_CODE(errno_EXDEV, "error.errno.EXDEV");
TQCORE_ERROR_CODE(errno_ENODEV, "error.errno.ENODEV");
TQCORE_ERROR_CODE(errno_ENOTDIR, "error.errno.ENOTDIR");
TQCORE_ERROR_CODE(errno_EISDIR, "error.errno.EISDIR");
TQCORE_ERROR_CODE(errno_EINVAL, "error.errno.EINVAL");
TQCORE_ERROR_CODE(errno_ENFILE, "error.errno.ENFILE");
TQCORE_ERROR_CODE(errno_EMFILE, "error.errno.EMFILE");
TQCORE_ERROR_CODE(errno_ENOTTY, "error.errno.ENOTTY");
TQCORE_ERROR_CODE(errno_EFBIG, "error.errno.EFBIG");
TQCORE_ERROR_CODE(errno_ENOSPC, "error.errno.ENOSPC");
TQCORE_ERROR_CODE(errno_ESPIPE, "error.errno.ESPIPE");
TQCORE_ERROR_CODE(errno_EROFS, "error.errno.EROFS");
TQCORE_ERROR_CODE(errno_EMLINK, "error.errno.EMLINK");
TQCORE_ERROR_CODE(errno_EPIPE, "error.errno.EPIPE");
TQCORE_ERROR_CODE(errno_EDOM, "error.errno.EDOM");
TQCORE_ERROR_CODE(errno_ERANGE, "error.errno.ERANGE");
TQCORE_ERROR_CODE(errno_EDEADLK, "error.errno.EDEADLK");
TQCORE_ERROR_CODE(errno_ENAMETOOLONG, "error.errno.ENAMETOOLONG");
TQCORE_ERROR_CODE(errno_ENOLCK, "error.errno.ENOLCK");
TQCORE_ERROR_CODE(errno_ENOSYS, "error.errno.ENOSYS");
TQCORE_ERROR_CODE(errno_ENOTEMPTY, "error.errno.ENOTEMPTY");
TQCORE_ERROR_CODE(errno_EILSEQ, "error.errno.EILSEQ");
TQCORE_ERROR_CODE(errno_ETIME, "error.errno.ETIME");
TQCORE_ERROR_CODE(errno_EINPROGRESS, "error.errno.EINPROGRESS");
TQCORE_ERROR_CODE(errno_EALREADY, "error.errno.EALREADY");
TQCORE_ERROR_CODE(errno_ENOTSOCK, "error.errno.ENOTSOCK");
TQCORE_ERROR_CODE(errno_EDESTADDRREQ, "error.errno.EDESTADDRREQ");
TQCORE_ERROR_CODE(errno_EMSGSIZE, "error.errno.EMSGSIZE");
TQCORE_ERROR_CODE(errno_EPROTOTYPE, "error.errno.EPROTOTYPE");
TQCORE_ERROR_CODE(errno_ENOPROTOOPT, "error.errno.ENOPROTOOPT");
TQCORE_ERROR_CODE(errno_EPROTONOSUPPORT, "error.errno.EPROTONOSUPPORT");
TQCORE_ERROR_CODE(errno_ESOCKTNOSUPPORT, "error.errno.ESOCKTNOSUPPORT");
TQCORE_ERROR_CODE(errno_EOPNOTSUPP, "error.errno.EOPNOTSUPP");
TQCORE_ERROR_CODE(errno_EPFNOSUPPORT, "error.errno.EPFNOSUPPORT");
TQCORE_ERROR_CODE(errno_EAFNOSUPPORT, "error.errno.EAFNOSUPPORT");
TQCORE_ERROR_CODE(errno_EADDRINUSE, "error.errno.EADDRINUSE");
TQCORE_ERROR_CODE(errno_EADDRNOTAVAIL, "error.errno.EADDRNOTAVAIL");
TQCORE_ERROR_CODE(errno_ENETDOWN, "error.errno.ENETDOWN");
TQCORE_ERROR_CODE(errno_ENETUNREACH, "error.errno.ENETUNREACH");
TQCORE_ERROR_CODE(errno_ENETRESET, "error.errno.ENETRESET");
TQCORE_ERROR_CODE(errno_ECONNABORTED, "error.errno.ECONNABORTED");
TQCORE_ERROR_CODE(errno_ECONNRESET, "error.errno.ECONNRESET");
TQCORE_ERROR_CODE(errno_ENOBUFS, "error.errno.ENOBUFS");
TQCORE_ERROR_CODE(errno_EISCONN, "error.errno.EISCONN");
TQCORE_ERROR_CODE(errno_ENOTCONN, "error.errno.ENOTCONN");
TQCORE_ERROR_CODE(errno_ESHUTDOWN, "error.errno.ESHUTDOWN");
TQCORE_ERROR_CODE(errno_ETOOMANYREFS, "error.errno.ETOOMANYREFS");
TQCORE_ERROR_CODE(errno_ETIMEDOUT, "error.errno.ETIMEDOUT");
TQCORE_ERROR_CODE(errno_ECONNREFUSED, "error.errno.ECONNREFUSED");
TQCORE_ERROR_CODE(errno_ELOOP, "error.errno.ELOOP");
TQCORE_ERROR_CODE(errno_EHOSTDOWN, "error.errno.EHOSTDOWN");
TQCORE_ERROR_CODE(errno_EHOSTUNREACH, "error.errno.EHOSTUNREACH");
TQCORE_ERROR_CODE(errno_EUSERS, "error.errno.EUSERS");
TQCORE_ERROR_CODE(errno_EDQUOT, "error.errno.EDQUOT");
TQCORE_ERROR_CODE(errno_ESTALE, "error.errno.ESTALE");
TQCORE_ERROR_CODE(errno_EREMOTE, "error.errno.EREMOTE");
TQCORE_ERROR_CODE(errno_EPROCLIM, "error.errno.EPROCLIM");
TQCORE_ERROR_CODE(errno_ENOTBLK, "error.errno.ENOTBLK");
TQCORE_ERROR_CODE(errno_ETXTBSY, "error.errno.ETXTBSY");
TQCORE_ERROR_CODE(errno_EUCLEAN, "error.errno.EUCLEAN");
TQCORE_ERROR_CODE(os, "error.os");
TQCORE_ERROR_CODE(os_windows, "error.os.windows");

#undef TQCORE_ERROR_CODE

}  // namespace error
}  // namespace tqcore
