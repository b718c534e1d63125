// A plugin library for the plugin tests, registering as UT_PLUGIN_NAME, or
// nothing when that is not defined.
#include "Tolan/Plugin.h"

#ifdef UT_PLUGIN_NAME
namespace {
struct UtPlugin : Tolan::Platform::Plugin {
  Tolan::String pluginName() const override { return UT_PLUGIN_NAME; }
} gPlugin;
const bool gRegistered = (Tolan::Platform::registerPlugin(&gPlugin), true);
}  // namespace
#endif
