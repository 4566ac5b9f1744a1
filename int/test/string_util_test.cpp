#include <tqcore/error_exception.h>
#include <tqcore/safe_cast.h>
#include <tqcore/string_util.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>

namespace tqcore {
namespace {

constexpr size_t kNpos = StringRange::npos;

// ---- Checked casts ---------------------------------------------------------------------------

template <class F>
std::string cast_failure(F&& cast) {
  try {
    cast();
  } catch (ErrorException const& e) {
    return e.error()->code().value().as_string() + " " + e.error()->expanded_message().as_string();
  }
  return "no failure";
}

TEST(SafeCast, RefusesEveryLossWithItsOwnCode) {
  EXPECT_EQ(cast_failure([] { safe_cast<unsigned>(-5); }),
            "error.tqcore.cast.negativeToUnsigned Attempt to cast negative value into unsigned "
            "type.  SrcValue: -5, DestType: unsigned int");
  EXPECT_EQ(cast_failure([] { safe_cast<uint8_t>(300); }),
            "error.tqcore.cast.valueTooBig Source value of cast does not fit into destination "
            "type.  SrcValue: 300, DestType: unsigned char");
  EXPECT_EQ(cast_failure([] { safe_cast<int8_t>(-200); }).substr(0, 29),
            "error.tqcore.cast.valueTooBig");
  EXPECT_EQ(cast_failure([] { safe_cast<int32_t>(0x80000000u); }).substr(0, 42),
            "error.tqcore.cast.valueTooBig.signReversal");
  EXPECT_EQ(cast_failure([] { safe_cast<int16_t>(0x10000u); }).substr(0, 30),
            "error.tqcore.cast.valueTooBig ");  // too wide, not a sign reversal
  EXPECT_EQ(cast_failure([] { safe_cast<uint16_t>(70000u); }).substr(0, 30),
            "error.tqcore.cast.valueTooBig ");
}

TEST(SafeCast, KeepsEveryValueThatFits) {
  EXPECT_EQ(safe_cast<uint8_t>(255), 255);
  EXPECT_EQ(safe_cast<int8_t>(-128), -128);
  EXPECT_EQ(safe_cast<int64_t>(UINT32_MAX), 4294967295LL);
  EXPECT_EQ(safe_cast<uint64_t>(INT64_MAX), static_cast<uint64_t>(INT64_MAX));
  EXPECT_EQ(safe_cast<int32_t>(0x7fffffffu), INT32_MAX);
}

struct Base {
  virtual ~Base() = default;
};
struct Derived : Base {};
struct Other : Base {};

TEST(DynamicReferenceCast, TellsNullFromWrongType) {
  Derived derived;
  Other other;
  EXPECT_EQ(&dynamic_reference_cast<Derived>(static_cast<Base*>(&derived)), &derived);
  try {
    dynamic_reference_cast<Derived>(static_cast<Base*>(nullptr));
    FAIL();
  } catch (std::bad_cast const& e) {
    EXPECT_STREQ(e.what(), "Bad tqcore::dynamic_reference_cast<> (NULL source)");
  }
  try {
    dynamic_reference_cast<Derived>(static_cast<Base*>(&other));
    FAIL();
  } catch (std::bad_cast const& e) {
    EXPECT_STREQ(e.what(), "Bad tqcore::dynamic_reference_cast<> (cast failed)");
  }
}

// ---- ASCII helpers ---------------------------------------------------------------------------

TEST(NocaseAscii, ComparesFoldedBytesThenSizes) {
  EXPECT_EQ(compare_nocase_ascii("abc", kNpos, "ABCD", kNpos), -1);
  EXPECT_EQ(compare_nocase_ascii("ABC", kNpos, "abd", kNpos), -1);
  EXPECT_EQ(compare_nocase_ascii("", kNpos, "", kNpos), 0);
  EXPECT_EQ(compare_nocase_ascii("a[", kNpos, "A{", kNpos), '[' - '{');
  EXPECT_EQ(compare_nocase_ascii("\xC4", 1, "\xE4", 1), -60 - -28);  // bytes from 0x80 never fold
  EXPECT_TRUE(string_equal_nocase_ascii("Hello, World", kNpos, "hELLO, wORLD", kNpos));
  EXPECT_FALSE(string_equal_nocase_ascii("abc", 3, "abcd", 4));
}

// The word-at-a-time comparison against the rules applied one byte at a time.
TEST(NocaseAscii, AgreesWithTheBytewiseRuleOnGeneratedTexts) {
  std::mt19937 random(7);
  char const alphabet[] = "aAzZ@[`{09 \x80\xC4\xE4\xFF";
  auto fold = [](char c) { return static_cast<signed char>(c >= 'A' && c <= 'Z' ? c + 32 : c); };
  for (int round = 0; round < 20000; ++round) {
    std::string a(random() % 80, ' ');
    for (char& c : a) c = alphabet[random() % (sizeof(alphabet) - 1)];
    std::string b = a;
    if (!b.empty() && random() % 3 != 0) b[random() % b.size()] = alphabet[random() % 15];
    if (random() % 4 == 0) b.resize(random() % 80, 'q');
    int expected = static_cast<int>(a.size() - b.size());
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
      if (fold(a[i]) != fold(b[i])) {
        expected = fold(a[i]) - fold(b[i]);
        break;
      }
    }
    ASSERT_EQ(compare_nocase_ascii(a.data(), a.size(), b.data(), b.size()), expected)
        << a << "|" << b;
    ASSERT_EQ(string_equal_nocase_ascii(a.data(), a.size(), b.data(), b.size()), expected == 0);
  }
}

TEST(NocaseAscii, HashesAgreeAcrossCase) {
  EXPECT_EQ(string_hash_lowercase_ascii("A", kNpos), 97u);
  EXPECT_EQ(string_hash_lowercase_ascii("a", kNpos), 97u);
  EXPECT_EQ(string_hash_lowercase_ascii("ab", kNpos), 583u);
  EXPECT_EQ(string_hash_lowercase_ascii("", 0), 0u);
  EXPECT_EQ(string_hash_lowercase_ascii("\xC4", 1), static_cast<size_t>(UINT32_MAX - 59));
  EXPECT_EQ(string_hash_uppercase_ascii("Mixed", kNpos), string_hash_uppercase_ascii("mIXED", 5));
  EXPECT_NE(string_hash_uppercase_ascii("ab", 2), string_hash_lowercase_ascii("ab", 2));
}

TEST(NocaseAscii, CaseConversionTouchesOnlyLetters) {
  EXPECT_EQ(to_lower_ascii("AbC-\xC4Z", kNpos), "abc-\xC4z");
  EXPECT_EQ(to_upper_ascii("abc{", 3), "ABC");
  std::string large(5000, 'q');  // past the stack buffer
  EXPECT_EQ(to_upper_ascii(large.data(), large.size()), std::string(5000, 'Q'));
  to_upper_ascii_inplace(large);
  to_lower_ascii_inplace(large);
  EXPECT_EQ(large, std::string(5000, 'q'));
}

// ---- StringRange -----------------------------------------------------------------------------

TEST(StringRange, EmptinessBoundsAndEnd) {
  EXPECT_TRUE(StringRange().empty());
  EXPECT_FALSE(StringRange().unbounded());
  EXPECT_TRUE(StringRange(5, kNpos).unbounded());
  EXPECT_EQ(StringRange(5, kNpos).last(), kNpos);
  EXPECT_TRUE(StringRange(kNpos, 3).empty());
  EXPECT_EQ(StringRange(2, 3).last(), 5u);
  EXPECT_EQ(StringRange(2, 3).last(4), StringRange(2, 2));
  EXPECT_EQ(StringRange(2, 3).last(1), StringRange(2, 0));
  EXPECT_EQ(StringRange(2, 3).last(kNpos), StringRange(2, kNpos));
  EXPECT_EQ(StringRange(kNpos, 3).last(kNpos), StringRange(kNpos, 0));
}

struct RangeCase {
  StringRange range;
  char op;  // 's' subrange, 'i' intersection, 'k' shrink
  size_t a;
  size_t b;
  StringRange expected;
};

class StringRangeArithmetic : public ::testing::TestWithParam<RangeCase> {};

TEST_P(StringRangeArithmetic, Saturates) {
  RangeCase c = GetParam();
  StringRange result = c.op == 's'   ? c.range.subrange(c.a, c.b)
                       : c.op == 'i' ? c.range.intersection(c.a, c.b)
                                     : c.range.shrink(c.a, c.b);
  EXPECT_EQ(result, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, StringRangeArithmetic,
    ::testing::Values(
        RangeCase{{2, 3}, 's', 1, 100, {3, 2}}, RangeCase{{2, 3}, 's', 100, 1, {5, 0}},
        RangeCase{{kNpos, 3}, 's', 0, 1, {kNpos, 0}}, RangeCase{{2, kNpos}, 's', 3, 4, {5, 4}},
        RangeCase{{2, kNpos}, 's', kNpos, 4, {kNpos, 0}}, RangeCase{{0, 5}, 'i', 3, 10, {3, 2}},
        RangeCase{{0, 2}, 'i', 3, 1, {0, 0}}, RangeCase{{0, kNpos}, 'i', 3, kNpos, {3, kNpos}},
        RangeCase{{kNpos, 1}, 'i', 0, 1, {0, 0}}, RangeCase{{2, 10}, 'k', 3, 7, {0, 0}},
        RangeCase{{2, 10}, 'k', 3, 6, {5, 1}}, RangeCase{{2, kNpos}, 'k', 3, 9, {5, kNpos}},
        RangeCase{{2, 10}, 'k', kNpos, 0, {0, 0}}));

TEST(StringRange, OrdersByFirstThenLength) {
  EXPECT_LT(StringRange(1, 9), StringRange(2, 0));
  EXPECT_LT(StringRange(1, 2), StringRange(1, 3));
  EXPECT_GE(StringRange(1, 3), StringRange(1, 3));
}

// ---- StringSliceTraits -----------------------------------------------------------------------

template <class T>
class SliceTraits : public ::testing::Test {};

template <class T>
struct Sample;
template <>
struct Sample<char const*> {
  static char const* get() { return "slice text"; }
};
template <>
struct Sample<wchar_t const*> {
  static wchar_t const* get() { return L"slice text"; }
};
template <>
struct Sample<std::string const*> {
  static std::string const* get() {
    static std::string const text = "slice text";
    return &text;
  }
};
template <>
struct Sample<std::wstring const*> {
  static std::wstring const* get() {
    static std::wstring const text = L"slice text";
    return &text;
  }
};
template <>
struct Sample<SourceString const*> {
  static SourceString const* get() {
    static SourceString const text("slice text", true);
    return &text;
  }
};

using SliceKinds = ::testing::Types<char const*, wchar_t const*, std::string const*,
                                    std::wstring const*, SourceString const*>;
TYPED_TEST_SUITE(SliceTraits, SliceKinds);

TYPED_TEST(SliceTraits, SeeTheSameSpanAndStreamIt) {
  using Traits = StringSliceTraits<TypeParam>;
  using Char = typename Traits::char_type;
  TypeParam text = Sample<TypeParam>::get();
  EXPECT_EQ(Traits::string_size(text), 10u);
  EXPECT_EQ(Traits::string_size(Traits::empty_string_pointer()), 0u);
  EXPECT_FALSE(Traits::is_null_pointer(text));
  EXPECT_TRUE(Traits::equal_pointers(text, text));
  StringRange const word(6, 4);
  std::basic_string<Char> reversed(Traits::string_rbegin(text, word),
                                   Traits::string_rend(text, word));
  EXPECT_EQ(reversed.size(), 4u);
  EXPECT_EQ(reversed[0], Char('t'));
  std::basic_ostringstream<Char> plain;
  Traits::write_stream(plain, text, word);
  EXPECT_EQ(plain.str(), std::basic_string<Char>(Traits::string_begin(text, word), 4));
  std::basic_ostringstream<Char> padded;
  padded.width(6);
  padded.fill(Char('*'));
  Traits::write_stream(padded, text, StringRange(0, 5));
  EXPECT_EQ(padded.str().size(), 6u);
  EXPECT_EQ(padded.str()[0], Char('*'));
}

}  // namespace
}  // namespace tqcore
