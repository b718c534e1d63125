#include "support/ChildProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>

namespace {

using Tolan::Test::ChildProcess;

TEST(ChildProcess, SeparatesStreamsAndReportsStatus) {
  const auto r = ChildProcess("/bin/sh").arg("-c").arg("echo out; echo err >&2; printf '%s' \"$CP_A$CP_B\"; exit 3")
                     .env("CP_A", "set")
                     .unsetEnv("CP_B")
                     .run();
  EXPECT_TRUE(r.exitedWith(3)) << r.describe();
  EXPECT_EQ(r.out, "out\nset");
  EXPECT_EQ(r.err, "err\n");

  // More than a pipe holds, on both streams at once, arrives in full.
  const auto big = ChildProcess("/bin/sh").arg("-c").arg("head -c 300000 /dev/zero; head -c 200000 /dev/zero >&2").run();
  EXPECT_EQ(big.out.size(), 300000u);
  EXPECT_EQ(big.err.size(), 200000u);
}

TEST(ChildProcess, EnvironmentCanStartEmpty) {
  const auto r = ChildProcess("/usr/bin/env").clearEnv().env("ONLY", "1").run();
  EXPECT_EQ(r.out, "ONLY=1\n");
}

TEST(ChildProcess, OverrunIsKilledAndSignalsReported) {
  const auto slow = ChildProcess("/bin/sleep").arg("30").timeout(std::chrono::milliseconds(100)).run();
  EXPECT_TRUE(slow.timedOut);
  EXPECT_TRUE(slow.killedBy(SIGKILL));
  EXPECT_FALSE(slow.exitedWith(0));

  const auto aborted = ChildProcess("/bin/sh").arg("-c").arg("kill -ABRT $$").run();
  EXPECT_TRUE(aborted.killedBy(SIGABRT)) << aborted.describe();
  EXPECT_FALSE(aborted.timedOut);

  const auto missing = ChildProcess("/no/such/program").run();
  EXPECT_EQ(missing.exitCode, 127);
  EXPECT_THAT(missing.err, testing::HasSubstr("/no/such/program"));
}

}  // namespace
