// Allocation failure, everywhere: each operation runs with an operator new that fails at the
// n-th allocation, for every n until it completes. Each run must leave by std::bad_alloc (or
// the library's record of it) or complete, leak nothing (LeakSanitizer in the asan build), and
// leave the library so that the next normal call gives the right answer.
#include <tqcore/abs_rel_time.h>
#include <tqcore/barrier.h>
#include <tqcore/cpu.h>
#include <tqcore/diagnostics.h>
#include <tqcore/error_builder.h>
#include <tqcore/error_exception.h>
#include <tqcore/future.h>
#include <tqcore/murmur_hash.h>
#include <tqcore/object_key.h>
#include <tqcore/result_auto_signal.h>
#include <tqcore/result_control.h>
#include <tqcore/simple_date_time.h>
#include <tqcore/static_instance.h>
#include <tqcore/string_to.h>
#include <tqcore/transforms.h>
#include <tqcore/ucsutil.h>
#include <tqcore/uuid.h>

#include <gtest/gtest.h>

#include <algorithm>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "test_support.h"
#include "testing_seams.h"

namespace {

// 0: off; otherwise the number of allocations still allowed plus one.
std::atomic<long> g_countdown{0};

void* allocate(std::size_t size) {
  long left = g_countdown.load(std::memory_order_relaxed);
  if (left > 0) {
    left = g_countdown.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (left == 0) throw std::bad_alloc();
  }
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

void* allocate_nothrow(std::size_t size) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
  return allocate_nothrow(size);
}
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
  return allocate_nothrow(size);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::nothrow_t const&) noexcept { std::free(p); }
void operator delete[](void* p, std::nothrow_t const&) noexcept { std::free(p); }

