// Debug.h - named trace channels, switched by TRACE.
//
// Every component traces through a DebugHandler: a named channel with a mask
// of enabled levels 0 to 9 (0 unrecoverable errors, 1 failures and warnings,
// 5 operational trace, 8 and 9 per-operation detail). A call site writes
//
//   TOLAN_TRACE(handler, 5, "Running {} for {} ms", name, ms);
//   TOLAN_TRACE_C(handler, 9, TaskScheduler, "path: {}", path);  // "TaskScheduler::func() path: ..."
//
// where `handler` is a DebugHandler reference or pointer, a shared pointer to
// one, or a Debuggable. When the level is off this costs one 16-bit load and
// a bit test: no call, no lock, and the arguments are not evaluated.
//
// Which levels are on is decided by rules: TRACE="TaskScheduler/59,Tolan*/*"
// enables levels 5 and 9 on handlers named exactly TaskScheduler and every
// level on handlers whose name begins with Tolan. At library load the rules
// "Tolan*/01" and then TRACE are applied. setupTolanDebug() and
// clearTolanDebug() add and remove levels while the process runs; a handler
// constructed "pinned" is never changed by them. Where lines go and what
// stands before each (TRACEFILE, TRACEFORMAT, DebugStream) is DebugOutput.h.
//
// Handlers and rules are process-wide, guarded by the global lock Loco;
// obtaining a handler and changing rules are rare and may lock and allocate.
// Any thread may trace.
#pragma once

#include <fmt/core.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Tolan/Common.h"
#include "Tolan/Fmt.h"

namespace Tolan {
namespace Platform {

class DebugStream;  // DebugOutput.h

// The mask that means "every level", shown as "*".
constexpr uint16_t kAllTraceLevels = 1023;

// An abstract trace channel: a level mask, and the means to emit a message.
class TOLAN_EXPORT DebugHandler : public std::enable_shared_from_this<DebugHandler> {
 public:
  virtual ~DebugHandler();
  // Sets or clears one level; returns the new mask.
  virtual uint16_t enabledIs(unsigned level, bool enable) = 0;
  // Writes the stream's text as one trace line with this handler's name.
  virtual void dump(DebugStream& stream, unsigned level, const char* file, int line, const char* func) const = 0;

  // The hot-path test: one load through levelsPtr and a bit test. Levels
  // are 0 to 9; larger values wrap and are not meaningful.
  bool enabled(unsigned level) const noexcept {
    return (__atomic_load_n(levelsPtr_, __ATOMIC_RELAXED) >> (level & 15u)) & 1u;
  }
  // The mask call sites read (the own mask unless an external word was given).
  uint16_t activeLevels() const noexcept { return __atomic_load_n(levelsPtr_, __ATOMIC_RELAXED); }
  // The handler's own mask.
  uint16_t levels() const noexcept { return __atomic_load_n(&levels_, __ATOMIC_RELAXED); }
  const uint16_t* levelsPtr() const noexcept { return levelsPtr_; }
  bool hasExternalLevels() const noexcept { return levelsPtr_ != &levels_; }

 protected:
  // `externalLevels`, when given, is a mask word owned by someone else that
  // call sites read instead of the handler's own; it must outlive the handler.
  explicit DebugHandler(uint16_t levels, uint16_t* externalLevels = nullptr) noexcept
      : levels_(levels), levelsPtr_(externalLevels ? externalLevels : &levels_) {}
  DebugHandler(const DebugHandler&) = delete;
  DebugHandler& operator=(const DebugHandler&) = delete;

  // Single 16-bit stores, so that lock-free readers see the old or the new mask.
  void storeActiveLevels(uint16_t mask) noexcept { __atomic_store_n(levelsPtr_, mask, __ATOMIC_RELAXED); }
  void storeLevels(uint16_t mask) noexcept { __atomic_store_n(&levels_, mask, __ATOMIC_RELAXED); }

