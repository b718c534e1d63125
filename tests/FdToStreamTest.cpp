#include "Tolan/FdToStream.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <ios>
#include <string>

#include "Tolan/Exception.h"

namespace {

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe(fds), 0); }
  ~Pipe() {
    for (int fd : fds)
      if (fd >= 0) ::close(fd);
  }
  std::string drain() {
    std::string text(4096, '\0');
    const ssize_t n = ::read(fds[0], text.data(), text.size());
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
  }
  int fds[2];
};

TEST(FdToStream, WritesThroughAndLeavesTheDescriptorOpen) {
  Pipe p;
  {
    Tolan::FdToStream out(p.fds[1], true);
    out << "answer " << 42 << '\n';
    EXPECT_EQ(out.fd(), p.fds[1]);
  }
  EXPECT_EQ(p.drain(), "answer 42\n");
  EXPECT_NE(::fcntl(p.fds[1], F_GETFD), -1) << "the stream closed the descriptor";
}

TEST(FdToStream, RefusesANonBlockingDescriptor) {
  Tolan::throwOnAssertFailIs(true);
  Pipe p;
  ::fcntl(p.fds[1], F_SETFL, O_NONBLOCK);
  EXPECT_THAT([&] { Tolan::FdToStream out(p.fds[1], false); },
              testing::ThrowsMessage<Tolan::AssertException>(
                  testing::HasSubstr("fd " + std::to_string(p.fds[1]) + " is non-blocking, not supported")));
}

// The reader is gone: the write fails with EPIPE, which throws or only marks
// the stream, as asked.
TEST(FdToStream, AFailedWriteThrowsOnlyWhenAsked) {
  ::signal(SIGPIPE, SIG_IGN);
  for (bool throwOnError : {false, true}) {
    Pipe p;
    ::close(p.fds[0]);
    p.fds[0] = -1;
    Tolan::FdToStream out(p.fds[1], throwOnError);
    out << "lost";
    if (throwOnError) {
      EXPECT_THROW(out.flush(), std::ios_base::failure);
    } else {
      EXPECT_NO_THROW(out.flush());
    }
    EXPECT_TRUE(out.bad());
  }
}

}  // namespace
