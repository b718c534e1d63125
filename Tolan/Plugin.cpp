#include "Tolan/Plugin.h"

#include <dlfcn.h>

#include <memory>
#include <unordered_map>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Loco.h"

namespace Tolan {
namespace Platform {
namespace {

// Created under the global lock on first use and never destroyed, so that a
// plugin's static destructors at exit still find both.
std::unordered_map<String, Plugin*>& registry() {
  static NoDestructor<std::unordered_map<String, Plugin*>> plugins;
  return *plugins;
}

DebugHandler& pluginHandle() {
  static NoDestructor<std::shared_ptr<DebugHandler>> owner(getDebugHandler("TolanPlugin"));
  return **owner;
}

}  // namespace

Plugin::~Plugin() = default;

void* loadPlugin(const char* name) {
  LocoGuard guard;
  DebugHandler& handle = pluginHandle();
  if (registry().count(name) != 0) {
    TOLAN_TRACE(handle, 3, "{} already loaded", name);
    return nullptr;
  }
  const String file = fmt::format("lib{}.so", name);
  // The plugin's registerPlugin() runs inside dlopen on this thread and takes
  // the (recursive) global lock again.
  void* handleOfLibrary = dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (!handleOfLibrary) {
    const char* why = dlerror();
    TOLAN_TRACE(handle, 0, "Failed to load plugin {}: {}", name, why ? why : "unknown error");
    return nullptr;
  }
  TOLAN_ASSERT(registry().count(name) != 0, "Phooey -- plugin {} failed to register", name);
  TOLAN_TRACE(handle, 2, "Yay!  Plugin {} loaded", name);
  return handleOfLibrary;
}

void registerPlugin(Plugin* plugin) {
  LocoGuard guard;
  const String name = plugin->pluginName();
  auto& plugins = registry();
  TOLAN_ASSERT(plugins.count(name) == 0, "Plugin {} already registered", name);
  TOLAN_TRACE(pluginHandle(), 2, "adding plugin {}", name);
  plugins.emplace(name, plugin);
}

Plugin* findPlugin(const String& name) {
  LocoGuard guard;
  auto it = registry().find(name);
  return it == registry().end() ? nullptr : it->second;
}

}  // namespace Platform
}  // namespace Tolan
