#include "Tolan/Debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Tolan/Assert.h"
#include "Tolan/Exception.h"
#include "Tolan/Loco.h"
#include "support/ChildProcess.h"

// The registry is process-wide: every test uses handle names of its own.

namespace {

using Tolan::Orn::DebugControl;
using Tolan::Platform::clearTolanDebug;
using Tolan::Platform::DebugHandler;
using Tolan::Platform::getDebugHandler;
using Tolan::Platform::setupTolanDebug;
using testing::HasSubstr;
using testing::Not;

class DebugTest : public testing::Test {
 protected:
  void SetUp() override { Tolan::throwOnAssertFailIs(true); }
};

std::string display(const DebugHandler& h) { return static_cast<const Tolan::Orn::DebugHandler&>(h).displayString(); }
std::string display(const std::shared_ptr<DebugHandler>& h) { return display(*h); }

// The registry listing, as dumpTolanDebugMap prints it.
std::string dumpMap() {
  testing::internal::CaptureStdout();
  Tolan::Platform::dumpTolanDebugMap();
  return testing::internal::GetCapturedStdout();
}

// The lines of one section ("Specific:", "Wildcard:", "Handlers:") of the listing.
std::string section(const std::string& map, const std::string& title) {
  const size_t begin = map.find(title + "\n");
  if (begin == std::string::npos) return "<no section " + title + ">";
  size_t end = begin + title.size() + 1;
  while (end < map.size() && map.compare(end, 4, "    ") == 0) end = map.find('\n', end) + 1;
  return map.substr(begin + title.size() + 1, end - begin - title.size() - 1);
}

int countOf(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) ++n;
  return n;
}

TEST(DebugGrammar, NamesAndLevels) {
  bool wildcard = false;
  EXPECT_EQ(DebugControl::parseName("Foo*", wildcard), "Foo");
  EXPECT_TRUE(wildcard);
  EXPECT_EQ(DebugControl::parseName("*", wildcard), "");
  EXPECT_TRUE(wildcard);
  EXPECT_EQ(DebugControl::parseName("F*o", wildcard), "F*o");  // only a final "*" counts
  EXPECT_FALSE(wildcard);
  EXPECT_EQ(DebugControl::parseName("", wildcard), "");
  EXPECT_FALSE(wildcard);

  EXPECT_EQ(DebugControl::parseLevels("01"), 0x3);
  EXPECT_EQ(DebugControl::parseLevels("9x0"), 0x201);
  EXPECT_EQ(DebugControl::parseLevels("5*"), 1023);
  EXPECT_EQ(DebugControl::parseLevels("x/-"), 0);
  EXPECT_EQ(DebugControl::parseLevels(""), 0);
}

TEST_F(DebugTest, LongestPrefixThenSpecificRuleWins) {
  setupTolanDebug("Prec*/15,PrecA*/7");
  EXPECT_THAT(section(dumpMap(), "Wildcard:"), HasSubstr("    PrecA*/157\n"));
  // Narrow the longer prefix below the shorter one: now only precedence decides.
  clearTolanDebug("PrecA*/5");
  EXPECT_EQ(display(getDebugHandler("PrecAx")), "PrecAx/17");
  EXPECT_EQ(display(getDebugHandler("PrecB")), "PrecB/15");
  EXPECT_EQ(display(getDebugHandler("Pre")), "Pre/");

  // A new specific rule starts from its longest prefix's levels...
  setupTolanDebug("PrecAy/3");
  clearTolanDebug("PrecAy/1");
  // ...and from then on it decides, not the prefix rule (PrecA* has 17)...
  EXPECT_EQ(display(getDebugHandler("PrecAy")), "PrecAy/37");
  // ...though a later prefix set pushes that prefix's whole mask into it.
  setupTolanDebug("Prec*/2");
  EXPECT_EQ(display(getDebugHandler("PrecAy")), "PrecAy/12357");

  // The bare "*" is the weakest prefix of all.
  auto other = getDebugHandler("UnmatchedByPrecRules");
  EXPECT_EQ(display(other), "UnmatchedByPrecRules/");
}

