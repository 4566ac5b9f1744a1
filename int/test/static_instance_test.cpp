#include <tqcore/error_exception.h>
#include <tqcore/static_instance.h>

#include <ace/Init_ACE.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "child_process.h"

namespace tqcore {
namespace {

using tqcore_test::ChildResult;
using tqcore_test::run_in_child;

// Opens the protected registration to the tests.
struct Cleanups : impl::StaticInstanceBase {
  static void add(void (*function)(void*), void* argument) {
    register_cleanup_aux(function, argument);
  }
};

void say(void* text) {
  std::fputs(static_cast<char const*>(text), stdout);
  std::fflush(stdout);
}

void say_and_register_more(void* text) {
  say(text);
  Cleanups::add(&say, const_cast<char*>("late "));
}

// Runs the object manager's exit processing now, as the end of the process would.
void run_exit_processing() {
  ACE::init();
  ACE::fini();
}

TEST(StaticInstanceCleanup, RunsNewestFirstAndTakesLateRegistrations) {
  ChildResult child = run_in_child([] {
    Cleanups::add(&say, const_cast<char*>("first "));
    Cleanups::add(&say_and_register_more, const_cast<char*>("second "));
    Cleanups::add(&say, const_cast<char*>("third "));
    run_exit_processing();
    return 0;
  });
  EXPECT_TRUE(child.exited(0));
  EXPECT_EQ(child.output, "third second late first ");
}

TEST(StaticInstanceCleanup, RegistrationAfterExitProcessingRaises) {
  ChildResult child = run_in_child([] {
    run_exit_processing();
    try {
      Cleanups::add(&say, const_cast<char*>("never "));
    } catch (ErrorException const& e) {
      std::printf("%s|%s|%u", e.error()->code().value().as_string().c_str(),
                  e.error()->message().as_string().c_str(), e.error()->location().line());
      return 0;
    }
    return 1;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
  EXPECT_EQ(child.output,
            "error.tqcore.objectManager.closed|Cannot register objects for cleanup after object "
            "manager has already been closed|96");
}

// Counts its lives and says when it ends; each test has its own kind.
template <int N>
struct Tracked {
  Tracked() { ++constructed; }
  ~Tracked() {
    std::printf("tracked %d destroyed\n", N);
    std::fflush(stdout);
  }
  int value = 42;
  static inline int constructed = 0;
};

bool said_once(std::string const& output, std::string const& line) {
  size_t first = output.find(line);
  return first != std::string::npos && output.find(line, first + 1) == std::string::npos;
}

StaticInstance<Tracked<1>> g_tracked;

TEST(StaticInstance, AccessAfterDestructionRaises) {
  ChildResult child = run_in_child([] {
    static StaticInstance<Tracked<2>> instance;
    instance->value = 7;
    run_exit_processing();
    if (!instance.is_destroyed()) return 2;
    try {
      instance.get();
    } catch (ErrorException const& e) {
      bool right = e.matches(error::tqcore_objectManager_closed) &&
                   e.error()->location().line() == 231 &&
                   e.error()->message().as_string().rfind(
                       "Attempt to access static that has "
                       "already been destroyed",
                       0) == 0;
      return right ? 0 : 3;
    }
    return 1;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
  EXPECT_TRUE(said_once(child.output, "tracked 2 destroyed\n")) << child.output;
}

}  // namespace
}  // namespace tqcore
