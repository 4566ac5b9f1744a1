// What the tool's command files share.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tool {

// Prints the message and the usage to standard error; returns the exit status 2.
int usage_error(std::string const& message);
// The whole of a file, or of standard input for "" or "-".
bool read_all(std::string const& path, std::string* text);

// `tqcore stack [--max N]`: the tool's own symbolic backtrace.
int run_stack(std::vector<std::string> const& args);
// `tqcore cpu [--raw|--hash]`: the processor as CPUID describes it.
int run_cpu(std::vector<std::string> const& args);
// `tqcore info`: the machine and the process on one screen.
int run_info(std::vector<std::string> const& args);
// `tqcore crash segv|fpe|abort|throw|overflow|assert`: fails on purpose under main_invoker.
int run_crash(std::vector<std::string> const& args);

// Removes "--json" from the arguments; true when it was there.
bool take_json_flag(std::vector<std::string>* args);

// A command's output as named fields: lines for people (in the command's own layout), or one
// JSON object with --json, keyed by the fields' names.
class Report {
 public:
  using LinePrinter = void (*)(std::ostream& out, char const* label, std::string const& value);
  Report(bool json, LinePrinter line) : m_json(json), m_line(line) {}
  void text(char const* key, char const* label, std::string value) {
    add(key, label, std::move(value), false);
  }
  void number(char const* key, char const* label, std::string digits) {
    add(key, label, std::move(digits), true);
  }
  // "yes" or "no" for people, true or false in JSON.
  void flag(char const* key, char const* label, bool value) {
    add(key, label, value ? "yes" : "no", true);
    m_fields.back().json = value ? "true" : "false";
  }
  void print(std::ostream& out) const;

 private:
  struct Field {
    char const* key;
    char const* label;
    std::string value;
    bool number;
    char const* json = nullptr;  // the JSON text when it differs from the value
  };
  void add(char const* key, char const* label, std::string value, bool number);

  bool m_json;
  LinePrinter m_line;
  std::vector<Field> m_fields;
};

int run_uuid(std::vector<std::string> const& args);
int run_hash(std::vector<std::string> const& args);

}  // namespace tool
