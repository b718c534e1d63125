// A plugin library for the plugin tests. Built several times:
//   UT_PLUGIN_NAME     the name it registers under (not set: registers nothing)
#include "Tolan/Plugin.h"

#ifdef UT_PLUGIN_NAME
namespace {

class UtPlugin : public Tolan::Platform::Plugin {
 public:
  Tolan::String pluginName() const override { return UT_PLUGIN_NAME; }
};

UtPlugin gPlugin;
const bool gRegistered = (Tolan::Platform::registerPlugin(&gPlugin), true);

}  // namespace
#endif
