#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/lexical_cast.hpp>
#include <typeinfo>

#include "tests/unit/remote/RecordingRemote.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using boost::gregorian::date;
using boost::posix_time::ptime;
using boost::posix_time::time_duration;
using sshfa::testing::expectRemoteError;
using sshfa::testing::number;
using sshfa::testing::RecordingRemoteTest;
using sshfa::testing::repeated;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Paths = FileAccessInterface::PathList;
using FileInfoTest = RecordingRemoteTest<>;

const ptime kEpoch(date(1970, 1, 1));

void expectInfo(std::optional<FileInfo> const& info, ustring const& path, std::uint64_t size, ptime time) {
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->path, path);
  EXPECT_EQ(info->size, size);
  EXPECT_EQ(info->lastWriteTime, time);
}

// Each call answers one stat line and expects the conversion failure of the
// size (unsigned long long) or time (long) field, in Boost's own form.
class FileInfoParse : public FileInfoTest {
 protected:
  template <class Target>
  void expectBadCast(ustring line) {
    reply(std::move(line));
    try {
      remote_->getFileInfo(ustring(u"/a"));
      ADD_FAILURE() << "expected bad_lexical_cast";
    } catch (boost::bad_lexical_cast const& e) {
      EXPECT_EQ(e.source_type(), typeid(ustring));
      EXPECT_EQ(e.target_type(), typeid(Target));
    }
  }
};

