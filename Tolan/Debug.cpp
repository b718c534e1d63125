#include "Tolan/Debug.h"

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <typeinfo>
#include <iterator>
#include <string_view>
#include <vector>

#include "Tolan/Assert.h"
#include "Tolan/DebugOutput.h"
#include "Tolan/Impl/MessageBuffer.h"
#include "Tolan/Impl/TraceOutput.h"
#include "Tolan/Loco.h"

// The registry is three ordered containers: every live handler by name (a
// multimap: names repeat), the specific rules by name, and the prefix rules
// in descending order (so that a listing shows the longest prefix of a family
// first and the empty prefix of a bare "*" last). Being ordered, the names
// that begin with a prefix form one range of each, which is all that set()
// and clear() walk; the longest prefix rule of a name is found by looking up
// each of its prefixes, longest first. A rule change therefore costs
// O(log n) plus what it really touches, and matching O(length x log n):
// adding n rules is O(n log n), not the O(n^2) of a scan per rule.
//
// Handler masks only ever change by OR (set) and AND-NOT (clear) pushed into
// the handlers alive at the time; nothing is re-evaluated from the rules.
// This history semantics is what operators rely on when they add a rule to a
// running process, so it is kept exactly, including clear()'s quirk for a
// name that only a prefix rule covers (see there).
//
// The containers are created on first use and never destroyed: handlers are
// destroyed by static destructors in arbitrary order and must still find them.
//
// This unit also carries a trace line from the call site to the sink: it
// formats the message and hands it over with the handler's name, so that
// the sink (DebugOutput.cpp) needs to know nothing about handlers.

Tolan::Platform::DebugHandler* TOLAN_DEFAULT_HANDLE = nullptr;

namespace Tolan {
namespace {

using HandlerMap = std::multimap<String, Orn::DebugHandler*>;
using SpecificMap = std::map<String, Orn::DebugControl*, std::less<>>;
using WildcardMap = std::map<String, Orn::DebugControl*, std::greater<>>;
// Handlers made by clear() for a name only a prefix rule covered (see there).
using ClearedNames = std::map<String, Orn::DebugHandler*, std::less<>>;

HandlerMap& handlers() {
  static NoDestructor<HandlerMap> map;
  return *map;
}
SpecificMap& specificRules() {
  static NoDestructor<SpecificMap> map;
  return *map;
}
WildcardMap& wildcardRules() {
  static NoDestructor<WildcardMap> map;
  return *map;
}
ClearedNames& clearedNames() {
  static NoDestructor<ClearedNames> map;
  return *map;
}

bool startsWith(std::string_view s, std::string_view prefix) noexcept {
  return s.substr(0, prefix.size()) == prefix;
}

// Calls fn(rule) for every prefix rule whose prefix begins with `prefix`.
// They form one range of the descending map, ending at `prefix` itself; it
// is walked upwards from there. fn may not change the map.
template <typename Fn>
void forEachWildcardUnder(const String& prefix, Fn fn) {
  WildcardMap& rules = wildcardRules();
  for (auto it = std::make_reverse_iterator(rules.upper_bound(prefix)); it != rules.rend(); ++it) {
    if (!startsWith(it->first, prefix)) break;
    fn(it->second);
  }
}
template <typename Fn>
void forEachSpecificUnder(const String& prefix, Fn fn) {
  SpecificMap& rules = specificRules();
  for (auto it = rules.lower_bound(prefix); it != rules.end() && startsWith(it->first, prefix); ++it) fn(it->second);
}

String levelDigits(uint16_t mask) {
  String out;
  for (unsigned level = 0; level < 10; ++level) {
    if (mask & (1u << level)) out += static_cast<char>('0' + level);
  }
  return out;
}

bool locoHeld() { return Platform::loco().owns_lock(); }

// Splits a control string and applies each "name/levels" item in turn. An
// empty item is applied too, as the empty name with no levels.
template <typename Apply>
void forEachControlItem(const char* spec, Apply apply) {
  Impl::forEachCommaItem(spec, [&apply](std::string_view item) {
    const size_t slash = item.find('/');
    if (slash == std::string_view::npos) {
      apply(String(item), String());
    } else {
      apply(String(item.substr(0, slash)), String(item.substr(slash + 1)));
    }
    return true;
  });
}

void applyControlString(const char* spec) {
  forEachControlItem(spec, [](const String& name, const String& levels) { Orn::DebugControl::set(name, levels); });
}

}  // namespace

// ---------------------------------------------------------------------------
// Platform::DebugHandler

Platform::DebugHandler::~DebugHandler() = default;

// ---------------------------------------------------------------------------
// Orn::DebugHandler

namespace Orn {

DebugHandler::DebugHandler(const String& name, int levels, bool pinned)
    : Platform::DebugHandler(static_cast<uint16_t>(levels)), name_(name), pinned_(pinned) {
  TOLAN_PROCESS_ASSERT(locoHeld(), "DebugHandler::DebugHandler() no loco");
  initialize();
  handlers().emplace(name_, this);
}

DebugHandler::DebugHandler(const String& name, uint16_t* externalLevels, bool pinned)
    : Platform::DebugHandler(0, externalLevels), name_(name), pinned_(pinned) {
  TOLAN_PROCESS_ASSERT(locoHeld(), "DebugHandler::DebugHandler() no loco");
  initialize();
  handlers().emplace(name_, this);
}

DebugHandler::~DebugHandler() {
  Platform::LocoGuard guard;
  HandlerMap& all = handlers();
  auto range = all.equal_range(name_);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == this) {
      all.erase(it);
      break;
    }
  }
}

