// A plugin library for the plugin tests, registering as UT_PLUGIN_NAME, or
// nothing when that is not defined.
#include "Tolan/Plugin.h"

#ifdef UT_WAITER
// Any library whose initialiser makes a trace handle: it tells the test that
// it is inside the loader, leaves it time to start a plugin load, then traces.
#include <atomic>
#include <chrono>
#include <thread>

#include "Tolan/Debug.h"
extern "C" std::atomic<int> tolanTestWaiterState;
namespace {
const bool gWaited = [] {
  tolanTestWaiterState = 1;
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  Tolan::Platform::getDebugHandler("TolanTestWaiter");
  return true;
}();
}  // namespace
#endif

#ifdef UT_PLUGIN_NAME
namespace {
struct UtPlugin : Tolan::Platform::Plugin {
  Tolan::String pluginName() const override { return UT_PLUGIN_NAME; }
} gPlugin;
const bool gRegistered = (Tolan::Platform::registerPlugin(&gPlugin), true);
}  // namespace
#endif
