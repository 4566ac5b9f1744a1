// Message templates with any text and any values: expansion matches a plain reading of the
// "{@name}" rule, and a value cut at a limit never splits a UTF-8 character.
#include <tqcore/error_params.h>
#include <tqcore/ucsutil.h>

#include "fuzz_support.h"

#include <string>
#include <string_view>

namespace {

// Cut at `limit` bytes, back to the start of a character, then "...".
std::string cut(std::string const& value, size_t limit) {
  if (value.size() <= limit) return value;
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(value[end]) & 0xC0) == 0x80) --end;
  return value.substr(0, end) + "...";
}

std::string reference_expansion(tqcore::ErrorParams const& params, std::string const& text,
                                size_t limit) {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    size_t const close = text.compare(i, 2, "{@") == 0 ? text.find('}', i + 2) : std::string::npos;
    if (close == std::string::npos) {
      out += text[i++];
      continue;
    }
    std::string const name = text.substr(i + 2, close - i - 2);
    auto const found = params.find(name.data(), name.size());
    out += found == params.end() ? text.substr(i, close + 1 - i) : cut(found->second, limit);
    i = close + 1;
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  tqcore_fuzz::Input input(data, size);
  size_t const limit = input.byte() % 24;
  tqcore::ErrorParams params;
  for (unsigned count = input.byte() % 5; count > 0; --count) {
    std::string const name = input.text_until('\n');
    std::string const value = input.text_until('\n');
    params.add(name.data(), name.size(), value.data(), value.size());
  }
  std::string const text = input.rest();
  tqcore::SourceString const whole = params.expanded_message(text.data(), text.size());
  tqcore::SourceString const limited =
      params.expanded_message_with_limit(text.data(), text.size(), limit);
  std::string const got_whole(whole.data(), whole.size());
  std::string const got_limited(limited.data(), limited.size());
  FUZZ_CHECK(got_whole == reference_expansion(params, text, std::string::npos), text);
  FUZZ_CHECK(got_limited == reference_expansion(params, text, limit), text);
  bool all_valid = tqcore::is_valid_utf8(text.data(), text.size());
  for (auto const& entry : params) {
    all_valid = all_valid && tqcore::is_valid_utf8(entry.second.data(), entry.second.size());
  }
  FUZZ_CHECK(!all_valid || tqcore::is_valid_utf8(got_limited.data(), got_limited.size()), text);
  return 0;
}