uint16_t DebugHandler::enabledIs(unsigned level, bool enable) {
  TOLAN_ASSERT(!hasExternalLevels(), "Cannot use this with a non-null levelsPtr passed to constructor");
  const uint16_t bit = static_cast<uint16_t>(1u << (level & 15u));
  const uint16_t mask = enable ? static_cast<uint16_t>(levels() | bit) : static_cast<uint16_t>(levels() & ~bit);
  storeLevels(mask);
  return mask;
}

void DebugHandler::dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
                        const char* func) const {
  const String text = stream.str();
  Platform::dumpDebugMsg(text.data(), static_cast<unsigned>(text.size()), level, this, file, func, line);
}

String DebugHandler::displayString() const {
  String out = name_;
  if (pinned_) out += '+';
  out += '/';
  out += levels() == Platform::kAllTraceLevels ? String("*") : levelDigits(activeLevels());
  return out;
}

void DebugHandler::orLevels(uint16_t mask) noexcept {
  storeActiveLevels(static_cast<uint16_t>(activeLevels() | mask));
}

void DebugHandler::clearLevels(uint16_t mask) noexcept {
  storeActiveLevels(static_cast<uint16_t>(activeLevels() & ~mask));
}

void DebugHandler::initialize() {
  TOLAN_ASSERT(locoHeld(), "no loco");
  handlers();
}

void DebugHandler::printAll() {
  Platform::LocoGuard guard;
  initialize();
  std::cout << "Handlers:" << std::endl;
  for (const auto& entry : handlers()) std::cout << "    " << entry.second->displayString() << std::endl;
}

// ---------------------------------------------------------------------------
// Orn::DebugControl

DebugControl::DebugControl(const String& name, int levels, bool wildcard)
    : name_(name), levels_(static_cast<uint16_t>(levels)), wildcard_(wildcard) {
  TOLAN_PROCESS_ASSERT(locoHeld(), "DebugControl::DebugControl() no loco");
  initialize();
  if (wildcard_) {
    wildcardRules()[name_] = this;
  } else {
    specificRules()[name_] = this;
  }
}

DebugControl::~DebugControl() {
  TOLAN_PROCESS_ASSERT(locoHeld(), "DebugControl::~DebugControl() no loco");
  // Only remove the entry if it is still ours: a later rule of the same name
  // may have replaced it.
  if (wildcard_) {
    auto it = wildcardRules().find(name_);
    if (it != wildcardRules().end() && it->second == this) wildcardRules().erase(it);
  } else {
    auto it = specificRules().find(name_);
    if (it != specificRules().end() && it->second == this) specificRules().erase(it);
  }
}

String DebugControl::displayString() const {
  String out = name_;
  if (wildcard_) out += '*';
  out += '/';
  out += levels_ == Platform::kAllTraceLevels ? String("*") : levelDigits(levels_);
  return out;
}

String DebugControl::parseName(const String& spec, bool& wildcard) {
  wildcard = !spec.empty() && spec.back() == '*';
  return wildcard ? spec.substr(0, spec.size() - 1) : spec;
}