TEST_F(DebugTest, SetAfterSetAccumulates) {
  auto foo = getDebugHandler("SasFoo");
  auto fooBar = getDebugHandler("SasFooBar");
  auto fo = getDebugHandler("SasFo");

  setupTolanDebug("SasFoo*/3");
  setupTolanDebug("SasFo*/1");  // shorter prefix: ORed into the longer rule too
  std::string wild = section(dumpMap(), "Wildcard:");
  EXPECT_THAT(wild, HasSubstr("    SasFoo*/13\n"));
  EXPECT_THAT(wild, HasSubstr("    SasFo*/1\n"));
  EXPECT_EQ(display(foo), "SasFoo/13");
  EXPECT_EQ(display(fooBar), "SasFooBar/13");
  EXPECT_EQ(display(fo), "SasFo/1");

  setupTolanDebug("SasFooB*/5");  // longer prefix: starts with the rule covering it
  EXPECT_THAT(section(dumpMap(), "Wildcard:"), HasSubstr("    SasFooB*/135\n"));
  EXPECT_EQ(display(fooBar), "SasFooBar/135");
  EXPECT_EQ(display(foo), "SasFoo/13");

  // Specific rules: levels add up, and the whole rule is pushed into the handler,
  // so a level switched off by hand comes back with the next set.
  setupTolanDebug("SasSpec/1");
  auto spec = getDebugHandler("SasSpec");
  EXPECT_EQ(display(spec), "SasSpec/1");
  spec->enabledIs(1, false);
  setupTolanDebug("SasSpec/4");
  EXPECT_EQ(display(spec), "SasSpec/14");
  EXPECT_THAT(section(dumpMap(), "Specific:"), HasSubstr("    SasSpec/14\n"));

  // A prefix set reaches specific rules under it.
  setupTolanDebug("SasS*/9");
  EXPECT_EQ(display(spec), "SasSpec/149");
  EXPECT_EQ(display(getDebugHandler("SasSpec")), "SasSpec/149");
}

TEST_F(DebugTest, ClearNarrowsAndDeletesRules) {
  setupTolanDebug("Clr*/12,ClrA*/3,ClrAb/4");
  auto ab = getDebugHandler("ClrAb");
  EXPECT_EQ(display(ab), "ClrAb/1234");

  clearTolanDebug("ClrA*/12");  // reaches the longer rules, not the shorter one
  std::string map = dumpMap();
  EXPECT_THAT(section(map, "Wildcard:"), HasSubstr("    ClrA*/3\n"));
  EXPECT_THAT(section(map, "Wildcard:"), HasSubstr("    Clr*/12\n"));
  EXPECT_THAT(section(map, "Specific:"), HasSubstr("    ClrAb/34\n"));
  EXPECT_EQ(display(ab), "ClrAb/34");

  clearTolanDebug("ClrAb/34");  // to zero: the rule goes away
  EXPECT_THAT(section(dumpMap(), "Specific:"), Not(HasSubstr("ClrAb/")));
  EXPECT_EQ(display(ab), "ClrAb/");
  EXPECT_EQ(display(getDebugHandler("ClrAb")), "ClrAb/3");  // the prefix rule again

  clearTolanDebug("Clr*/*");
  map = section(dumpMap(), "Wildcard:");
  EXPECT_THAT(map, Not(HasSubstr("Clr")));
  EXPECT_EQ(display(getDebugHandler("ClrAb")), "ClrAb/");
}

TEST_F(DebugTest, ClearOfANameOnlyAPrefixCovers) {
  auto before = getDebugHandler("LeakFoo");
  setupTolanDebug("Leak*/59");
  EXPECT_EQ(display(before), "LeakFoo/59");

  clearTolanDebug("LeakFoo/5");
  const std::string map = dumpMap();
  // No rule for the name; instead an extra handler of that name in the listing.
  EXPECT_THAT(section(map, "Specific:"), Not(HasSubstr("LeakFoo")));
  EXPECT_EQ(countOf(section(map, "Handlers:"), "    LeakFoo/9\n"), 2);  // ours and the extra one
  EXPECT_EQ(display(before), "LeakFoo/9");
  // Handlers obtained later still get the prefix rule's full levels.
  EXPECT_EQ(display(getDebugHandler("LeakFoo")), "LeakFoo/59");

  before.reset();
  EXPECT_EQ(countOf(section(dumpMap(), "Handlers:"), "    LeakFoo/"), 1);
}

