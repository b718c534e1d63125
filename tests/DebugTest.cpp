// Trace handles and the rules that control strings make. The registry is
// process-wide: every test uses handle names of its own. What happens at
// library load is seen from child processes (trace_probe).
#include "Tolan/Loco.h"
#include "support/Support.h"

using namespace Tolan::Platform;
using namespace TolanTest;
using Handler = Tolan::Orn::DebugHandler;

static std::string display(const std::shared_ptr<DebugHandler>& h) { return static_cast<Handler&>(*h).displayString(); }
static std::string displayNew(const char* name) { return display(getDebugHandler(name)); }

// The indented lines of one section ("Specific", "Wildcard", "Handlers") of dumpTolanDebugMap.
static std::string section(const std::string& title) {
  const std::string map = stdoutOf(dumpTolanDebugMap);
  size_t begin = map.find(title + ":\n") + title.size() + 2, end = begin;
  while (map.compare(end, 4, "    ") == 0) end = map.find('\n', end) + 1;
  return map.substr(begin, end - begin);
}

// Handlers made directly, not by getDebugHandler, need the global lock.
template <typename... Args>
static std::unique_ptr<Handler> makeHandler(Args... args) {
  LocoGuard guard;
  return std::make_unique<Handler>(args...);
}

TEST(DebugRules, LongestPrefixThenSpecificRuleAndSetsAccumulate) {
  auto fooBar = getDebugHandler("SasFooBar"), fo = getDebugHandler("SasFo");
  setupTolanDebug("SasFoo*/3,SasFo*/1");  // a shorter prefix is ORed into the longer rule too
  EXPECT_THAT(section("Wildcard"), HasSubstr("    SasFoo*/13\n"));
  EXPECT_EQ(display(fooBar), "SasFooBar/13");
  EXPECT_EQ(display(fo), "SasFo/1");
  setupTolanDebug("SasFooB*/5");  // a longer prefix starts with the rule covering it
  EXPECT_EQ(display(fooBar), "SasFooBar/135");
  EXPECT_EQ(displayNew("SasFoo"), "SasFoo/13");
  EXPECT_EQ(displayNew("Sas"), "Sas/");
  // Narrowed below a shorter prefix, the longer one still decides.
  clearTolanDebug("SasFooB*/3");
  EXPECT_EQ(displayNew("SasFooBaz"), "SasFooBaz/15");
  // A specific rule starts from its prefix's levels, then decides on its own,
  // though a later prefix set pushes into it. A set of the name pushes the
  // whole rule, so a level switched off by hand comes back.
  setupTolanDebug("SasFooBy/4");
  clearTolanDebug("SasFooBy/1");
  auto spec = getDebugHandler("SasFooBy");
  EXPECT_EQ(display(spec), "SasFooBy/45");
  spec->enabledIs(4, false);
  setupTolanDebug("SasFooBy/7");
  EXPECT_EQ(display(spec), "SasFooBy/457");
  setupTolanDebug("SasF*/9");
  EXPECT_EQ(display(spec), "SasFooBy/4579");
  EXPECT_THAT(section("Specific"), HasSubstr("    SasFooBy/4579\n"));
}

TEST(DebugRules, ClearNarrowsAndDeletesRules) {
  setupTolanDebug("Clr*/12,ClrA*/3,ClrAb/4");
  auto ab = getDebugHandler("ClrAb");
  EXPECT_EQ(display(ab), "ClrAb/1234");
  clearTolanDebug("ClrA*/12");  // reaches the longer rules, not the shorter one
  EXPECT_THAT(section("Wildcard"), AllOf(HasSubstr("    ClrA*/3\n"), HasSubstr("    Clr*/12\n")));
  EXPECT_THAT(section("Specific"), HasSubstr("    ClrAb/34\n"));
  EXPECT_EQ(display(ab), "ClrAb/34");
  clearTolanDebug("ClrAb/34");  // to zero: the rule goes
  EXPECT_THAT(section("Specific"), Not(HasSubstr("ClrAb/")));
  EXPECT_EQ(display(ab), "ClrAb/");
  EXPECT_EQ(displayNew("ClrAb"), "ClrAb/3");  // the prefix rule again
  clearTolanDebug("Clr*/*");
  EXPECT_THAT(section("Wildcard"), Not(HasSubstr("Clr")));
  EXPECT_EQ(displayNew("ClrAb"), "ClrAb/");

  // A name only a prefix covers: no rule, an extra handler in the listing, and
  // handlers obtained later still get the prefix's full levels.
  auto before = getDebugHandler("LeakFoo");
  setupTolanDebug("Leak*/59");
  clearTolanDebug("LeakFoo/5");
  EXPECT_THAT(section("Specific"), Not(HasSubstr("LeakFoo")));
  EXPECT_EQ(occurrences(section("Handlers"), "    LeakFoo/9\n"), 2u);
  EXPECT_EQ(displayNew("LeakFoo"), "LeakFoo/59");
  before.reset();
  EXPECT_EQ(occurrences(section("Handlers"), "    LeakFoo/"), 1u);
  // Repeated, it reuses that one handler and narrows it further.
  for (int i = 0; i < 3; ++i) clearTolanDebug("LeakFoo/3");
  EXPECT_EQ(occurrences(section("Handlers"), "    LeakFoo/"), 1u);
  EXPECT_EQ(occurrences(section("Handlers"), "    LeakFoo/9\n"), 1u);
}

