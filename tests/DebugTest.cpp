#include "Tolan/Debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

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
using Tolan::Test::traceProbe;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class DebugTest : public testing::Test {
 protected:
  void SetUp() override { Tolan::throwOnAssertFailIs(true); }
};

std::string display(const DebugHandler& h) { return static_cast<const Tolan::Orn::DebugHandler&>(h).displayString(); }
std::string display(const std::shared_ptr<DebugHandler>& h) { return display(*h); }

// The lines of one section ("Specific", "Wildcard", "Handlers") of dumpTolanDebugMap.
std::string section(const std::string& title) {
  testing::internal::CaptureStdout();
  Tolan::Platform::dumpTolanDebugMap();
  const std::string map = testing::internal::GetCapturedStdout();
  size_t begin = map.find(title + ":\n");
  if (begin == std::string::npos) return "<no section " + title + ">";
  begin += title.size() + 2;
  size_t end = begin;
  while (map.compare(end, 4, "    ") == 0) end = map.find('\n', end) + 1;
  return map.substr(begin, end - begin);
}

int countOf(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) ++n;
  return n;
}

// Handlers constructed directly, not by getDebugHandler, need the global lock.
template <typename... Args>
std::unique_ptr<Tolan::Orn::DebugHandler> makeHandler(Args... args) {
  Tolan::Platform::LocoGuard guard;
  return std::make_unique<Tolan::Orn::DebugHandler>(args...);
}

TEST_F(DebugTest, LongestPrefixThenSpecificRuleWins) {
  setupTolanDebug("Prec*/15,PrecA*/7");
  EXPECT_THAT(section("Wildcard"), HasSubstr("    PrecA*/157\n"));
  // Narrow the longer prefix below the shorter one: now only precedence decides.
  clearTolanDebug("PrecA*/5");
  EXPECT_EQ(display(getDebugHandler("PrecAx")), "PrecAx/17");
  EXPECT_EQ(display(getDebugHandler("PrecB")), "PrecB/15");
  EXPECT_EQ(display(getDebugHandler("Pre")), "Pre/");

  // A new specific rule starts from its longest prefix's levels, then decides
  // on its own (PrecA* has 17), though a later prefix set pushes into it.
  setupTolanDebug("PrecAy/3");
  clearTolanDebug("PrecAy/1");
  EXPECT_EQ(display(getDebugHandler("PrecAy")), "PrecAy/37");
  setupTolanDebug("Prec*/2");
  EXPECT_EQ(display(getDebugHandler("PrecAy")), "PrecAy/12357");
}

TEST_F(DebugTest, SetAfterSetAccumulates) {
  auto foo = getDebugHandler("SasFoo"), fooBar = getDebugHandler("SasFooBar"), fo = getDebugHandler("SasFo");
  setupTolanDebug("SasFoo*/3");
  setupTolanDebug("SasFo*/1");  // shorter prefix: ORed into the longer rule too
  EXPECT_THAT(section("Wildcard"), HasSubstr("    SasFoo*/13\n"));
  EXPECT_EQ(display(fooBar), "SasFooBar/13");
  EXPECT_EQ(display(fo), "SasFo/1");

  setupTolanDebug("SasFooB*/5");  // longer prefix: starts with the rule covering it
  EXPECT_EQ(display(fooBar), "SasFooBar/135");
  EXPECT_EQ(display(foo), "SasFoo/13");

  // The whole specific rule is pushed into the handler, so a level switched
  // off by hand comes back with the next set; a prefix set reaches it too.
  setupTolanDebug("SasSpec/1");
  auto spec = getDebugHandler("SasSpec");
  spec->enabledIs(1, false);
  setupTolanDebug("SasSpec/4");
  EXPECT_EQ(display(spec), "SasSpec/14");
  EXPECT_THAT(section("Specific"), HasSubstr("    SasSpec/14\n"));
  setupTolanDebug("SasS*/9");
  EXPECT_EQ(display(spec), "SasSpec/149");
}

TEST_F(DebugTest, ClearNarrowsAndDeletesRules) {
  setupTolanDebug("Clr*/12,ClrA*/3,ClrAb/4");
  auto ab = getDebugHandler("ClrAb");
  EXPECT_EQ(display(ab), "ClrAb/1234");

  clearTolanDebug("ClrA*/12");  // reaches the longer rules, not the shorter one
  EXPECT_THAT(section("Wildcard"), AllOf(HasSubstr("    ClrA*/3\n"), HasSubstr("    Clr*/12\n")));
  EXPECT_THAT(section("Specific"), HasSubstr("    ClrAb/34\n"));
  EXPECT_EQ(display(ab), "ClrAb/34");

  clearTolanDebug("ClrAb/34");  // to zero: the rule goes away
  EXPECT_THAT(section("Specific"), Not(HasSubstr("ClrAb/")));
  EXPECT_EQ(display(ab), "ClrAb/");
  EXPECT_EQ(display(getDebugHandler("ClrAb")), "ClrAb/3");  // the prefix rule again

  clearTolanDebug("Clr*/*");
  EXPECT_THAT(section("Wildcard"), Not(HasSubstr("Clr")));
  EXPECT_EQ(display(getDebugHandler("ClrAb")), "ClrAb/");
}

