// The tqcore command-line tool: shows what the library does.
#include <tqcore/tqcore.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "tool_commands.h"

namespace {

char const kFileId[] = "$Id: //tqcore/int/tools/tqcore_main.cpp#1 $";

void print_usage(std::ostream& out) {
  out << "Usage: tqcore [--help] [--version] [COMMAND]\n"
         "\n"
         "With no command, prints the version and a sample error report.\n"
         "\n"
         "Commands:\n"
         "  errno N            print the error record of errno value N\n"
         "  utf8 check [FILE]  validate FILE (or standard input) as UTF-8; prints the status\n"
         "                     and the byte offset of the first fault, exits 1 if there is one\n"
         "  base64 [-d] [-u] [-w COLS] [FILE]\n"
         "  base32 [-d] [-w COLS] [FILE]\n"
         "  hex [-d] [-w COLS] [FILE]\n"
         "                     encode FILE (or standard input) to standard output, lines wrapped\n"
         "                     at COLS (76; 0 for none); -d decodes, ignoring line breaks; -u\n"
         "                     writes the URL-safe base-64 alphabet. A bad input prints the\n"
         "                     error record and exits 1\n"
         "  time [--json] [now|TEXT|NANOSECONDS]\n"
         "                     a UTC time (now by default): both text forms, the nanoseconds\n"
         "                     since 1970 and the Julian date\n"
         "  duration TEXT|NANOSECONDS\n"
         "                     a duration (\"1h 30m\", \"PT1H30M\"): both text forms and "
         "nanoseconds\n"
         "  datetime TEXT      a date-time with an offset (\"2000-01-01T12:00:00+01:00\"): base,\n"
         "                     offset, local time and text. A bad TEXT prints the error record\n"
         "                     and exits 1\n"
         "  uuid [--random|--sequential|--legacy N] [--format hyphenated|compact|braced]\n"
         "       [-n COUNT]    make COUNT (1) identifiers, random by default\n"
         "  uuid inspect [--json] TEXT\n"
         "                     version, timestamp, sequence, node and legacy id of a UUID\n"
         "  hash [--seed S] [FILE...]\n"
         "                     the 64-bit Murmur hash of each FILE (or standard input); without\n"
         "                     --seed the process seed is random, so values differ per run\n"
         "  stack [--max N]    the tool's own symbolic backtrace (N frames at most), one line\n"
         "                     a frame: [ip]module!function(parameters) - file(line)+offset\n"
         "  cpu [--json|--raw|--hash]\n"
         "                     the processor: a summary, topology and the decoded CPUID report\n"
         "                     (--json: the summary as JSON), the registers as read, or the\n"
         "                     canonical text whose hash recognises a machine\n"
         "  info [--json]      the machine and this process on one screen: host, processor,\n"
         "                     topology, frequency, time, affinity, priority\n"
         "  crash segv|fpe|abort|throw|overflow|assert\n"
         "                     fail on purpose, to see the report and the memory dump a crash\n"
         "                     leaves (the dump goes under $TQTQ_TRACE_ROOT, else $TMPDIR or "
         "/tmp)\n"
         "\n"
         "Options:\n"
         "  --help     show this text (COMMAND --help: that command's, with an example)\n"
         "  --version  print the library version\n"
         "\n"
         "Exit status: 0 on success, 1 on bad input (the error record goes to standard\n"
         "error), 2 on bad usage.\n";
}

// One entry a command: its usage, what it does, and an example to copy.
struct CommandHelp {
  char const* command;
  char const* text;
};

constexpr CommandHelp kCommandHelp[] = {
    {"errno",
     "Usage: tqcore errno N\n\nPrints the error record of errno value N.\n\n"
     "Example:\n  tqcore errno 13\n"},
    {"utf8",
     "Usage: tqcore utf8 check [FILE]\n\nValidates FILE (or standard input) as UTF-8 and prints\n"
     "the status and the byte offset of the first fault; exits 1 if there is one.\n\n"
     "Example:\n  printf 'caf\\303\\251' | tqcore utf8 check\n"},
    {"base64",
     "Usage: tqcore base64 [-d] [-u] [-w COLS] [FILE]\n\nEncodes FILE (or standard input) in "
     "base-64, lines wrapped at COLS\n(76; 0 for none); -d decodes, -u uses the URL-safe "
     "alphabet.\n\nExample:\n  printf foobar | tqcore base64\n"},
    {"base32",
     "Usage: tqcore base32 [-d] [-w COLS] [FILE]\n\nEncodes FILE (or standard input) in "
     "base-32; -d decodes.\n\nExample:\n  printf foobar | tqcore base32\n"},
    {"hex",
     "Usage: tqcore hex [-d] [-w COLS] [FILE]\n\nEncodes FILE (or standard input) as "
     "hexadecimal; -d decodes.\n\nExample:\n  printf foobar | tqcore hex\n"},
    {"time",
     "Usage: tqcore time [--json] [now|TEXT|NANOSECONDS]\n\nShows a UTC time (now by default): "
     "both text forms, the nanoseconds since\n1970 and the Julian date; --json prints one JSON "
     "object.\n\n"
     "Example:\n  tqcore time 2024-02-29T12:00:00Z\n"},
    {"duration",
     "Usage: tqcore duration TEXT|NANOSECONDS\n\nShows a duration in both text forms and in "
     "nanoseconds.\n\nExample:\n  tqcore duration PT1H30M\n"},
    {"datetime",
     "Usage: tqcore datetime TEXT\n\nShows a date-time with an offset: base, offset, local time "
     "and text.\n\nExample:\n  tqcore datetime 2000-01-01T12:00:00+01:00\n"},
    {"uuid",
     "Usage: tqcore uuid [--random|--sequential|--legacy N] [--format hyphenated|compact|braced]\n"
     "                   [-n COUNT]\n       tqcore uuid inspect [--json] TEXT\n\nMakes COUNT (1) "
     "identifiers, random by default, or tells what one holds (--json: as one JSON "
     "object).\n\n"
     "Example:\n  tqcore uuid --sequential -n 3\n"},
    {"hash",
     "Usage: tqcore hash [--seed S] [FILE...]\n\nPrints the 64-bit Murmur hash of each FILE (or "
     "standard input); without --seed\nthe process seed is random.\n\n"
     "Example:\n  tqcore hash --seed 1 README.md\n"},
    {"stack",
     "Usage: tqcore stack [--max N]\n\nPrints the tool's own symbolic backtrace, one line a "
     "frame, as crash\nreports show them: [ip]module!function(parameters) - file(line)+offset."
     "\n\nExample:\n  tqcore stack --max 4\n"},
    {"cpu",
     "Usage: tqcore cpu [--json|--raw|--hash]\n\nPrints the processor as CPUID describes it: "
     "a summary (vendor, model, topology,\nfrequency, features; --json gives it as one JSON "
     "object), each CPU's place, and\nthe decoded report; --raw the registers as read, one "
     "line a leaf; --hash the\ncanonical text whose hash recognises a machine.\n\n"
     "Example:\n  tqcore cpu --raw\n"},
    {"info",
     "Usage: tqcore info [--json]\n\nPrints the machine and this process on one screen: host, "
     "time, processor,\npackages, cores and logical CPUs, the timestamp counter's frequency, "
     "the\nthread's affinity and priority; --json gives them as one JSON object.\n\n"
     "Example:\n  tqcore info --json\n"},
    {"crash",
     "Usage: tqcore crash segv|fpe|abort|throw|overflow|assert\n\nFails on purpose inside "
     "main_invoker: a null write, a division by zero, abort(),\nan exception leaving main, "
     "a stack overflow, or a failed assertion (asked on the\nterminal when there is one). "
     "The report goes to standard error, the memory dump\n(an ELF core: gdb tqcore <dump>) "
     "under $TQTQ_TRACE_ROOT/<date>, else $TMPDIR or /tmp.\nThe process ends with SIGABRT.\n\n"
     "Example:\n  TQTQ_TRACE_ROOT=/tmp/traces tqcore crash fpe\n"},
};

// `tqcore COMMAND --help` (or -h) anywhere after the command: the command's own help.
bool print_command_help(std::string const& command, std::vector<std::string> const& args) {
  if (std::none_of(args.begin(), args.end(),
                   [](std::string const& arg) { return arg == "--help" || arg == "-h"; })) {
    return false;
  }
  for (CommandHelp const& entry : kCommandHelp) {
    if (command != entry.command) continue;
    std::cout << entry.text;
    return true;
  }
  return false;
}

}  // namespace