// Only a final "*" makes a prefix; "*" among levels means all; other
// characters are ignored; an item splits at its first "/"; the empty item is
// a rule for the empty name. One level short of all shows digits.
TEST(DebugRules, OddItemsAndDisplayStrings) {
  setupTolanDebug("DispAll*/5*,DispNoSlash,,DispLast/x,Disp*Mid/9x0,DispA/b/c/9");
  EXPECT_THAT(section("Wildcard"), HasSubstr("    DispAll*/*\n"));
  EXPECT_THAT(section("Specific"), AllOf(HasSubstr("    DispNoSlash/\n"), HasSubstr("    DispLast/\n"),
                                         HasSubstr("    /\n"), HasSubstr("    Disp*Mid/09\n"), HasSubstr("    DispA/9\n")));
  auto h = getDebugHandler("DispAllY");
  EXPECT_EQ(display(h), "DispAllY/*");
  h->enabledIs(9, false);
  EXPECT_EQ(display(h), "DispAllY/012345678");
  setupTolanDebug("WarnFoo*/3");
  std::shared_ptr<DebugHandler> warned;
  EXPECT_EQ(traceOf([&] { warned = getDebugHandler("WarnFoo*"); }),
            "Tolan::Debug - Warning - Wild card specifier ignored getting handler for WarnFoo* using WarnFoo\n");
  EXPECT_EQ(display(warned), "WarnFoo/3");
}

TEST(DebugHandlers, PinnedOnesIgnoreControlStringsButNotTheirOwner) {
  auto pinned = makeHandler("PinX", 0x2, true);
  auto unpinned = getDebugHandler("PinX");
  setupTolanDebug("PinX/5,Pin*/*,*/7");
  clearTolanDebug("PinX/1,Pin*/1,*/7");
  EXPECT_EQ(pinned->displayString(), "PinX+/1");
  EXPECT_EQ(display(unpinned), "PinX/02345689");
  EXPECT_EQ(pinned->enabledIs(4, true), 0x12);
  EXPECT_EQ(pinned->enabledIs(1, false), 0x10);
}

TEST(DebugHandlers, EachUnregistersItselfNotAnotherOfItsName) {
  auto first = getDebugHandler("Unreg"), second = getDebugHandler("Unreg");
  EXPECT_NE(first, second);
  second->enabledIs(6, true);
  first.reset();
  EXPECT_EQ(occurrences(section("Handlers"), "    Unreg/"), 1u);
  EXPECT_THAT(section("Handlers"), HasSubstr("    Unreg/6\n"));
  Handler* raw = makeHandler("UnregRaw", 0, false).release();
  EXPECT_THAT(section("Handlers"), HasSubstr("    UnregRaw/\n"));
  destroyDebugHandler(raw);
  destroyDebugHandler(nullptr);
  EXPECT_THAT(section("Handlers"), Not(HasSubstr("UnregRaw")));
}

TEST(DebugHandlers, AnExternalMaskIsReadButNotSwitchedByEnabledIs) {
  uint16_t word = 0;
  auto h = makeHandler("ExtMask", &word, false);
  setupTolanDebug("ExtMask/5");
  EXPECT_EQ(word, 1u << 5);
  word = 1u << 2;  // the owner of the word switches levels by writing it
  EXPECT_TRUE(h->enabled(2));
  EXPECT_EQ(h->displayString(), "ExtMask/2");
  const char* why = "Cannot use this with a non-null levelsPtr passed to constructor";
  EXPECT_THAT(traceOf([&] { EXPECT_ASSERTS(h->enabledIs(3, true), why); }), HasSubstr(" Tolan 0 "));
  EXPECT_EQ(word, 1u << 2);
}

