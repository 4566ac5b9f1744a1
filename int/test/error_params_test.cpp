#include <tqcore/error_params.h>

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace tqcore {
namespace {

ErrorParams params_of(std::initializer_list<std::pair<char const*, char const*>> entries) {
  ErrorParams params;
  for (auto const& entry : entries) {
    params.add(entry.first, SourceString::npos, entry.second, SourceString::npos);
  }
  return params;
}

// ---- The map ---------------------------------------------------------------------------------

TEST(ErrorParams, AddReplacesTheValueOfAnExistingName) {
  ErrorParams params = params_of({{"b", "1"}, {"a", "2"}});
  params.add("b", 1, "three", 5);
  EXPECT_EQ(params.size(), 2u);
  EXPECT_EQ(params.get_value("b"), "three");
  EXPECT_EQ(params.begin()->first, "a");  // key order
}

TEST(ErrorParams, AbsentNamesAreEmptyAndNotFound) {
  ErrorParams params = params_of({{"name", "value"}});
  EXPECT_EQ(params.get_value("other"), "");
  std::string out = "untouched";
  EXPECT_FALSE(params.query_value("other", 5, &out));
  EXPECT_EQ(out, "untouched");
  EXPECT_TRUE(params.query_value("name", 4, &out));
  EXPECT_EQ(out, "value");
  EXPECT_TRUE(params.query_value("name", 4, nullptr));
  EXPECT_EQ(params.count("name"), 1u);
  EXPECT_EQ(params.count("nam"), 0u);
  EXPECT_EQ(params.find("namex", 4), params.begin());  // an explicit length cuts the name
}

TEST(ErrorParams, LiteralNamesAreNotCopied) {
  static char const name[] = "literalName";
  ErrorParams params;
  params.add(SourceString::create_reference(name), "v");
  EXPECT_EQ(params.begin()->first.data(), name);
  params.add(name, SourceString::npos, "w", 1);  // the existing key keeps its text
  EXPECT_EQ(params.begin()->first.data(), name);
  ErrorParams copied;
  copied.add(name, SourceString::npos, "v", 1);
  EXPECT_NE(copied.begin()->first.data(), name);
}

TEST(ErrorParams, AddingAnotherSetLetsItsValuesWin) {
  ErrorParams mine = params_of({{"a", "1"}, {"b", "2"}});
  mine.add(params_of({{"b", "20"}, {"c", "30"}}));
  EXPECT_EQ(mine, params_of({{"a", "1"}, {"b", "20"}, {"c", "30"}}));
}

TEST(ErrorParams, TransferLeavesTheSourceEmpty) {
  ErrorParams source = params_of({{"a", "1"}});
  ErrorParams target(source.transfer());
  EXPECT_TRUE(source.empty());
  EXPECT_EQ(target.size(), 1u);
  ErrorParams other = params_of({{"x", "y"}});
  target = other.transfer();
  EXPECT_TRUE(other.empty());
  EXPECT_EQ(target.get_value("x"), "y");
}

TEST(ErrorParams, OrderingWalksKeysThenValues) {
  EXPECT_EQ(params_of({}).compare(params_of({})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"b", "0"}})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"a", "2"}})), 0);
  EXPECT_LT(params_of({{"a", "1"}}).compare(params_of({{"a", "1"}, {"b", "1"}})), 0);
  EXPECT_GT(params_of({{"b", "1"}}).compare(params_of({{"a", "1"}, {"c", "1"}})), 0);
  EXPECT_TRUE(params_of({{"a", "1"}}) < params_of({{"a", "2"}}));
  EXPECT_TRUE(params_of({{"a", "1"}}) != params_of({{"a", "1"}, {"b", "1"}}));
}

TEST(ErrorParams, HashFoldsKeysAndValuesInOrder) {
  EXPECT_EQ(params_of({}).hash(), 0u);
  // "a" hashes to 97, "b" to 98; fold r ^= t + (r << 6) + (r >> 2) + 0x9e3779b9.
  uint64_t r = 0;
  r ^= 97 + (r << 6) + (r >> 2) + 0x9e3779b9ULL;
  r ^= 98 + (r << 6) + (r >> 2) + 0x9e3779b9ULL;
  EXPECT_EQ(params_of({{"a", "b"}}).hash(), r);
  // Characters count as signed: 0xFF adds -1, and "ab" is 97 * 5 + 98.
  EXPECT_EQ(impl::error_text_hash("\xFF", 1), 0xFFFFFFFFu);
  EXPECT_EQ(impl::error_text_hash("ab", 2), 97u * 5 + 98);
  EXPECT_NE(params_of({{"a", "b"}}).hash(), params_of({{"b", "a"}}).hash());
}

