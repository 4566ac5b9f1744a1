#include <tqcore/string_util.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace tqcore {

std::string const g_emptyString;
std::wstring const g_emptyWString;

namespace {

constexpr size_t kNpos = static_cast<size_t>(-1);
constexpr uint64_t kOnes = 0x0101010101010101ULL;
constexpr uint64_t kHighBits = 0x8080808080808080ULL;

size_t measured(char const* text, size_t size) { return size == kNpos ? std::strlen(text) : size; }

char fold_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
char fold_upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// Lower-cases the ASCII letters of eight bytes at once; every other byte stays as it is.
uint64_t fold_lower_word(uint64_t word) {
  uint64_t const seven_bits = word & ~kHighBits;
  uint64_t const at_least_a = seven_bits + (0x80 - 'A') * kOnes;
  uint64_t const above_z = seven_bits + (0x80 - 'Z' - 1) * kOnes;
  uint64_t const is_upper = (at_least_a ^ above_z) & ~word & kHighBits;
  return word | (is_upper >> 2);
}

uint64_t load_word(char const* p) {
  uint64_t word;
  std::memcpy(&word, p, sizeof(word));
  return word;
}

// The index of the first byte at which the two texts differ after folding, or `size`.
size_t first_folded_difference(char const* a, char const* b, size_t size) {
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t)) {
    uint64_t const wa = load_word(a + i);
    uint64_t const wb = load_word(b + i);
    if (wa != wb && fold_lower_word(wa) != fold_lower_word(wb)) break;
  }
  for (; i < size; ++i) {
    if (a[i] != b[i] && fold_lower(a[i]) != fold_lower(b[i])) return i;
  }
  return size;
}

template <char (*Fold)(char)>
size_t folded_hash(char const* text, size_t size) {
  size = measured(text, size);
  uint32_t h = 0;
  for (size_t i = 0; i < size; ++i) {
    h = h * 5 +
        static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(Fold(text[i]))));
  }
  return h;
}

// Below this size the conversion runs in a stack buffer and the result is assigned once.
constexpr size_t kStackConversion = 4000;

template <char (*Fold)(char)>
std::string folded_copy(char const* text, size_t size) {
  size = measured(text, size);
  if (size < kStackConversion) {
    char buffer[kStackConversion];
    std::transform(text, text + size, buffer, Fold);
    return std::string(buffer, size);
  }
  std::string result(text, size);
  std::transform(result.begin(), result.end(), result.begin(), Fold);
  return result;
}

}  // namespace

bool string_equal_nocase_ascii(char const* a, size_t a_size, char const* b, size_t b_size) {
  a_size = measured(a, a_size);
  b_size = measured(b, b_size);
  return a_size == b_size && first_folded_difference(a, b, a_size) == a_size;
}

int compare_nocase_ascii(char const* a, size_t a_size, char const* b, size_t b_size) {
  a_size = measured(a, a_size);
  b_size = measured(b, b_size);
  size_t const common = std::min(a_size, b_size);
  size_t const at = first_folded_difference(a, b, common);
  if (at < common) {
    return static_cast<signed char>(fold_lower(a[at])) -
           static_cast<signed char>(fold_lower(b[at]));
  }
  return static_cast<int>(a_size - b_size);
}

size_t string_hash_lowercase_ascii(char const* text, size_t size) {
  return folded_hash<fold_lower>(text, size);
}

size_t string_hash_uppercase_ascii(char const* text, size_t size) {
  return folded_hash<fold_upper>(text, size);
}

std::string to_lower_ascii(char const* text, size_t size) {
  return folded_copy<fold_lower>(text, size);
}

std::string to_upper_ascii(char const* text, size_t size) {
  return folded_copy<fold_upper>(text, size);
}

void to_lower_ascii_inplace(std::string& text) {
  std::transform(text.begin(), text.end(), text.begin(), fold_lower);
}

void to_upper_ascii_inplace(std::string& text) {
  std::transform(text.begin(), text.end(), text.begin(), fold_upper);
}

}  // namespace tqcore