namespace tqcore {
namespace {

using tqcore_test::failure;
using tqcore_test::Placed;

// A wrong answer: distinct from every way an injected failure may leave.
struct WrongAnswer : std::logic_error {
  using std::logic_error::logic_error;
};
void check(bool ok, char const* what) {
  if (!ok) throw WrongAnswer(what);
}

struct Row {
  char const* name;
  std::function<void()> run;  // does the operation and checks its answer
};

SourceLocation const kHere("oom_test", "$Id: //tqcore/int/test/oom_test.cpp#1 $", 1);

// Observers that count, to see that nobody heard of an outcome that did not happen.
struct CountingObserver : RefCounted<AtomicRefCount>, IFutureObserver<std::string> {
  int successes = 0;
  int failures = 0;
  void future_failed(ErrorInfo::Ptr const&) override { ++failures; }
  void future_succeeded(std::string const&) override { ++successes; }
};

struct Cached {
  std::string text = std::string(100, 'c');
};
StaticInstance<Cached> g_instance;

std::string const kLong(200, 'x');  // beyond any small-string buffer

size_t interned() { return impl::testing::interned_string_count(); }

// Keys and hashes first: the harness is their first user in this process.
// One operation a line.
// clang-format off
std::vector<Row> rows() {
  return {
      {"murmur hash, first use", [] { check(murmur_hash("abc", 3) == murmur_hash("abc", 3), "hash"); }},
      {"hash context", [] { MurmurHashContext c; c.update("abc", 3); check(c.calculate_digest() == murmur_hash("abc", 3), "digest"); }},
      {"empty keys", [] { StringKey a; UuidKey b; ObjectKey c; a.clear(); check(a == StringKey() && b == UuidKey() && c == ObjectKey(), "empty"); }},
      {"string key, first use and hit", [] { StringKey a("oom.key.one"); StringKey b("oom.key.one"); check(a == b, "same key"); }},
      {"string key, last release", [] { size_t const before = interned(); { StringKey k(kLong.c_str()); } check(interned() == before, "released"); }},
      {"string key cache growth", [] { size_t const before = interned(); { std::vector<StringKey> keys; for (int i = 0; i < 400; ++i) keys.emplace_back(("grow." + std::to_string(i)).c_str()); } check(interned() == before, "count back"); }},
      {"uuid key", [] { Uuid const u = Uuid::create_random(); UuidKey a(u); UuidKey b(u); check(a == b, "same key"); }},
      {"unique key text", [] { std::ostringstream s; s << ObjectKey::create_unique_with_label("oom", 3); check(s.str().size() > 3, "text"); }},
      {"uuid text both ways", [] { Uuid const u = Uuid::create_sequential(); check(Uuid::from_string(u.as_string().c_str()) == u, "round trip"); }},
      {"record created and expanded", [] { ErrorParams p; p.add(SourceString::create_reference("n"), kLong); check(ErrorInfo::create(ErrorCode("error.oom.x"), "value {@n}", std::move(p), kHere)->expanded_message().as_string() == "value " + kLong, "expanded"); }},
      {"composer keeps its content", [] { ErrorComposer c("value {@n}"); c.param(SourceString::create_reference("n"), kLong); ErrorInfo::Ptr e; while (!e) { try { e = c.create(ErrorCode("error.oom.y"), kHere); } catch (std::bad_alloc const&) {} } check(e->expanded_message().as_string() == "value " + kLong, "composed"); }},
      {"builder", [] { ErrorBuilder b; b << kLong; check(b.create(ErrorCode("error.oom.z"), kHere)->message().as_string() == kLong, "message"); }},
      {"what() text, never cached cut", [] { static ErrorException const shared(failure("error.oom.what")); std::string const text = shared.what(); if (text == "tqcore::ErrorException") throw std::bad_alloc(); check(text.find("error.oom.what") != std::string::npos && text.find("failed") != std::string::npos, "whole text"); }},
      {"from errno", [] { check(ErrorInfo::from_errno(kHere, ENOENT)->code().matches("error.errno.ENOENT"), "errno"); }},
      {"from exception", [] { check(ErrorInfo::from_exception(std::runtime_error(kLong), kHere) != nullptr, "record"); }},
      {"wide text to utf-8", [] { check(to_string(L"gr\u00FC\u00DF " + std::wstring(200, L'x')) == "gr\xC3\xBC\xC3\x9F " + kLong, "text"); }},
      {"base-64 both ways", [] { std::string const t = base64_encode(kLong.data(), kLong.size()); auto const b = base64_decode(t); check(std::string(b.begin(), b.end()) == kLong, "round trip"); }},
      {"number text", [] { check(string_to<double>(std::string_view("1.5")) == 1.5, "value"); }},
      {"number text, error record", [] { ErrorInfo::Ptr e; string_to<int>(kLong, &e); check(e != nullptr, "error"); }},
      {"time text both ways", [] { AbsoluteTime const t = AbsoluteTime::from_string("2024-02-29 12:00:00.5"); check(AbsoluteTime::from_string(t.as_string()) == t, "round trip"); }},
      {"duration text", [] { check(RelativeTime::from_string("P1DT2H").as_string() == RelativeTime::from_string("P1DT2H").as_string(), "text"); }},
      {"date-time text", [] { SimpleDateTime const d = SimpleDateTime::from_string("20240229T120000+0100"); check(SimpleDateTime::from_string(d.as_string()).as_string() == d.as_string(), "round trip"); }},
      {"future value with observers", [] { Future<std::string> f; RefCountPtr<CountingObserver> o(new CountingObserver); f.add_observer(o.get(), o); bool set = false; try { set = f.set(std::string(kLong)); } catch (std::bad_alloc const&) { check(o->successes == 0 && !f.is_ready(), "told of a success that did not happen"); throw; } check(set && o->successes == 1 && f.get() == kLong, "set"); }},
      {"future wait when its event could not be made", [] { Future<int> f; try { check(!f.wait(RelativeTime::milliseconds(1)), "timed out"); } catch (ErrorException const& e) { if (e.matches("error.errno.ENOMEM")) throw std::bad_alloc(); throw; } }},
      {"result through a future control", [] { Future<int> f; ResultControlFutureRef<int> c(f); RefCountPtr<AsyncResult<int>> h = c.create_async_handler(); h->on_async_result_success(7); check(h->get_result().get() == 7, "value"); }},
      {"result through the ignoring controls", [] { ResultControlIgnoredIfAsync<int> c; check(c.signal_result(3).get() == 3, "direct"); ResultControlIgnored<int> d; d.create_async_handler()->on_async_result_success(1); }},
      {"handler dropped unsignalled", [] { Future<int> f; { ResultControlFutureRef<int> c(f); (void)c.create_async_handler(); } check(f.is_ready() && f.error_info()->code().matches("error.tqcore.result.notSignaled"), "waiter told"); }},
      {"cancel keeps the handle until it took", [] { Future<int> f; ResultControlFutureRef<int> c(f); RefCountPtr<AsyncResult<int>> const h = c.create_async_handler(); AsyncOpHandle op(h->get_result()); for (;;) { try { op.cancel(false, failure("error.oom.why")); break; } catch (std::bad_alloc const&) { check(!f.is_ready(), "half cancelled"); } } check(f.error_info()->code().matches("error.tqcore.result.cancelled"), "cancelled"); }},
      {"guard with handlers", [] { Future<> a, b; { ResultControlFutureRef<> ca(a), cb(b); AutoSignalAsyncResult<> guard; guard.push_back(ca.create_async_handler()); guard.push_back(cb.create_async_handler()); } check(a.is_ready() && b.is_ready(), "both failed"); }},
      {"barrier", [] { Future<int> a, b; AnyFutureBarrier barrier; barrier.push_back(a); barrier.push_back(b); check(barrier.set_error_if_not_ready(failure("error.oom.b")) == 2, "both"); }},
      {"static instance on first use", [] { check(g_instance->text.size() == 100, "built"); }},
      {"processor decoded and dumped", [] { hardware::CpuInfo const info; std::ostringstream s; s.exceptions(std::ios::badbit); info.dump_cpuid_info(s, ""); info.dump_raw_cpuid(s, ""); check(!info.vendor_id().empty() && s.str().find(info.vendor_id()) != std::string::npos, "described"); }},
      {"registers as text", [] { ucontext_t c{}; c.uc_mcontext.gregs[REG_RAX] = 0x2a; check(format_registers(c).rfind("RAX=000000000000002a", 0) == 0, "registers"); }},
      {"symbolic backtrace, whole or without symbols (inlined calls add lines)", [] { std::string const t = get_stack_backtrace(0, 4); if (t == "<failed>") throw std::bad_alloc(); check(std::count(t.begin(), t.end(), '\n') >= 4 && (t.find("oom_test!") != std::string::npos || t.find("<no symbols>") != std::string::npos), "four frames"); }},
  };
}
// clang-format on

// Shortened in the plain suite; every n in the asan preset, which sets TQCORE_OOM_FULL.
long run_limit() { return std::getenv("TQCORE_OOM_FULL") != nullptr ? 1'000'000 : 60; }

class AllocationFailure : public ::testing::TestWithParam<size_t> {};

TEST_P(AllocationFailure, LeavesByBadAllocAndTheNextCallWorks) {
  Row const row = rows()[GetParam()];
  long const limit = run_limit();
  long n = 1;
  for (; n <= limit; ++n) {
    g_countdown.store(n, std::memory_order_relaxed);
    bool completed = false;
    try {
      row.run();
      completed = true;
    } catch (std::bad_alloc const&) {
    } catch (ErrorException const& e) {
      g_countdown.store(0);
      EXPECT_TRUE(e.matches("error.exception.bad_alloc")) << row.name << " n=" << n << e.what();
    } catch (std::exception const& e) {
      g_countdown.store(0);
      ADD_FAILURE() << row.name << " n=" << n << ": " << e.what();
    }
    bool const injected = g_countdown.exchange(0) <= 0 || !completed;
    try {
      row.run();
    } catch (std::exception const& e) {
      ADD_FAILURE() << row.name << " after n=" << n << ": " << e.what();
      return;
    }
    if (completed && !injected) break;
  }
  RecordProperty("runs", static_cast<int>(n));
}

INSTANTIATE_TEST_SUITE_P(Operations, AllocationFailure, ::testing::Range<size_t>(0, rows().size()),
                         [](::testing::TestParamInfo<size_t> const& info) {
                           std::string name = rows()[info.param].name;
                           for (char& c : name) {
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

}  // namespace
}  // namespace tqcore
