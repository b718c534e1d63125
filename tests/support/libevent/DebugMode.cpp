// Linked into the tests of the event platform only (tests/Events.cmake), so
// that the other tests need not link libevent. Its debug mode makes misuse of
// events (deleting an unassigned event, re-assigning an added one) a fatal
// error. It must be on before the first event base exists: an environment's
// SetUp runs before any test.
#include <event2/event.h>
#include <gtest/gtest.h>

namespace {
class LibeventDebugMode : public testing::Environment {
  void SetUp() override { event_enable_debug_mode(); }
};
testing::Environment* const gEnvironment = testing::AddGlobalTestEnvironment(new LibeventDebugMode);
}  // namespace
