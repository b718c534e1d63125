// Plugin.h - loading of plugin libraries that register themselves by name.
//
// A plugin is a shared library "lib<name>.so" (found the way dlopen finds
// libraries: LD_LIBRARY_PATH, the program's run path, the system paths).
// Its static initialisation calls registerPlugin() with a Plugin object whose
// pluginName() is <name>:
//
//   class MyPlugin : public Tolan::Platform::Plugin {
//     Tolan::String pluginName() const override { return "my"; }
//   };
//   static MyPlugin plugin;
//   static bool registered = (Tolan::Platform::registerPlugin(&plugin), true);
//
// Plugins are loaded with RTLD_NOW | RTLD_GLOBAL and never unloaded; the
// registry holds plain pointers to objects the plugins own. Any thread may
// load: loads are serialised by a lock of their own, and the global lock is
// held only around the registry, never across dlopen (so that a library
// initialised on another thread may trace meanwhile).
// Traces go to the "TolanPlugin" handle.
#pragma once

#include <string>

#include "Tolan/Common.h"

namespace Tolan {
namespace Platform {

class TOLAN_EXPORT Plugin {
 public:
  // The name the plugin registers under; must match its library's name.
  virtual String pluginName() const = 0;
  virtual ~Plugin();
};

// Loads "lib<name>.so" unless a plugin of that name is registered already.
// Returns the dlopen handle; null when the library could not be loaded
// (traced at level 0 with dlerror's text) or was loaded before (traced at
// level 3). A library that loads but does not register <name> is a library
// assertion.
TOLAN_EXPORT void* loadPlugin(const char* name);

// Enters `plugin` under its pluginName(). Registering a name twice is a
// library assertion; during loadPlugin() it is raised by loadPlugin() once
// dlopen has returned, since it cannot unwind out of the loader. Meant for a
// plugin library's static initialisation.
TOLAN_EXPORT void registerPlugin(Plugin* plugin);

// The plugin registered under `name`, or null.
TOLAN_EXPORT Plugin* findPlugin(const String& name);

}  // namespace Platform
}  // namespace Tolan