TEST_F(DebugTest, PinnedHandlersIgnoreControlStrings) {
  std::unique_ptr<Tolan::Orn::DebugHandler> pinned;
  {
    Tolan::Platform::LocoGuard guard;
    pinned = std::make_unique<Tolan::Orn::DebugHandler>("PinX", 0x2, true);
  }
  auto unpinned = getDebugHandler("PinX");
  setupTolanDebug("PinX/5,Pin*/*,*/7");
  clearTolanDebug("PinX/1,Pin*/1");
  EXPECT_EQ(pinned->displayString(), "PinX+/1");
  EXPECT_EQ(display(unpinned), "PinX/02345678" "9");

  // enabledIs is the owner's own switch and works on a pinned handler.
  EXPECT_EQ(pinned->enabledIs(4, true), 0x12);
  EXPECT_TRUE(pinned->enabled(4));
  EXPECT_EQ(pinned->enabledIs(1, false), 0x10);
  EXPECT_EQ(pinned->displayString(), "PinX+/4");
  clearTolanDebug("*/7");
}

TEST_F(DebugTest, DisplayStrings) {
  setupTolanDebug("DispAll*/5*,DispNine/012345678,DispNoSlash,,DispLast/x");
  const std::string map = dumpMap();
  EXPECT_THAT(section(map, "Wildcard:"), HasSubstr("    DispAll*/*\n"));
  const std::string specific = section(map, "Specific:");
  EXPECT_THAT(specific, HasSubstr("    DispNine/012345678\n"));
  EXPECT_THAT(specific, HasSubstr("    DispNoSlash/\n"));
  EXPECT_THAT(specific, HasSubstr("    DispLast/\n"));
  EXPECT_THAT(specific, HasSubstr("    /\n"));  // the empty item is a rule for the empty name

  EXPECT_EQ(display(getDebugHandler("DispAllX")), "DispAllX/*");
  EXPECT_EQ(display(getDebugHandler("DispNine")), "DispNine/012345678");
  EXPECT_EQ(display(getDebugHandler("DispNoSlash")), "DispNoSlash/");
  EXPECT_EQ(DebugControl::parseLevels("0123456789"), 1023);

  // A handler with one level short of all shows digits, not "*".
  auto h = getDebugHandler("DispAllY");
  h->enabledIs(9, false);
  EXPECT_EQ(display(h), "DispAllY/012345678");
}

TEST_F(DebugTest, WildcardNameIsRefusedWithAWarning) {
  setupTolanDebug("WarnFoo*/3");
  testing::internal::CaptureStderr();
  auto h = getDebugHandler("WarnFoo*");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Tolan::Debug - Warning - Wild card specifier ignored getting handler for WarnFoo* using WarnFoo\n");
  EXPECT_EQ(display(h), "WarnFoo/3");
}

TEST_F(DebugTest, HandlersUnregisterThemselves) {
  auto first = getDebugHandler("Unreg");
  auto second = getDebugHandler("Unreg");
  EXPECT_NE(first, second);  // every call makes a new handler
  setupTolanDebug("Unreg/2");
  EXPECT_EQ(countOf(section(dumpMap(), "Handlers:"), "    Unreg/2\n"), 2);
  second->enabledIs(6, true);
  // The destructor must remove its own entry, not the first of that name.
  first.reset();
  const std::string handlers = section(dumpMap(), "Handlers:");
  EXPECT_EQ(countOf(handlers, "    Unreg/"), 1);
  EXPECT_THAT(handlers, HasSubstr("    Unreg/26\n"));

  Tolan::Orn::DebugHandler* raw;
  {
    Tolan::Platform::LocoGuard guard;
    raw = new Tolan::Orn::DebugHandler("UnregRaw", 0, false);
  }
  EXPECT_THAT(section(dumpMap(), "Handlers:"), HasSubstr("    UnregRaw/\n"));
  Tolan::Platform::destroyDebugHandler(raw);
  Tolan::Platform::destroyDebugHandler(nullptr);
  EXPECT_THAT(section(dumpMap(), "Handlers:"), Not(HasSubstr("UnregRaw")));
}

