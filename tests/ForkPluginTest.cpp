#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tolan/Assert.h"
#include "Tolan/CheckIncompat.h"
#include "Tolan/Debug.h"
#include "Tolan/Exception.h"
#include "Tolan/ForkHandler.h"
#include "Tolan/Plugin.h"
#include "support/ChildProcess.h"
#include "support/SysFixtures.h"

using ::testing::HasSubstr;
namespace Platform = Tolan::Platform;

namespace {

class PluginTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    Tolan::throwOnAssertFailIs(true);
    Platform::setupTolanDebug("TolanPlugin/0123");  // its messages reach standard error
  }
  static std::string assertion(const std::function<void()>& f) {
    return Tolan::Test::thrownMessage<Tolan::AssertException>(f);
  }
};

struct Impostor : Platform::Plugin {
  Tolan::String pluginName() const override { return "utgood"; }
};

}  // namespace

TEST(ForkHandler, ChildSeesFlagParentDoesNot) {
  Platform::forkedChildIs(false);
  for (int registrations = 1; registrations <= 2; ++registrations) {
    EXPECT_EQ(Tolan::Test::exitStatusInChild([] { return Platform::isForkedChild() ? 0 : 1; }), 0) << registrations;
    EXPECT_FALSE(Platform::isForkedChild());
    Platform::setupHandler();  // registering again must not break the flag
  }
}

TEST_F(PluginTest, LoadsOnceAndRegistersByName) {
  testing::internal::CaptureStderr();
  void* handle = Platform::loadPlugin("utgood");
  const bool again = Platform::loadPlugin("utgood") != nullptr;
  const std::string err = testing::internal::GetCapturedStderr();
  ASSERT_NE(handle, nullptr) << err;
  EXPECT_FALSE(again);
  for (const char* trace : {"adding plugin utgood", "Yay!  Plugin utgood loaded", "utgood already loaded"}) {
    EXPECT_THAT(err, HasSubstr(trace));
  }
  Platform::Plugin* plugin = Platform::findPlugin("utgood");
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->pluginName(), "utgood");

  // A second object claiming the name is refused and the first one stays.
  Impostor impostor;
  EXPECT_THAT(assertion([&] { Platform::registerPlugin(&impostor); }), HasSubstr("Plugin utgood already registered"));
  EXPECT_EQ(Platform::findPlugin("utgood"), plugin);
}

TEST_F(PluginTest, MissingOrSilentLibraries) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Platform::loadPlugin("utnosuchplugin"), nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("Failed to load plugin utnosuchplugin: libutnosuchplugin.so"));
  EXPECT_EQ(Platform::findPlugin("utnosuchplugin"), nullptr);

  EXPECT_THAT(assertion([] { Platform::loadPlugin("utsilent"); }),
              HasSubstr("Phooey -- plugin utsilent failed to register"));
  EXPECT_EQ(Platform::findPlugin("utsilent"), nullptr);
}

// The duplicate is found inside dlopen, while the loader holds its own locks:
// the process must end there rather than unwind through the loader.
TEST_F(PluginTest, SecondLibraryWithTheSameNameEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Tolan::throwOnAssertFailIs(false);
        Platform::loadPlugin("utdup");
        Platform::loadPlugin("utdup2");
      },
      "Plugin utdup already registered");
}

TEST(CheckIncompat, PassesAloneAndAbortsBehindAnotherPlatformLibrary) {
  EXPECT_EQ(platformLibPresenceFlag, Tolan::PLATFORM_LIB_FLAG_TOLAN);
  Tolan::checkIncompat();  // nothing to complain about, and repeatable

  const auto alone = Tolan::Test::ChildProcess(Tolan::Test::helperPath("ut_probe")).arg("flag").run();
  ASSERT_TRUE(alone.exitedWith(0)) << alone.describe();
  EXPECT_EQ(alone.out, "2\n");
  // Linked behind a library that defines the flag first: never reaches main().
  const auto behind = Tolan::Test::ChildProcess(Tolan::Test::helperPath("ut_incompat_probe")).arg("flag").run();
  EXPECT_TRUE(behind.killedBy(SIGABRT)) << behind.describe();
  EXPECT_EQ(behind.out, "");
  EXPECT_THAT(behind.err, HasSubstr("a library incompatible with Tolan has been loaded"));
}
