// The name of a memory dump: directory, program, local time, process and thread. Built in
// the caller's buffer without the heap, since it serves a process that has run out of memory.
#include "diagnostics_impl_fault.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace tqcore {
namespace impl {
namespace {

constexpr size_t kDateDirectoryLength = 11;  // "YYYY-MM-DD/"
constexpr size_t kProgramNameCapacity = 259;

std::atomic<bool> g_rootFellBack{false};

// Text appended to a NUL-terminated buffer of a fixed capacity.
class PathText {
 public:
  PathText(char* buffer, size_t capacity) noexcept : m_buffer(buffer), m_capacity(capacity) {
    m_buffer[0] = '\0';
  }
  bool append(char const* text, size_t length) noexcept {
    if (m_length + length + 1 > m_capacity) return false;
    std::memcpy(m_buffer + m_length, text, length);
    m_length += length;
    m_buffer[m_length] = '\0';
    return true;
  }
  bool append(char const* text) noexcept { return append(text, std::strlen(text)); }
  size_t length() const noexcept { return m_length; }
  size_t room() const noexcept { return m_capacity - m_length - 1; }
  void truncate(size_t length) noexcept {
    m_length = length;
    m_buffer[m_length] = '\0';
  }
  void reset() noexcept {
    m_length = 0;
    m_buffer[0] = '\0';
  }
  char* data() noexcept { return m_buffer; }

 private:
  char* m_buffer;
  size_t m_capacity;
  size_t m_length = 0;
};

void put_digits(char*& out, unsigned int value, int width) noexcept {
  for (int i = width - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
  out += width;
}

// Exactly one "/" ends a directory however many its text ended with.
size_t without_trailing_slashes(char const* text, size_t length) noexcept {
  while (length > 0 && text[length - 1] == '/') --length;
  return length;
}

bool make_directory(char const* path) noexcept { return mkdir(path, 0777) == 0 || errno == EEXIST; }

// TQTQ_TRACE_ROOT with "\\" read as "/", and the date directory; 0 if the root does not
// count or a directory could not be made, -1 if there is no room for the date directory.
int trace_root_directory(PathText& path, std::tm const& now) noexcept {
  char const* root = std::getenv("TQTQ_TRACE_ROOT");
  if (root == nullptr || root[0] == '\0' || !path.append(root)) return 0;
  char* text = path.data();
  std::replace(text, text + path.length(), '\\', '/');
  path.truncate(without_trailing_slashes(text, path.length()));
  if (!path.append("/") || !make_directory(text)) return 0;
  if (path.room() < kDateDirectoryLength) return -1;
  char date[kDateDirectoryLength];
  char* out = date;
  put_digits(out, static_cast<unsigned int>(now.tm_year + 1900), 4);
  *out++ = '-';
  put_digits(out, static_cast<unsigned int>(now.tm_mon + 1), 2);
  *out++ = '-';
  put_digits(out, static_cast<unsigned int>(now.tm_mday), 2);
  *out++ = '/';
  path.append(date, sizeof(date));
  return make_directory(text) ? 1 : 0;
}

bool temporary_directory(PathText& path) noexcept {
  char const* root = std::getenv("TMPDIR");
  if (root == nullptr || root[0] == '\0') root = "/tmp";
  path.reset();
  return path.append(root, without_trailing_slashes(root, std::strlen(root))) && path.append("/");
}

// The executable's base name without its last extension; "dump" if it cannot be read.
void program_base_name(char (&name)[kProgramNameCapacity + 1]) noexcept {
  ssize_t const length = readlink("/proc/self/exe", name, kProgramNameCapacity);
  if (length <= 0) {
    std::strcpy(name, "dump");
    return;
  }
  name[length] = '\0';
  char const* slash = std::strrchr(name, '/');
  if (slash != nullptr) std::memmove(name, slash + 1, std::strlen(slash + 1) + 1);
  if (char* dot = std::strrchr(name, '.')) *dot = '\0';
}

// "_YYYYMMDDhhmmss_<pid>_<tid in hex>.dmp"
void name_suffix(SafeText& suffix, std::tm const& now) noexcept {
  char stamp[15];
  char* out = stamp;
  put_digits(out, static_cast<unsigned int>(now.tm_year + 1900), 4);
  put_digits(out, static_cast<unsigned int>(now.tm_mon + 1), 2);
  put_digits(out, static_cast<unsigned int>(now.tm_mday), 2);
  put_digits(out, static_cast<unsigned int>(now.tm_hour), 2);
  put_digits(out, static_cast<unsigned int>(now.tm_min), 2);
  put_digits(out, static_cast<unsigned int>(now.tm_sec), 2);
  suffix.text("_").text(stamp, 14).text("_").decimal(static_cast<uint64_t>(getpid()));
  suffix.text("_").hex_digits(current_thread_id());
  suffix.text(".dmp");
}

// Days since 1970-01-01 to a civil date (proleptic Gregorian).
void civil_from_days(int64_t days, std::tm& out) noexcept {
  days += 719468;
  int64_t const era = (days >= 0 ? days : days - 146096) / 146097;
  int64_t const day_of_era = days - era * 146097;
  int64_t const year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  int64_t const day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  int64_t const month_index = (5 * day_of_year + 2) / 153;
  out.tm_mday = static_cast<int>(day_of_year - (153 * month_index + 2) / 5 + 1);
  out.tm_mon = static_cast<int>(month_index < 10 ? month_index + 2 : month_index - 10);
  out.tm_year = static_cast<int>(year_of_era + era * 400 + (out.tm_mon <= 1 ? 1 : 0) - 1900);
}

std::atomic<long> g_utcOffset{0};

}  // namespace

// The C library's local time takes a lock that a crashed thread may hold: a crash report
// uses the offset seen last instead and converts by hand.
std::tm local_time_now() noexcept {
  std::time_t const seconds = std::time(nullptr);
  std::tm now{};
  if (!is_crash_reporter() && localtime_r(&seconds, &now) != nullptr) {
    g_utcOffset.store(now.tm_gmtoff, std::memory_order_relaxed);
    return now;
  }
  int64_t const local = static_cast<int64_t>(seconds) + g_utcOffset.load();
  int64_t const days = (local >= 0 ? local : local - 86399) / 86400;
  int64_t const second_of_day = local - days * 86400;
  civil_from_days(days, now);
  now.tm_hour = static_cast<int>(second_of_day / 3600);
  now.tm_min = static_cast<int>(second_of_day / 60 % 60);
  now.tm_sec = static_cast<int>(second_of_day % 60);
  return now;
}

bool dump_root_fell_back() noexcept { return g_rootFellBack.load(std::memory_order_acquire); }

}  // namespace impl

bool make_dump_file_path(char* buffer, unsigned int capacity) noexcept {
  if (buffer == nullptr || capacity == 0) return false;
  std::tm const now = impl::local_time_now();
  impl::PathText path(buffer, capacity);
  int const root = impl::trace_root_directory(path, now);
  if (root < 0) return false;
  impl::g_rootFellBack.store(root == 0 && std::getenv("TQTQ_TRACE_ROOT") != nullptr);
  if (root == 0 && !impl::temporary_directory(path)) return false;
  char name[impl::kProgramNameCapacity + 1];
  impl::program_base_name(name);
  if (!path.append(name)) return false;
  impl::SafeText suffix;
  impl::name_suffix(suffix, now);
  return path.append(suffix.data(), suffix.size());
}

}  // namespace tqcore