uint16_t DebugControl::parseLevels(const String& spec) {
  uint16_t mask = 0;
  for (char c : spec) {
    if (c >= '0' && c <= '9') {
      mask |= static_cast<uint16_t>(1u << (c - '0'));
    } else if (c == '*') {
      mask |= Platform::kAllTraceLevels;
    }
  }
  return mask;
}

DebugControl* DebugControl::findWildcard(String name) {
  TOLAN_PROCESS_ASSERT(locoHeld(), "DebugControl::findWildcard() no loco");
  initialize();
  const WildcardMap& rules = wildcardRules();
  if (rules.empty()) return nullptr;
  const std::string_view whole(name);
  for (size_t length = whole.size() + 1; length-- > 0;) {
    auto it = rules.find(whole.substr(0, length));
    if (it != rules.end()) return it->second;
  }
  return nullptr;
}

void DebugControl::initialize() {
  TOLAN_PROCESS_ASSERT(locoHeld(), "DebugControl::initialize() no loco");
  specificRules();
  wildcardRules();
  DebugHandler::initialize();
}

std::shared_ptr<Platform::DebugHandler> DebugControl::get(const String& name) {
  bool wildcard = false;
  const String base = parseName(name, wildcard);
  Platform::LocoGuard guard;
  initialize();
  if (wildcard) {
    std::cerr << "Tolan::Debug - Warning" << " - Wild card specifier ignored getting handler for " << name
              << " using " << base << std::endl;
  }
  uint16_t levels = 0;
  auto specific = specificRules().find(base);
  if (specific != specificRules().end()) {
    levels = specific->second->levels_;
  } else if (DebugControl* rule = findWildcard(base)) {
    levels = rule->levels_;
  }
  return std::make_shared<DebugHandler>(base, levels, false);
}

void DebugControl::set(const String& nameSpec, const String& levelsSpec) {
  bool wildcard = false;
  const String name = parseName(nameSpec, wildcard);
  const uint16_t levels = parseLevels(levelsSpec);
  Platform::LocoGuard guard;
  initialize();

  if (!wildcard) {
    DebugControl* rule;
    auto it = specificRules().find(name);
    if (it != specificRules().end()) {
      rule = it->second;
      rule->levels_ |= levels;
    } else {
      uint16_t initial = levels;
      if (DebugControl* covering = findWildcard(name)) initial |= covering->levels_;
      rule = new DebugControl(name, initial, false);
    }
    auto range = handlers().equal_range(name);
    for (auto h = range.first; h != range.second; ++h) {
      if (!h->second->pinned_) h->second->orLevels(rule->levels_);
    }
    return;
  }

  DebugControl* rule;
  auto it = wildcardRules().find(name);
  if (it != wildcardRules().end()) {
    rule = it->second;
    rule->levels_ |= levels;
  } else {
    uint16_t initial = levels;
    if (DebugControl* covering = findWildcard(name)) initial |= covering->levels_;
    rule = new DebugControl(name, initial, true);
  }
  const uint16_t result = rule->levels_;
  forEachWildcardUnder(name, [result](DebugControl* r) { r->levels_ |= result; });
  forEachSpecificUnder(name, [result](DebugControl* r) { r->levels_ |= result; });
  HandlerMap& all = handlers();
  for (auto h = all.lower_bound(name); h != all.end() && startsWith(h->first, name); ++h) {
    if (!h->second->pinned_) h->second->orLevels(result);
  }
}

void DebugControl::clear(const String& nameSpec, const String& levelsSpec) {
  bool wildcard = false;
  const String name = parseName(nameSpec, wildcard);
  const uint16_t levels = parseLevels(levelsSpec);
  Platform::LocoGuard guard;
  initialize();

  // Narrows a rule, deleting it (which unregisters it) once it grants nothing.
  auto narrow = [levels](DebugControl* rule) {
    rule->levels_ &= static_cast<uint16_t>(~levels);
    if (rule->levels_ == 0) delete rule;
  };

  if (!wildcard) {
    auto it = specificRules().find(name);
    if (it != specificRules().end()) {
      narrow(it->second);
    } else if (DebugControl* covering = findWildcard(name)) {
      // Kept as operators have always seen it: the narrowed levels land in a
      // never-freed handler listed under the name, while no specific rule is
      // made, so handlers obtained later still get the prefix rule's levels.
      // One such handler per name, made by the first clear and narrowed by
      // the later ones (below): repeating the clear costs nothing more.
      DebugHandler*& cleared = clearedNames()[name];
      if (!cleared) cleared = new DebugHandler(name, covering->levels_ & ~levels, false);
    }
    auto range = handlers().equal_range(name);
    for (auto h = range.first; h != range.second; ++h) {
      if (!h->second->pinned_) h->second->clearLevels(levels);
    }
    return;
  }

  // Collected first: narrowing may delete a rule, which leaves its map.
  std::vector<DebugControl*> affected;
  forEachWildcardUnder(name, [&affected](DebugControl* r) { affected.push_back(r); });
  forEachSpecificUnder(name, [&affected](DebugControl* r) { affected.push_back(r); });
  for (DebugControl* rule : affected) narrow(rule);
  HandlerMap& all = handlers();
  for (auto h = all.lower_bound(name); h != all.end() && startsWith(h->first, name); ++h) {
    if (!h->second->pinned_) h->second->clearLevels(levels);
  }
}