TEST_F(DebugTest, ExternalMaskIsReadButNotSwitchedByEnabledIs) {
  uint16_t word = 0;
  std::unique_ptr<Tolan::Orn::DebugHandler> h;
  {
    Tolan::Platform::LocoGuard guard;
    h = std::make_unique<Tolan::Orn::DebugHandler>("ExtMask", &word, false);
  }
  setupTolanDebug("ExtMask/5");
  EXPECT_EQ(word, 1u << 5);
  EXPECT_TRUE(h->enabled(5));
  word = 1u << 2;  // the owner of the word switches levels by writing it
  EXPECT_TRUE(h->enabled(2));
  EXPECT_FALSE(h->enabled(5));
  EXPECT_EQ(h->displayString(), "ExtMask/2");

  testing::internal::CaptureStderr();
  try {
    h->enabledIs(3, true);
    ADD_FAILURE() << "enabledIs on an external mask did not assert";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.what(), HasSubstr("Cannot use this with a non-null levelsPtr passed to constructor"));
  }
  // The failure is traced at level 0 on the default handle.
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("Cannot use this with a non-null levelsPtr passed to constructor"));
  EXPECT_EQ(word, 1u << 2);
}

TEST_F(DebugTest, DebuggableHoldsAnOwner) {
  Tolan::Debuggable none;
  EXPECT_EQ(none.debugHandler(), nullptr);
  int evaluated = 0;
  TOLAN_TRACE(none, 0, "{}", ++evaluated);  // nothing to trace on: a no-op
  EXPECT_EQ(evaluated, 0);

  setupTolanDebug("DbgNamed/4");
  Tolan::Debuggable named("DbgNamed");
  ASSERT_NE(named.debugHandler(), nullptr);
  EXPECT_EQ(display(*named.debugHandler()), "DbgNamed/4");

  auto owner = getDebugHandler("DbgShared");
  Tolan::Debuggable fromRef(*owner);
  Tolan::Debuggable fromPtr(owner);
  EXPECT_EQ(fromRef.debugHandler(), owner.get());
  EXPECT_EQ(owner.use_count(), 3);
  {
    Tolan::Debuggable copy(fromRef);
    Tolan::Debuggable assigned;
    assigned = copy;
    EXPECT_EQ(owner.use_count(), 5);
    EXPECT_EQ(assigned.debugHandler(), owner.get());
  }
  EXPECT_EQ(owner.use_count(), 3);

  std::unique_ptr<Tolan::Orn::DebugHandler> unowned;
  {
    Tolan::Platform::LocoGuard guard;
    unowned = std::make_unique<Tolan::Orn::DebugHandler>("DbgUnowned", 0, false);
  }
  EXPECT_THROW(Tolan::Debuggable{*unowned}, std::bad_weak_ptr);
}

TEST_F(DebugTest, TraceArgumentsAreEvaluatedOnlyWhenTheLevelIsOn) {
  auto h = getDebugHandler("EvalArgs");
  Tolan::Debuggable d(h);
  DebugHandler* raw = h.get();
  int calls = 0;
  auto costly = [&calls] { return ++calls; };

  TOLAN_TRACE(h, 3, "value {}", costly());
  TOLAN_TRACE(*raw, 3, "value {}", costly());
  TOLAN_TRACE(raw, 3, "value {}", costly());
  TOLAN_TRACE(d, 3, "value {}", costly());
  TOLAN_TRACE_C(h, 3, EvalArgs, "value {}", costly());
  EXPECT_EQ(calls, 0);

  h->enabledIs(3, true);
  testing::internal::CaptureStderr();
  TOLAN_TRACE(h, 3, "value {}", costly());
  TOLAN_TRACE(*raw, 3, "value {}", costly());
  TOLAN_TRACE(raw, 3, "value {}", costly());
  TOLAN_TRACE(d, 3, "value {}", costly());
  TOLAN_TRACE_C(h, 3, EvalArgs, "value {}", costly());
  TOLAN_TRACE(h, 4, "value {}", costly());  // a neighbouring level stays off
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(calls, 5);
  for (int i = 1; i <= 4; ++i) EXPECT_THAT(err, HasSubstr("EvalArgs 3 value " + std::to_string(i) + "\n"));
  EXPECT_THAT(err, HasSubstr("EvalArgs 3 EvalArgs::TestBody() value 5\n"));
  EXPECT_EQ(countOf(err, "\n"), 5);
}

