// UTF-8 validation, conversion and repair against the plain one-character-at-a-time rules: the
// same verdicts and offsets, a measuring pass that predicts the writing pass exactly, a buffer
// one unit short refused, valid text surviving the round trip, repair keeping the length.
#include <tqcore/ucsutil.h>

#include "fuzz_support.h"
#include "ucs_reference.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace tqcore;                 // NOLINT(google-build-using-namespace)
using namespace tqcore::ucs_reference;  // NOLINT(google-build-using-namespace)

void check_validator(Bytes const& text) {
  size_t at = 0;
  size_t expected_at = 0;
  int const status = utf8_validate(text.data(), text.size(), &at);
  int const expected = ref_status(text, &expected_at);
  FUZZ_CHECK(status == expected, text);
  FUZZ_CHECK(status == utf8_valid || at == expected_at, text);
  FUZZ_CHECK(is_valid_utf8(text.data(), text.size()) == (expected == utf8_valid), text);
}

template <class Unit, class Convert, class Reference>
void check_conversion(Bytes const& text, Unit replacement, Convert convert, Reference reference) {
  std::vector<Unit> expected;
  Outcome const rules = reference(text, replacement, &expected);
  Outcome const measured = run_library([&](int* first_invalid) {
    return convert(text.data(), text.size(), nullptr, 0, replacement, first_invalid);
  });
  FUZZ_CHECK(measured == rules, text);
  if (!rules.raised.empty()) return;
  std::vector<Unit> written(rules.result + 1, Unit(0xAAAA));
  Outcome const wrote = run_library([&](int* first_invalid) {
    return convert(text.data(), text.size(), written.data(), rules.result, replacement,
                   first_invalid);
  });
  FUZZ_CHECK(wrote == rules, text);
  FUZZ_CHECK(std::equal(expected.begin(), expected.end(), written.begin()), text);
  FUZZ_CHECK(written[rules.result] == Unit(0xAAAA), text);  // nothing past the measure
  if (rules.result > 0) {
    size_t const short_by_one =
        convert(text.data(), text.size(), written.data(), rules.result - 1, replacement, nullptr);
    FUZZ_CHECK(short_by_one == 0, text);
  }
}

void check_round_trip(Bytes const& text) {
  // Only text that every conversion takes without a replacement: no U+FFFE, U+FFFF, and
  // nothing beyond U+10FFFF, which has no UTF-16 form.
  U32 scalars;
  if (!ref_utf8_to_ucs4(text, 0, &scalars).raised.empty()) return;
  for (unsigned int scalar : scalars) {
    if (scalar >= 0x110000) return;
  }
  size_t const units = utf8_to_utf16(text.data(), text.size(), nullptr, 0, 0, nullptr);
  std::vector<unsigned short> utf16(units);
  utf8_to_utf16(text.data(), text.size(), utf16.data(), units, 0, nullptr);
  size_t const bytes = utf16_to_utf8(utf16.data(), units, nullptr, 0, 0, nullptr);
  std::string back(bytes, '\0');
  utf16_to_utf8(utf16.data(), units, &back[0], bytes, 0, nullptr);
  FUZZ_CHECK(back == text, text);
}

void check_repair(Bytes const& text) {
  std::string repaired = text;
  int first_invalid = 0;
  make_valid_utf8(&repaired[0], repaired.size(), '?', &first_invalid);
  FUZZ_CHECK(repaired.size() == text.size(), text);
  FUZZ_CHECK(is_valid_utf8(repaired.data(), repaired.size()), text);
  size_t at = 0;
  bool const valid = ref_status(text, &at) == utf8_valid;
  FUZZ_CHECK(
      valid ? first_invalid == -1 && repaired == text : first_invalid == static_cast<int>(at),
      text);
}

void check_from_utf16(Bytes const& bytes) {
  U16 text(bytes.size() / 2);
  if (!text.empty()) std::memcpy(text.data(), bytes.data(), text.size() * 2);
  for (char replacement : {'\0', '?'}) {
    Bytes expected;
    Outcome const rules = ref_utf16_to_utf8(text, replacement, &expected, true);
    Outcome const measured = run_library([&](int* first_invalid) {
      return utf16_to_utf8(text.data(), text.size(), nullptr, 0, replacement, first_invalid);
    });
    FUZZ_CHECK(measured == rules, bytes);
    if (!rules.raised.empty()) continue;
    Bytes written(rules.result, '\0');
    size_t const n =
        utf16_to_utf8(text.data(), text.size(), &written[0], written.size(), replacement, nullptr);
    FUZZ_CHECK(n == rules.result && written == expected, bytes);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Bytes const text(reinterpret_cast<char const*>(data), size);
  check_validator(text);
  for (int replacement : {0, 0x3F}) {
    check_conversion<unsigned short>(text, static_cast<unsigned short>(replacement), utf8_to_utf16,
                                     ref_utf8_to_utf16);
  }
  for (unsigned int replacement : {0u, 0xFFFDu}) {
    check_conversion<unsigned int>(text, replacement, utf8_to_ucs4, ref_utf8_to_ucs4);
  }
  check_round_trip(text);
  check_repair(text);
  check_from_utf16(text);
  return 0;
}
