// Locks on open file descriptions, between objects and between processes.
#include <fcntl.h>
#include <sys/stat.h>

#include "Tolan/FileLock.h"
#include "Tolan/Util.h"
#include "support/Support.h"

using namespace TolanTest;
using Tolan::FileLock;

class FileLockTest : public Test {
 protected:
  ScratchDir tmp_;
  const std::string& root_ = tmp_.path;
  std::shared_ptr<Tolan::Platform::DebugHandler> handler_ = Tolan::Platform::getDebugHandler("FileLockTest");
  Tolan::Platform::DebugHandler& h_ = *handler_;
};

TEST_F(FileLockTest, MakesItsFileAndDirectoriesOrSaysWhyNot) {
  EXPECT_ASSERTS(FileLock(h_, root_, "a/b"), "unexpected '/' in filename: a/b");
  // Whatever the umask, the file is 0666 and the directories made for it 0777
  // (else other users could not reach it). The umask itself is never changed,
  // not even for a moment: files another thread makes meanwhile keep theirs.
  const mode_t old = umask(077);
  std::atomic<bool> done{false};
  std::atomic<int> widened{0};
  std::thread other([&] {
    for (int i = 0; !done; ++i) {
      const std::string f = root_ + "/other" + std::to_string(i % 8);
      const int fd = open(f.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0666);
      struct stat st {};
      if (fd >= 0 && fstat(fd, &st) == 0 && (st.st_mode & 0777) != 0600) ++widened;
      close(fd);
      unlink(f.c_str());
    }
  });
  FileLock lock(h_, root_ + "/x/y/z", "lockfile");
  bool locked = lock.lock(false);
  for (int i = 0; i < 3000 && locked; ++i) {
    FileLock again(h_, root_ + "/w" + std::to_string(i % 16), "l");
    locked = again.lock(false);
  }
  done = true;
  other.join();
  EXPECT_EQ(umask(old), 077);
  EXPECT_EQ(widened, 0) << "files of another thread got the lock's permissions";
  ASSERT_TRUE(locked);
  EXPECT_EQ(lock.file(), root_ + "/x/y/z/lockfile");
  struct stat st {};
  for (const std::string& path : {root_ + "/x", root_ + "/x/y/z"}) {
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u) << path;
  }
  ASSERT_EQ(stat(lock.file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  lock.release();
  EXPECT_TRUE(Tolan::Util::fileSize(lock.file())) << "the file stays for the next user";
  // A directory where the lock file should be; a regular file where a directory should be.
  ASSERT_EQ(mkdir((root_ + "/taken").c_str(), 0755), 0);
  FileLock taken(h_, root_, "taken");
  EXPECT_THAT(traceOf(h_, "1", [&] { EXPECT_FALSE(taken.lock(false)); }),
              HasSubstr("error: could not open lock file:" + taken.file()));
  ASSERT_TRUE(Tolan::Util::touch(root_ + "/plain"));
  EXPECT_ASSERTS(FileLock(h_, root_ + "/plain/sub", "l").lock(false),
                 "unexpected mkpath() error " + root_ + "/plain/sub: Not a directory");
}

TEST_F(FileLockTest, ConflictsInsideOneProcessReentryAndRelease) {
  FileLock a(h_, root_, "l"), b(h_, root_, "l");
  const std::string trace = traceOf(h_, "15", [&] {
    ASSERT_TRUE(a.lock(false));
    EXPECT_FALSE(b.lock(false));
    EXPECT_TRUE(a.lock(true));
    // Without re-entry the holder opens a second description and loses to itself.
    EXPECT_FALSE(a.lock(false));
    EXPECT_TRUE(a.held());
    EXPECT_FALSE(b.lock(true));
    a.release();
  });
  for (const std::string& line : std::vector<std::string>{"acquired lock on file:", "error: conflicting lock held on file:",
                                  "re-entry held by pid:" + std::to_string(getpid()) + " on file:",
                                  "released lock on file:", "closed fd for file:"})
    EXPECT_THAT(trace, HasSubstr(line + a.file()));
  EXPECT_FALSE(a.held());
  EXPECT_ASSERTS(a.release(), "attempting to release a lock that is not currently held. File:" + a.file());
  EXPECT_TRUE(b.lock(false));
  EXPECT_FALSE(a.lock(true)) << "a released object does not re-enter";
  b.closeFd();
  b.closeFd();  // nothing left to close
  {
    FileLock c(h_, root_, "l");
    EXPECT_TRUE(c.lock(false));
  }
  EXPECT_TRUE(a.lock(false)) << "destruction dropped the lock";
}

TEST_F(FileLockTest, ExcludesOtherProcessesUntilTheyLetGo) {
  // The child's lock lives until the child exits.
  ForkedChild holder([&] { return (new FileLock(h_, root_, "shared"))->lock(false) ? 'y' : 'n'; });
  ASSERT_EQ(holder.report(), 'y');
  FileLock mine(h_, root_, "shared");
  EXPECT_FALSE(mine.lock(false));
  EXPECT_FALSE(mine.lock(true));  // re-entry is per owner, not per path
  EXPECT_EQ(Tolan::Util::readLockPid(h_, mine.file()), holder.pid());
  holder.finish();
  EXPECT_TRUE(mine.lock(false));
  EXPECT_EQ(Tolan::Util::readLockPid(h_, mine.file()), getpid());
}

TEST_F(FileLockTest, AForkedChildCannotReleaseTheParentsLock) {
  FileLock lock(h_, root_, "l");
  ASSERT_TRUE(lock.lock(false));
  const std::string owner = " of owner pid:" + std::to_string(getpid());
  EXPECT_EQ(exitStatusInChild([&] {
              EXPECT_ASSERTS(lock.release(), "called from child process:" + std::to_string(getpid()) + owner);
              lock.closeFd();  // the child may drop its copy of the descriptor
              return HasFailure() ? 1 : 0;
            }),
            0);
  FileLock other(h_, root_, "l");
  EXPECT_FALSE(other.lock(false)) << "the child's release or close dropped the parent's lock";
  lock.release();
  EXPECT_TRUE(other.lock(false));
}
