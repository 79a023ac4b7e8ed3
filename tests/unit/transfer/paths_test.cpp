// Path text rules of tree transfers: suspect names, "." and ".." resolved
// through a stand-in resolver, and the "strictly below a root" test that
// every removal goes through.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"

namespace sshfa::testing {
namespace {

namespace tr = foundation::sshclient::internal::transfer;
using namespace std::string_literals;

TEST(SuspectNames, OnlyPlainNamesPass) {
  for (auto const& name : {""s, "."s, ".."s, "../x"s, "a/b"s, "/abs"s, "x/"s, "a\0b"s}) {
    EXPECT_TRUE(tr::suspectName(name)) << name;
  }
  for (auto const& name : {"a"s, ".hidden"s, "..."s, "..x"s, "a\nb"s, "\xff"s, "-rf"s, "a\\b"s}) {
    EXPECT_FALSE(tr::suspectName(name)) << name;
  }
}

TEST(Joined, AddsOneSeparator) {
  EXPECT_EQ(tr::joined("/a", "b"), "/a/b");
  EXPECT_EQ(tr::joined("/a/", "b"), "/a/b");
  EXPECT_EQ(tr::joined("/", "b"), "/b");
  EXPECT_EQ(tr::joined("", "b"), "/b");
}

TEST(DotComponents, AreFoundAnywhere) {
  EXPECT_TRUE(tr::hasDotComponents(".."));
  EXPECT_TRUE(tr::hasDotComponents("a/./b"));
  EXPECT_TRUE(tr::hasDotComponents("/a/b/.."));
  EXPECT_TRUE(tr::hasDotComponents("sub/../"));
  EXPECT_FALSE(tr::hasDotComponents("/a/b/"));
  EXPECT_FALSE(tr::hasDotComponents("..a/b.."));
  EXPECT_FALSE(tr::hasDotComponents(""));
}

TEST(Normalized, TakesDotsOutByText) {
  EXPECT_EQ(tr::normalized("/a/b/../c/./d//e/"), "/a/c/d/e");
  EXPECT_EQ(tr::normalized("/.."), "/");
  EXPECT_EQ(tr::normalized("/a/../.."), "/");
  EXPECT_EQ(tr::normalized("a/.."), ".");
  EXPECT_EQ(tr::normalized("../a"), "../a");
  EXPECT_EQ(tr::normalized("a/../../b"), "../b");
}

// A file system of three real folders, with a link /r/link -> /elsewhere.
std::optional<std::string> fakeRealPath(std::string const& path) {
  static std::map<std::string, std::string> const real{
      {"/r", "/r"},
      {"/r/tree", "/r/tree"},
      {"/r/tree/sub", "/r/tree/sub"},
      {"/r/tree/sub/..", "/r/tree"},
      {"/r/link/..", "/"},
      {".", "/home/u"},
      {"..", "/home"},
      {"sub/..", "/home/u"},
  };
  auto const found = real.find(path);
  if (found == real.end()) return std::nullopt;
  return found->second;
}

TEST(Resolved, LeavesPathsWithoutDotsAlone) {
  int calls = 0;
  auto const counting = [&](std::string const& path) {
    ++calls;
    return fakeRealPath(path);
  };
  EXPECT_EQ(tr::resolved("/r/tree/", counting, true), "/r/tree/");
  EXPECT_EQ(tr::resolved("relative/name", counting, false), "relative/name");
  EXPECT_EQ(calls, 0);
}

TEST(Resolved, TakesTheRealFolderOfDotDot) {
  for (bool const mustExist : {true, false}) {
    EXPECT_EQ(tr::resolved("/r/tree/sub/..", fakeRealPath, mustExist), "/r/tree/");
    EXPECT_EQ(tr::resolved("..", fakeRealPath, mustExist), "/home/");
    EXPECT_EQ(tr::resolved("sub/..", fakeRealPath, mustExist), "/home/u/");
    EXPECT_EQ(tr::resolved(".", fakeRealPath, mustExist), "/home/u/");
    // The kernel's answer, through the link, not the text's.
    EXPECT_EQ(tr::resolved("/r/link/..", fakeRealPath, mustExist), "/");
  }
}

TEST(Resolved, ADestinationTakesTheLongestExistingPrefixAndTheRestByText) {
  EXPECT_EQ(tr::resolved("/r/tree/new/../x", fakeRealPath, false), "/r/tree/x");
  EXPECT_EQ(tr::resolved("/r/tree/new/./x/", fakeRealPath, false), "/r/tree/new/x/");
  EXPECT_EQ(tr::resolved("/missing/../../x", fakeRealPath, false), "/x");
}

TEST(Resolved, ASourceMustExistAsWritten) {
  // The kernel finds no "new" to climb out of: a source is never guessed.
  EXPECT_EQ(tr::resolved("/r/tree/new/..", fakeRealPath, true), std::nullopt);
  EXPECT_EQ(tr::resolved("/r/tree/new/../x", fakeRealPath, true), std::nullopt);
}

TEST(Resolved, FailsWhenNothingResolves) {
  auto const none = [](std::string const&) { return std::optional<std::string>(); };
  EXPECT_EQ(tr::resolved("a/../b", none, false), std::nullopt);
}

TEST(Canonical, ResolvesEvenWithoutDotsAndDropsATrailingSlash) {
  EXPECT_EQ(tr::canonical("/r/link/..", fakeRealPath), "/");
  EXPECT_EQ(tr::canonical("/r/tree/", fakeRealPath), "/r/tree");
  EXPECT_EQ(tr::canonical("/r/tree/new/x", fakeRealPath), "/r/tree/new/x");
  EXPECT_EQ(tr::canonical(".", fakeRealPath), "/home/u");
  EXPECT_EQ(tr::canonical("sub/..", fakeRealPath), "/home/u");
}

TEST(Overlaps, TheSourceItselfOrAFolderAboveTheDestination) {
  EXPECT_TRUE(tr::overlaps("/a/tree", "/a/tree"));
  EXPECT_TRUE(tr::overlaps("/a/tree", "/a/tree/copy"));
  EXPECT_TRUE(tr::overlaps("/", "/x"));
  EXPECT_FALSE(tr::overlaps("/a/tree/copy", "/a/tree"));
  EXPECT_FALSE(tr::overlaps("/a/tree", "/a/tree2"));
  EXPECT_FALSE(tr::overlaps("/a/tree", "/b/tree"));
}

TEST(LoopbackPeer, KnowsThisMachinesNames) {
  EXPECT_TRUE(tr::loopbackPeer("u@127.0.0.1:22"));
  EXPECT_TRUE(tr::loopbackPeer("u@127.1.2.3:2222"));
  EXPECT_TRUE(tr::loopbackPeer("u@localhost:22"));
  EXPECT_TRUE(tr::loopbackPeer("u@::1:22"));
  EXPECT_TRUE(tr::loopbackPeer("u@[::1]:22"));
  EXPECT_FALSE(tr::loopbackPeer("u@build01:22"));
  EXPECT_FALSE(tr::loopbackPeer("u@10.0.0.1:22"));
  EXPECT_FALSE(tr::loopbackPeer("u@1270.0.0.1:22"));
  EXPECT_FALSE(tr::loopbackPeer("no port"));
}

TEST(StrictlyBelow, NeverTheRootItselfNorASibling) {
  EXPECT_TRUE(tr::strictlyBelow("/r/t", "/r/t/a"));
  EXPECT_TRUE(tr::strictlyBelow("/r/t/", "/r/t/a/b"));
  EXPECT_TRUE(tr::strictlyBelow("/", "/a"));
  EXPECT_FALSE(tr::strictlyBelow("/r/t", "/r/t"));
  EXPECT_FALSE(tr::strictlyBelow("/r/t", "/r/t/"));
  EXPECT_FALSE(tr::strictlyBelow("/r/t", "/r/tt/a"));
  EXPECT_FALSE(tr::strictlyBelow("/r/t", "/r"));
  EXPECT_FALSE(tr::strictlyBelow("/", "/"));
  EXPECT_FALSE(tr::strictlyBelow("r/t", "r/t2"));
}

}  // namespace
}  // namespace sshfa::testing
