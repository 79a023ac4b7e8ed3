// Every operation on names that a shell would otherwise interpret.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/integration/remote/RemoteHost.hpp"

namespace sshfa::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

struct OddName {
  const char* label;
  ustring name;
  bool unzipKeepsName;  // Info-ZIP unzip rewrites control characters and some invalid bytes
};

void PrintTo(OddName const& name, std::ostream* out) { *out << name.label; }

const OddName kNames[] = {
    {"Blank", u"a b", true},
    {"TwoBlanks", u"a b  c", true},
    {"Apostrophe", u"it's", true},
    {"Apostrophes", u"''x'''", true},
    {"Backslash", u"back\\slash\\", true},
    {"Dollar", u"$HOME${PATH}$", true},
    {"Backtick", u"`id`", true},
    {"DoubleQuote", u"say \"hi\"", true},
    {"Glob", u"*?[a]", true},
    {"LeadingDash", u"-rf", true},
    {"LeadingDoubleDash", u"--help", true},
    {"Tab", u"a\tb", false},
    {"Utf8", u"\u00e9\u4e2d\U0001F600", true},
    {"NotUtf8", u"bad\xDCFF\xDC80name", false},
};

class Names : public RemoteHostTest, public ::testing::WithParamInterface<OddName> {};

TEST_P(Names, QueriesSeeTheFileCreatedOnTheHost) {
  const ustring name = GetParam().name;
  const ustring file = at(name);
  hostWrite(file, "hello");
  hostMakeDir(at(u"sub"));

  EXPECT_TRUE(remote_->exists(file));
  EXPECT_TRUE(remote_->isFile(file));
  EXPECT_FALSE(remote_->isDir(file));
  EXPECT_FALSE(remote_->exists(file + u"x"));
  EXPECT_THAT(remote_->exists(Paths{file, at(u"sub"), file + u"x"}), ElementsAre(true, true, false));
  EXPECT_THAT(remote_->isDir(Paths{file, at(u"sub")}), ElementsAre(false, true));
  EXPECT_THAT(remote_->isFile(Paths{file, at(u"sub")}), ElementsAre(true, false));
  EXPECT_EQ(remote_->parent(file), dir_);

  EXPECT_THAT(remote_->list(dir_), UnorderedElementsAre(file, at(u"sub")));
  EXPECT_THAT(remote_->list(Paths{dir_ + u"/", at(u"sub")}), UnorderedElementsAre(file, at(u"sub")));
  EXPECT_THAT(remote_->listRecursively(dir_), ElementsAre(file));

  const auto info = remote_->getFileInfo(file);
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->path, file);
  EXPECT_EQ(info->size, 5U);
  EXPECT_EQ(info->lastWriteTime, boost::posix_time::from_time_t(static_cast<std::time_t>(hostMtime(file))));
}

TEST_P(Names, MutationsActOnTheLiteralName) {
  const ustring name = GetParam().name;
  const ustring file = at(name);
  hostWrite(file, "hello");

  remote_->copy(file, at(u"copies/deeper/" + name));
  EXPECT_EQ(hostRead(at(u"copies/deeper/" + name)), u"hello");

  remote_->makeDir(at(name + u".d"));
  EXPECT_TRUE(hostIsDir(at(name + u".d")));
  remote_->touch(at(name + u".d/" + name));
  EXPECT_TRUE(hostIsFile(at(name + u".d/" + name)));
  EXPECT_EQ(hostRead(at(name + u".d/" + name)), u"");

  remote_->move(at(u"copies/deeper/" + name), at(name + u".d/moved " + name));
  EXPECT_FALSE(hostExists(at(u"copies/deeper/" + name)));
  EXPECT_EQ(hostRead(at(name + u".d/moved " + name)), u"hello");

  remote_->copy(Pairs{{file, at(name + u" 1")}, {at(name + u" 1"), at(name + u" 2")}});
  EXPECT_EQ(hostRead(at(name + u" 2")), u"hello");
  remote_->move(Pairs{{at(name + u" 1"), at(name + u" 3")}, {at(name + u" 3"), at(name + u" 4")}});
  EXPECT_FALSE(hostExists(at(name + u" 1")));
  EXPECT_FALSE(hostExists(at(name + u" 3")));
  EXPECT_EQ(hostRead(at(name + u" 4")), u"hello");

  remote_->remove(Paths{file, at(name + u".d"), at(name + u" 2"), at(name + u" 4")});
  EXPECT_FALSE(hostExists(file));
  EXPECT_FALSE(hostExists(at(name + u".d")));
  EXPECT_EQ(hostCount(dir_), 2U);  // copies/deeper
}

