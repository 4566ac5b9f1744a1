// UUID text of any bytes: a text is taken only in one of the three forms, and a taken one
// reads back the same from each of its printed forms; the size-less reader agrees with the
// sized one up to the first zero byte.
#include <tqcore/uuid.h>

#include "fuzz_support.h"

#include <cctype>
#include <string>

namespace {

using tqcore::Uuid;

// The three shapes by position, any case of hexadecimal digits.
bool has_uuid_shape(std::string const& text) {
  std::string body = text;
  if (text.size() == 38) {
    if (text.front() != '{' || text.back() != '}') return false;
    body = text.substr(1, 36);
  }
  if (body.size() != 32 && body.size() != 36) return false;
  for (size_t k = 0; k < body.size(); ++k) {
    bool const dash = body.size() == 36 && (k == 8 || k == 13 || k == 18 || k == 23);
    if (dash ? body[k] != '-' : std::isxdigit(static_cast<unsigned char>(body[k])) == 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  Uuid value;
  bool const taken = Uuid::from_string_nothrow(text.data(), text.size(), &value);
  FUZZ_CHECK(taken == has_uuid_shape(text), text);
  Uuid up_to_zero;
  bool const taken_up_to_zero = Uuid::from_string_nothrow(text.c_str(), &up_to_zero);
  FUZZ_CHECK(taken_up_to_zero == has_uuid_shape(text.c_str()), text);
  if (!taken) return 0;
  for (Uuid::EFormat format : {Uuid::Hyphenated, Uuid::Compact, Uuid::Braced}) {
    Uuid again;
    std::string const form = value.as_string(format);
    FUZZ_CHECK(Uuid::from_string_nothrow(form.data(), form.size(), &again) && again == value,
               text + " -> " + form);
  }
  return 0;
}
