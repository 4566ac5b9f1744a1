// Cleaning a demangled name of any bytes in place: the result is never longer than the input,
// keeps no space between two characters that are not both identifier characters (unless a
// dropped token left it), and nothing touches a byte past the name.
#include <tqcore/diagnostics.h>

#include "fuzz_support.h"

#include <cctype>
#include <cstring>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  tqcore_fuzz::Input input(data, size);
  size_t const limit = input.byte() % 64 + (input.byte() % 2 == 0 ? 0 : 1000);
  std::string const name = input.rest();
  // An exact-size heap block, so that the sanitizers see a read or write past the name.
  std::unique_ptr<char[]> const buffer(new char[name.size()]);
  std::memcpy(buffer.get(), name.data(), name.size());
  size_t const length = tqcore::clean_decorated_name(buffer.get(), name.size(), limit);
  FUZZ_CHECK(length <= name.size(), name);
  bool const drops_tokens = name.find("__ptr") != std::string::npos;
  auto const identifier = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == ':' ||
           static_cast<unsigned char>(c) >= 0x80;
  };
  for (size_t k = 0; k < length && !drops_tokens; ++k) {
    bool const joins =
        k > 0 && k + 1 < length && identifier(buffer[k - 1]) && identifier(buffer[k + 1]);
    FUZZ_CHECK(buffer[k] != ' ' || joins, name);
  }
  return 0;
}