// ---- Expansion -------------------------------------------------------------------------------

struct ExpansionCase {
  char const* message;
  size_t limit;
  char const* expected;
};

class Expansion : public ::testing::TestWithParam<ExpansionCase> {
 protected:
  ErrorParams params = params_of({{"name", "value"},
                                  {"", "empty-key"},
                                  {"ten", "0123456789"},
                                  {"utf8", "ab\xC3\xA9z"},
                                  {"brace", "{@name}"}});
};

TEST_P(Expansion, ReplacesKnownPlaceholders) {
  ExpansionCase const& c = GetParam();
  SourceString message(c.message, true);
  EXPECT_EQ(params.expanded_message_with_limit(message, c.limit).as_string(), c.expected);
  EXPECT_EQ(
      params.expanded_message_with_limit(c.message, std::strlen(c.message), c.limit).as_string(),
      c.expected);
}

constexpr size_t kNone = SourceString::npos;

INSTANTIATE_TEST_SUITE_P(
    Table, Expansion,
    ::testing::Values(ExpansionCase{"plain text", kNone, "plain text"},
                      ExpansionCase{"a {@name} b", kNone, "a value b"},
                      ExpansionCase{"{@name}{@name}", kNone, "valuevalue"},
                      ExpansionCase{"a {@unknown} b", kNone, "a {@unknown} b"},
                      ExpansionCase{"open {@name", kNone, "open {@name"},
                      ExpansionCase{"end {@", kNone, "end {@"},
                      ExpansionCase{"{@}", kNone, "empty-key"},
                      ExpansionCase{"{@{@name}", kNone, "{@{@name}"},  // the name is "{@name"
                      ExpansionCase{"{@brace}", kNone, "{@name}"},  // values are not scanned again
                      ExpansionCase{"{@name} then {@ open", kNone, "value then {@ open"},
                      ExpansionCase{"{@ten}", 4, "0123..."},
                      ExpansionCase{"{@ten}", 10, "0123456789"},  // exactly the limit: not cut
                      ExpansionCase{"{@ten}", 0, "..."},
                      ExpansionCase{"{@utf8}", 3, "ab..."},  // byte 3 continues the character at 2
                      ExpansionCase{"{@utf8}", 4, "ab\xC3\xA9..."},
                      ExpansionCase{"long message text {@ten}", 2, "long message text 01..."}));

TEST(ExpansionWithoutPlaceholder, SourceStringFormReturnsTheArgumentItself) {
  static char const literal[] = "nothing to expand";
  ErrorParams params;
  SourceString reference(literal, true);
  EXPECT_EQ(params.expanded_message(reference).data(), literal);
  SourceString dynamic("dynamic");
  EXPECT_EQ(params.expanded_message(dynamic).data(), dynamic.data());
  SourceString single("{", true);
  EXPECT_EQ(params.expanded_message(single).data(), single.data());
}

TEST(ExpansionWithoutPlaceholder, PointerFormCopiesTheGivenLength) {
  ErrorParams params;
  char const* text = "no placeholder";
  SourceString copy = params.expanded_message(text, 2);
  EXPECT_EQ(copy.as_string(), "no");
  EXPECT_FALSE(copy.is_reference());
  // npos works only for a message with a placeholder: here it reaches the length check.
  EXPECT_THROW(params.expanded_message(text, SourceString::npos), std::runtime_error);
  EXPECT_EQ(params.expanded_message("{@x}", SourceString::npos).as_string(), "{@x}");
  EXPECT_TRUE(params.expanded_message(nullptr, 0).empty());
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {

TEST(ErrorParams, NullNamesAndValuesAreEmptyTexts) {
  ErrorParams params;
  params.add(nullptr, 3, nullptr, 4);
  EXPECT_EQ(params.size(), 1u);
  EXPECT_EQ(params.get_value(nullptr), "");
  EXPECT_EQ(params.get_value(""), "");
  EXPECT_EQ(params.count(nullptr), 1u);
  EXPECT_EQ(params.expanded_message("{@}", 3).as_string(), "");
}

}  // namespace
}  // namespace tqcore
