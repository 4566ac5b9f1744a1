#include <tqcore/error_exception.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>
#include <sstream>
#include <string_view>

#include "error_exception_internal.h"
#include "file_ids.h"

namespace tqcore {

// ---- Host name -------------------------------------------------------------------------------

namespace impl {
namespace {

class HostName {
 public:
  HostName() noexcept {
    query_host_name(m_buffer, sizeof(m_buffer));
    m_name = SourceString(m_buffer, std::strlen(m_buffer), true);
  }
  SourceString const& name() const noexcept { return m_name; }

 private:
  char m_buffer[128] = {};
  SourceString m_name;
};

}  // namespace

SourceString const& error_info_hostname() noexcept {
  // Never destroyed: records made by exit handlers still find a name.
  alignas(HostName) static unsigned char storage[sizeof(HostName)];
  static HostName const* const host = new (storage) HostName();
  return host->name();
}

}  // namespace impl

namespace {
// Looked up while the library loads, before any thread of a client runs.
[[maybe_unused]] SourceString const& g_hostNameAtLoad = impl::error_info_hostname();
}  // namespace

// ---- ErrorInfo: construction -----------------------------------------------------------------

ErrorInfo::ErrorInfo(ErrorCode const& code, TransferSource<SourceString> message,
                     SourceLocation const& location)
    : m_code(code),
      m_message(message),
      m_location(location),
      m_hostname(impl::error_info_hostname()) {}

ErrorInfo::ErrorInfo(ErrorCode const& code, TransferSource<SourceString> message,
                     TransferSource<ErrorParams> params, SourceLocation const& location)
    : m_code(code),
      m_message(message),
      m_params(params),
      m_location(location),
      m_hostname(impl::error_info_hostname()) {}

ErrorInfo::ErrorInfo(ErrorCode const& code, TransferSource<SourceString> message,
                     TransferSource<ErrorParams> params, SourceLocation const& location,
                     TransferSource<Ptr> nested)
    : m_code(code),
      m_message(message),
      m_params(params),
      m_location(location),
      m_nested(nested),
      m_hostname(impl::error_info_hostname()) {}

ErrorInfo::ErrorInfo(TransferSource<ErrorCode> code, TransferSource<SourceString> message,
                     TransferSource<ErrorParams> params, TransferSource<SourceLocation> location,
                     TransferSource<Ptr> nested, TransferSource<SourceString> hostname)
    : m_code(code),
      m_message(message),
      m_params(params),
      m_location(location),
      m_nested(nested),
      m_hostname(hostname) {}

ErrorInfo::~ErrorInfo() = default;

ErrorInfo::Ptr ErrorInfo::owned(ErrorInfo* fresh) noexcept {
  fresh->take_first_reference();
  return Ptr(fresh, false);
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, char const* message,
                                 SourceLocation const& location) {
  SourceString text(message, true);
  return owned(new ErrorInfo(code, text.transfer(), location));
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, char const* message,
                                 SourceLocation const& location, Ptr nested) {
  return create(code, SourceString(message, true), ErrorParams(), location, std::move(nested));
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, char const* message, ErrorParams params,
                                 SourceLocation const& location) {
  return create(code, SourceString(message, true), std::move(params), location);
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, char const* message, ErrorParams params,
                                 SourceLocation const& location, Ptr nested) {
  return create(code, SourceString(message, true), std::move(params), location, std::move(nested));
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, SourceString message,
                                 SourceLocation const& location) {
  return owned(new ErrorInfo(code, message.transfer(), location));
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, SourceString message,
                                 SourceLocation const& location, Ptr nested) {
  return create(code, std::move(message), ErrorParams(), location, std::move(nested));
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, SourceString message, ErrorParams params,
                                 SourceLocation const& location) {
  return owned(new ErrorInfo(code, message.transfer(), params.transfer(), location));
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, SourceString message, ErrorParams params,
                                 SourceLocation const& location, Ptr nested) {
  return owned(
      new ErrorInfo(code, message.transfer(), params.transfer(), location, nested.transfer()));
}

ErrorInfo::Ptr ErrorInfo::create(ErrorCode const& code, SourceString message, ErrorParams params,
                                 SourceLocation const& location, Ptr nested,
                                 SourceString hostname) {
  ErrorCode code_copy(code);
  SourceLocation location_copy(location);
  return create(code_copy.transfer(), message.transfer(), params.transfer(),
                location_copy.transfer(), nested.transfer(), hostname.transfer());
}

ErrorInfo::Ptr ErrorInfo::create(TransferSource<ErrorCode> code,
                                 TransferSource<SourceString> message,
                                 TransferSource<ErrorParams> params,
                                 TransferSource<SourceLocation> location,
                                 TransferSource<Ptr> nested,
                                 TransferSource<SourceString> hostname) {
  return owned(new ErrorInfo(code, message, params, location, nested, hostname));
}

// ---- ErrorInfo: queries ----------------------------------------------------------------------

ErrorInfo const* ErrorInfo::first_match(char const* pattern, size_t length) const noexcept {
  for (ErrorInfo const* record = this; record != nullptr; record = record->m_nested.get()) {
    if (record->m_code.matches(pattern, length)) return record;
  }
  return nullptr;
}

long ErrorInfo::native_code() const {
  static char const* const kNames[] = {"nativeCode", "errno", "winErrorCode"};
  for (char const* name : kNames) {
    auto found = m_params.find(name);
    if (found == m_params.end()) continue;
    std::string const& text = found->second;
    if (text.find('\0') != std::string::npos) impl::raise_embedded_nul_error();
    char* rest = nullptr;
    long value = std::strtol(text.c_str(), &rest, 0);
    return *rest == '\0' ? value : 0;  // the first present name decides
  }
  return 0;
}

int ErrorInfo::compare(ErrorInfo const& other) const {
  if (this == &other) return 0;
  if (int result = m_code.compare(other.m_code)) return result;
  if (int result = m_message.compare(other.m_message)) return result;
  if (int result = m_params.compare(other.m_params)) return result;
  if (int result = m_location.compare(other.m_location)) return result;
  if (int result = m_hostname.compare(other.m_hostname)) return result;
  if (!m_nested || !other.m_nested) return m_nested ? 1 : (other.m_nested ? -1 : 0);
  return m_nested->compare(*other.m_nested);
}

bool ErrorInfo::operator==(ErrorInfo const& other) const {
  if (this == &other) return true;
  if (m_nested || other.m_nested) {
    if (!m_nested || !other.m_nested) return false;
    return m_nested->compare(*other.m_nested) == 0;
  }
  return m_params.size() == other.m_params.size() && m_params == other.m_params &&
         m_location == other.m_location && m_code == other.m_code && m_message == other.m_message &&
         m_hostname == other.m_hostname;
}

uint64_t ErrorInfo::hash() const {
  auto text_hash = [](SourceString const& text) {
    return impl::error_text_hash(text.data(), text.size());
  };
  uint64_t location_hash =
      text_hash(m_location.function()) ^ text_hash(m_location.file_id()) ^ m_location.line();
  uint64_t result = 0;
  result = impl::error_hash_fold(result, text_hash(m_code.value()));
  result = impl::error_hash_fold(result, text_hash(m_message));
  result = impl::error_hash_fold(result, m_params.hash());
  result = impl::error_hash_fold(result, location_hash);
  result = impl::error_hash_fold(result, text_hash(m_hostname));
  return impl::error_hash_fold(result, m_nested ? m_nested->hash() : 0);
}

// ---- ErrorInfo: the report -------------------------------------------------------------------

namespace {

constexpr size_t kMessageValueLimit = 16384;
constexpr size_t kShownValueLength = 512;

// Writes each line of `text` on a line of its own after `prefix`; a trailing newline gives no
// empty last line.
void write_lines(std::ostream& stream, std::string_view text, std::string const& prefix) {
  while (!text.empty()) {
    size_t newline = text.find('\n');
    stream << prefix << text.substr(0, newline);
    if (newline == std::string_view::npos) break;
    text.remove_prefix(newline + 1);
  }
}

size_t shown_length(std::string const& value) {
  if (value.size() <= kShownValueLength) return value.size();
  size_t cut = kShownValueLength;
  while (cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0) == 0x80) --cut;
  return cut;
}

void write_param_value(std::ostream& stream, std::string const& value, std::string const& indent) {
  size_t shown = shown_length(value);
  std::string_view part(value.data(), shown);
  if (part.find('\n') == std::string_view::npos) {
    stream << '"' << value << '"';  // the whole value, even beyond the shown part
  } else {
    std::string prefix = indent + "        \"";
    size_t newline;
    while ((newline = part.find('\n')) != std::string_view::npos) {
      stream << prefix << part.substr(0, newline) << '"';
      part.remove_prefix(newline + 1);
    }
    stream << prefix << part;  // the last piece has no closing quote
  }
  if (value.size() > shown) stream << "[...](" << value.size() - shown << " omitted)";
}

void write_params(std::ostream& stream, ErrorParams const& params, std::string const& indent) {
  stream << indent << "Parameters:  ";
  if (params.empty()) return;
  auto const& first = *params.begin();
  if (params.size() == 1 && first.second.find('\n') == std::string::npos) {
    stream << '\'' << first.first << "' => \"" << first.second << '"';
    return;
  }
  for (auto const& entry : params) {
    stream << indent << "    '" << entry.first << "' => ";
    write_param_value(stream, entry.second, indent);
  }
}

}  // namespace

