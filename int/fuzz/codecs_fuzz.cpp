// Base-64, base-32 and hexadecimal decoding of any text: either one of the codec's own errors,
// or bytes that encode back to the text in its canonical spelling (standard alphabet, the
// encoder's case, padded exactly when the text was). The decoders ignore the bits of the last
// character that make no whole byte, so there the two may differ, and only there.
#include <tqcore/error_exception.h>
#include <tqcore/transforms.h>

#include "fuzz_support.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

namespace {

using tqcore::ETransformPadding;

struct Codec {
  char const* name;
  char const* alphabet;
  unsigned bits;  // a character's
  std::vector<uint8_t> (*decode)(std::string_view);
  std::string (*encode)(void const*, size_t, ETransformPadding);
  std::string (*canonical)(std::string text);
};

std::string hex_encode_any(void const* data, size_t size, ETransformPadding) {
  return tqcore::hex_encode(data, size);
}

std::string base64_canonical(std::string text) {
  std::replace(text.begin(), text.end(), '-', '+');
  std::replace(text.begin(), text.end(), '_', '/');
  return text;
}
std::string base32_canonical(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}
std::string hex_canonical(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

Codec const kCodecs[] = {
    {"base64", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", 6,
     tqcore::base64_decode, tqcore::base64_encode, base64_canonical},
    {"base32", "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567", 5, tqcore::base32_decode, tqcore::base32_encode,
     base32_canonical},
    {"hex", "0123456789abcdef", 4, tqcore::hex_decode, hex_encode_any, hex_canonical},
};

bool is_own_error(Codec const& codec, tqcore::ErrorException const& e) {
  std::string const prefix = std::string("error.tqcore.transforms.") + codec.name + ".";
  std::string const code = e.error()->code().value().as_string();
  return code == prefix + "invalid" || code == prefix + "truncated" || code == prefix + "padding";
}

void check(Codec const& codec, std::string const& text) {
  std::vector<uint8_t> bytes;
  try {
    bytes = codec.decode(text);
  } catch (tqcore::ErrorException const& e) {
    FUZZ_CHECK(is_own_error(codec, e), text);
    return;
  }
  bool const padded = text.find('=') != std::string::npos;
  std::string const again = codec.encode(
      bytes.data(), bytes.size(), padded ? ETransformPadding::padded : ETransformPadding::unpadded);
  std::string const canonical = codec.canonical(text);
  FUZZ_CHECK(again.size() == canonical.size(), text);
  size_t const data_characters =
      canonical.find('=') == std::string::npos ? canonical.size() : canonical.find('=');
  size_t const loose_bits = data_characters * codec.bits % 8;
  for (size_t k = 0; k < canonical.size(); ++k) {
    if (k + 1 == data_characters && loose_bits != 0) {
      auto const value = [&](char c) { return std::strchr(codec.alphabet, c) - codec.alphabet; };
      FUZZ_CHECK(value(again[k]) == (value(canonical[k]) & ~((1 << loose_bits) - 1)), text);
    } else {
      FUZZ_CHECK(again[k] == canonical[k], text);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  tqcore_fuzz::Input input(data, size);
  Codec const& codec = kCodecs[input.byte() % 3];
  check(codec, input.rest());
  return 0;
}
