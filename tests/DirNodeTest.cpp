#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>

#include "Tolan/DirNode.h"
#include "Tolan/Exception.h"
#include "Tolan/Util.h"
#include "support/SysFixtures.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using Tolan::DirNode;
using Names = std::set<std::string>;

namespace {

class DirNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* f : {"a.log", "b.log.old", "c.txt"}) ASSERT_TRUE(Tolan::Util::touch(root_ + "/" + f));
    ASSERT_EQ(mkdir((root_ + "/d.log").c_str(), 0755), 0);
    ASSERT_EQ(symlink("c.txt", (root_ + "/e.log").c_str()), 0);
  }

  // Names left in the stream, without "." and "..".
  static Names drain(const DirNode& node) {
    Names names;
    while (struct dirent* e = node.readEntry()) names.insert(e->d_name);
    names.erase(".");
    names.erase("..");
    return names;
  }

  Tolan::Test::TempDir tmp_;
  const std::string& root_ = tmp_.path;
  std::shared_ptr<Tolan::Platform::DebugHandler> handler_ = Tolan::Platform::getDebugHandler("DirNodeTest");
  const Names all_ = {"a.log", "b.log.old", "c.txt", "d.log", "e.log"};
};

}  // namespace

TEST_F(DirNodeTest, ClosedObjectReadsNothingButRefusesRewindAndSearch) {
  const std::string missing = root_ + "/missing";
  DirNode node(*handler_, missing);
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ(node.readEntry(), nullptr);
  EXPECT_EQ(Tolan::Test::thrownMessage<Tolan::RuntimeException>([&] { node.rewind(); }),
            "cannot rewind " + missing + " because the directory is not open");
  EXPECT_EQ(Tolan::Test::thrownMessage<Tolan::RuntimeException>([&] { node.findFiles(".log"); }),
            "cannot find .log files in " + missing + " because the directory is not open");
  EXPECT_EQ(DirNode(*handler_).readEntry(), nullptr);
  EXPECT_FALSE(DirNode(node).isOpen());
}

TEST_F(DirNodeTest, OpenFailuresAreTracedByHowExpectedTheyAre) {
  handler_->enabledIs(1, true);
  testing::internal::CaptureStderr();
  DirNode notDir(*handler_, root_ + "/c.txt");               // expected: level 9 only
  DirNode tooLong(*handler_, "/" + std::string(5000, 'x'));  // unexpected: level 1
  const std::string quiet = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(notDir.isOpen() || tooLong.isOpen());
  EXPECT_THAT(quiet, Not(HasSubstr("c.txt")));
  EXPECT_THAT(quiet, HasSubstr("errno: File name too long"));

  handler_->enabledIs(9, true);
  testing::internal::CaptureStderr();
  notDir.openDir();
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("DirNode::openDir() failed to open " + root_ + "/c.txt errno: Not a directory"));
}

TEST_F(DirNodeTest, FindFilesMatchesRegularFilesAndLinksByEnding) {
  DirNode node(*handler_, root_);
  EXPECT_THAT(node.findFiles(".log"), UnorderedElementsAre("a.log", "e.log"));
  EXPECT_THAT(node.findFiles(""), UnorderedElementsAre("a.log", "b.log.old", "c.txt", "e.log"));
  EXPECT_THAT(node.findFiles("a.log"), ElementsAre("a.log"));
  EXPECT_THAT(node.findFiles("xa.log"), ElementsAre());
  EXPECT_EQ(node.readEntry(), nullptr) << "the search used up the stream";
  node.rewind();
  EXPECT_EQ(drain(node), all_);
}

TEST_F(DirNodeTest, PathIsCopiesAndMoves) {
  const std::string other = root_ + "/d.log";
  ASSERT_TRUE(Tolan::Util::touch(other + "/inner"));
  DirNode node(*handler_, root_);
  ASSERT_NE(node.readEntry(), nullptr);
  DirNode copy(node);
  EXPECT_EQ(drain(copy), all_) << "a copy starts at the beginning";
  EXPECT_NE(node.readEntry(), nullptr) << "the copy shared the original's stream";
  node.pathIs(root_);  // same path: a fresh stream from the start
  EXPECT_EQ(drain(node), all_);
  node.pathIs(other);
  EXPECT_EQ(node.path(), other);
  EXPECT_EQ(drain(node), Names{"inner"});

  DirNode moved(std::move(node));
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ(node.readEntry(), nullptr);
  EXPECT_EQ(moved.path(), other);
  moved.rewind();
  EXPECT_EQ(drain(moved), Names{"inner"});
  moved.pathIs(root_ + "/missing");
  EXPECT_FALSE(moved.isOpen());
}