void ErrorInfo::write_trace(std::ostream& stream, unsigned int depth) const {
  std::string const indent = "\n" + std::string(2 * static_cast<size_t>(depth), ' ');
  stream << indent << "ErrorCode:   " << m_code;
  SourceString message = expanded_message(kMessageValueLimit);
  std::string_view text(message.data(), message.size());
  stream << indent << "Description: ";
  if (text.find('\n') == std::string_view::npos) {
    stream << message;
  } else {
    write_lines(stream, text, indent + "    ");
  }
  stream << indent << "Hostname:    " << m_hostname;
  stream << indent << "Function:    " << m_location.function();
  stream << indent << "File(Line):  " << m_location.file_depot_path() << '(' << m_location.line()
         << ')';
  write_params(stream, m_params, indent);
  if (m_nested) {
    stream << indent << "Nested: ";
    m_nested->write_trace(stream, depth + 1);
  }
}

std::ostream& operator<<(std::ostream& stream, ErrorInfo const& error) {
  error.write_trace(stream, 0);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, ErrorInfo::Ptr const& error) {
  if (!error) return stream << "##NULL##";
  return stream << *error;
}

std::ostream& operator<<(std::ostream& stream, ErrorInfo::Trace const& trace) {
  if (trace.error == nullptr) return stream << "##NULL##";
  trace.error->write_trace(stream, trace.depth);
  return stream;
}

