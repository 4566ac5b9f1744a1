// Object keys: identity, interning, the caches' weak hold, trace texts.
#include <tqcore/object_key.h>
#include <tqcore/source_string.h>

#include <ace/Object_Manager.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "child_process.h"
#include "testing_seams.h"

namespace tqcore {
namespace {

std::string trace_of(StringTraceData::Ptr const& data) {
  std::pair<char const*, size_t> const text = data->trace_text();
  return std::string(text.first, text.second);
}

template <class Key>
std::string traced(Key const& key) {
  std::ostringstream stream;
  stream << key;
  return stream.str();
}

bool is_base32_name(std::string const& text) {
  return text.size() == 16 &&
         text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ234567") == std::string::npos;
}

TEST(StringKey, SameTextSameIdentityAndOneItem) {
  size_t const before = impl::testing::interned_string_count();
  StringKey const a("object-key-test-abc");
  StringKey const b(std::string("object-key-test-abc").c_str());
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(&a.value(), &b.value());  // the text is stored once
  EXPECT_EQ(a.value(), "object-key-test-abc");
  EXPECT_EQ(impl::testing::interned_string_count(), before + 1);
  StringKey const other("object-key-test-abd");
  EXPECT_NE(a, other);
  EXPECT_TRUE(a < other || other < a);
  EXPECT_EQ(traced(a), "object-key-test-abc");
}

TEST(StringKey, TheLastKeyTakesItsItemAlong) {
  size_t const before = impl::testing::interned_string_count();
  {
    StringKey const key("object-key-test-transient");
    StringKey const copy = key;
    EXPECT_EQ(impl::testing::interned_string_count(), before + 1);
  }
  EXPECT_EQ(impl::testing::interned_string_count(), before);
  StringKey const rebuilt("object-key-test-transient");
  EXPECT_EQ(rebuilt.value(), "object-key-test-transient");
  EXPECT_EQ(impl::testing::interned_string_count(), before + 1);
}

TEST(StringKey, AShardThatGrowsKeepsEveryItemFindable) {
  // More than 13 shards times 2039 buckets times 4: every shard grows at least once.
  constexpr int kCount = 120000;
  size_t const before = impl::testing::interned_string_count();
  std::vector<StringKey> keys;
  keys.reserve(kCount);
  for (int i = 0; i < kCount; ++i) keys.emplace_back(("grow-" + std::to_string(i)).c_str());
  EXPECT_EQ(impl::testing::interned_string_count(), before + kCount);
  for (int i = 0; i < kCount; ++i) {
    StringKey const again(("grow-" + std::to_string(i)).c_str());
    ASSERT_EQ(again, keys[i]) << i;
    ASSERT_EQ(again.value(), "grow-" + std::to_string(i));
  }
  keys.clear();
  EXPECT_EQ(impl::testing::interned_string_count(), before);
}

TEST(UuidKey, EqualHashesDifferentValuesStayApart) {
  // Swapping the two halves keeps Uuid::hash: the cache must compare the values.
  Uuid const first = Uuid::from_string("00112233-4455-6677-8899-aabbccddeeff");
  Uuid const swapped = Uuid::from_string("bbaa9988-ddcc-ffee-3322-110055447766");
  ASSERT_EQ(first.hash(), swapped.hash());
  UuidKey const a(first), b(swapped);
  EXPECT_NE(a, b);
  EXPECT_EQ(UuidKey(first), a);
  EXPECT_EQ(UuidKey(swapped), b);
  EXPECT_EQ(b.uuid(), swapped);
}

TEST(ObjectKey, NullUniqueAndLabelled) {
  EXPECT_TRUE(ObjectKey().is_null());
  EXPECT_TRUE(ObjectKey::null.is_null());
  EXPECT_EQ(ObjectKey(), ObjectKey::null);
  EXPECT_EQ(traced(ObjectKey()), "<null>");
  ObjectKey const first = ObjectKey::create_unique(), second = ObjectKey::create_unique();
  EXPECT_FALSE(first.is_null());
  EXPECT_NE(first, second);
  ObjectKey const copy = first;
  EXPECT_EQ(copy, first);
  std::string const name = traced(first);
  EXPECT_TRUE(is_base32_name(name)) << name;
  EXPECT_EQ(traced(first), name);  // drawn once
  EXPECT_NE(traced(second), name);
  ObjectKey const labelled = ObjectKey::create_unique_with_label("worker", 6);
  std::string const text = traced(labelled);
  ASSERT_EQ(text.size(), 8u + 1 + 16);
  EXPECT_EQ(text.substr(0, 9), "\"worker\"_");
  EXPECT_TRUE(is_base32_name(text.substr(9)));
  EXPECT_NE(labelled, ObjectKey::create_unique_with_label("worker", 6));
}

struct PointerToken final : impl::ObjectKeyTokenForPointerBase {
  explicit PointerToken(void const* p) : ObjectKeyTokenForPointerBase(p) {}
};

TEST(ObjectKey, PointerTokensTraceTheProcessNameAndTheAddress) {
  int target = 0;
  RefCountPtr<ObjectKeyToken> const a(new PointerToken(&target)), b(new PointerToken(nullptr));
  std::string const text = trace_of(a->query_trace_data());
  char address[19];
  std::snprintf(address, sizeof(address), "0x%016llx",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(&target)));
  ASSERT_EQ(text.size(), 35u);
  EXPECT_TRUE(is_base32_name(text.substr(0, 16)));
  EXPECT_EQ(text.substr(16), std::string(":") + address);
  EXPECT_EQ(trace_of(b->query_trace_data()).substr(0, 16), text.substr(0, 16));
  EXPECT_EQ(ObjectKey(a), ObjectKey(RefCountPtr<ObjectKeyToken>(new PointerToken(&target))));
}

// After the process's last cleanup, interning raises, and a key that outlived the cache still
// reads its text.
TEST(ObjectKeyCache, InterningAfterUnloadRaises) {
  tqcore_test::ChildResult const child = tqcore_test::run_in_child([] {
    static StringKey* survivor = new StringKey("object-key-test-survivor");
    ACE_Object_Manager::instance()->at_exit(
        nullptr,
        [](void*, void*) {
          std::string report = "survivor=" + survivor->value() + "\n";
          try {
            StringKey late("object-key-test-late");
            report += "no exception\n";
          } catch (std::runtime_error const& e) {
            report += std::string("raised: ") + e.what() + "\n";
          }
          if (write(STDOUT_FILENO, report.data(), report.size()) < 0) std::_Exit(3);
        },
        nullptr, "object key test");
    std::exit(0);
    return 0;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
  EXPECT_NE(child.output.find("survivor=object-key-test-survivor\n"
                              "raised: tqcore::impl::ObjectKeyCache not constructed or already "
                              "destroyed\n"),
            std::string::npos)
      << child.output;
}

}  // namespace
}  // namespace tqcore
