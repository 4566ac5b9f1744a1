// A server's main: crashes, uncaught exceptions and failed allocations are reported through
// the program's own log, with memory dumps rationed to 16 an hour.
#include <tqcore/bad_alloc_handler.h>
#include <tqcore/diagnostics.h>
#include <tqcore/main_intercept.h>

#include <ctime>
#include <iostream>

namespace {

// The host's trace system; here, standard error with a tag.
bool log_critical(tqcore::SourceLocation const& where, tqcore::SourceString const& message,
                  char const*, size_t packed_size) {
  std::cerr << "[critical] " << where.function() << ": " << message << " (+" << packed_size
            << " bytes of values)\n";
  return true;
}

// Dump credits are counted per period: the hour gives 16 dumps an hour.
unsigned int this_hour() { return static_cast<unsigned int>(std::time(nullptr) / 3600); }

int serve(int, char**) {
  std::cout << "serving as " << tqcore::program_path() << ", main thread: " << std::boolalpha
            << tqcore::is_main_thread() << "\n";
  try {
    throw 7;  // a request handler fails with something that is no exception class
  } catch (...) {
    // What it was, as a record: "error.exception.fault.cppException", type int. A handler
    // that wants a dump as well calls create_dump_and_trace_anonymous_exception here.
    auto const error = tqcore::ErrorInfo::from_anonymous_exception(
        TQCORE_SOURCE_LOCATION("serve", "$Id: //examples/server_main.cpp#1 $"));
    std::cout << "request failed: " << error->code() << "\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  tqcore::set_diagnostic_trace_handlers(this_hour, log_critical, nullptr);
  tqcore::BadAllocHandler const out_of_memory;  // dump, trace and abort when new fails
  int const result = tqcore::main_invoker(serve, argc, argv);
  std::cout << "main has exited: " << std::boolalpha << tqcore::has_main_exited() << "\n";
  return result;
}