int tool::usage_error(std::string const& message) {
  std::cerr << "tqcore: " << message << "\n\n";
  print_usage(std::cerr);
  return 2;
}

namespace {
using tool::read_all;
using tool::usage_error;

// A three-record chain as a failing start-up builds it: the record a real parse raises, the
// configuration load that saw it, and the start-up that gave up.
tqcore::ErrorInfo::Ptr sample_chain() {
  using namespace tqcore;
  ErrorInfo::Ptr parse;
  try {
    AbsoluteTime::from_string("2026-13-01T00:00:00Z");
  } catch (ErrorException const& e) {
    parse = e.error();
  }
  ErrorInfo::Ptr load =
      ErrorComposer("Invalid value in {@path} at line {@line}.")
          .param(SourceString::create_reference("path"), "/etc/example/service.conf")
          .param(SourceString::create_reference("line"), "17")
          .create(ErrorCode("error.example.config.invalidValue"),
                  SourceLocation("example::Config::load()", kFileId, 97), parse);
  return ErrorInfo::create(ErrorCode("error.example.startup"), "The service could not start.",
                           SourceLocation("example::Service::start()", kFileId, 210), load);
}

int show_errno(std::vector<std::string> const& args) {
  if (args.size() != 1) return usage_error("errno takes one number");
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(args[0].c_str(), &end, 0);
  if (args[0].empty() || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX) {
    return usage_error("not an errno number: '" + args[0] + "'");
  }
  std::cout << tqcore::ErrorInfo::from_errno(
                   tqcore::SourceLocation("tqcore errno", kFileId, __LINE__),
                   static_cast<int>(value))
            << '\n';
  return 0;
}

int check_utf8(std::vector<std::string> const& args) {
  if (args.empty() || args[0] != "check" || args.size() > 2) {
    return usage_error("usage: tqcore utf8 check [FILE]");
  }
  std::string const path = args.size() == 2 ? args[1] : "";
  std::string text;
  if (!read_all(path, &text)) {
    std::cerr << "tqcore: cannot read '" << path << "': " << std::strerror(errno) << '\n';
    return 2;
  }
  size_t fault = 0;
  int status = tqcore::utf8_validate(text.data(), text.size(), &fault);
  if (status == tqcore::utf8_valid) {
    std::cout << "valid UTF-8 (" << text.size() << " bytes)\n";
    return 0;
  }
  tqcore::ErrorInfo::Ptr error = tqcore::utf8_status_error(status, "tqcore utf8 check", __LINE__);
  std::cout << "invalid UTF-8 at byte " << fault << ": " << error->message() << " ("
            << error->code() << ")\n";
  return 1;
}

struct CodecOptions {
  bool decode = false;
  bool url_safe = false;
  size_t wrap = 76;
  std::string path;
};

bool parse_codec_options(std::string const& codec, std::vector<std::string> const& args,
                         CodecOptions* options) {
  for (size_t k = 0; k < args.size(); ++k) {
    std::string const& arg = args[k];
    if (arg == "-d" || arg == "--decode") {
      options->decode = true;
    } else if (arg == "-u" && codec == "base64") {
      options->url_safe = true;
    } else if (arg == "-w" && k + 1 < args.size()) {
      char* end = nullptr;
      options->wrap = std::strtoul(args[++k].c_str(), &end, 10);
      if (*end != '\0') return false;
    } else if (options->path.empty() && (arg == "-" || arg[0] != '-')) {
      options->path = arg;
    } else {
      return false;
    }
  }
  return true;
}

void write_wrapped(std::string const& text, size_t wrap) {
  if (wrap == 0) {
    std::cout << text;
  } else {
    for (size_t at = 0; at < text.size(); at += wrap) std::cout << text.substr(at, wrap) << '\n';
    if (!text.empty()) return;
  }
  std::cout << '\n';
}

std::string without_line_breaks(std::string text) {
  text.erase(
      std::remove_if(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }),
      text.end());
  return text;
}

