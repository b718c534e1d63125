// The directory walker: opening, reading, searching by extension.
#include <sys/stat.h>

#include <set>

#include "Tolan/DirNode.h"
#include "Tolan/Util.h"
#include "support/Support.h"

using namespace TolanTest;
using Tolan::DirNode;
using Names = std::set<std::string>;

class DirNodeTest : public Test {
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
  ScratchDir tmp_;
  const std::string& root_ = tmp_.path;
  std::shared_ptr<Tolan::Platform::DebugHandler> handler_ = Tolan::Platform::getDebugHandler("DirNodeTest");
  const Names all_ = {"a.log", "b.log.old", "c.txt", "d.log", "e.log"};
};

// Not opening is no exception; it is traced by how expected it was: a path
// that is not a directory at level 9 only, one too long for the system at 1.
// Closed, an object reads nothing but refuses to rewind or search.
TEST_F(DirNodeTest, AClosedObjectReadsNothingButRefusesRewindAndSearch) {
  const std::string missing = root_ + "/missing";
  const std::string quiet = traceOf(*handler_, "1", [&] {
    DirNode notDir(*handler_, root_ + "/c.txt"), tooLong(*handler_, "/" + std::string(5000, 'x'));
    EXPECT_FALSE(notDir.isOpen() || tooLong.isOpen());
  });
  EXPECT_THAT(quiet, Not(HasSubstr("c.txt")));
  EXPECT_THAT(quiet, HasSubstr("errno: File name too long"));
  DirNode node(*handler_);
  EXPECT_THAT(traceOf(*handler_, "9", [&] { node.pathIs(missing); }),
              HasSubstr("DirNode::openDir() failed to open " + missing + " errno: No such file or directory"));
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ(node.readEntry(), nullptr);
  EXPECT_THROWS_WITH(node.rewind(), Tolan::RuntimeException,
                     "(\"cannot rewind " + missing + " because the directory is not open\")");
  EXPECT_THROWS_WITH(node.findFiles(".log"), Tolan::RuntimeException,
                     "(\"cannot find .log files in " + missing + " because the directory is not open\")");
  EXPECT_FALSE(DirNode(node).isOpen());
}

TEST_F(DirNodeTest, FindFilesMatchesRegularFilesAndLinksByEnding) {
  DirNode node(*handler_, root_);
  EXPECT_THAT(node.findFiles(".log"), UnorderedElementsAre("a.log", "e.log"));
  EXPECT_THAT(node.findFiles(""), UnorderedElementsAre("a.log", "b.log.old", "c.txt", "e.log"));
  EXPECT_THAT(node.findFiles("a.log"), UnorderedElementsAre("a.log"));
  EXPECT_TRUE(node.findFiles("xa.log").empty());
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
  EXPECT_EQ(moved.path(), other);
  moved.rewind();
  EXPECT_EQ(drain(moved), Names{"inner"});
}
