#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Exception.h"
#include "Tolan/FileLock.h"
#include "Tolan/Util.h"
#include "support/ForkedChild.h"

using ::testing::HasSubstr;
using Tolan::FileLock;

namespace {

class FileLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Tolan::throwOnAssertFailIs(true);
    char pattern[] = "/tmp/tolan-filelock-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    handler_ = Tolan::Platform::getDebugHandler("FileLockTest");
    handler_->enabledIs(1, true);
    handler_->enabledIs(5, true);
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  std::string root_;
  std::shared_ptr<Tolan::Platform::DebugHandler> handler_;
};

}  // namespace

TEST_F(FileLockTest, FileNameWithSlashIsRefused) {
  try {
    FileLock bad(*handler_, root_, "a/b");
    ADD_FAILURE() << "accepted";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("unexpected '/' in filename: a/b"));
  }
  EXPECT_EQ(FileLock(*handler_, root_, "ok").file(), root_ + "/ok");
  EXPECT_EQ(Tolan::cmd_F_OFD_SETLK(), 37);
  EXPECT_EQ(Tolan::cmd_F_OFD_GETLK(), 36);
}

TEST_F(FileLockTest, CreatesDirectoriesAndAWorldWritableFileWhateverTheUmask) {
  const std::string dir = root_ + "/x/y/z";
  const mode_t old = umask(077);
  FileLock lock(*handler_, dir, "lockfile");
  const bool locked = lock.lock(false);
  umask(old);
  ASSERT_TRUE(locked);
  struct stat st {};
  ASSERT_EQ(stat(lock.file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  EXPECT_EQ(umask(old), old) << "umask not restored";
  lock.release();
  // The file stays for the next user.
  EXPECT_EQ(stat(lock.file().c_str(), &st), 0);
}

TEST_F(FileLockTest, ConflictsInsideOneProcessAndReentry) {
  FileLock a(*handler_, root_, "l"), b(*handler_, root_, "l");
  testing::internal::CaptureStderr();
  ASSERT_TRUE(a.lock(false));
  EXPECT_FALSE(b.lock(false));
  EXPECT_TRUE(a.lock(true));
  // Without re-entry the holder opens a second description and loses to itself.
  EXPECT_FALSE(a.lock(false));
  EXPECT_TRUE(a.held());
  EXPECT_FALSE(b.lock(true));
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_THAT(err, HasSubstr("acquired lock on file:" + a.file()));
  EXPECT_THAT(err, HasSubstr("error: conflicting lock held on file:" + a.file()));
  EXPECT_THAT(err, HasSubstr("re-entry held by pid:" + std::to_string(getpid()) + " on file:" + a.file()));

  testing::internal::CaptureStderr();
  a.release();
  const std::string released = testing::internal::GetCapturedStderr();
  EXPECT_THAT(released, HasSubstr("released lock on file:" + a.file()));
  EXPECT_THAT(released, HasSubstr("closed fd for file:" + a.file()));
  EXPECT_FALSE(a.held());
  // A released object does not re-enter: it must take the lock again.
  EXPECT_TRUE(b.lock(false));
  EXPECT_FALSE(a.lock(true));
}

TEST_F(FileLockTest, DestructionAndCloseFdDropTheLock) {
  FileLock b(*handler_, root_, "l");
  {
    FileLock a(*handler_, root_, "l");
    ASSERT_TRUE(a.lock(false));
    EXPECT_FALSE(b.lock(false));
  }
  ASSERT_TRUE(b.lock(false));
  b.closeFd();
  b.closeFd();  // nothing left to close
  FileLock c(*handler_, root_, "l");
  EXPECT_TRUE(c.lock(false));
}

TEST_F(FileLockTest, ReleasingWhatIsNotHeldIsAnAssertion) {
  FileLock a(*handler_, root_, "l");
  try {
    a.release();
    ADD_FAILURE() << "accepted";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(),
                HasSubstr("attempting to release a lock that is not currently held. File:" + a.file()));
  }
}

TEST_F(FileLockTest, UnopenableFileAndUnmakeableDirectory) {
  // The lock file's name is taken by a directory: open fails, lock says no.
  ASSERT_EQ(mkdir((root_ + "/taken").c_str(), 0755), 0);
  FileLock a(*handler_, root_, "taken");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(a.lock(false));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("error: could not open lock file:" + a.file()));

  // The directory would have to go below a regular file.
  ASSERT_TRUE(Tolan::Util::touch(root_ + "/plain"));
  FileLock b(*handler_, root_ + "/plain/sub", "l");
  try {
    b.lock(false);
    ADD_FAILURE() << "accepted";
  } catch (const Tolan::AssertException& e) {
    EXPECT_THAT(e.message(), HasSubstr("unexpected mkpath() error " + root_ + "/plain/sub: Not a directory"));
  }
}

TEST_F(FileLockTest, ExcludesOtherProcessesUntilTheyLetGo) {
  // The child's lock lives until the child exits (it is never destroyed there).
  Tolan::Test::ForkedChild holder([&] { return (new FileLock(*handler_, root_, "shared"))->lock(false) ? 'y' : 'n'; });
  ASSERT_EQ(holder.report(), 'y');
  FileLock mine(*handler_, root_, "shared");
  EXPECT_FALSE(mine.lock(false));
  EXPECT_FALSE(mine.lock(true));  // re-entry is per owner, not per path
  EXPECT_EQ(Tolan::Util::readLockPid(*handler_, mine.file()), holder.pid());
  holder.finish();  // the holder exits: its descriptor closes
  EXPECT_TRUE(mine.lock(false));
  EXPECT_EQ(Tolan::Util::readLockPid(*handler_, mine.file()), getpid());
}

TEST_F(FileLockTest, ForkedChildCannotReleaseTheParentsLock) {
  FileLock lock(*handler_, root_, "l");
  ASSERT_TRUE(lock.lock(false));
  const pid_t parent = getpid();
  const int status = Tolan::Test::exitStatusInChild([&] {
    try {
      lock.release();
      return 1;
    } catch (const Tolan::AssertException& e) {
      const std::string expected =
          "called from child process:" + std::to_string(getpid()) + " of owner pid:" + std::to_string(parent);
      if (e.message().find(expected) == std::string::npos) return 2;
    }
    // The child may drop its copy of the descriptor; the lock is not its to end.
    lock.closeFd();
    return 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(lock.held());
  FileLock other(*handler_, root_, "l");
  EXPECT_FALSE(other.lock(false)) << "the child's release or close dropped the parent's lock";
  lock.release();
  EXPECT_TRUE(other.lock(false));
}
