// The errno table, the Windows error mapping, and the records of both.
#include <tqcore/error_exception.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "error_exception_internal.h"

namespace tqcore {
namespace {

struct ErrnoRow {
  ErrorCode const* code;
  char const* message;
};

// Keyed by this platform's errno numbers; codes and messages are the family's own.
ErrnoRow const* errno_row(long value) {
#define TQCORE_ROW(name, message)                             \
  case name: {                                                \
    static ErrnoRow const row{&error::errno_##name, message}; \
    return &row;                                              \
  }
  switch (value) {
    case 0: {
      static ErrorCode const empty;
      static ErrnoRow const row{&empty, "No Error"};
      return &row;
    }
      TQCORE_ROW(EPERM,
                 "Operation not permitted (an attempt was made to perform an operation limited to "
                 "processes with appropriate privileges or to the owner of a resource)")
      TQCORE_ROW(ENOENT, "No such file, directory, or resource")
      TQCORE_ROW(ESRCH, "No such process")
      TQCORE_ROW(EINTR, "Interrupted system call")
      TQCORE_ROW(EIO, "Input/output error")
      TQCORE_ROW(ENXIO, "No such device or address")
      TQCORE_ROW(E2BIG, "Argument list too long")
      TQCORE_ROW(ENOEXEC, "Exec format error")
      TQCORE_ROW(EBADF, "Bad file descriptor")
      TQCORE_ROW(ECHILD, "No child processes")
    case 10035:  // the Windows would-block number shares the row of EAGAIN
      TQCORE_ROW(EAGAIN,
                 "Resource temporarily unavailable or a non-blocking operation could not be "
                 "completed immediately")
      TQCORE_ROW(ENOMEM, "Not enough space")
      TQCORE_ROW(EACCES,
                 "Permission denied (an attempt was made to access a file or resource in a way "
                 "forbidden by its access permissions)")
      TQCORE_ROW(EFAULT, "Bad address")
      TQCORE_ROW(EBUSY, "Device or resource busy ")
      TQCORE_ROW(EEXIST, "File exists")
      TQCORE_ROW(EXDEV, "Improper link (cross-device link)")
      TQCORE_ROW(ENODEV, "No such device")
      TQCORE_ROW(ENOTDIR, "Not a directory")
      TQCORE_ROW(EISDIR, "Is a directory")
      TQCORE_ROW(EINVAL, "Invalid argument")
      TQCORE_ROW(ENFILE, "Too many open files in system")
      TQCORE_ROW(EMFILE, "Too many open files")
      TQCORE_ROW(ENOTTY, "Inappropriate I/O control operation")
      TQCORE_ROW(EFBIG, "File too large")
      TQCORE_ROW(ENOSPC, "No space left on device")
      TQCORE_ROW(ESPIPE, "Attempt to seek in device that does not support seeking (such as a pipe)")
      TQCORE_ROW(EROFS, "Read-only file system")
      TQCORE_ROW(EMLINK, "Too many links")
      TQCORE_ROW(EPIPE, "Broken pipe")
      TQCORE_ROW(EDOM, "Math argument out of domain of func")
      TQCORE_ROW(ERANGE, "Math result not representable (out of range)")
      TQCORE_ROW(EDEADLK, "Resource deadlock would occur")
      TQCORE_ROW(ENAMETOOLONG, "Name component or (file) name was too long")
      TQCORE_ROW(ENOLCK, "No record locks available")
      TQCORE_ROW(ENOSYS, "Function not implemented")
      TQCORE_ROW(ENOTEMPTY, "Directory not empty")
      TQCORE_ROW(EILSEQ, "Illegal byte sequence")
      TQCORE_ROW(ETIME, "The request was not completed in the allotted time; a timeout occurred")
      TQCORE_ROW(EINPROGRESS, "A blocking operation is currently executing")
      TQCORE_ROW(EALREADY,
                 "An operation was attempted on a non-blocking socket that already had an "
                 "operation in progress")
      TQCORE_ROW(ENOTSOCK, "An operation was attempted on something that is not a socket")
      TQCORE_ROW(EDESTADDRREQ, "A required address was omitted from an operation on a socket")
      TQCORE_ROW(EMSGSIZE,
                 "A message sent on a datagram socket was larger than the internal message buffer "
                 "or some other network limit, or the buffer used to receive a datagram into was "
                 "smaller than the datagram itself")
      TQCORE_ROW(EPROTOTYPE,
                 "A protocol was specified in the socket function call that does not support the "
                 "semantics of the socket type requested")
      TQCORE_ROW(ENOPROTOOPT,
                 "An unknown, invalid, or unsupported option or level was specified in a "
                 "getsockopt or setsockopt call")
      TQCORE_ROW(EPROTONOSUPPORT,
                 "The requested protocol has not been configured into the system, or no "
                 "implementation for it exists")
      TQCORE_ROW(ESOCKTNOSUPPORT,
                 "The support for the specified socket type does not exist in this address family")
      TQCORE_ROW(EOPNOTSUPP,
                 "The attempted operation is not supported for the type of object referenced")
      TQCORE_ROW(EPFNOSUPPORT,
                 "The protocol family has not been configured into the system or no "
                 "implementation for it exists")
      TQCORE_ROW(EAFNOSUPPORT, "An address incompatible with the requested protocol was used")
      TQCORE_ROW(EADDRINUSE,
                 "Only one usage of each socket address (protocol/network address/port) is "
                 "normally permitted")
      TQCORE_ROW(EADDRNOTAVAIL, "The requested address is not valid in its context")
      TQCORE_ROW(ENETDOWN, "A socket operation encountered a dead network")
      TQCORE_ROW(ENETUNREACH, "A socket operation was attempted to an unreachable network")
      TQCORE_ROW(ENETRESET,
                 "The connection has been broken due to keep-alive activity detecting a failure "
                 "while the operation was in progress")
      TQCORE_ROW(ECONNABORTED,
                 "An established connection was aborted by the software in your host machine")
      TQCORE_ROW(ECONNRESET, "An existing connection was forcibly closed by the remote host")
      TQCORE_ROW(ENOBUFS,
                 "An operation on a socket could not be performed because the system lacked "
                 "sufficient buffer space or because a queue was full")
      TQCORE_ROW(EISCONN, "A connect request was made on an already connected socket")
      TQCORE_ROW(ENOTCONN,
                 "A request to send or receive data was disallowed because the socket is not "
                 "connected and (when sending on a datagram socket using a sendto call) no "
                 "address was supplied")
      TQCORE_ROW(ESHUTDOWN,
                 "Operation disallowed or cancelled because component has already been shut down")
      TQCORE_ROW(ETOOMANYREFS, "Too many references to some kernel object")
      TQCORE_ROW(ETIMEDOUT,
                 "A connection attempt failed because the connected party did not properly "
                 "respond after a period of time, or established connection failed because "
                 "connected host has failed to respond")
      TQCORE_ROW(ECONNREFUSED,
                 "No connection could be made because the target machine actively refused it")
      TQCORE_ROW(ELOOP, "Cannot translate name")
      TQCORE_ROW(EHOSTDOWN, "A socket operation failed because the destination host was down")
      TQCORE_ROW(EHOSTUNREACH, "A socket operation was attempted to an unreachable host")
      TQCORE_ROW(EUSERS, "Ran out of quota")
      TQCORE_ROW(EDQUOT, "Ran out of disk quota")
      TQCORE_ROW(ESTALE, "File handle reference is no longer available")
      TQCORE_ROW(EREMOTE, "Item is not available locally")
    default:
      return nullptr;
  }
#undef TQCORE_ROW
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

int errno_from_winerror(uint32_t win_error) {
  if (win_error >= 188 && win_error <= 202) return ENOEXEC;
  switch (win_error) {
    case 29:
    case 30:
    case 32:
    case 33:
    case 167:
      return EPERM;
    case 2:
    case 3:
    case 15:
    case 18:
    case 20:
    case 53:
    case 67:
    case 158:
    case 161:
    case 206:
      return ENOENT;
    case 10:
    case 24:
      return E2BIG;
    case 11:
      return ENOEXEC;
    case 6:
    case 114:
    case 130:
      return EBADF;
    case 128:
    case 129:
      return ECHILD;
    case 21:
    case 28:
    case 89:
    case 164:
    case 215:
    case 10035:
      return EAGAIN;
    case 7:
    case 8:
    case 9:
    case 14:
    case 1816:
      return ENOMEM;
    case 5:
    case 16:
    case 65:
    case 82:
    case 83:
    case 10013:
      return EACCES;
    case 108:
    case 170:
      return EBUSY;
    case 80:
    case 183:
      return EEXIST;
    case 17:
      return EXDEV;
    case 1:
    case 12:
    case 13:
    case 22:
    case 25:
    case 27:
    case 87:
    case 131:
      return EINVAL;
    case 4:
    case 36:
      return EMFILE;
    case 39:
    case 112:
      return ENOSPC;
    case 132:
      return ESPIPE;
    case 19:
      return EROFS;
    case 109:
      return EPIPE;
    case 10063:
      return ENAMETOOLONG;
    case 145:
      return ENOTEMPTY;
    case 23:
      return EILSEQ;
    case 121:
      return ETIME;
    // The socket codes carry the number of the errno name they stand for on Windows.
    case 10036:
      return EINPROGRESS;
    case 10037:
      return EALREADY;
    case 10038:
      return ENOTSOCK;
    case 10039:
      return EDESTADDRREQ;
    case 10040:
      return EMSGSIZE;
    case 10041:
      return EPROTOTYPE;
    case 10042:
      return ENOPROTOOPT;
    case 10043:
      return EPROTONOSUPPORT;
    case 10044:
      return ESOCKTNOSUPPORT;
    case 10045:
      return EOPNOTSUPP;
    case 10046:
      return EPFNOSUPPORT;
    case 10047:
      return EAFNOSUPPORT;
    case 10048:
      return EADDRINUSE;
    case 10049:
      return EADDRNOTAVAIL;
    case 10050:
      return ENETDOWN;
    case 10051:
      return ENETUNREACH;
    case 10052:
      return ENETRESET;
    case 10053:
      return ECONNABORTED;
    case 10054:
      return ECONNRESET;
    case 10055:
      return ENOBUFS;
    case 10056:
      return EISCONN;
    case 10057:
      return ENOTCONN;
    case 10058:
      return ESHUTDOWN;
    case 10059:
      return ETOOMANYREFS;
    case 10060:
      return ETIMEDOUT;
    case 10061:
      return ECONNREFUSED;
    case 10062:
      return ELOOP;
    case 10064:
      return EHOSTDOWN;
    case 10065:
      return EHOSTUNREACH;
    case 10068:
      return EUSERS;
    case 10069:
      return EDQUOT;
    case 10070:
      return ESTALE;
    case 10071:
      return EREMOTE;
    default:
      return 0;  // 10067 (EPROCLIM) included: this platform has no such errno
  }
}

int set_errno_from_winerror(uint32_t win_error) {
  int value = errno_from_winerror(win_error);
  return set_errno(value != 0 ? value : EINVAL);
}

}  // namespace tqcore