TEST_F(DebugTest, ClearOfANameOnlyAPrefixCovers) {
  auto before = getDebugHandler("LeakFoo");
  setupTolanDebug("Leak*/59");
  clearTolanDebug("LeakFoo/5");
  // No rule for the name; instead an extra handler of that name in the listing.
  EXPECT_THAT(section("Specific"), Not(HasSubstr("LeakFoo")));
  EXPECT_EQ(countOf(section("Handlers"), "    LeakFoo/9\n"), 2);
  EXPECT_EQ(display(before), "LeakFoo/9");
  // Handlers obtained later still get the prefix rule's full levels.
  EXPECT_EQ(display(getDebugHandler("LeakFoo")), "LeakFoo/59");
  before.reset();
  EXPECT_EQ(countOf(section("Handlers"), "    LeakFoo/"), 1);
}

TEST_F(DebugTest, PinnedHandlersIgnoreControlStrings) {
  auto pinned = makeHandler("PinX", 0x2, true);
  auto unpinned = getDebugHandler("PinX");
  setupTolanDebug("PinX/5,Pin*/*,*/7");
  clearTolanDebug("PinX/1,Pin*/1");
  EXPECT_EQ(pinned->displayString(), "PinX+/1");
  EXPECT_EQ(display(unpinned), "PinX/023456789");

  // enabledIs is the owner's own switch and works on a pinned handler.
  EXPECT_EQ(pinned->enabledIs(4, true), 0x12);
  EXPECT_EQ(pinned->enabledIs(1, false), 0x10);
  EXPECT_EQ(pinned->displayString(), "PinX+/4");
  clearTolanDebug("*/7");
}

TEST_F(DebugTest, DisplayStringsAndOddItems) {
  // Only a final "*" makes a prefix; "*" among levels means all from there on;
  // other characters are ignored; the empty item is a rule for the empty name.
  setupTolanDebug("DispAll*/5*,DispNoSlash,,DispLast/x,Disp*Mid/9x0");
  EXPECT_THAT(section("Wildcard"), HasSubstr("    DispAll*/*\n"));
  EXPECT_THAT(section("Specific"), AllOf(HasSubstr("    DispNoSlash/\n"), HasSubstr("    DispLast/\n"),
                                         HasSubstr("    /\n"), HasSubstr("    Disp*Mid/09\n")));
  // One level short of all shows digits, not "*".
  auto h = getDebugHandler("DispAllY");
  EXPECT_EQ(display(h), "DispAllY/*");
  h->enabledIs(9, false);
  EXPECT_EQ(display(h), "DispAllY/012345678");

  setupTolanDebug("WarnFoo*/3");
  testing::internal::CaptureStderr();
  auto warned = getDebugHandler("WarnFoo*");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Tolan::Debug - Warning - Wild card specifier ignored getting handler for WarnFoo* using WarnFoo\n");
  EXPECT_EQ(display(warned), "WarnFoo/3");
}

TEST_F(DebugTest, HandlersUnregisterThemselves) {
  auto first = getDebugHandler("Unreg"), second = getDebugHandler("Unreg");
  EXPECT_NE(first, second);  // every call makes a new handler
  setupTolanDebug("Unreg/2");
  second->enabledIs(6, true);
  // The destructor must remove its own entry, not the first of that name.
  first.reset();
  EXPECT_EQ(countOf(section("Handlers"), "    Unreg/"), 1);
  EXPECT_THAT(section("Handlers"), HasSubstr("    Unreg/26\n"));

  Tolan::Orn::DebugHandler* raw = makeHandler("UnregRaw", 0, false).release();
  EXPECT_THAT(section("Handlers"), HasSubstr("    UnregRaw/\n"));
  Tolan::Platform::destroyDebugHandler(raw);
  Tolan::Platform::destroyDebugHandler(nullptr);
  EXPECT_THAT(section("Handlers"), Not(HasSubstr("UnregRaw")));
}

TEST_F(DebugTest, ExternalMaskIsReadButNotSwitchedByEnabledIs) {
  uint16_t word = 0;
  auto h = makeHandler("ExtMask", &word, false);
  setupTolanDebug("ExtMask/5");
  EXPECT_EQ(word, 1u << 5);
  word = 1u << 2;  // the owner of the word switches levels by writing it
  EXPECT_TRUE(h->enabled(2));
  EXPECT_FALSE(h->enabled(5));
  EXPECT_EQ(h->displayString(), "ExtMask/2");

  const char* why = "Cannot use this with a non-null levelsPtr passed to constructor";
  testing::internal::CaptureStderr();
  EXPECT_THAT([&] { h->enabledIs(3, true); }, testing::ThrowsMessage<Tolan::AssertException>(HasSubstr(why)));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(why));  // traced on the default handle
  EXPECT_EQ(word, 1u << 2);
}

