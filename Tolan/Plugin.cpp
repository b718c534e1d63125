#include "Tolan/Plugin.h"

#include <dlfcn.h>

#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/ForkLocks.h"
#include "Tolan/Locking.h"
#include "Tolan/Loco.h"

// Why loads do not hold the global lock across dlopen: the loader holds its
// own lock while a library's static initialisers run, and those commonly make
// trace handles, which take the global lock. A thread holding the global lock
// and waiting in dlopen, and another inside dlopen waiting for the global
// lock, would wait for each other for ever. Loads are serialised by a lock of
// their own, taken before (never under) the global one, which guards only the
// registry.
//
// Why duplicates are reported after dlopen: an exception cannot unwind out of
// dlopen (the loader's frames are C and hold its locks), so registerPlugin()
// called from a library's initialiser during loadPlugin() only records the
// name, and loadPlugin() fails the assertion once dlopen has returned.

namespace Tolan {
namespace Platform {
namespace {

// Created under the global lock on first use and never destroyed, so that a
// plugin's static destructors at exit still find both.
std::unordered_map<String, Plugin*>& registry() {
  static NoDestructor<std::unordered_map<String, Plugin*>> plugins;
  return *plugins;
}

Locking::RecursiveLock& loadLock() {
  static NoDestructor<Locking::RecursiveLock> lock;
  return *lock;
}

// Names registered twice during the current loadPlugin() of this thread.
thread_local std::vector<String>* tDuplicates = nullptr;

DebugHandler& pluginHandle() {
  static NoDestructor<std::shared_ptr<DebugHandler>> owner(getDebugHandler("TolanPlugin"));
  return **owner;
}

}  // namespace

Plugin::~Plugin() = default;

void* loadPlugin(const char* name) {
  // Recursive: a plugin's initialiser may load another plugin.
  std::lock_guard<Locking::RecursiveLock> load(loadLock());
  DebugHandler& handle = pluginHandle();
  if (findPlugin(name)) {
    TOLAN_TRACE(handle, 3, "{} already loaded", name);
    return nullptr;
  }
  const String file = fmt::format("lib{}.so", name);
  std::vector<String> duplicates;
  std::vector<String>* outer = std::exchange(tDuplicates, &duplicates);
  void* handleOfLibrary = dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL);
  tDuplicates = outer;
  TOLAN_ASSERT(duplicates.empty(), "Plugin {} already registered", duplicates.empty() ? "" : duplicates.front());
  if (!handleOfLibrary) {
    const char* why = dlerror();
    TOLAN_TRACE(handle, 0, "Failed to load plugin {}: {}", name, why ? why : "unknown error");
    return nullptr;
  }
  TOLAN_ASSERT(findPlugin(name) != nullptr, "Phooey -- plugin {} failed to register", name);
  TOLAN_TRACE(handle, 2, "Yay!  Plugin {} loaded", name);
  return handleOfLibrary;
}

void registerPlugin(Plugin* plugin) {
  const String name = plugin->pluginName();
  {
    LocoGuard guard;
    if (registry().emplace(name, plugin).second) {
      TOLAN_TRACE(pluginHandle(), 2, "adding plugin {}", name);
      return;
    }
  }
  if (tDuplicates) return tDuplicates->push_back(name);
  TOLAN_FAIL("Plugin {} already registered", name);
}

Plugin* findPlugin(const String& name) {
  LocoGuard guard;
  auto it = registry().find(name);
  return it == registry().end() ? nullptr : it->second;
}

}  // namespace Platform

namespace Impl {

void pluginForkPrepare() noexcept { Platform::loadLock().lock(); }
void pluginForkParent() noexcept { Platform::loadLock().unlock(); }

// A plugin's initialiser may fork inside loadPlugin().
void pluginForkChild() noexcept { Platform::loadLock().releaseInForkChild(); }

}  // namespace Impl
}  // namespace Tolan