void DebugControl::printAll() {
  Platform::LocoGuard guard;
  initialize();
  std::cout << "Specific:" << std::endl;
  for (const auto& entry : specificRules()) std::cout << "    " << entry.second->displayString() << std::endl;
  std::cout << "Wildcard:" << std::endl;
  for (const auto& entry : wildcardRules()) std::cout << "    " << entry.second->displayString() << std::endl;
}

}  // namespace Orn

// ---------------------------------------------------------------------------
// Free functions

namespace Platform {

std::shared_ptr<DebugHandler> getDebugHandler(const String& name) { return Orn::DebugControl::get(name); }

void destroyDebugHandler(DebugHandler* handler) {
  if (!handler) return;
  LocoGuard guard;
  delete handler;
}

void setupTolanDebug(const char* spec) {
  LocoGuard guard;
  Impl::reopenTraceFile();
  if (!spec) spec = std::getenv("TRACE");
  if (spec) applyControlString(spec);
}

void clearTolanDebug(const char* spec) {
  if (!spec || !*spec) return;
  LocoGuard guard;
  forEachControlItem(spec, [](const String& name, const String& levels) { Orn::DebugControl::clear(name, levels); });
}

void dumpTolanDebugMap() {
  Orn::DebugControl::printAll();
  Orn::DebugHandler::printAll();
}

void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handle, const char* file,
                  const char* func, int line) {
  // Orn::DebugHandler is final, so an exact type match is the dynamic_cast,
  // without its cost on every line.
  const auto* base = static_cast<const DebugHandler*>(handle);
  std::string_view name;
  if (base && typeid(*base) == typeid(Orn::DebugHandler)) name = static_cast<const Orn::DebugHandler*>(base)->name();
  Impl::writeTraceLine(msg, len, level, name, file, func, line);
}

}  // namespace Platform

namespace Fmt {
namespace Impl {

void vfmtrace(const void* handle, unsigned level, const char* file, bool withClass, const char* func,
              const char* className, int line, fmt::string_view format, fmt::format_args args) {
  MessageBuffer buffer;
  buildMessageBuffer(buffer, withClass, func, className, format, args);
  Platform::dumpDebugMsg(buffer.data(), static_cast<unsigned>(buffer.size()), level, handle, file, func, line);
}

}  // namespace Impl
}  // namespace Fmt

// ---------------------------------------------------------------------------
// Start-up at library load.
//
// Runs before the library's other static constructors (priority 101), so
// that any of them may already trace on TOLAN_DEFAULT_HANDLE.

namespace {

__attribute__((constructor(101))) void tolanLibraryStartup() {
  // Our streams may be used before this library's own iostream initialisers run.
  static std::ios_base::Init iosInit;

  // The default handle lives until the process ends; it is deliberately never
  // released, so that code tracing from static destructors still finds it.
  static NoDestructor<std::shared_ptr<Platform::DebugHandler>> defaultHandleOwner(Platform::getDebugHandler("Tolan"));
  TOLAN_DEFAULT_HANDLE = defaultHandleOwner->get();

  // The library's defaults first, then TRACEFILE and the user's TRACE on top.
  // (Applied directly rather than through setupTolanDebug, which would open
  // TRACEFILE twice and report an unopenable one twice.)
  {
    Platform::LocoGuard guard;
    applyControlString("Tolan*/01");
  }
  Platform::setupTolanDebug(nullptr);
  Platform::setTraceFormat("date,time,tid,handle,level");
  Platform::setTraceFormat(nullptr);
}

}  // namespace
}  // namespace Tolan