TEST_F(DebugTest, RegistryRequiresTheGlobalLock) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Unrecoverable: the process ends through the C library's assertion report.
  EXPECT_DEATH(DebugControl::findWildcard("NoLoco"), "DebugControl::findWildcard\\(\\) no loco");
  EXPECT_DEATH(DebugControl::initialize(), "DebugControl::initialize\\(\\) no loco");
  EXPECT_DEATH(DebugControl("NoLoco", 1, false), "DebugControl::DebugControl\\(\\) no loco");
  EXPECT_DEATH(Tolan::Orn::DebugHandler("NoLoco", 1, false), "DebugHandler::DebugHandler\\(\\) no loco");
  // The handler registry's own check is a library assertion.
  testing::internal::CaptureStderr();
  EXPECT_THROW(Tolan::Orn::DebugHandler::initialize(), Tolan::AssertException);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("no loco"));
  {
    Tolan::Platform::LocoGuard guard;
    EXPECT_EQ(DebugControl::findWildcard("NoLocoAtAll"), nullptr);
  }
}

// ---------------------------------------------------------------------------
// The rules applied at library load, seen from a child process.

Tolan::Test::ChildProcess probe(std::initializer_list<std::string> commands) {
  Tolan::Test::ChildProcess child(Tolan::Test::helperPath("trace_probe"));
  child.unsetEnv("TRACE").unsetEnv("TRACEFILE").unsetEnv("TRACEFORMAT");
  for (const auto& c : commands) child.arg(c);
  return child;
}

TEST(DebugStartup, DefaultsWithoutTrace) {
  const auto r = probe({"default-handle", "handler TolanEngine", "handler Tolan", "handler Other", "dump-map"}).run();
  ASSERT_TRUE(r.exitedWith(0)) << r.describe();
  EXPECT_EQ(r.out,
            "default Tolan/01\n"
            "handler TolanEngine/01\n"
            "handler Tolan/01\n"
            "handler Other/\n"
            "Specific:\n"
            "Wildcard:\n"
            "    Tolan*/01\n"
            "Handlers:\n"
            "    Other/\n"
            "    Tolan/01\n"
            "    Tolan/01\n"
            "    TolanEngine/01\n");
  EXPECT_EQ(r.err, "");
}

TEST(DebugStartup, TraceAddsToTheDefaults) {
  auto r = probe({"handler FooBar", "handler Foobaz", "handler Fo", "default-handle"})
               .env("TRACE", "Foo*/2,FooBar/7")
               .run();
  ASSERT_TRUE(r.exitedWith(0)) << r.describe();
  EXPECT_EQ(r.out, "handler FooBar/27\nhandler Foobaz/2\nhandler Fo/\ndefault Tolan/01\n");

  // TRACE cannot take the library's default levels away; clearTolanDebug can.
  r = probe({"default-handle", "clear Tolan*/0", "default-handle", "clear ", "default-handle"})
          .env("TRACE", "Tolan*/5,-Tolan/0")
          .run();
  ASSERT_TRUE(r.exitedWith(0)) << r.describe();
  EXPECT_EQ(r.out, "default Tolan/015\ndefault Tolan/15\ndefault Tolan/15\n");
}

TEST(DebugStartup, AnyBytesInTraceAreHarmless) {
  for (const char* trace : {"", ",,,", "/", "*", "*/", "**/**", "\xff\xfe/\x80*", "a/b/c/9", "Tolan/x,Tolan"}) {
    const auto r = probe({"handler Tolan", "handler a"}).env("TRACE", trace).run();
    EXPECT_TRUE(r.exitedWith(0)) << "TRACE=" << trace << ": " << r.describe();
    EXPECT_THAT(r.out, HasSubstr("handler Tolan/01")) << "TRACE=" << trace;
  }
  // "a/b/c/9" splits at the first "/" only: levels "b/c/9" give level 9.
  auto r = probe({"handler a"}).env("TRACE", "a/b/c/9").run();
  EXPECT_EQ(r.out, "handler a/9\n");
  r = probe({"handler Tolan"}).env("TRACE", "Tolan/0123456789012").run();
  EXPECT_EQ(r.out, "handler Tolan/*\n");
}

}  // namespace