// ---- ErrorException --------------------------------------------------------------------------

namespace {

ErrorInfo::Ptr null_record_substitute() {
  return ErrorInfo::create(error::tqcore, "Unknown error (NULL ErrorInfo pointer)",
                           SourceLocation("tqcore::ErrorException::ErrorException()",
                                          TQCORE_FILE_ID("error_exception"), 43));
}

}  // namespace

ErrorException::ErrorException(ErrorInfo::Ptr const& error) : m_error(error) {
  if (!m_error) m_error = null_record_substitute();
}

ErrorException::ErrorException(ErrorInfo::Ptr&& error) : m_error(std::move(error)) {
  if (!m_error) m_error = null_record_substitute();
}

ErrorException::ErrorException(ErrorException const& other) noexcept
    : std::exception(other), m_error(other.m_error) {}

ErrorException& ErrorException::operator=(ErrorException const& other) noexcept {
  delete m_whatText.exchange(nullptr, std::memory_order_acq_rel);
  m_error = other.m_error;
  return *this;
}

ErrorException::~ErrorException() { delete m_whatText.load(std::memory_order_acquire); }

// Built on first use and published once: one exception object may be read by several threads
// (through std::exception_ptr), and a thread that loses keeps the winner's text. A failure
// leaves nothing cached, so a later call builds the whole text.
char const* ErrorException::what() const noexcept {
  std::string* text = m_whatText.load(std::memory_order_acquire);
  if (text == nullptr) {
    try {
      auto own = std::make_unique<std::string>(build_what_text());
      if (m_whatText.compare_exchange_strong(text, own.get(), std::memory_order_acq_rel)) {
        text = own.release();
      }
    } catch (...) {
      // what() may not throw; the fixed text below stands in.
    }
  }
  return text != nullptr ? text->c_str() : "tqcore::ErrorException";
}

