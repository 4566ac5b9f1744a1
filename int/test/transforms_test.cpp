#include <tqcore/error_exception.h>
#include <tqcore/transforms.h>

#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"

namespace tqcore {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes_of(std::string const& text) { return Bytes(text.begin(), text.end()); }

std::string raised_code(std::function<void()> const& f) { return tqcore_test::code_raised_by(f); }

struct Vector {
  char const* data;
  char const* base64;
  char const* base32;
  char const* hex;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(Vector const& row, std::ostream* out) { *out << ::testing::PrintToString(row.data); }

class Rfc4648 : public ::testing::TestWithParam<Vector> {};

TEST_P(Rfc4648, EncodesAndDecodes) {
  Vector const& v = GetParam();
  std::string const data = v.data;
  EXPECT_EQ(base64_encode(data.data(), data.size()), v.base64);
  EXPECT_EQ(base32_encode(data.data(), data.size()), v.base32);
  EXPECT_EQ(hex_encode(data.data(), data.size()), v.hex);
  EXPECT_EQ(base64_decode(v.base64), bytes_of(data));
  EXPECT_EQ(base32_decode(v.base32), bytes_of(data));
  EXPECT_EQ(hex_decode(v.hex), bytes_of(data));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, Rfc4648,
    ::testing::Values(
        Vector{"", "", "", ""},
        Vector{"f", "Zg==", "MY======", "66"},
        Vector{"fo", "Zm8=", "MZXQ====", "666f"},
        Vector{"foo", "Zm9v", "MZXW6===", "666f6f"},
        Vector{"foob", "Zm9vYg==", "MZXW6YQ=", "666f6f62"},
        Vector{"fooba", "Zm9vYmE=", "MZXW6YTB", "666f6f6261"},
        Vector{"foobar", "Zm9vYmFy", "MZXW6YTBOI======", "666f6f626172"}));
// clang-format on

TEST(Transforms, RoundTripEveryLengthAndLargeData) {
  std::mt19937 random(3);
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 100; ++n) lengths.push_back(n);
  for (size_t n : {1000u, 4095u, 65536u, 1000003u}) lengths.push_back(n);
  for (size_t n : lengths) {
    Bytes data(n);
    for (uint8_t& b : data) b = static_cast<uint8_t>(random());
    std::string const b64 = base64_encode(data);
    std::string via_template;
    base64_encode(data.begin(), data.end(), std::back_inserter(via_template));
    ASSERT_EQ(b64, via_template) << n;  // the vector blocks write what the template writes
    ASSERT_EQ(base64_decode(b64), data) << n;
    std::string const unpadded = base64_encode(data, ETransformPadding::unpadded);
    ASSERT_EQ(unpadded, b64.substr(0, b64.find('='))) << n;
    ASSERT_EQ(base64_decode(unpadded), data) << n;
    std::string url = b64;
    for (char& c : url) c = c == '+' ? '-' : c == '/' ? '_' : c;
    ASSERT_EQ(base64_decode(url), data) << n;
    std::string const b32 = base32_encode(data);
    std::string b32_template;
    base32_encode(data.begin(), data.end(), std::back_inserter(b32_template));
    ASSERT_EQ(b32, b32_template) << n;
    ASSERT_EQ(base32_decode(b32), data) << n;
    std::string lower = b32;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    ASSERT_EQ(base32_decode(lower), data) << n;
    std::string hex_template;
    hex_encode(data.begin(), data.end(), std::back_inserter(hex_template));
    ASSERT_EQ(hex_encode(data), hex_template) << n;
    ASSERT_EQ(base32_decode(base32_encode(data, ETransformPadding::unpadded)), data) << n;
    std::string hex = hex_encode(data);
    ASSERT_EQ(hex_decode(hex), data) << n;
    for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    ASSERT_EQ(hex_decode(hex), data) << n;
  }
}

struct Malformed {
  std::string text;
  char const* code;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(Malformed const& row, std::ostream* out) {
  *out << ::testing::PrintToString(row.text);
}

class Base64Malformed : public ::testing::TestWithParam<Malformed> {};

TEST_P(Base64Malformed, IsRefused) {
  Malformed const& m = GetParam();
  EXPECT_EQ(raised_code([&] { base64_decode(m.text); }), m.code) << m.text;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, Base64Malformed,
    ::testing::Values(
        Malformed{"Zm9v!", "error.tqcore.transforms.base64.invalid"},
        Malformed{"Zm9\x80", "error.tqcore.transforms.base64.invalid"},
        Malformed{"Zm9vY", "error.tqcore.transforms.base64.truncated"},
        Malformed{"Zg=", "error.tqcore.transforms.base64.truncated"},
        Malformed{"Zg===", "error.tqcore.transforms.base64.truncated"},
        Malformed{"Zm9v====", "error.tqcore.transforms.base64.truncated"},
        Malformed{"Zg==Zg==", "error.tqcore.transforms.base64.padding"},
        Malformed{"Zg=\xC3", "error.tqcore.transforms.base64.padding"},
        // In a long text the vector blocks meet the bad character first.
        Malformed{std::string(100, 'A') + "*" + std::string(43, 'A'), "error.tqcore.transforms.base64.invalid"}));
// clang-format on

}  // namespace
}  // namespace tqcore
