// An ostream over a descriptor: writes through, never closes it, refuses a
// non-blocking one, and reports a failed write by throwing only when asked.
#include "Tolan/FdToStream.h"

#include <fcntl.h>
#include <signal.h>

#include "support/Support.h"

using namespace TolanTest;

TEST(FdToStream, WritesThroughRefusesNonBlockingAndFailsAsAsked) {
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  {
    Tolan::FdToStream out(p[1], true);
    out << "answer " << 42 << '\n';
    EXPECT_EQ(out.fd(), p[1]);
  }
  char text[16] = {};
  EXPECT_EQ(::read(p[0], text, sizeof text), 10);
  EXPECT_STREQ(text, "answer 42\n");
  ASSERT_NE(::fcntl(p[1], F_GETFD), -1) << "the stream closed the descriptor";
  ::fcntl(p[1], F_SETFL, O_NONBLOCK);
  EXPECT_ASSERTS(Tolan::FdToStream(p[1], false), "fd " + std::to_string(p[1]) + " is non-blocking, not supported");
  ::fcntl(p[1], F_SETFL, 0);
  ::close(p[0]);  // the reader is gone: EPIPE
  ::signal(SIGPIPE, SIG_IGN);
  for (bool throwOnError : {false, true}) {
    Tolan::FdToStream out(p[1], throwOnError);
    out << "lost";
    if (throwOnError) {
      EXPECT_THROW(out.flush(), std::ios_base::failure);
    } else {
      EXPECT_NO_THROW(out.flush());
    }
    EXPECT_TRUE(out.bad());
  }
  ::close(p[1]);
}