// Every form a trace call takes evaluates its arguments only when its level is on.
TEST(DebugHandlers, TraceCallsOfEveryFormAndDebuggable) {
  auto h = getDebugHandler("EvalArgs");
  Tolan::Debuggable d(*h), none, named("EvalArgs");
  EXPECT_EQ(d.debugHandler(), h.get());
  EXPECT_EQ(h.use_count(), 2);
  DebugHandler* raw = h.get();
  int calls = 0;
  auto traceEveryWay = [&] {
    TOLAN_TRACE(h, 3, "value {}", ++calls);
    TOLAN_TRACE(*raw, 3, "value {}", ++calls);
    TOLAN_TRACE(raw, 3, "value {}", ++calls);
    TOLAN_TRACE(d, 3, "value {}", ++calls);
    TOLAN_TRACE_C(h, 3, EvalArgs, "value {}", ++calls);
    TOLAN_TRACE(h, 4, "value {}", ++calls);
    TOLAN_TRACE(none, 3, "value {}", ++calls);
  };
  traceEveryWay();
  EXPECT_EQ(calls, 0);
  const std::string out = traceOf(*h, "3", traceEveryWay);
  EXPECT_EQ(calls, 5);
  for (int i = 1; i <= 4; ++i) EXPECT_THAT(out, HasSubstr(" EvalArgs 3 value " + std::to_string(i) + "\n"));
  EXPECT_THAT(out, HasSubstr(" EvalArgs 3 EvalArgs::operator()() value 5\n"));
  EXPECT_EQ(occurrences(out, "\n"), 5u);
  setupTolanDebug("EvalArgs/8");
  EXPECT_TRUE(TOLAN_TRACE_ENABLED(named, 8));
  auto unowned = makeHandler("DbgUnowned", 0, false);
  EXPECT_THROW(Tolan::Debuggable{*unowned}, std::bad_weak_ptr);
}

TEST(DebugRulesDeathTest, TheRegistryRequiresTheGlobalLock) {
  using Tolan::Orn::DebugControl;
  EXPECT_ABORTS(DebugControl::findWildcard("NoLoco"), "DebugControl::findWildcard\\(\\) no loco");
  EXPECT_ABORTS(DebugControl::initialize(), "DebugControl::initialize\\(\\) no loco");
  EXPECT_ABORTS(DebugControl("NoLoco", 1, false), "DebugControl::DebugControl\\(\\) no loco");
  EXPECT_ABORTS(Handler("NoLoco", 1, false), "DebugHandler::DebugHandler\\(\\) no loco");
  EXPECT_ASSERTS(Handler::initialize(), "no loco");  // a library assertion here
}

// The rules applied at library load, and TRACE read then.
TEST(DebugStartup, DefaultsAndTrace) {
  const struct {
    const char* trace;
    std::vector<std::string> commands;
    const char* out;
  } cases[] = {
      {nullptr, {"default-handle", "handler TolanEngine", "handler Other", "dump-map"},
       "default Tolan/01\nhandler TolanEngine/01\nhandler Other/\n"
       "Specific:\nWildcard:\n    Tolan*/01\nHandlers:\n    Other/\n    Tolan/01\n    TolanEngine/01\n"},
      {"Foo*/2,FooBar/7,\xff/\x80*", {"handler FooBar", "handler Foobaz", "handler Fo", "default-handle"},
       "handler FooBar/27\nhandler Foobaz/2\nhandler Fo/\ndefault Tolan/01\n"},
      // TRACE cannot take the library's default levels away; clearTolanDebug can.
      {"Tolan*/5,-Tolan/0", {"default-handle", "clear Tolan*/0", "default-handle", "clear ", "default-handle"},
       "default Tolan/015\ndefault Tolan/15\ndefault Tolan/15\n"}};
  for (const auto& c : cases) {
    std::map<std::string, std::optional<std::string>> env;
    if (c.trace) env["TRACE"] = c.trace;
    const auto r = traceProbe(c.commands, env);
    EXPECT_TRUE(r.exitedWith(0)) << r.describe();
    EXPECT_EQ(r.out, c.out) << "TRACE=" << (c.trace ? c.trace : "unset");
    EXPECT_EQ(r.err, "");
  }
}
