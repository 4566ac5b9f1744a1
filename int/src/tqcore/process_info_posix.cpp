// Environment variables, library file names and the set-user-id privilege switch.
#include <tqcore/process_info.h>

#include "error_exception_internal.h"
#include "file_ids.h"

#include <tqcore/error_builder.h>
#include <tqcore/error_code.h>
#include <tqcore/error_exception.h>

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>

namespace tqcore {
namespace {

constexpr char kFileId[] = TQCORE_FILE_ID("process_info");

bool is_name_start(char c) { return c == '_' || std::isalpha(static_cast<unsigned char>(c)); }
bool is_name_char(char c) { return c == '_' || std::isalnum(static_cast<unsigned char>(c)); }

// A reference at `at` ("$NAME" or "${NAME}"): its length and the variable's name, or 0.
size_t reference_at(std::string const& text, size_t at, std::string& name) {
  size_t begin = at + 1;
  bool const braced = begin < text.size() && text[begin] == '{';
  if (braced) ++begin;
  size_t end = begin;
  if (end < text.size() && is_name_start(text[end])) {
    while (end < text.size() && is_name_char(text[end])) ++end;
  }
  if (end == begin || (braced && (end >= text.size() || text[end] != '}'))) return 0;
  name.assign(text, begin, end - begin);
  return end + (braced ? 1 : 0) - at;
}

class NoPrivileges : public impl::ProcessPrivilegesImpl {
 public:
  void write_trace(std::ostream& stream) const override {
    stream << "No process privileges implementation on this platform";
  }
  void to_privileged_state(ErrorInfo::Ptr*) override {}
  void to_unprivileged_state(ErrorInfo::Ptr*) override {}
};

// A set-user-id program: the effective user id moves between the saved and the real one.
class SetUserIdPrivileges : public impl::ProcessPrivilegesImpl {
 public:
  SetUserIdPrivileges(uid_t real, uid_t saved) : m_real(real), m_saved(saved) {}
  void write_trace(std::ostream& stream) const override {
    stream << "Set-user-id privileges: real user " << m_real << ", saved user " << m_saved;
  }
  void to_privileged_state(ErrorInfo::Ptr* error) override { switch_to(m_saved, error); }
  void to_unprivileged_state(ErrorInfo::Ptr* error) override { switch_to(m_real, error); }

 private:
  static void switch_to(uid_t user, ErrorInfo::Ptr* error) {
    if (seteuid(user) == 0) return;
    int const cause = errno;
    ErrorComposer("Changing the effective user id to {@uid} failed")
        .param("uid", std::to_string(user))
        .create_transfer_with_nested_errno(
            error, error::tqcore_hardware,
            TQCORE_SOURCE_LOCATION("tqcore::ProcessPrivileges::switch_to()", kFileId), cause);
  }
  uid_t m_real;
  uid_t m_saved;
};

class Held {
 public:
  explicit Held(ThreadMutex& mutex) noexcept : m_mutex(mutex) { m_mutex.acquire(); }
  ~Held() { m_mutex.release(); }
  Held(Held const&) = delete;
  Held& operator=(Held const&) = delete;

 private:
  ThreadMutex& m_mutex;
};

RefCountPtr<impl::ProcessPrivilegesImpl> privileges_of_this_process() {
  uid_t real = 0;
  uid_t effective = 0;
  uid_t saved = 0;
  if (getresuid(&real, &effective, &saved) == 0 && real != saved) {
    return RefCountPtr<impl::ProcessPrivilegesImpl>(new SetUserIdPrivileges(real, saved));
  }
  return RefCountPtr<impl::ProcessPrivilegesImpl>(new NoPrivileges());
}

}  // namespace

std::string get_environment_variable(char const* name, size_t name_length, bool* exists) {
  std::string const key(name, name_length);
  if (key.find('\0') != std::string::npos) impl::raise_embedded_nul_error();
  char const* value = std::getenv(key.c_str());
  if (exists != nullptr) *exists = value != nullptr;
  return value != nullptr ? std::string(value) : std::string();
}

std::string expand_environment_variables(std::string const& text) {
  std::string result;
  result.reserve(text.size());
  std::string name;
  for (size_t at = 0; at < text.size();) {
    size_t const length = text[at] == '$' ? reference_at(text, at, name) : 0;
    char const* value = length != 0 ? std::getenv(name.c_str()) : nullptr;
    if (value != nullptr) {
      result += value;
      at += length;
    } else {
      result += text[at++];
    }
  }
  return result;
}

std::string get_shared_library_name_for_module(std::string const& name, unsigned int major,
                                               unsigned int minor) {
  return "lib" + name + ".so." + std::to_string(major) + "." + std::to_string(minor);
}

ProcessPrivileges::ProcessPrivileges() : m_impl(privileges_of_this_process()) {}

ProcessPrivileges& ProcessPrivileges::process_privileges() {
  static ProcessPrivileges* const instance = new ProcessPrivileges();
  return *instance;
}

void ProcessPrivileges::to_privileged(ErrorInfo::Ptr* error) {
  if (error != nullptr) *error = nullptr;
  Held const hold(m_impl->m_mutex);
  if (++m_impl->m_depth == 1) m_impl->to_privileged_state(error);
}

void ProcessPrivileges::to_unprivileged(ErrorInfo::Ptr* error) {
  if (error != nullptr) *error = nullptr;
  Held const hold(m_impl->m_mutex);
  if (m_impl->m_depth-- == 1) m_impl->to_unprivileged_state(error);
}

bool ProcessPrivileges::is_privileged() const {
  Held const hold(m_impl->m_mutex);
  return m_impl->m_depth != 0;
}

void ProcessPrivileges::write_trace(std::ostream& stream) const { m_impl->write_trace(stream); }

}  // namespace tqcore
