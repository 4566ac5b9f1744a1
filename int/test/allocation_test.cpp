// Proves the allocation promises by counting every operator new, and the lock-free promises by
// counting every pthread_mutex_lock the process makes (this executable's definition comes first
// in symbol lookup, for the library and ACE alike).
#include <tqcore/abs_rel_time.h>
#include <tqcore/diagnostics.h>
#include <tqcore/error_exception.h>
#include <tqcore/murmur_hash.h>
#include <tqcore/object_key.h>
#include <tqcore/result_control.h>
#include <tqcore/simple_date_time.h>
#include <tqcore/uuid.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

namespace {
std::atomic<long> g_allocations{0};

void* counted_allocation(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) { return counted_allocation(size); }
void* operator new[](std::size_t size) { return counted_allocation(size); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  try {
    return counted_allocation(size);
  } catch (...) {
    return nullptr;
  }
}
namespace {
std::atomic<long> g_locks{0};
}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
  using Lock = int (*)(pthread_mutex_t*);
  static Lock const real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  g_locks.fetch_add(1, std::memory_order_relaxed);
  return real(mutex);
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace tqcore {
namespace {

char const kFileId[] = "$Id: //tqcore/int/test/allocation_test.cpp#1 $";

// How far `counter` moves while `f` runs; what `f` returns is kept alive until after counting.
template <class F>
long counted_during(std::atomic<long> const& counter, F&& f) {
  long const before = counter.load();
  auto result = f();
  long const after = counter.load();
  (void)result;
  return after - before;
}

template <class F>
long allocations_of(F&& f) {
  return counted_during(g_allocations, std::forward<F>(f));
}

template <class F>
long locks_of(F&& f) {
  return counted_during(g_locks, std::forward<F>(f));
}

TEST(Allocation, LocationsAndReferencesAreFree) {
  EXPECT_EQ(allocations_of([] { return SourceLocation("ns::fn()", kFileId, __LINE__); }), 0);
  SourceString const reference("referenced literal", true);
  EXPECT_EQ(allocations_of([&] { return SourceString(reference); }), 0);
  SourceString const dynamic("shared block");
  EXPECT_EQ(allocations_of([&] { return SourceString(dynamic); }), 0);
  ErrorCode const code = error::tqcore_result_wrongThread;
  EXPECT_EQ(allocations_of([&] { return ErrorCode(code); }), 0);
}

TEST(Allocation, CreateFromLiteralsAllocatesOnlyTheRecord) {
  EXPECT_EQ(allocations_of([] {
              return ErrorInfo::create(error::tqcore_uuid_parse, "Invalid UUID text.",
                                       SourceLocation("ns::fn()", kFileId, __LINE__));
            }),
            1);
  ErrorInfo::Ptr cause =
      ErrorInfo::create(error::tqcore, "cause", SourceLocation("ns::fn()", kFileId, __LINE__));
  EXPECT_EQ(allocations_of([&] {
              return ErrorInfo::create(error::tqcore_task, "with a cause",
                                       SourceLocation("ns::fn()", kFileId, __LINE__), cause);
            }),
            1);
}

TEST(Allocation, MatchingAllocatesNothing) {
  ErrorCode const code("error.one.two.three.four");
  ErrorInfo::Ptr error =
      ErrorInfo::create(code, "m", SourceLocation("ns::fn()", kFileId, __LINE__));
  EXPECT_EQ(allocations_of([&] { return code.matches("error.one.two"); }), 0);
  EXPECT_EQ(allocations_of([&] { return code.matches(error::tqcore); }), 0);
  EXPECT_EQ(allocations_of([&] { return error->any_matches("error.one.two.three"); }), 0);
}

TEST(Allocation, ExpandingWithoutPlaceholderAllocatesNothing) {
  ErrorParams params;
  params.add("name", 4, "value", 5);
  SourceString const message("No placeholder in this message.", true);
  EXPECT_EQ(allocations_of([&] { return params.expanded_message(message); }), 0);
  SourceString const dynamic("No placeholder here either.");
  EXPECT_EQ(allocations_of([&] { return params.expanded_message(dynamic); }), 0);
  EXPECT_EQ(allocations_of([] { return ErrorParams(); }), 0);
}

TEST(Allocation, ParsingUtcTextAllocatesNothing) {
  AbsoluteTime out;
  EXPECT_EQ(allocations_of([&] {
              return AbsoluteTime::from_string_nothrow("2024-02-29T12:34:56.789Z", 24, &out);
            }),
            0);
  EXPECT_EQ(allocations_of([&] { return AbsoluteTime::from_string_nothrow("INF", 3, &out); }), 0);
  // The unusual shapes go through the general reader.
  EXPECT_EQ(allocations_of(
                [&] { return AbsoluteTime::from_string_nothrow("20240229T1234,5", 15, &out); }),
            0);
  SimpleDateTime local;
  EXPECT_EQ(allocations_of([&] {
              return SimpleDateTime::from_string_nothrow("2024-02-29T12:34:56.789-05:30", 29,
                                                         &local);
            }),
            0);
  EXPECT_EQ(local.timezone_offset(), -330);
}

TEST(Allocation, ParsingDurationsAllocatesNothing) {
  std::string const human = "1d 2h 3m 4.5s 250ms";
  std::string const iso = "P1DT2H3M4.5S";
  RelativeTime out;
  EXPECT_EQ(allocations_of([&] { return RelativeTime::from_string_nothrow(human, &out); }), 0);
  EXPECT_EQ(allocations_of([&] { return RelativeTime::from_string_nothrow(iso, &out); }), 0);
}

// An operation that completes in its call, given the control that wants only an immediate
// outcome: the result is the one allocation, and nothing locks.
TEST(Allocation, ImmediateCompletionIsOneAllocationAndNoLock) {
  auto operation = [](ResultControl<int> const& control, bool fail) {
    if (fail) return control.signal_error(impl::create_unexpected_asynchrony_error());
    return control.signal_result(42);
  };
  ResultControlIgnoredIfAsync<int> const control;
  impl::create_unexpected_asynchrony_error();  // built once, before counting
  for (bool fail : {false, true}) {
    EXPECT_EQ(allocations_of([&] { return operation(control, fail); }), 1);
    EXPECT_EQ(locks_of([&] { return operation(control, fail); }), 0);
  }
  ResultControlIgnoredIfAsync<> const void_control;
  EXPECT_EQ(allocations_of([&] { return void_control.signal_result(); }), 1);
  EXPECT_EQ(locks_of([&] { return void_control.signal_result(); }), 0);
}

// Identifiers are plain values: only the std::string form of the text allocates.
TEST(Allocation, UuidsAndHashesAllocateNothing) {
  Uuid::create_random();  // the generator is built on first use
  Uuid::create_sequential();
  EXPECT_EQ(allocations_of([] { return Uuid::create_random(); }), 0);
  EXPECT_EQ(allocations_of([] { return Uuid::create_sequential(); }), 0);
  EXPECT_EQ(allocations_of([] { return Uuid::create_legacy_interaction_id(42); }), 0);
  char text[Uuid::kMaxTextSize];
  Uuid const uuid = Uuid::create_random();
  EXPECT_EQ(allocations_of([&] { return uuid.as_string(Uuid::Braced, text); }), 0);
  Uuid parsed;
  EXPECT_EQ(allocations_of([&] { return Uuid::from_string_nothrow(text, &parsed); }), 0);
  EXPECT_EQ(parsed, uuid);
  std::wstring const wide(1000, L'\u00e9');
  EXPECT_EQ(allocations_of([&] { return murmur_hash(text, 38); }), 0);
  EXPECT_EQ(allocations_of([&] { return murmur_hash(wide.data(), wide.size()); }), 0);
}

// A lookup that hits copies nothing: its one allocation is the token it hands out.
TEST(Allocation, AStringKeyThatHitsAllocatesOnlyItsToken) {
  StringKey const held("allocation-test-key-with-a-text-longer-than-any-small-buffer");
  StringKey const empty;  // the default token is made on first use
  EXPECT_EQ(allocations_of([] {
              return StringKey("allocation-test-key-with-a-text-longer-than-any-small-buffer");
            }),
            1);
  EXPECT_EQ(allocations_of([] { return StringKey(""); }), 0);
  EXPECT_EQ(allocations_of([&] { return held.as_object_key(); }), 0);
}

TEST(Allocation, CountingReallyCounts) {
  EXPECT_EQ(allocations_of([] { return SourceString("a copy"); }), 1);
  EXPECT_GE(locks_of([] { return Future<int>().set(1); }), 1);
}

// A walk of a thread that has walked before is what a failing process can afford.
TEST(Allocation, WarmStackWalkAllocatesNothingAndTakesNoLock) {
  StackFrameRecord frames[STACK_FRAME_CAPACITY];
  auto walk = [&] { return capture_stack_frames(nullptr, frames, frames + STACK_FRAME_CAPACITY); };
  EXPECT_GT(walk() - frames, 3);
  // The first round's frames are new to the walker; the second walks the same path again.
  long allocations = -1;
  long locks = -1;
  for (int round = 0; round < 2; ++round) {
    allocations = allocations_of(walk);
    locks = locks_of(walk);
  }
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(locks, 0);
}

}  // namespace
}  // namespace tqcore