void ErrorException::rethrow() const { throw ErrorException(m_error); }

std::string ErrorException::build_what_text() const {
  std::ostringstream stream;
  m_error->write_trace(stream, 0);
  return impl::stream_text(stream);
}

std::string impl::stream_text(std::ostringstream const& stream) {
  if (stream.bad()) throw std::bad_alloc();
  return stream.str();
}

void ErrorException::throw_error(ErrorInfo::Ptr const& error) { throw ErrorException(error); }

std::ostream& operator<<(std::ostream& stream, ErrorException const& exception) {
  return stream << exception.what();
}

// ---- Throw functions -------------------------------------------------------------------------
// Each creates the record first and throws in the same frame, holding nothing but the record's
// pointer: a frame with a cleanup costs the unwinder a landing pad and a resume, and every
// register the frame saves costs it a restore in both of its passes.

namespace {

[[noreturn, gnu::always_inline]] inline void throw_created(ErrorInfo::Ptr&& error) {
  ErrorInfo const* record = error.detach();
  throw ErrorException(ErrorInfo::Ptr(record, false));
}

}  // namespace

void throw_error(ErrorInfo::Ptr const& error) { throw ErrorException(error); }

void throw_error(ErrorCode const& code, char const* message, SourceLocation const& location) {
  throw_created(ErrorInfo::create(code, message, location));
}

void throw_error(ErrorCode const& code, char const* message, SourceLocation const& location,
                 ErrorInfo::Ptr nested) {
  throw_created(ErrorInfo::create(code, message, location, std::move(nested)));
}

void throw_error(ErrorCode const& code, char const* message, ErrorParams params,
                 SourceLocation const& location) {
  throw_created(ErrorInfo::create(code, message, std::move(params), location));
}

void throw_error(ErrorCode const& code, char const* message, ErrorParams params,
                 SourceLocation const& location, ErrorInfo::Ptr nested) {
  throw ErrorException(
      ErrorInfo::create(code, message, std::move(params), location, std::move(nested)));
}

void throw_error(ErrorCode const& code, SourceString message, SourceLocation const& location) {
  throw_created(ErrorInfo::create(code, std::move(message), location));
}

void throw_error(ErrorCode const& code, SourceString message, SourceLocation const& location,
                 ErrorInfo::Ptr nested) {
  throw_created(ErrorInfo::create(code, std::move(message), location, std::move(nested)));
}

void throw_error(ErrorCode const& code, SourceString message, ErrorParams params,
                 SourceLocation const& location) {
  throw_created(ErrorInfo::create(code, std::move(message), std::move(params), location));
}

void throw_error(ErrorCode const& code, SourceString message, ErrorParams params,
                 SourceLocation const& location, ErrorInfo::Ptr nested) {
  throw ErrorException(
      ErrorInfo::create(code, std::move(message), std::move(params), location, std::move(nested)));
}

void throw_error(ErrorCode const& code, SourceString message, ErrorParams params,
                 SourceLocation const& location, ErrorInfo::Ptr nested, SourceString hostname) {
  throw_created(ErrorInfo::create(code, std::move(message), std::move(params), location,
                                  std::move(nested), std::move(hostname)));
}

void throw_with_nested_errno(ErrorCode const& code, char const* message,
                             SourceLocation const& location, int errno_value) {
  throw_created(ErrorInfo::create_with_nested_errno(code, message, location, errno_value));
}

void throw_with_nested_errno(ErrorCode const& code, char const* message, ErrorParams params,
                             SourceLocation const& location, int errno_value) {
  throw_created(
      ErrorInfo::create_with_nested_errno(code, message, std::move(params), location, errno_value));
}