 private:
  uint16_t levels_;
  uint16_t* levelsPtr_;
};

// A new handler for `name`, starting with the levels the rules give that
// name (the specific rule, else the longest matching prefix rule). Every call
// makes a new handler; several may share a name. A name ending in "*" is
// refused with a warning on standard error and the "*" dropped.
TOLAN_EXPORT std::shared_ptr<DebugHandler> getDebugHandler(const String& name);
// Deletes a handler held by plain pointer (under the global lock). Null is ignored.
TOLAN_EXPORT void destroyDebugHandler(DebugHandler* handler);
// Applies a control string that enables levels: items "name/levels" or
// "prefix*/levels" separated by ","; levels are digits, "*" is all.
// Null means the TRACE environment variable. Also (re)opens TRACEFILE.
TOLAN_EXPORT void setupTolanDebug(const char* spec);
// Applies a control string that disables levels. Null or empty does nothing.
TOLAN_EXPORT void clearTolanDebug(const char* spec);
// Prints the rules and then every handler on standard output.
TOLAN_EXPORT void dumpTolanDebugMap();

// Writes one trace line (see DebugOutput.h): the prefix, exactly `len` bytes
// of `msg`, newline, flush. `handle` is the DebugHandler traced on; a
// Tolan::Orn::DebugHandler's name fills the "handle" field (any other kind of
// handler leaves it empty).
TOLAN_EXPORT void dumpDebugMsg(const char* msg, unsigned len, unsigned level, const void* handle, const char* file,
                               const char* func, int line);

}  // namespace Platform

namespace Orn {

// The concrete, registered, named handler.
class TOLAN_EXPORT DebugHandler final : public Platform::DebugHandler {
 public:
  // Registers the handler under `name` (several may share a name). Requires
  // the global lock. Levels are truncated to 16 bits. A pinned handler is
  // never changed by control strings.
  DebugHandler(const String& name, int levels, bool pinned);
  // As above, but call sites read `externalLevels` (owned by the caller, who
  // keeps it alive); control strings change that word, enabledIs() refuses.
  DebugHandler(const String& name, uint16_t* externalLevels, bool pinned);
  // Unregisters the handler; takes the global lock.
  ~DebugHandler() override;

  // Sets or clears a level of the own mask and returns the new mask; no lock,
  // ignores `pinned`. Library assertion on a handler with an external mask.
  uint16_t enabledIs(unsigned level, bool enable) override;
  void dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
            const char* func) const override;

  const String& name() const noexcept { return name_; }
  bool pinned() const noexcept { return pinned_; }
  // "name[+]/levels", e.g. "TaskScheduler/015", "Tolan+/*".
  String displayString() const;

  // Creates the handler registry on first use. Requires the global lock.
  static void initialize();
  // Writes "Handlers:" and one indented line per handler on standard output.
  static void printAll();

 private:
  friend class DebugControl;
  void orLevels(uint16_t mask) noexcept;
  void clearLevels(uint16_t mask) noexcept;

  String name_;
  bool pinned_;
};

// One rule of the control registry: the levels a name, or a name prefix, is given.
class TOLAN_EXPORT DebugControl {
 public:
  // Inserts the rule into the registry (replacing a specific rule of the same
  // name). Requires the global lock; so does the destructor, which removes it.
  DebugControl(const String& name, int levels, bool wildcard);
  ~DebugControl();
  DebugControl(const DebugControl&) = delete;
  DebugControl& operator=(const DebugControl&) = delete;

  const String& name() const noexcept { return name_; }
  uint16_t levels() const noexcept { return levels_; }
  bool wildcard() const noexcept { return wildcard_; }
  // "name[*]/levels", e.g. "Tolan*/01".
  String displayString() const;

  // "Foo*" -> "Foo" with wildcard set; any other text is a specific name.
  static String parseName(const String& spec, bool& wildcard);
  // Digits add their level, "*" adds all; other characters are ignored.
  static uint16_t parseLevels(const String& spec);
  // The rule of the longest prefix of `name`, or null. Requires the global lock.
  static DebugControl* findWildcard(String name);
  // Creates the rule registries on first use. Requires the global lock.
  static void initialize();
  // A new handler for `name` (see getDebugHandler).
  static std::shared_ptr<Platform::DebugHandler> get(const String& name);
  // ORs the levels into the rule for `name` and pushes the result into
  // matching unpinned handlers (and, for a prefix, into longer rules).
  static void set(const String& name, const String& levels);
  // Removes the levels from matching rules and unpinned handlers; a rule
  // left with no level is deleted.
  static void clear(const String& name, const String& levels);
  // Writes "Specific:" and "Wildcard:" with one indented line per rule on
  // standard output.
  static void printAll();

 private:
  String name_;
  uint16_t levels_;
  bool wildcard_;
};

}  // namespace Orn

// A base or member for classes that trace: holds a shared owner of their
// handler (possibly none, in which case nothing is traced).
class TOLAN_EXPORT Debuggable {
 public:
  Debuggable() = default;
  explicit Debuggable(std::shared_ptr<Platform::DebugHandler> handler) : debug_(std::move(handler)) {}
  // Takes a new owner from the handler's shared owners; throws
  // std::bad_weak_ptr when nothing owns it.
  explicit Debuggable(Platform::DebugHandler& handler) : debug_(handler.shared_from_this()) {}
  explicit Debuggable(const String& name) : debug_(Platform::getDebugHandler(name)) {}

