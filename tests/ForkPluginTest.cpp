#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tolan/Assert.h"
#include "Tolan/CheckIncompat.h"
#include "Tolan/Debug.h"
#include "Tolan/Exception.h"
#include "Tolan/ForkHandler.h"
#include "Tolan/Plugin.h"
#include "support/ChildProcess.h"
#include "support/ForkedChild.h"

using ::testing::HasSubstr;

namespace {

class PluginTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    Tolan::throwOnAssertFailIs(true);
    // Levels 0-3 of the plugin channel, so its messages reach standard error.
    Tolan::Platform::setupTolanDebug("TolanPlugin/0123");
  }
};

class NamedPlugin : public Tolan::Platform::Plugin {
 public:
  explicit NamedPlugin(std::string name) : name_(std::move(name)) {}
  Tolan::String pluginName() const override { return name_; }

 private:
  std::string name_;
};

}  // namespace

TEST(ForkHandler, ChildSeesFlagParentDoesNot) {
  Tolan::Platform::forkedChildIs(false);
  EXPECT_EQ(Tolan::Test::exitStatusInChild([] { return Tolan::Platform::isForkedChild() ? 0 : 1; }), 0);
  EXPECT_FALSE(Tolan::Platform::isForkedChild());

  // A second registration must not break the flag (nor double anything visible).
  Tolan::Platform::setupHandler();
  EXPECT_EQ(Tolan::Test::exitStatusInChild([] { return Tolan::Platform::isForkedChild() ? 0 : 1; }), 0);

  Tolan::Platform::forkedChildIs(true);
  EXPECT_TRUE(Tolan::Platform::isForkedChild());
  Tolan::Platform::forkedChildIs(false);
  EXPECT_FALSE(Tolan::Platform::isForkedChild());
}

TEST_F(PluginTest, LoadsOnceAndRegistersByName) {
  testing::internal::CaptureStderr();
  void* handle = Tolan::Platform::loadPlugin("utgood");
  std::string err = testing::internal::GetCapturedStderr();
  ASSERT_NE(handle, nullptr) << err;
  EXPECT_THAT(err, HasSubstr("adding plugin utgood"));
  EXPECT_THAT(err, HasSubstr("Yay!  Plugin utgood loaded"));
  Tolan::Platform::Plugin* plugin = Tolan::Platform::findPlugin("utgood");
  ASSERT_NE(plugin, nullptr);
  EXPECT_EQ(plugin->pluginName(), "utgood");

  testing::internal::CaptureStderr();
  EXPECT_EQ(Tolan::Platform::loadPlugin("utgood"), nullptr);
  err = testing::internal::GetCapturedStderr();
  EXPECT_THAT(err, HasSubstr("utgood already loaded"));
  EXPECT_EQ(Tolan::Platform::findPlugin("utgood"), plugin);

  // A second object claiming the name is refused and the first one stays.
  NamedPlugin impostor("utgood");
  try {
    Tolan::Platform::registerPlugin(&impostor);
    ADD_FAILURE() << "duplicate registration accepted";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("Plugin utgood already registered"));
  }
  EXPECT_EQ(Tolan::Platform::findPlugin("utgood"), plugin);
}

TEST_F(PluginTest, MissingLibraryReturnsNullWithLoaderText) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Tolan::Platform::loadPlugin("utnosuchplugin"), nullptr);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_THAT(err, HasSubstr("Failed to load plugin utnosuchplugin: libutnosuchplugin.so"));
  EXPECT_EQ(Tolan::Platform::findPlugin("utnosuchplugin"), nullptr);
}

TEST_F(PluginTest, LibraryThatDoesNotRegisterIsAnAssertion) {
  try {
    Tolan::Platform::loadPlugin("utsilent");
    ADD_FAILURE() << "no assertion";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("Phooey -- plugin utsilent failed to register"));
  }
  EXPECT_EQ(Tolan::Platform::findPlugin("utsilent"), nullptr);
}

// The duplicate is found inside dlopen, while the loader holds its own locks:
// the process must end there rather than unwind through the loader.
TEST_F(PluginTest, SecondLibraryWithTheSameNameEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Tolan::throwOnAssertFailIs(false);
        Tolan::Platform::loadPlugin("utdup");
        Tolan::Platform::loadPlugin("utdup2");
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