TEST_F(DebugTest, DebuggableHoldsAnOwner) {
  Tolan::Debuggable none;
  int evaluated = 0;
  TOLAN_TRACE(none, 0, "{}", ++evaluated);  // nothing to trace on: a no-op
  EXPECT_EQ(evaluated, 0);

  setupTolanDebug("DbgNamed/4");
  Tolan::Debuggable named("DbgNamed");
  ASSERT_NE(named.debugHandler(), nullptr);
  EXPECT_EQ(display(*named.debugHandler()), "DbgNamed/4");

  // From a reference it shares the owner's ownership; there must be one.
  auto owner = getDebugHandler("DbgShared");
  Tolan::Debuggable fromRef(*owner);
  EXPECT_EQ(fromRef.debugHandler(), owner.get());
  EXPECT_EQ(owner.use_count(), 2);
  auto unowned = makeHandler("DbgUnowned", 0, false);
  EXPECT_THROW(Tolan::Debuggable{*unowned}, std::bad_weak_ptr);
}

TEST_F(DebugTest, TraceArgumentsAreEvaluatedOnlyWhenTheLevelIsOn) {
  auto h = getDebugHandler("EvalArgs");
  Tolan::Debuggable d(h);
  DebugHandler* raw = h.get();
  int calls = 0;
  auto traceEveryWay = [&] {
    TOLAN_TRACE(h, 3, "value {}", ++calls);
    TOLAN_TRACE(*raw, 3, "value {}", ++calls);
    TOLAN_TRACE(raw, 3, "value {}", ++calls);
    TOLAN_TRACE(d, 3, "value {}", ++calls);
    TOLAN_TRACE_C(h, 3, EvalArgs, "value {}", ++calls);
    TOLAN_TRACE(h, 4, "value {}", ++calls);  // a neighbouring level stays off
  };
  traceEveryWay();
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(TOLAN_TRACE_ENABLED(h, 3));

  h->enabledIs(3, true);
  EXPECT_TRUE(TOLAN_TRACE_ENABLED(*raw, 3));
  testing::internal::CaptureStderr();
  traceEveryWay();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(calls, 5);
  for (int i = 1; i <= 4; ++i) EXPECT_THAT(err, HasSubstr("EvalArgs 3 value " + std::to_string(i) + "\n"));
  EXPECT_THAT(err, HasSubstr("EvalArgs 3 EvalArgs::operator()() value 5\n"));
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
}

// The rules applied at library load, seen from a child process.
TEST(DebugStartup, DefaultsAndTrace) {
  const struct { const char* trace; std::vector<std::string> commands; const char* out; } cases[] = {
      {nullptr, {"default-handle", "handler TolanEngine", "handler Other", "dump-map"},
       "default Tolan/01\nhandler TolanEngine/01\nhandler Other/\n"
       "Specific:\nWildcard:\n    Tolan*/01\nHandlers:\n    Other/\n    Tolan/01\n    TolanEngine/01\n"},
      {"Foo*/2,FooBar/7", {"handler FooBar", "handler Foobaz", "handler Fo", "default-handle"},
       "handler FooBar/27\nhandler Foobaz/2\nhandler Fo/\ndefault Tolan/01\n"},
      // TRACE cannot take the library's default levels away; clearTolanDebug can.
      {"Tolan*/5,-Tolan/0", {"default-handle", "clear Tolan*/0", "default-handle", "clear ", "default-handle"},
       "default Tolan/015\ndefault Tolan/15\ndefault Tolan/15\n"}};
  for (const auto& c : cases) {
    auto child = traceProbe(c.commands);
    if (c.trace) child.env("TRACE", c.trace);
    const auto r = child.run();
    EXPECT_TRUE(r.exitedWith(0)) << r.describe();
    EXPECT_EQ(r.out, c.out) << "TRACE=" << (c.trace ? c.trace : "unset");
    EXPECT_EQ(r.err, "");
  }
}

TEST(DebugStartup, AnyBytesInTraceAreHarmless) {
  // "a/b/c/9" splits at the first "/" only: levels "b/c/9" give level 9.
  const struct { const char* trace; const char* a; } cases[] = {
      {"", "a/"}, {",,,", "a/"}, {"/", "a/"}, {"*", "a/"}, {"*/", "a/"}, {"**/**", "a/"},
      {"\xff\xfe/\x80*", "a/"}, {"Tolan/x,Tolan", "a/"}, {"a/b/c/9", "a/9"}, {"a/0123456789012", "a/*"}};
  for (const auto& c : cases) {
    const auto r = traceProbe({"handler Tolan", "handler a"}).env("TRACE", c.trace).run();
    EXPECT_TRUE(r.exitedWith(0)) << "TRACE=" << c.trace << ": " << r.describe();
    EXPECT_EQ(r.out, "handler Tolan/01\nhandler " + std::string(c.a) + "\n") << "TRACE=" << c.trace;
  }
}

}  // namespace
