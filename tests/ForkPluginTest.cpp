// The forked-child flag, plugins loaded by name, and the check for an
// incompatible platform library.
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

TEST(ForkHandler, ChildSeesTheFlagTheParentDoesNot) {
  Platform::forkedChildIs(false);
  for (int registrations = 1; registrations <= 2; ++registrations) {
    EXPECT_EQ(exitStatusInChild([] { return Platform::isForkedChild() ? 0 : 1; }), 0) << registrations;
    EXPECT_FALSE(Platform::isForkedChild());
    Platform::setupHandler();  // registering again must not break the flag
  }
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
  EXPECT_EQ(Platform::findPlugin("utsilent"), nullptr);
  EXPECT_EQ(Platform::findPlugin("utnosuchplugin"), nullptr);
}

// The duplicate is found inside dlopen, while the loader holds its own locks:
// the process must end there rather than unwind through the loader.
TEST_F(Plugins, ASecondLibraryWithTheSameNameEndsTheProcess) {
  EXPECT_ABORTS(
      {
        Platform::loadPlugin("utdup");
        Platform::loadPlugin("utdup2");
      },
      "Plugin utdup already registered");
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
