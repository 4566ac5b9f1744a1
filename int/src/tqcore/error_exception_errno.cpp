// The errno table, the Windows error mapping, and the records of both.
#include <tqcore/error_exception.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <string>

#include "error_exception_internal.h"

namespace tqcore {
namespace {

struct ErrnoRow {
  long value;
  ErrorCode const* code;
  char const* message;
};

ErrorCode const g_noErrorCode;

// Keyed by this platform's errno numbers; codes and messages are the family's own.
#define TQCORE_ROW(name, message) \
  { name, &error::errno_##name, message }
ErrnoRow const kErrnoRows[] = {
    {0, &g_noErrorCode, "No Error"},
    TQCORE_ROW(EPERM,
               "Operation not permitted (an attempt was made to perform an operation limited to "
               "processes with appropriate privileges or to the owner of a resource)"),
    TQCORE_ROW(ENOENT, "No such file, directory, or resource"),
    TQCORE_ROW(ESRCH, "No such process"),
    TQCORE_ROW(EINTR, "Interrupted system call"),
    TQCORE_ROW(EIO, "Input/output error"),
    TQCORE_ROW(ENXIO, "No such device or address"),
    TQCORE_ROW(E2BIG, "Argument list too long"),
    TQCORE_ROW(ENOEXEC, "Exec format error"),
    TQCORE_ROW(EBADF, "Bad file descriptor"),
    TQCORE_ROW(ECHILD, "No child processes"),
    TQCORE_ROW(EAGAIN,
               "Resource temporarily unavailable or a non-blocking operation could not be "
               "completed immediately"),
    TQCORE_ROW(ENOMEM, "Not enough space"),
    TQCORE_ROW(EACCES,
               "Permission denied (an attempt was made to access a file or resource in a way "
               "forbidden by its access permissions)"),
    TQCORE_ROW(EFAULT, "Bad address"),
    TQCORE_ROW(EBUSY, "Device or resource busy "),
    TQCORE_ROW(EEXIST, "File exists"),
    TQCORE_ROW(EXDEV, "Improper link (cross-device link)"),
    TQCORE_ROW(ENODEV, "No such device"),
    TQCORE_ROW(ENOTDIR, "Not a directory"),
    TQCORE_ROW(EISDIR, "Is a directory"),
    TQCORE_ROW(EINVAL, "Invalid argument"),
    TQCORE_ROW(ENFILE, "Too many open files in system"),
    TQCORE_ROW(EMFILE, "Too many open files"),
    TQCORE_ROW(ENOTTY, "Inappropriate I/O control operation"),
    TQCORE_ROW(EFBIG, "File too large"),
    TQCORE_ROW(ENOSPC, "No space left on device"),
    TQCORE_ROW(ESPIPE, "Attempt to seek in device that does not support seeking (such as a pipe)"),
    TQCORE_ROW(EROFS, "Read-only file system"),
    TQCORE_ROW(EMLINK, "Too many links"),
    TQCORE_ROW(EPIPE, "Broken pipe"),
    TQCORE_ROW(EDOM, "Math argument out of domain of func"),
    TQCORE_ROW(ERANGE, "Math result not representable (out of range)"),
    TQCORE_ROW(EDEADLK, "Resource deadlock would occur"),
    TQCORE_ROW(ENAMETOOLONG, "Name component or (file) name was too long"),
    TQCORE_ROW(ENOLCK, "No record locks available"),
    TQCORE_ROW(ENOSYS, "Function not implemented"),
    TQCORE_ROW(ENOTEMPTY, "Directory not empty"),
    TQCORE_ROW(EILSEQ, "Illegal byte sequence"),
    TQCORE_ROW(ETIME, "The request was not completed in the allotted time; a timeout occurred"),
    TQCORE_ROW(EINPROGRESS, "A blocking operation is currently executing"),
    TQCORE_ROW(EALREADY,
               "An operation was attempted on a non-blocking socket that already had an operation "
               "in progress"),
    TQCORE_ROW(ENOTSOCK, "An operation was attempted on something that is not a socket"),
    TQCORE_ROW(EDESTADDRREQ, "A required address was omitted from an operation on a socket"),
    TQCORE_ROW(EMSGSIZE,
               "A message sent on a datagram socket was larger than the internal message buffer or "
               "some other network limit, or the buffer used to receive a datagram into was "
               "smaller than the datagram itself"),
    TQCORE_ROW(EPROTOTYPE,
               "A protocol was specified in the socket function call that does not support the "
               "semantics of the socket type requested"),
    TQCORE_ROW(ENOPROTOOPT,
               "An unknown, invalid, or unsupported option or level was specified in a getsockopt "
               "or setsockopt call"),
    TQCORE_ROW(EPROTONOSUPPORT,
               "The requested protocol has not been configured into the system, or no "
               "implementation for it exists"),
    TQCORE_ROW(ESOCKTNOSUPPORT,
               "The support for the specified socket type does not exist in this address family"),
    TQCORE_ROW(EOPNOTSUPP,
               "The attempted operation is not supported for the type of object referenced"),
    TQCORE_ROW(EPFNOSUPPORT,
               "The protocol family has not been configured into the system or no implementation "
               "for it exists"),
    TQCORE_ROW(EAFNOSUPPORT, "An address incompatible with the requested protocol was used"),
    TQCORE_ROW(EADDRINUSE,
               "Only one usage of each socket address (protocol/network address/port) is normally "
               "permitted"),
    TQCORE_ROW(EADDRNOTAVAIL, "The requested address is not valid in its context"),
    TQCORE_ROW(ENETDOWN, "A socket operation encountered a dead network"),
    TQCORE_ROW(ENETUNREACH, "A socket operation was attempted to an unreachable network"),
    TQCORE_ROW(ENETRESET,
               "The connection has been broken due to keep-alive activity detecting a failure "
               "while the operation was in progress"),
    TQCORE_ROW(ECONNABORTED,
               "An established connection was aborted by the software in your host machine"),
    TQCORE_ROW(ECONNRESET, "An existing connection was forcibly closed by the remote host"),
    TQCORE_ROW(ENOBUFS,
               "An operation on a socket could not be performed because the system lacked "
               "sufficient buffer space or because a queue was full"),
    TQCORE_ROW(EISCONN, "A connect request was made on an already connected socket"),
    TQCORE_ROW(
        ENOTCONN,
        "A request to send or receive data was disallowed because the socket is not connected and "
        "(when sending on a datagram socket using a sendto call) no address was supplied"),
    TQCORE_ROW(ENOTCONN,
               "A request to send or receive data was disallowed because the socket is not "
               "connected and (when sending on a datagram socket using a sendto call) no "
               "address was supplied"),
    TQCORE_ROW(ESHUTDOWN,
               "Operation disallowed or cancelled because component has already been shut down"),
    TQCORE_ROW(ETOOMANYREFS, "Too many references to some kernel object"),
    TQCORE_ROW(ETIMEDOUT,
               "A connection attempt failed because the connected party did not properly respond "
               "after a period of time, or established connection failed because connected host "
               "has failed to respond"),
    TQCORE_ROW(ECONNREFUSED,
               "No connection could be made because the target machine actively refused it"),
    TQCORE_ROW(ELOOP, "Cannot translate name"),
    TQCORE_ROW(EHOSTDOWN, "A socket operation failed because the destination host was down"),
    TQCORE_ROW(EHOSTUNREACH, "A socket operation was attempted to an unreachable host"),
    TQCORE_ROW(EUSERS, "Ran out of quota"),
    TQCORE_ROW(EDQUOT, "Ran out of disk quota"),
    TQCORE_ROW(ESTALE, "File handle reference is no longer available"),
    TQCORE_ROW(EREMOTE, "Item is not available locally"),
};
#undef TQCORE_ROW

constexpr long kWindowsWouldBlock = 10035;  // shares the row of EAGAIN

ErrnoRow const* errno_row(long value) {
  if (value == kWindowsWouldBlock) value = EAGAIN;
  for (ErrnoRow const& row : kErrnoRows) {
    if (row.value == value) return &row;
  }
  return nullptr;
}

ErrorCode numbered_code(char const* format, unsigned long long value, bool is_signed) {
  char text[48];
  int length = is_signed ? std::snprintf(text, sizeof(text), format, static_cast<long long>(value))
                         : std::snprintf(text, sizeof(text), format, value);
  return ErrorCode(SourceString(text, static_cast<size_t>(length)));
}

ErrorCode errno_number_code(long value) {
  return numbered_code("error.errno.%lld", static_cast<unsigned long long>(value), true);
}

}  // namespace

ErrorCode ErrorCode::from_errno(long value) {
  ErrnoRow const* row = errno_row(value);
  return row != nullptr ? *row->code : errno_number_code(value);
}

ErrorCode ErrorCode::from_errno() { return from_errno(errno); }

ErrorInfo::Ptr ErrorInfo::from_errno_aux(SourceLocation const& location, Ptr nested, int value) {
  if (value == 10035) value = 11;
  ErrorParams params;
  params.add(SourceString::create_reference("errno"), std::to_string(value));
  if (ErrnoRow const* row = errno_row(value)) {
    return create(*row->code, row->message, std::move(params), location, std::move(nested));
  }
  // An unknown number may be a Windows code that came here through errno: the system's text
  // for it, or a template when the system has none.
  SourceString text = impl::system_error_text(value);
  if (text.empty()) text = SourceString::create_reference("Unknown error (errno={@errno})");
  return create(errno_number_code(value), std::move(text), std::move(params), location,
                std::move(nested));
}

ErrorInfo::Ptr ErrorInfo::from_errno(SourceLocation const& location, int value) {
  return from_errno_aux(location, Ptr(), value);
}

// There is no _doserrno here, so EINVAL needs no refinement: the record is the number's own.
ErrorInfo::Ptr ErrorInfo::from_errno(SourceLocation const& location, Ptr nested, int value) {
  return from_errno_aux(location, std::move(nested), value);
}

ErrorInfo::Ptr ErrorInfo::from_winerror_nomap(SourceLocation const& location, Ptr nested,
                                              uint32_t win_error) {
  ErrorParams params;
  params.add(SourceString::create_reference("winErrorCode"), std::to_string(win_error));
  // The Windows system text is not to be had on this platform: the message stays empty.
  return create(numbered_code("error.os.windows.%llu", win_error, false), SourceString(),
                std::move(params), location, std::move(nested));
}

ErrorInfo::Ptr ErrorInfo::from_winerror(SourceLocation const& location, uint32_t win_error,
                                        bool nest_original) {
  return from_winerror(location, Ptr(), win_error, nest_original);
}

ErrorInfo::Ptr ErrorInfo::from_winerror(SourceLocation const& location, Ptr nested,
                                        uint32_t win_error, bool nest_original) {
  int value = errno_from_winerror(win_error);
  if (value == 0) {
    return from_errno_aux(location, from_winerror_nomap(location, std::move(nested), win_error),
                          EINVAL);
  }
  if (nest_original) {
    return from_errno_aux(location, from_winerror_nomap(location, std::move(nested), win_error),
                          value);
  }
  return from_errno_aux(location, std::move(nested), value);
}

ErrorInfo::Ptr ErrorInfo::create_with_nested_errno(ErrorCode const& code, char const* message,
                                                   SourceLocation const& location,
                                                   int errno_value) {
  return create(code, message, location, from_errno(location, errno_value));
}

ErrorInfo::Ptr ErrorInfo::create_with_nested_errno(ErrorCode const& code, char const* message,
                                                   ErrorParams params,
                                                   SourceLocation const& location,
                                                   int errno_value) {
  return create(code, message, std::move(params), location, from_errno(location, errno_value));
}

ErrorInfo::Ptr ErrorInfo::create_with_nested_errno(ErrorCode const& code, SourceString message,
                                                   SourceLocation const& location,
                                                   int errno_value) {
  return create(code, std::move(message), location, from_errno(location, errno_value));
}

ErrorInfo::Ptr ErrorInfo::create_with_nested_errno(ErrorCode const& code, SourceString message,
                                                   ErrorParams params,
                                                   SourceLocation const& location,
                                                   int errno_value) {
  return create(code, std::move(message), std::move(params), location,
                from_errno(location, errno_value));
}

// ---- The Windows mapping ---------------------------------------------------------------------

namespace {

struct WinErrorRow {
  uint32_t win_error;
  int errno_value;
};

// Sorted by the Windows number. The socket codes carry the number of the errno name they stand
// for on Windows; 10067 (EPROCLIM) has no row, this platform having no such errno.
constexpr WinErrorRow kWinErrors[] = {
    {1, EINVAL},
    {2, ENOENT},
    {3, ENOENT},
    {4, EMFILE},
    {5, EACCES},
    {6, EBADF},
    {7, ENOMEM},
    {8, ENOMEM},
    {9, ENOMEM},
    {10, E2BIG},
    {11, ENOEXEC},
    {12, EINVAL},
    {13, EINVAL},
    {14, ENOMEM},
    {15, ENOENT},
    {16, EACCES},
    {17, EXDEV},
    {18, ENOENT},
    {19, EROFS},
    {20, ENOENT},
    {21, EAGAIN},
    {22, EINVAL},
    {23, EILSEQ},
    {24, E2BIG},
    {25, EINVAL},
    {27, EINVAL},
    {28, EAGAIN},
    {29, EPERM},
    {30, EPERM},
    {32, EPERM},
    {33, EPERM},
    {36, EMFILE},
    {39, ENOSPC},
    {53, ENOENT},
    {65, EACCES},
    {67, ENOENT},
    {80, EEXIST},
    {82, EACCES},
    {83, EACCES},
    {87, EINVAL},
    {89, EAGAIN},
    {108, EBUSY},
    {109, EPIPE},
    {112, ENOSPC},
    {114, EBADF},
    {121, ETIME},
    {128, ECHILD},
    {129, ECHILD},
    {130, EBADF},
    {131, EINVAL},
    {132, ESPIPE},
    {145, ENOTEMPTY},
    {158, ENOENT},
    {161, ENOENT},
    {164, EAGAIN},
    {167, EPERM},
    {170, EBUSY},
    {183, EEXIST},
    {206, ENOENT},
    {215, EAGAIN},
    {1816, ENOMEM},
    {10013, EACCES},
    {10035, EAGAIN},
    {10036, EINPROGRESS},
    {10037, EALREADY},
    {10038, ENOTSOCK},
    {10039, EDESTADDRREQ},
    {10040, EMSGSIZE},
    {10041, EPROTOTYPE},
    {10042, ENOPROTOOPT},
    {10043, EPROTONOSUPPORT},
    {10044, ESOCKTNOSUPPORT},
    {10045, EOPNOTSUPP},
    {10046, EPFNOSUPPORT},
    {10047, EAFNOSUPPORT},
    {10048, EADDRINUSE},
    {10049, EADDRNOTAVAIL},
    {10050, ENETDOWN},
    {10051, ENETUNREACH},
    {10052, ENETRESET},
    {10053, ECONNABORTED},
    {10054, ECONNRESET},
    {10055, ENOBUFS},
    {10056, EISCONN},
    {10057, ENOTCONN},
    {10058, ESHUTDOWN},
    {10059, ETOOMANYREFS},
    {10060, ETIMEDOUT},
    {10061, ECONNREFUSED},
    {10062, ELOOP},
    {10063, ENAMETOOLONG},
    {10064, EHOSTDOWN},
    {10065, EHOSTUNREACH},
    {10068, EUSERS},
    {10069, EDQUOT},
    {10070, ESTALE},
    {10071, EREMOTE},
};

}  // namespace

int errno_from_winerror(uint32_t win_error) {
  if (win_error >= 188 && win_error <= 202) return ENOEXEC;
  WinErrorRow const* const end = std::end(kWinErrors);
  WinErrorRow const* const row =
      std::lower_bound(std::begin(kWinErrors), end, win_error,
                       [](WinErrorRow const& r, uint32_t value) { return r.win_error < value; });
  return row != end && row->win_error == win_error ? row->errno_value : 0;
}

int set_errno_from_winerror(uint32_t win_error) {
  int value = errno_from_winerror(win_error);
  return set_errno(value != 0 ? value : EINVAL);
}

}  // namespace tqcore
