// The tqcore command-line tool: shows what the library does.
#include <tqcore/tqcore.h>

#include <cstring>
#include <iostream>
#include <string>

namespace {

char const kFileId[] = "$Id: //tqcore/int/tools/tqcore_main.cpp#1 $";

void print_usage(std::ostream& out) {
  out << "Usage: tqcore [--help] [--version]\n"
         "\n"
         "With no arguments, prints the version and a sample error report.\n"
         "\n"
         "Options:\n"
         "  --help     show this text\n"
         "  --version  print the library version\n";
}

// A three-record chain as a failing call would build it: a parse failure, the configuration
// load that saw it, and the start-up that gave up.
tqcore::ErrorInfo::Ptr sample_chain() {
  using namespace tqcore;
  ErrorParams parse_params;
  parse_params.add(SourceString::create_reference("utcTime"), "2026-13-01T00:00:00Z");
  ErrorInfo::Ptr parse = ErrorInfo::create(
      error::tqcore_absoluteTime_invalidUtcString, "The month of '{@utcTime}' is out of range.",
      std::move(parse_params), SourceLocation("tqcore::AbsoluteTime::from_string()", kFileId, 42));
  ErrorParams load_params;
  load_params.add(SourceString::create_reference("path"), "/etc/example/service.conf");
  load_params.add(SourceString::create_reference("line"), "17");
  ErrorInfo::Ptr load = ErrorInfo::create(
      ErrorCode("error.example.config.invalidValue"), "Invalid value in {@path} at line {@line}.",
      std::move(load_params), SourceLocation("example::Config::load()", kFileId, 97), parse);
  return ErrorInfo::create(ErrorCode("error.example.startup"), "The service could not start.",
                           SourceLocation("example::Service::start()", kFileId, 210), load);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::string const arg = argv[1];
    if (arg == "--help" || arg == "-h") {
      print_usage(std::cout);
      return 0;
    }
    if (arg == "--version") {
      std::cout << "tqcore " << TQCORE_VERSION_STRING << '\n';
      return 0;
    }
    std::cerr << "tqcore: unknown argument '" << arg << "'\n";
    print_usage(std::cerr);
    return 2;
  }
  std::cout << "tqcore " << TQCORE_VERSION_STRING << "\n\nA sample error report:";
  std::cout << sample_chain() << '\n';
  return 0;
}
