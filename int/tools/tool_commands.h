// What the tool's command files share.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Prints the message and the usage to standard error; returns the exit status 2.
int usage_error(std::string const& message);
// The whole of a file, or of standard input for "" or "-".
bool read_all(std::string const& path, std::string* text);

int run_uuid(std::vector<std::string> const& args);
int run_hash(std::vector<std::string> const& args);

}  // namespace tool
