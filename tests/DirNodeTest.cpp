#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "Tolan/Debug.h"
#include "Tolan/DirNode.h"
#include "Tolan/Exception.h"
#include "Tolan/Util.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using Tolan::DirNode;

namespace {

class DirNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tolan-dirnode-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    for (const char* f : {"a.log", "b.log.old", "c.txt"}) ASSERT_TRUE(Tolan::Util::touch(root_ + "/" + f));
    ASSERT_EQ(mkdir((root_ + "/d.log").c_str(), 0755), 0);
    ASSERT_EQ(symlink("c.txt", (root_ + "/e.log").c_str()), 0);
    handler_ = Tolan::Platform::getDebugHandler("DirNodeTest");
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  // Names left in the stream, without "." and "..".
  static std::set<std::string> drain(const DirNode& node) {
    std::set<std::string> names;
    while (struct dirent* e = node.readEntry()) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") names.insert(name);
    }
    return names;
  }

  std::string root_;
  std::shared_ptr<Tolan::Platform::DebugHandler> handler_;
};

const std::set<std::string> kAll = {"a.log", "b.log.old", "c.txt", "d.log", "e.log"};

}  // namespace

TEST_F(DirNodeTest, ClosedObjectReadsNothingButRefusesRewindAndSearch) {
  const std::string missing = root_ + "/missing";
  DirNode node(*handler_, missing);
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ(node.readEntry(), nullptr);
  try {
    node.rewind();
    ADD_FAILURE() << "rewind of a closed directory";
  } catch (const Tolan::RuntimeException& e) {
    EXPECT_EQ(e.message(), "cannot rewind " + missing + " because the directory is not open");
  }
  try {
    node.findFiles(".log");
    ADD_FAILURE() << "search of a closed directory";
  } catch (const Tolan::RuntimeException& e) {
    EXPECT_EQ(e.message(), "cannot find .log files in " + missing + " because the directory is not open");
  }
  DirNode empty(*handler_);
  EXPECT_FALSE(empty.isOpen());
  EXPECT_EQ(empty.readEntry(), nullptr);
}

TEST_F(DirNodeTest, OpenFailuresAreTracedByHowExpectedTheyAre) {
  handler_->enabledIs(1, true);
  handler_->enabledIs(9, false);
  testing::internal::CaptureStderr();
  DirNode notDir(*handler_, root_ + "/c.txt");  // expected: level 9 only
  DirNode tooLong(*handler_, "/" + std::string(5000, 'x'));  // unexpected: level 1
  const std::string quiet = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(notDir.isOpen());
  EXPECT_FALSE(tooLong.isOpen());
  EXPECT_THAT(quiet, Not(HasSubstr("c.txt")));
  EXPECT_THAT(quiet, HasSubstr("errno: File name too long"));

  handler_->enabledIs(9, true);
  testing::internal::CaptureStderr();
  notDir.openDir();
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("DirNode::openDir() failed to open " + root_ + "/c.txt errno: Not a directory"));
  handler_->enabledIs(1, false);
  handler_->enabledIs(9, false);
}

TEST_F(DirNodeTest, FindFilesMatchesRegularFilesAndLinksByEnding) {
  DirNode node(*handler_, root_);
  ASSERT_TRUE(node.isOpen());
  EXPECT_THAT(node.findFiles(".log"), UnorderedElementsAre("a.log", "e.log"));
  EXPECT_THAT(node.findFiles(""), UnorderedElementsAre("a.log", "b.log.old", "c.txt", "e.log"));
  EXPECT_THAT(node.findFiles("a.log"), ElementsAre("a.log"));
  EXPECT_THAT(node.findFiles("xa.log"), ElementsAre());
  // The search used up the stream.
  EXPECT_EQ(node.readEntry(), nullptr);
  node.rewind();
  EXPECT_EQ(drain(node), kAll);
}

TEST_F(DirNodeTest, PathIsSwitchesOrRestarts) {
  const std::string other = root_ + "/d.log";
  ASSERT_TRUE(Tolan::Util::touch(other + "/inner"));
  DirNode node(*handler_, root_);
  EXPECT_EQ(drain(node), kAll);
  node.pathIs(root_);  // same path: a fresh stream from the start
  EXPECT_EQ(drain(node), kAll);
  node.pathIs(other);
  EXPECT_EQ(node.path(), other);
  EXPECT_EQ(drain(node), std::set<std::string>{"inner"});
  node.pathIs(root_ + "/missing");
  EXPECT_FALSE(node.isOpen());
}

TEST_F(DirNodeTest, CopiesOpenTheirOwnStreamMovesTakeIt) {
  DirNode original(*handler_, root_);
  ASSERT_NE(original.readEntry(), nullptr);
  DirNode copy(original);
  EXPECT_EQ(drain(copy), kAll) << "a copy starts at the beginning";
  EXPECT_NE(original.readEntry(), nullptr) << "the copy shared the original's stream";

  DirNode moved(std::move(original));
  EXPECT_FALSE(original.isOpen());
  EXPECT_EQ(original.readEntry(), nullptr);
  EXPECT_TRUE(moved.isOpen());
  EXPECT_EQ(moved.path(), root_);
  moved.rewind();
  EXPECT_EQ(drain(moved), kAll);

  DirNode closed(*handler_, root_ + "/missing");
  DirNode closedCopy(closed);
  EXPECT_FALSE(closedCopy.isOpen());
}
