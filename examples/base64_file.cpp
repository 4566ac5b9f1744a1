// Base-64 of a file (or of standard input), and back.
#include <tqcore/error_exception.h>
#include <tqcore/transforms.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  std::ifstream file;
  if (argc > 1) file.open(argv[1], std::ios::binary);
  std::istream& in = argc > 1 ? static_cast<std::istream&>(file) : std::cin;
  std::string const data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::string const text = tqcore::base64_encode(data.data(), data.size());
  std::cout << text << '\n';
  std::vector<uint8_t> const decoded = tqcore::base64_decode(text);
  return std::string(decoded.begin(), decoded.end()) == data ? 0 : 1;
}
