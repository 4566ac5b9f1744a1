#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>

#include "error_exception_internal.h"

namespace tqcore {
namespace impl {

void query_host_name(char* buffer, size_t capacity) noexcept {
  // One byte short of the buffer, so a truncated name stays terminated.
  size_t limit = capacity - 1;
  if (gethostname(buffer, limit) == 0) return;
  struct utsname names;
  if (uname(&names) == 0) {
    std::strncpy(buffer, names.nodename, limit);
    return;
  }
  std::strncpy(buffer, "<unknown>", limit);
}

SourceString system_error_text(int value) {
  char buffer[256];
  char const* text = strerror_r(value, buffer, sizeof(buffer));  // the GNU form returns the text
  if (text == nullptr || std::strncmp(text, "Unknown error", 13) == 0) return SourceString();
  return SourceString(text, std::strlen(text));
}

}  // namespace impl
}  // namespace tqcore