void throw_with_nested_errno(ErrorCode const& code, SourceString message,
                             SourceLocation const& location, int errno_value) {
  throw_created(
      ErrorInfo::create_with_nested_errno(code, std::move(message), location, errno_value));
}

void throw_with_nested_errno(ErrorCode const& code, SourceString message, ErrorParams params,
                             SourceLocation const& location, int errno_value) {
  throw_created(ErrorInfo::create_with_nested_errno(code, std::move(message), std::move(params),
                                                    location, errno_value));
}

void throw_with_nested_winerror(ErrorCode const& code, char const* message,
                                SourceLocation const& location, uint32_t win_error,
                                bool nest_original) {
  throw_created(ErrorInfo::create(code, message, location,
                                  ErrorInfo::from_winerror(location, win_error, nest_original)));
}

void throw_with_nested_winerror(ErrorCode const& code, char const* message, ErrorParams params,
                                SourceLocation const& location, uint32_t win_error,
                                bool nest_original) {
  throw_created(ErrorInfo::create(code, message, std::move(params), location,
                                  ErrorInfo::from_winerror(location, win_error, nest_original)));
}

void throw_with_nested_winerror(ErrorCode const& code, SourceString message,
                                SourceLocation const& location, uint32_t win_error,
                                bool nest_original) {
  throw_created(ErrorInfo::create(code, std::move(message), location,
                                  ErrorInfo::from_winerror(location, win_error, nest_original)));
}

void throw_with_nested_winerror(ErrorCode const& code, SourceString message, ErrorParams params,
                                SourceLocation const& location, uint32_t win_error,
                                bool nest_original) {
  throw_created(ErrorInfo::create(code, std::move(message), std::move(params), location,
                                  ErrorInfo::from_winerror(location, win_error, nest_original)));
}

void throw_with_nested_exception(ErrorCode const& code, char const* message,
                                 SourceLocation const& location, std::exception const& cause) {
  throw_created(
      ErrorInfo::create(code, message, location, ErrorInfo::from_exception(cause, location)));
}

void throw_with_nested_exception(ErrorCode const& code, char const* message, ErrorParams params,
                                 SourceLocation const& location, std::exception const& cause) {
  throw_created(ErrorInfo::create(code, message, std::move(params), location,
                                  ErrorInfo::from_exception(cause, location)));
}

void throw_with_nested_exception(ErrorCode const& code, SourceString message,
                                 SourceLocation const& location, std::exception const& cause) {
  throw_created(ErrorInfo::create(code, std::move(message), location,
                                  ErrorInfo::from_exception(cause, location)));
}

void throw_with_nested_exception(ErrorCode const& code, SourceString message, ErrorParams params,
                                 SourceLocation const& location, std::exception const& cause) {
  throw_created(ErrorInfo::create(code, std::move(message), std::move(params), location,
                                  ErrorInfo::from_exception(cause, location)));
}

void throw_errno(SourceLocation const& location, int value) {
  throw_created(ErrorInfo::from_errno(location, value));
}

void throw_errno(SourceLocation const& location, ErrorInfo::Ptr nested, int value) {
  throw_created(ErrorInfo::from_errno(location, std::move(nested), value));
}

void throw_winerror(SourceLocation const& location, uint32_t win_error, bool nest_original) {
  throw_created(ErrorInfo::from_winerror(location, win_error, nest_original));
}

void throw_winerror(SourceLocation const& location, ErrorInfo::Ptr nested, uint32_t win_error,
                    bool nest_original) {
  throw_created(ErrorInfo::from_winerror(location, std::move(nested), win_error, nest_original));
}

int set_errno(int value) {
  // 10035 is the Windows socket would-block code; the C library's name for it is EAGAIN.
  if (value == 10035) value = 11;
  errno = value;
  return value;
}

namespace impl {

void raise_embedded_nul_error() {
  throw_error(error::tqcore_string_embeddedNul,
              "String contains embedded NUL character and cannot be converted to a 'C'-string",
              SourceLocation("tqcore::raise_embedded_nul_error()",
                             TQCORE_FILE_ID("error_exception"), __LINE__));
}

}  // namespace impl
}  // namespace tqcore
