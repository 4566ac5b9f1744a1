// The assertion question on the controlling terminal: pending input is discarded, the text
// and "Abort, Retry, Ignore? [a/r/i] " are written, and one line is read back.
#include "diagnostics_impl_assert.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

namespace tqcore {
namespace impl {
namespace {

void write_all(int fd, char const* text, size_t size) {
  while (size > 0) {
    ssize_t const n = write(fd, text, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    size -= static_cast<size_t>(n);
  }
}

void write_all(int fd, std::string const& text) { write_all(fd, text.data(), text.size()); }

// One line from the terminal, without its newline; false at the end of input.
bool read_line(int fd, std::string& line) {
  line.clear();
  char c = 0;
  for (;;) {
    ssize_t const n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return !line.empty();
    if (c == '\n') return true;
    line += c;
  }
}

class Terminal {
 public:
  Terminal() : m_fd(is_interactive_session() ? open("/dev/tty", O_RDWR | O_CLOEXEC) : -1) {}
  ~Terminal() {
    if (m_fd >= 0) close(m_fd);
  }
  Terminal(Terminal const&) = delete;
  Terminal& operator=(Terminal const&) = delete;
  int fd() const { return m_fd; }

 private:
  int m_fd;
};

}  // namespace

AssertAnswer parse_assert_answer(char const* line) {
  while (*line == ' ' || *line == '\t') ++line;
  AssertAnswer answer;
  switch (std::tolower(static_cast<unsigned char>(*line))) {
    case 'a':
      answer.choice = kAnswerAbort;
      break;
    case 'r':
      answer.choice = kAnswerRetry;
      break;
    case 'i':
      answer.choice = kAnswerIgnore;
      break;
    default:
      return answer;
  }
  answer.modifier = std::isupper(static_cast<unsigned char>(*line)) != 0;
  return answer;
}

AssertAnswer ask_person(std::string const& text) {
  Terminal const terminal;
  if (terminal.fd() < 0) return {};
  tcflush(terminal.fd(), TCIFLUSH);
  write_all(terminal.fd(), text);
  write_all(terminal.fd(), std::string("\n\nAbort, Retry, Ignore? [a/r/i] "));
  std::string line;
  if (!read_line(terminal.fd(), line)) return {};
  return parse_assert_answer(line.c_str());
}

void tell_person(std::string const& text) {
  Terminal const terminal;
  if (terminal.fd() >= 0) write_all(terminal.fd(), text + "\n");
}

}  // namespace impl
}  // namespace tqcore
