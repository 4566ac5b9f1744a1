#include <tqcore/source_string.h>

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tqcore {
namespace {

struct CompareCase {
  char const* a;
  char const* b;
  int sign;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(CompareCase const& row, std::ostream* out) { *out << ::testing::PrintToString(row.a); }

class SourceStringCompare : public ::testing::TestWithParam<CompareCase> {};

TEST_P(SourceStringCompare, OrdersAsUnsignedBytesThenByLength) {
  CompareCase const& c = GetParam();
  SourceString a(c.a);
  SourceString b(c.b);
  auto sign = [](int v) { return (v > 0) - (v < 0); };
  EXPECT_EQ(sign(a.compare(b)), c.sign);
  EXPECT_EQ(sign(a.compare(c.b)), c.sign);
  EXPECT_EQ(a == b, c.sign == 0);
  EXPECT_EQ(a < b, c.sign < 0);
  EXPECT_EQ(a >= c.b, c.sign >= 0);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Table, SourceStringCompare,
                         ::testing::Values(
        CompareCase{"abc", "abc", 0},
        CompareCase{"abc", "abd", -1},
        CompareCase{"ab", "abc", -1},
        CompareCase{"abc", "ab", 1},
        CompareCase{"\xC3\xA9", "z", 1},
        // unsigned bytes
        CompareCase{"", "a", -1}));
// clang-format on

struct FileIdCase {
  char const* id;
  char const* depot_path;
  char const* file_path;
};

// Rows show by their first field in test names and failure messages.
void PrintTo(FileIdCase const& row, std::ostream* out) { *out << ::testing::PrintToString(row.id); }

class FileIdPaths : public ::testing::TestWithParam<FileIdCase> {};

TEST_P(FileIdPaths, CutTheKeywordFrame) {
  FileIdCase const& c = GetParam();
  EXPECT_EQ(SourceLocation::depot_path_from_file_id(c.id, SourceString::npos), c.depot_path);
  EXPECT_EQ(SourceLocation::file_path_from_file_id(c.id, SourceString::npos), c.file_path);
  SourceLocation location("f()", c.id, 1);
  EXPECT_EQ(location.file_depot_path(), c.depot_path);
  EXPECT_EQ(location.file_path(), c.file_path);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Table, FileIdPaths,
    ::testing::Values(
        FileIdCase{"$Id: //depot/a/b.cpp#12 $", "//depot/a/b.cpp#12", "//depot/a/b.cpp"},
        FileIdCase{"$Id: //depot/a/b.cpp#3 $$  ", "//depot/a/b.cpp#3", "//depot/a/b.cpp"},
        FileIdCase{"plain.cpp", "plain.cpp", "plain.cpp"},
        FileIdCase{"$Id: x.cpp#2 $", "$Id: x.cpp#2", "$Id: x.cpp"},
        FileIdCase{"  $$", "  $$", "  $$"},
        // nothing but the frame: the whole text
        FileIdCase{"#1 /late/slash $", "/late/slash", "#1 /late/slash $"},
        FileIdCase{"", "", ""}));
// clang-format on

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {}  // namespace
}  // namespace tqcore