int run_codec(std::string const& codec, std::vector<std::string> const& args) {
  CodecOptions options;
  if (!parse_codec_options(codec, args, &options)) {
    return usage_error("usage: tqcore " + codec + " [-d]" + (codec == "base64" ? " [-u]" : "") +
                       " [-w COLS] [FILE]");
  }
  std::string input;
  if (!read_all(options.path, &input)) {
    std::cerr << "tqcore: cannot read '" << options.path << "': " << std::strerror(errno) << '\n';
    return 2;
  }
  try {
    if (options.decode) {
      std::string const text = without_line_breaks(std::move(input));
      std::vector<uint8_t> const bytes = codec == "base64"   ? tqcore::base64_decode(text)
                                         : codec == "base32" ? tqcore::base32_decode(text)
                                                             : tqcore::hex_decode(text);
      std::cout.write(reinterpret_cast<char const*>(bytes.data()),
                      static_cast<std::streamsize>(bytes.size()));
      return 0;
    }
    std::string text = codec == "base64"   ? tqcore::base64_encode(input.data(), input.size())
                       : codec == "base32" ? tqcore::base32_encode(input.data(), input.size())
                                           : tqcore::hex_encode(input.data(), input.size());
    if (options.url_safe) std::replace(text.begin(), text.end(), '+', '-');
    if (options.url_safe) std::replace(text.begin(), text.end(), '/', '_');
    write_wrapped(text, options.wrap);
    return 0;
  } catch (tqcore::ErrorException const& e) {
    std::cerr << "tqcore " << codec << ": invalid input" << e.error() << '\n';
    return 1;
  }
}

// A whole argument of decimal digits, optionally signed, as a count of nanoseconds.
bool nanoseconds_argument(std::string const& text, long long* value) {
  size_t const start = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  if (text.size() == start || text.find_first_not_of("0123456789", start) != std::string::npos) {
    return false;
  }
  errno = 0;
  *value = std::strtoll(text.c_str(), nullptr, 10);
  return errno == 0;
}