TEST_F(FileInfoTest, EmptyListGivesEmptyResultAndSendsNothing) {
  EXPECT_THAT(remote_->getFileInfo(Paths{}), IsEmpty());
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(FileInfoTest, MissingPathBetweenTwoExistingOnesGetsAnEmptyEntry) {
  reply(u"3 100 /a\n5 200 /c\n", u"stat: cannot statx '/b': No such file or directory\n", 1);
  const auto infos = remote_->getFileInfo(Paths{u"/a", u"/b", u"/c"});
  EXPECT_THAT(sent(), ElementsAre(u"stat -c '%s %Y %n' '/a' '/b' '/c'"));
  ASSERT_EQ(infos.size(), 3U);
  expectInfo(infos[0], u"/a", 3, kEpoch + boost::posix_time::seconds(100));
  EXPECT_FALSE(infos[1].has_value());
  expectInfo(infos[2], u"/c", 5, kEpoch + boost::posix_time::seconds(200));
}

TEST_F(FileInfoTest, NameIsCutOnlyAtTheFirstTwoBlanks) {
  reply(u"7 1 /d/a b  c\n");
  expectInfo(remote_->getFileInfo(ustring(u"/d/a b  c")), u"/d/a b  c", 7, kEpoch + boost::posix_time::seconds(1));
  EXPECT_THAT(sent(), ElementsAre(u"stat -c '%s %Y %n' '/d/a b  c'"));
}

TEST_F(FileInfoTest, LineWithoutANameFailsToParse) {
  reply(u"12 34\n");
  expectRemoteError([&] { remote_->getFileInfo(ustring(u"/a")); }, "Failed to parse output of stat");
  reply(u"12 34 \n");
  expectRemoteError([&] { remote_->getFileInfo(ustring(u"/a")); }, "Failed to parse output of stat");
  reply(u"1234\n");
  expectRemoteError([&] { remote_->getFileInfo(ustring(u"/a")); }, "Failed to parse output of stat");
}

TEST_F(FileInfoTest, SizeMinusOneWrapsToTheLargestValue) {
  reply(u"-1 0 /a\n");
  expectInfo(remote_->getFileInfo(ustring(u"/a")), u"/a", 18446744073709551615ULL, kEpoch);
}

TEST_F(FileInfoTest, LeadingPlusSignsAreAccepted) {
  reply(u"+5 +7 /a\n");
  expectInfo(remote_->getFileInfo(ustring(u"/a")), u"/a", 5, kEpoch + boost::posix_time::seconds(7));
}

TEST_F(FileInfoParse, MalformedSizeRaisesBadLexicalCastForUnsignedLongLong) {
  expectBadCast<unsigned long long>(u"12abc 0 /a\n");
  expectBadCast<unsigned long long>(u" 0 /a\n");
  expectBadCast<unsigned long long>(u"18446744073709551616 0 /a\n");
}

TEST_F(FileInfoParse, MalformedTimeRaisesBadLexicalCastForLong) {
  expectBadCast<long>(u"1 x /a\n");
  expectBadCast<long>(u"1  /a\n");
  expectBadCast<long>(u"1 9223372036854775808 /a\n");
  expectBadCast<long>(u"1 1.5 /a\n");
}

TEST_F(FileInfoTest, TimeZeroIsTheEpochAndNegativeTimesPrecedeIt) {
  reply(u"1 0 /a\n1 -86401 /b\n1 1700000000 /c\n");
  const auto infos = remote_->getFileInfo(Paths{u"/a", u"/b", u"/c"});
  expectInfo(infos[0], u"/a", 1, ptime(date(1970, 1, 1), time_duration(0, 0, 0)));
  expectInfo(infos[1], u"/b", 1, ptime(date(1969, 12, 30), time_duration(23, 59, 59)));
  expectInfo(infos[2], u"/c", 1, ptime(date(2023, 11, 14), time_duration(22, 13, 20)));
}

TEST_F(FileInfoTest, SamePathTwiceGetsTwoFilledEntries) {
  reply(u"4 9 /a\n4 9 /a\n");
  const auto infos = remote_->getFileInfo(Paths{u"/a", u"/a"});
  ASSERT_EQ(infos.size(), 2U);
  expectInfo(infos[0], u"/a", 4, kEpoch + boost::posix_time::seconds(9));
  expectInfo(infos[1], u"/a", 4, kEpoch + boost::posix_time::seconds(9));
}

TEST_F(FileInfoTest, ARecordIsOnlyGivenToAPathItEqualsAndIsComparedWithTheFollowingPaths) {
  reply(u"1 1 /b\n");
  const auto infos = remote_->getFileInfo(Paths{u"/a", u"/b", u"/c"});
  ASSERT_EQ(infos.size(), 3U);
  EXPECT_FALSE(infos[0].has_value());
  expectInfo(infos[1], u"/b", 1, kEpoch + boost::posix_time::seconds(1));
  EXPECT_FALSE(infos[2].has_value());
}

TEST_F(FileInfoTest, ANameThatDiffersFromTheOperandLeavesTheEntryEmpty) {
  reply(u"1 1 /A\n");
  EXPECT_FALSE(remote_->getFileInfo(ustring(u"/a")).has_value());
}

TEST_F(FileInfoTest, LeftOverRecordsAreDropped) {
  reply(u"1 1 /x\n2 2 /y\n");
  const auto infos = remote_->getFileInfo(Paths{u"/a"});
  ASSERT_EQ(infos.size(), 1U);
  EXPECT_FALSE(infos[0].has_value());
}

TEST_F(FileInfoTest, ANameWithALineFeedFailsToParse) {
  reply(u"1 2 /d/a\nb\n");
  expectRemoteError([&] { remote_->getFileInfo(ustring(u"/d/a\nb")); }, "Failed to parse output of stat");
}

TEST_F(FileInfoTest, AnEmptyLineInsideTheOutputFailsToParse) {
  reply(u"1 2 /a\n\n1 2 /b\n");
  expectRemoteError([&] { remote_->getFileInfo(Paths{u"/a", u"/b"}); }, "Failed to parse output of stat");
}

TEST_F(FileInfoTest, ACarriageReturnBecomesPartOfTheName) {
  // "/a\r" matches neither path, and the merge never moves past it.
  reply(u"1 2 /a\r\n1 2 /b\r\n");
  const auto infos = remote_->getFileInfo(Paths{u"/a", u"/b"});
  ASSERT_EQ(infos.size(), 2U);
  EXPECT_FALSE(infos[0].has_value());
  EXPECT_FALSE(infos[1].has_value());
  reply(u"1 2 /b\r\n");
  expectInfo(remote_->getFileInfo(ustring(u"/b")), u"/b", 1, kEpoch + boost::posix_time::seconds(2));
}

TEST_F(FileInfoTest, AStatWithoutDashCGivesEveryEntryEmpty) {
  reply(u"", u"stat: illegal option -- c\nusage: stat [-FLnq] [-f format] [file ...]\n", 1);
  const auto infos = remote_->getFileInfo(Paths{u"/a", u"/b"});
  ASSERT_EQ(infos.size(), 2U);
  EXPECT_FALSE(infos[0].has_value());
  EXPECT_FALSE(infos[1].has_value());
}

TEST_F(FileInfoTest, OneMissingPathIsAnEmptyOptional) {
  reply(u"", u"stat: cannot statx '/nope': No such file or directory\n", 1);
  EXPECT_FALSE(remote_->getFileInfo(ustring(u"/nope")).has_value());
  EXPECT_THAT(sent(), ElementsAre(u"stat -c '%s %Y %n' '/nope'"));
}

TEST_F(FileInfoTest, QuotesInPathsAreEscapedAndTheNameComparedUnescaped) {
  reply(u"2 3 /x/it's\n");
  expectInfo(remote_->getFileInfo(ustring(u"/x/it's")), u"/x/it's", 2, kEpoch + boost::posix_time::seconds(3));
  EXPECT_THAT(sent(), ElementsAre(u"stat -c '%s %Y %n' '/x/it'\\''s'"));
}

TEST_F(FileInfoTest, ManyPathsOverSeveralLinesArePairedAcrossLines) {
  Paths paths;
  for (std::size_t i = 0; i < 4000; ++i) paths.push_back(u"/data/file-" + number(i) + u"-" + repeated(12, u'z'));
  client_->responder = [](ustring const& command) {
    // Every operand whose number is even exists, with its number as size.
    ustring out;
    std::size_t open = command.find(u"'/");
    while (open != ustring::npos) {
      const std::size_t close = command.find(u'\'', open + 1);
      const ustring path = command.substr(open + 1, close - open - 1);
      const ustring digits = path.substr(11, path.find(u'-', 11) - 11);
      if ((digits.back() - u'0') % 2 == 0) out += digits + u" 60 " + path + u"\n";
      open = command.find(u"'/", close + 1);
    }
    return foundation::sshclient::ExecuteCommandResult(0, out, {});
  };
  const auto infos = remote_->getFileInfo(paths);
  ASSERT_GT(sent().size(), 1U);
  for (auto const& line : sent()) EXPECT_TRUE(line.starts_with(u"stat -c '%s %Y %n' '/data/file-"));
  ASSERT_EQ(infos.size(), paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (i % 2 == 0) {
      expectInfo(infos[i], paths[i], i, kEpoch + boost::posix_time::seconds(60));
    } else {
      EXPECT_FALSE(infos[i].has_value()) << i;
    }
  }
}

TEST_F(FileInfoTest, APathLongerThanTheLimitFollowsAnEmptyLine) {
  const ustring longPath = u"/" + repeated(33000, u'l');
  reply(u"");
  reply(u"9 9 " + longPath + u"\n");
  expectInfo(remote_->getFileInfo(longPath), longPath, 9, kEpoch + boost::posix_time::seconds(9));
  EXPECT_THAT(sent(), ElementsAre(u"", u"stat -c '%s %Y %n' '" + longPath + u"'"));
}

TEST_F(FileInfoTest, OutputsOfAllLinesAreReadAndStandardErrorIgnored) {
  const ustring longPath = u"/" + repeated(33000, u'l');
  reply(u"1 1 /a\n", u"noise");
  reply(u"2 2 " + longPath + u"\n", u"noise", 1);
  const auto infos = remote_->getFileInfo(Paths{u"/a", longPath});
  EXPECT_EQ(sent().size(), 2U);
  expectInfo(infos[0], u"/a", 1, kEpoch + boost::posix_time::seconds(1));
  expectInfo(infos[1], longPath, 2, kEpoch + boost::posix_time::seconds(2));
}

class OverridingFileInfoList : public UnixSSHFileAccess {
 public:
  using UnixSSHFileAccess::getFileInfo;
  using UnixSSHFileAccess::UnixSSHFileAccess;
  std::vector<std::optional<FileInfo>> getFileInfo(PathList const& paths) override {
    return {FileInfo{u"seen " + paths.at(0), 42, kEpoch}};
  }
};

using FileInfoDispatch = RecordingRemoteTest<OverridingFileInfoList>;

TEST_F(FileInfoDispatch, SingleFormCallsTheListFormThroughTheVirtualSlot) {
  expectInfo(remote_->getFileInfo(ustring(u"/p")), u"seen /p", 42, kEpoch);
  EXPECT_THAT(sent(), IsEmpty());
}

}  // namespace