TEST_P(Names, ArchivesRoundTripTheLiteralName) {
  const ustring name = GetParam().name;
  const ustring source = at(name + u".d");
  hostMakeDir(source + u"/in");
  hostWrite(source + u"/in/" + name, "payload");

  remote_->tar(source, at(name + u".tar"));
  remote_->makeDir(at(u"untarred"));
  remote_->untar(at(name + u".tar"), at(u"untarred"));
  EXPECT_EQ(hostRead(at(u"untarred/" + name + u".d/in/" + name)), u"payload");

  remote_->zip(source, at(name + u".zip"));
  remote_->unzip(at(name + u".zip"), at(u"unzipped"));
  if (GetParam().unzipKeepsName) {
    EXPECT_EQ(hostRead(at(u"unzipped/" + name + u".d/in/" + name)), u"payload");
  } else {
    EXPECT_EQ(hostCount(at(u"unzipped")), 3U);
  }
}

INSTANTIATE_TEST_SUITE_P(OddNames, Names, ::testing::ValuesIn(kNames),
                         [](::testing::TestParamInfo<OddName> const& param) { return std::string(param.param.label); });

// A line feed inside a name: the tools print it as is, so the output lines
// split there.
using LineFeedName = RemoteHostTest;

TEST_F(LineFeedName, ListingsShowTwoEntriesAndStatFailsToParse) {
  const ustring file = at(u"new\nline");
  hostWrite(file, "hello");
  EXPECT_TRUE(remote_->exists(file));
  EXPECT_TRUE(remote_->isFile(file));
  EXPECT_THAT(remote_->list(dir_), ElementsAre(at(u"new"), at(u"line")));
  EXPECT_THAT(remote_->listRecursively(dir_), ElementsAre(at(u"new"), u"line"));
  EXPECT_EQ(remoteErrorOf([&] { remote_->getFileInfo(file); }), "Failed to parse output of stat");
}

TEST_F(LineFeedName, MutationsActOnTheLiteralName) {
  const ustring file = at(u"new\nline");
  hostWrite(file, "hello");
  remote_->copy(file, at(u"c/new\nline"));
  EXPECT_EQ(hostRead(at(u"c/new\nline")), u"hello");
  remote_->move(at(u"c/new\nline"), at(u"c/\nmoved"));
  EXPECT_EQ(hostRead(at(u"c/\nmoved")), u"hello");
  remote_->touch(at(u"t\n"));
  EXPECT_TRUE(remote_->isFile(at(u"t\n")));
  remote_->makeDir(at(u"d\nd"));
  EXPECT_TRUE(hostIsDir(at(u"d\nd")));
  remote_->remove(Paths{file, at(u"c/\nmoved"), at(u"t\n"), at(u"d\nd")});
  EXPECT_EQ(hostCount(dir_), 1U);
  EXPECT_FALSE(remote_->exists(at(u"t\n")));
}

TEST_F(LineFeedName, ArchivesRoundTripIt) {
  hostMakeDir(at(u"src\nd"));
  hostWrite(at(u"src\nd/f\ng"), "payload");
  remote_->tar(at(u"src\nd"), at(u"a\n.tar"));
  remote_->makeDir(at(u"out"));
  remote_->untar(at(u"a\n.tar"), at(u"out"));
  EXPECT_EQ(hostRead(at(u"out/src\nd/f\ng")), u"payload");
}

// The final name of a packed source is passed to tar relative to its parent,
// as "./-rf", so a name that begins with '-' is never an option word.
using OptionLikeNames = RemoteHostTest;

TEST_F(OptionLikeNames, ArchiveOfAFinalNameThatLooksLikeAnOptionHoldsThatFolder) {
  hostMakeDir(at(u"-rf"));
  hostWrite(at(u"-rf/--help"), "payload");
  remote_->tar(at(u"-rf"), at(u"x.tar"));
  remote_->zip(at(u"-rf"), at(u"x.zip"));
  remote_->makeDir(at(u"out"));
  remote_->untar(at(u"x.tar"), at(u"out"));
  remote_->unzip(at(u"x.zip"), at(u"zipped"));
  EXPECT_EQ(hostRead(at(u"out/-rf/--help")), u"payload");
  EXPECT_EQ(hostRead(at(u"zipped/-rf/--help")), u"payload");
  EXPECT_EQ(hostRead(at(u"-rf/--help")), u"payload");
}

}  // namespace
}  // namespace sshfa::testing