int print_bad_text(char const* what, tqcore::ErrorInfo::Ptr const& error) {
  std::cerr << "tqcore " << what << ": invalid text" << error << '\n';
  return 1;
}

void column_line(std::ostream& out, char const* label, std::string const& value) {
  out << label << std::string(14 - std::strlen(label), ' ') << value << '\n';
}

void print_field(char const* label, std::string const& value) {
  column_line(std::cout, label, value);
}

int show_time(std::vector<std::string> args) {
  bool const json = tool::take_json_flag(&args);
  if (args.size() > 1) return usage_error("usage: tqcore time [--json] [now|TEXT|NANOSECONDS]");
  using tqcore::AbsoluteTime;
  AbsoluteTime time = AbsoluteTime::now();
  long long nanoseconds = 0;
  if (args.empty() || args[0] == "now") {
  } else if (nanoseconds_argument(args[0], &nanoseconds)) {
    time = AbsoluteTime::from_nsec(nanoseconds);
  } else if (tqcore::ErrorInfo::Ptr error = AbsoluteTime::from_string_nothrow(args[0], &time)) {
    return print_bad_text("time", error);
  }
  char julian[32];
  std::snprintf(julian, sizeof(julian), "%.9f", time.full_julian_date());
  tool::Report report(json, column_line);
  report.text("text", "text:", time.as_string());
  report.text("iso8601", "ISO 8601:", time.as_iso8601_string());
  report.number("nanoseconds", "nanoseconds:", std::to_string(time.as_nsec()));
  report.number("julian_date", "Julian date:", julian);
  report.print(std::cout);
  return 0;
}

int show_duration(std::vector<std::string> const& args) {
  if (args.size() != 1) return usage_error("usage: tqcore duration TEXT|NANOSECONDS");
  using tqcore::RelativeTime;
  RelativeTime duration;
  long long nanoseconds = 0;
  if (nanoseconds_argument(args[0], &nanoseconds)) {
    duration = RelativeTime::nanoseconds(nanoseconds);
  } else if (tqcore::ErrorInfo::Ptr error = RelativeTime::from_string_nothrow(args[0], &duration)) {
    return print_bad_text("duration", error);
  }
  print_field("text:", duration.as_string());
  print_field("ISO 8601:", duration.as_iso8601_string());
  print_field("nanoseconds:", std::to_string(duration.as_nsec()));
  return 0;
}

int show_datetime(std::vector<std::string> const& args) {
  if (args.size() != 1) return usage_error("usage: tqcore datetime TEXT");
  tqcore::SimpleDateTime value;
  tqcore::ErrorInfo::Ptr error;
  try {
    error = tqcore::SimpleDateTime::from_string_nothrow(args[0].data(), args[0].size(), &value);
  } catch (tqcore::ErrorException const& e) {  // an infinite base with an offset raises
    error = e.error();
  }
  if (error) return print_bad_text("datetime", error);
  print_field("base (UTC):", value.base_time_utc().as_string());
  print_field("offset:", std::to_string(value.timezone_offset()) + " minutes");
  print_field("local time:", value.as_local_time().as_string());
  print_field("text:", value.as_string());
  return 0;
}

}  // namespace

bool tool::read_all(std::string const& path, std::string* text) {
  if (path.empty() || path == "-") {
    text->assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return !std::cin.bad();
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  text->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return !file.bad();
}

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::cout << "tqcore " << TQCORE_VERSION_STRING << "\n\nA sample error report:";
    std::cout << sample_chain() << '\n';
    return 0;
  }
  std::string const command = args[0];
  args.erase(args.begin());
  if (command == "--help" || command == "-h") {
    print_usage(std::cout);
    return 0;
  }
  if (command == "--version") {
    std::cout << "tqcore " << TQCORE_VERSION_STRING << '\n';
    return 0;
  }
  if (print_command_help(command, args)) return 0;
  try {
    if (command == "errno") return show_errno(args);
    if (command == "utf8") return check_utf8(args);
    if (command == "time") return show_time(args);
    if (command == "duration") return show_duration(args);
    if (command == "datetime") return show_datetime(args);
    if (command == "uuid") return tool::run_uuid(args);
    if (command == "hash") return tool::run_hash(args);
    if (command == "stack") return tool::run_stack(args);
    if (command == "crash") return tool::run_crash(args);
    if (command == "cpu") return tool::run_cpu(args);
    if (command == "info") return tool::run_info(args);
    if (command == "base64" || command == "base32" || command == "hex") {
      return run_codec(command, args);
    }
  } catch (tqcore::ErrorException const& e) {
    std::cerr << "tqcore: " << e.what() << '\n';
    return 1;
  }
  return usage_error("unknown command '" + command + "'");
}
