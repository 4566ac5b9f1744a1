// Raising, composing and matching errors, with a system error nested as the cause.
#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>

#include <fcntl.h>

#include <cerrno>
#include <iostream>
#include <string>

namespace {

char const kFileId[] = "$Id: //examples/errors.cpp#1 $";

// Opens a configuration file; a failure says which file and why, with errno as the cause.
int open_config(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDONLY);
  if (fd >= 0) return fd;
  int const cause = errno;
  tqcore::ErrorComposer("Cannot open the configuration file '{@path}'.")
      .param(tqcore::SourceString::create_reference("path"), path)
      .throw_with_nested_errno(tqcore::ErrorCode("error.example.config.open"),
                               TQCORE_SOURCE_LOCATION("open_config()", kFileId), cause);
}

}  // namespace

int main() {
  try {
    open_config("/nonexistent/service.conf");
  } catch (tqcore::ErrorException const& e) {
    // Handlers match by prefix at a dot: this one handles every configuration failure.
    if (e.matches("error.example.config")) std::cout << "configuration failure\n";
    if (e.any_matches("error.errno.ENOENT")) std::cout << "because the file is missing\n";
    std::cout << e.what() << '\n';  // the full report, cause included
    return e.any_matches("error.errno.ENOENT") ? 0 : 1;
  }
  return 1;
}