  // A shared owner of `handler` when something owns it; otherwise a pointer
  // to it that owns nothing, valid only while the caller keeps `handler`
  // alive. For functions that take a DebugHandler& and need a Debuggable for
  // the length of the call, whatever holds the handler.
  static std::shared_ptr<Platform::DebugHandler> ownerOrBorrowed(Platform::DebugHandler& handler) noexcept {
    if (auto owner = handler.weak_from_this().lock()) return owner;
    return std::shared_ptr<Platform::DebugHandler>(std::shared_ptr<Platform::DebugHandler>(), &handler);
  }

  Platform::DebugHandler* debugHandler() const noexcept { return debug_.get(); }
  const std::shared_ptr<Platform::DebugHandler>& debugHandlerPtr() const noexcept { return debug_; }

 protected:
  std::shared_ptr<Platform::DebugHandler> debug_;
};

namespace Fmt {
namespace Impl {
// Formats the message ("Class::func() " first when withClass) and writes it
// as one trace line on `handle`, the Platform::DebugHandler the call site
// traced on. The out-of-line target of every trace call site. A malformed
// format string throws fmt::format_error.
TOLAN_EXPORT void vfmtrace(const void* handle, unsigned level, const char* file, bool withClass, const char* func,
                           const char* className, int line, fmt::string_view format, fmt::format_args args);
}  // namespace Impl
}  // namespace Fmt

namespace Impl {

// How the trace macros reach the handler behind whatever they are given.
inline bool traceOn(const Platform::DebugHandler& h, unsigned level) noexcept { return h.enabled(level); }
inline bool traceOn(const Platform::DebugHandler* h, unsigned level) noexcept { return h->enabled(level); }
template <typename H>
inline bool traceOn(const std::shared_ptr<H>& h, unsigned level) noexcept {
  return h->enabled(level);
}
inline bool traceOn(const Debuggable& d, unsigned level) noexcept {
  return d.debugHandler() && d.debugHandler()->enabled(level);
}

inline const void* traceTarget(const Platform::DebugHandler& h) noexcept { return &h; }
inline const void* traceTarget(const Platform::DebugHandler* h) noexcept { return h; }
template <typename H>
inline const void* traceTarget(const std::shared_ptr<H>& h) noexcept {
  return static_cast<const Platform::DebugHandler*>(h.get());
}
inline const void* traceTarget(const Debuggable& d) noexcept { return d.debugHandler(); }

// The enabled path of a trace call, kept out of the caller's instruction stream.
template <typename... Args>
TOLAN_COLD void trace(const void* handle, unsigned level, const char* file, bool withClass, const char* func,
                      const char* className, int line, fmt::format_string<Args...> format, Args&&... args) {
  Fmt::Impl::vfmtrace(handle, level, file, withClass, func, className, line, format,
                      fmt::make_format_args(args...));
}

}  // namespace Impl
}  // namespace Tolan

// The default handle "Tolan", for code without a handler of its own. Set at
// library load; stays valid until the process ends.
extern TOLAN_EXPORT Tolan::Platform::DebugHandler* TOLAN_DEFAULT_HANDLE;

// True when `level` is enabled on `handler`; the same cheap test the trace
// macros make, for guarding work that only feeds a trace line.
#define TOLAN_TRACE_ENABLED(handler, level) (::Tolan::Impl::traceOn((handler), (level)))

#define TOLAN_TRACE_IMPL_(handler, level, withClass, className, ...)                                  \
  do {                                                                                                \
    const auto& tolanTraceHandler_ = (handler);                                                       \
    const unsigned tolanTraceLevel_ = (level);                                                        \
    if (TOLAN_UNLIKELY(::Tolan::Impl::traceOn(tolanTraceHandler_, tolanTraceLevel_)))                 \
      ::Tolan::Impl::trace(::Tolan::Impl::traceTarget(tolanTraceHandler_), tolanTraceLevel_, __FILE__,   \
                           withClass, __func__, className, __LINE__, __VA_ARGS__);                    \
  } while (0)

// Traces a message at `level` on `handler` when that level is enabled.
#define TOLAN_TRACE(handler, level, ...) TOLAN_TRACE_IMPL_(handler, level, false, nullptr, __VA_ARGS__)
// As TOLAN_TRACE, with "Class::function() " before the message.
#define TOLAN_TRACE_C(handler, level, Class, ...) TOLAN_TRACE_IMPL_(handler, level, true, #Class, __VA_ARGS__)
