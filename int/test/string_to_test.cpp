#include <tqcore/error_exception.h>
#include <tqcore/streamers.h>
#include <tqcore/string_to.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>

namespace tqcore {
namespace {

template <class F>
std::string failure_of(F&& f) {
  ErrorInfo::Ptr error;
  f(&error);
  return error ? error->expanded_message().as_string() : "no failure";
}

TEST(StringTo, FailureShowsAtMost128BytesOnACharacterBoundary) {
  std::string text(127, 'x');
  text += "\xE2\x82\xAC";  // a three-byte character across the limit
  text += std::string(70, 'y');
  ErrorInfo::Ptr error;
  string_to<double>(text.data(), text.size(), &error);
  EXPECT_EQ(error->params().get_value("text"), std::string(127, 'x'));
}

// Every double that strtod reads, string_to reads bit for bit alike, and every text that strtod
// does not consume whole, string_to refuses.
TEST(StringTo, DoublesMatchStrtodOnGeneratedTexts) {
  std::mt19937_64 random(17);
  auto digits = [&](size_t n) {
    std::string s;
    for (size_t k = 0; k < n; ++k) s += static_cast<char>('0' + random() % 10);
    return s;
  };
  std::vector<std::string> texts;  // the fixed edge cases are in the string_to fuzz corpus
  for (int k = 0; k < 100000; ++k) {
    std::string t;
    if (random() % 8 == 0) t += random() % 2 ? "-" : "+";
    t += digits(random() % 20);
    if (random() % 2) t += "." + digits(random() % 20);
    if (random() % 2) {
      t += random() % 2 ? "e" : "E";
      if (random() % 2) t += random() % 2 ? "-" : "+";
      t += std::to_string(random() % 700);
    }
    if (random() % 50 == 0 && !t.empty()) t[random() % t.size()] = "x. e-"[random() % 5];
    texts.push_back(t);
    if (k % 10 == 0) {  // shortest round-trip texts of random bit patterns, denormals included
      uint64_t bits = random();
      double d;
      std::memcpy(&d, &bits, sizeof(d));
      if (std::isfinite(d)) {
        char buffer[64];
        std::snprintf(buffer, sizeof(buffer), "%.17g", d);
        texts.push_back(buffer);
      }
    }
  }
  for (std::string const& t : texts) {
    char* end = nullptr;
    double const expected = std::strtod(t.c_str(), &end);
    bool const accepted = end == t.c_str() + t.size();
    ErrorInfo::Ptr error;
    double const got = string_to<double>(t.data(), t.size(), &error);
    ASSERT_EQ(!error, accepted) << t;
    if (accepted) {
      ASSERT_EQ(std::memcmp(&got, &expected, sizeof(got)), 0) << t;
    }
  }
}

// The inline path and the library agree on the longest number text: 127 characters read, 128 fail.
TEST(StringTo, DoubleTextsOf128CharactersFail) {
  std::string const longest = "1." + std::string(125, '0');
  ErrorInfo::Ptr error;
  EXPECT_EQ(string_to<double>(longest.data(), longest.size(), &error), 1.0);
  EXPECT_FALSE(error);
  std::string const too_long = longest + "0";
  EXPECT_TRUE(std::isnan(string_to<double>(too_long.data(), too_long.size(), &error)));
  EXPECT_TRUE(error);
}

struct IntegerCase {
  char const* text;
  unsigned int radix;
  long long value;      // when it parses
  char const* failure;  // otherwise, the start of the message
};

// Rows show by their first field in test names and failure messages.
void PrintTo(IntegerCase const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.text);
}

class IntegerGrammar : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(IntegerGrammar, ParsesOrReports) {
  IntegerCase const& c = GetParam();
  ErrorInfo::Ptr error;
  long long const value = string_to<long long>(c.text, std::strlen(c.text), c.radix, &error);
  if (c.failure == nullptr) {
    EXPECT_FALSE(error) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  } else {
    ASSERT_TRUE(error) << c.text;
    EXPECT_EQ(error->expanded_message().as_string().rfind(c.failure, 0), 0u)
        << error->expanded_message().as_string();
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, IntegerGrammar,
    ::testing::Values(
        IntegerCase{"42", 10, 42, nullptr},
        IntegerCase{"ff", 16, 255, nullptr},
        IntegerCase{"0xFF", 16, 255, nullptr},
        IntegerCase{"zz", 36, 1295, nullptr},
        IntegerCase{"-9223372036854775808", 10, std::numeric_limits<long long>::min(), nullptr},
        IntegerCase{"9223372036854775808", 10, 0, "The value of the base-10 sequence \"9223372036854775808\" is too large"},
        IntegerCase{"12a", 10, 0, "Invalid base-10 numeral ('a') found while attempting to convert \"12a\""},
        IntegerCase{" 1", 10, 0, "Invalid base-10 numeral (' ')"},
        IntegerCase{"0x", 16, 0, "Invalid base-16 numeral ('x')"},
        IntegerCase{"", 10, 0, "tqcore::string_to<long long>(\"\") conversion failed."},
        IntegerCase{"1", 37, 0, "Invalid 'radix' argument specified (37) while attempting to convert \"1\" into a value of type long long."}));
// clang-format on

template <class T>
std::string streamed(T const& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

}  // namespace
}  // namespace tqcore
