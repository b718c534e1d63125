// The forked-child flag, plugins loaded by name, and the check for an
// incompatible platform library.
#include <dlfcn.h>

#include "Tolan/CheckIncompat.h"
#include "Tolan/ForkHandler.h"
#include "Tolan/Plugin.h"
#include "support/Support.h"

using namespace TolanTest;
namespace Platform = Tolan::Platform;

class Plugins : public Test {
 protected:
  static void SetUpTestSuite() { Platform::setupTolanDebug("TolanPlugin/0123"); }  // its messages reach stderr
};

struct Impostor : Platform::Plugin {
  Tolan::String pluginName() const override { return "utgood"; }
};

// Children forked while other threads trace and record exceptions: a lock
// held by one of those threads at the fork would hang the child for ever.
TEST(ForkHandler, ChildrenForkedUnderLoadSeeTheFlagAndNeverHang) {
  Platform::forkedChildIs(false);
  auto handler = Platform::getDebugHandler("TolanTestFork");
  Tolan::BacktraceTracker::enabledIs(true);
  std::atomic<bool> stop{false};
  std::vector<int> statuses;
  traceOf(*handler, "0", [&] {
    std::vector<std::thread> hammers;
    for (int t = 0; t < 2; ++t)
      hammers.emplace_back([&] {
        while (!stop) {
          TOLAN_TRACE(*handler, 0, "busy");
          Tolan::RuntimeException recorded("busy");
        }
      });
    for (int child = 0; child < 20; ++child) {
      statuses.push_back(exitStatusInChild(
          [&] {
            TOLAN_TRACE(*handler, 0, "child");
            Platform::getDebugHandler("TolanTestForkChild");
            EXPECT_ASSERTS(TOLAN_FAIL("in the child"), "in the child");
            return Platform::isForkedChild() && !HasFailure() ? 0 : 1;
          },
          std::chrono::seconds(10)));
      Platform::setupHandler();  // registering again changes nothing
    }
    stop = true;
    for (auto& th : hammers) th.join();
  });
  Tolan::BacktraceTracker::clear();
  Tolan::BacktraceTracker::enabledIs(false);
  EXPECT_FALSE(Platform::isForkedChild());
  EXPECT_EQ(statuses, std::vector<int>(20, 0)) << "137: a child hung";
}

TEST_F(Plugins, LoadOnceRegisterByNameAndRefuseImpostors) {
  void* handle = nullptr;
  bool again = true;
  const std::string err = traceOf([&] {
    handle = Platform::loadPlugin("utgood");
    again = Platform::loadPlugin("utgood") != nullptr;
    EXPECT_EQ(Platform::loadPlugin("utnosuchplugin"), nullptr);
  });
  ASSERT_NE(handle, nullptr) << err;
  EXPECT_FALSE(again);
  for (const char* trace : {"adding plugin utgood", "Yay!  Plugin utgood loaded", "utgood already loaded",
                            "Failed to load plugin utnosuchplugin: libutnosuchplugin.so"})
    EXPECT_THAT(err, HasSubstr(trace));
  Platform::Plugin* plugin = Platform::findPlugin("utgood");
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->pluginName(), "utgood");
  Impostor impostor;  // a second object claiming the name is refused; the first stays
  EXPECT_ASSERTS(Platform::registerPlugin(&impostor), "Plugin utgood already registered");
  EXPECT_EQ(Platform::findPlugin("utgood"), plugin);
  EXPECT_ASSERTS(Platform::loadPlugin("utsilent"), "Phooey -- plugin utsilent failed to register");
  // Found inside dlopen, reported once it has returned.
  ASSERT_NE(Platform::loadPlugin("utdup"), nullptr);
  EXPECT_ASSERTS(Platform::loadPlugin("utdup2"), "Plugin utdup already registered");
  for (const char* none : {"utsilent", "utnosuchplugin"}) EXPECT_EQ(Platform::findPlugin(none), nullptr);
}

extern "C" {
std::atomic<int> tolanTestWaiterState{0};
}

// Another thread's dlopen runs an initialiser that traces while a plugin loads.
TEST_F(Plugins, LoadsAndOtherLibrariesTracingWhileLoadedDoNotDeadlock) {
  EXPECT_EQ(exitStatusInChild(
                [] {
                  std::thread other([] { dlopen("libutwaiter.so", RTLD_NOW); });
                  while (tolanTestWaiterState == 0) {
                  }
                  Platform::loadPlugin("utnosuchplugin");  // dlopen all the same
                  other.join();
                  return 0;
                },
                std::chrono::seconds(20)),
            0)
      << "137: deadlocked";
}

// A child forked while another thread is inside loadPlugin() must be able to
// load plugins itself: the load lock is one of the locks taken across fork.
TEST_F(Plugins, AChildForkedDuringAnotherThreadsLoadCanLoad) {
  EXPECT_EQ(exitStatusInChild(
                [] {
                  tolanTestWaiterState = 0;
                  std::atomic<bool> forked{false};
                  std::thread loader([&] {  // utwaiter registers nothing: the load fails its assertion
                    EXPECT_ASSERTS(Platform::loadPlugin("utwaiter"), "failed to register");
                    while (!forked) {  // alive at the fork: ThreadSanitizer counts an ended one as leaked
                    }
                  });
                  while (tolanTestWaiterState == 0) {
                  }
                  const int grandchild = exitStatusInChild(
                      [] { return Platform::loadPlugin("utnosuchplugin") == nullptr ? 0 : 1; }, std::chrono::seconds(5));
                  forked = true;
                  loader.join();
                  return HasFailure() ? 1 : grandchild;
                },
                std::chrono::seconds(20)),
            0)
      << "137: the grandchild hung";
}

TEST(CheckIncompat, PassesAloneAndAbortsBehindAnotherPlatformLibrary) {
  EXPECT_EQ(platformLibPresenceFlag, Tolan::PLATFORM_LIB_FLAG_TOLAN);
  Tolan::checkIncompat();  // nothing to complain about, and repeatable
  const auto alone = runChild(helperPath("ut_probe"), {"flag"});
  ASSERT_TRUE(alone.exitedWith(0)) << alone.describe();
  EXPECT_EQ(alone.out, "2\n");
  // Linked behind a library that defines the flag first: never reaches main().
  const auto behind = runChild(helperPath("ut_incompat_probe"), {"flag"});
  EXPECT_EQ(behind.signal, SIGABRT) << behind.describe();
  EXPECT_EQ(behind.out, "");
  EXPECT_THAT(behind.err, HasSubstr("a library incompatible with Tolan has been loaded"));
}
