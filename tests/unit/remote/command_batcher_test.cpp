#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/unit/remote/RecordingRemote.hpp"

namespace {

using nimbal::remoteaccess::sshfileaccess::CommandBatcher;
using sshfa::testing::repeated;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ustring = fl::ustring;

constexpr std::int64_t kMax = 32768;

std::vector<ustring> pack(CommandBatcher batcher, std::vector<ustring> const& items) {
  for (auto const& item : items) batcher.add(item);
  return batcher.finish();
}

struct Config {
  ustring prefix;
  ustring suffix;
  ustring separator;
};

// The packing rule written out independently: a line is a list of item
// indices; an item joins the open line while separator + item + suffix fit
// into what the line leaves of the limit (prefix never counted); a line that
// cannot take the item is closed even when empty.
std::vector<ustring> referencePack(Config const& config, std::vector<ustring> const& items) {
  std::vector<std::vector<std::size_t>> groups;
  std::vector<std::size_t> open;
  std::int64_t openLength = 0;
  const auto sep = static_cast<std::int64_t>(config.separator.size());
  const auto suf = static_cast<std::int64_t>(config.suffix.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    const auto len = static_cast<std::int64_t>(items[i].size());
    if (kMax - openLength < sep + len + suf) {
      groups.push_back(open);
      open.clear();
      openLength = 0;
    }
    openLength += (openLength == 0 ? static_cast<std::int64_t>(config.prefix.size()) : sep) + len;
    open.push_back(i);
  }
  if (openLength != 0) groups.push_back(open);

  std::vector<ustring> lines;
  for (auto const& group : groups) {
    ustring line;
    for (std::size_t k = 0; k < group.size(); ++k)
      line += (k == 0 ? config.prefix : config.separator) + items[group[k]];
    lines.push_back(line + config.suffix);
  }
  return lines;
}

TEST(CommandBatcher, NoItemsGiveNoLines) {
  EXPECT_THAT(pack(CommandBatcher::pathList(u"find ", u" -type f"), {}), IsEmpty());
  EXPECT_THAT(pack(CommandBatcher::commandChain(), {}), IsEmpty());
}

TEST(CommandBatcher, PathListJoinsItemsWithOneBlankBetweenPrefixAndSuffix) {
  EXPECT_THAT(pack(CommandBatcher::pathList(u"find ", u" -type f"), {u"'a'", u"'b'"}),
              ElementsAre(u"find 'a' 'b' -type f"));
}

TEST(CommandBatcher, CommandChainJoinsCommandsWithAnd) {
  EXPECT_THAT(pack(CommandBatcher::commandChain(), {u"cp -r 'a' 'b'", u"cp -r 'c' 'd'"}),
              ElementsAre(u"cp -r 'a' 'b' && cp -r 'c' 'd'"));
}

// The first item is tested with the separator counted and the prefix not: an
// item of 32768 - 1 - 8 code units still fits an empty "find" line, and the
// line ends up 4 code units (prefix minus separator) over the limit.
TEST(CommandBatcher, FirstItemCountsSeparatorButNotPrefix) {
  const ustring item = repeated(32768 - 1 - 8, u'x');
  const auto lines = pack(CommandBatcher::pathList(u"find ", u" -type f"), {item});
  ASSERT_THAT(lines, ElementsAre(u"find " + item + u" -type f"));
  EXPECT_EQ(lines[0].size(), 32768U + 4U);
}

TEST(CommandBatcher, ItemTooLongForAnEmptyLineFollowsALineOfTheSuffixAlone) {
  const ustring item = repeated(32768 - 1 - 8 + 1, u'x');
  EXPECT_THAT(pack(CommandBatcher::pathList(u"find ", u" -type f"), {item}),
              ElementsAre(u" -type f", u"find " + item + u" -type f"));
}

TEST(CommandBatcher, ItemLongerThanTheLimitGetsALineOfItsOwnAfterAnEmptyOne) {
  const ustring item = repeated(40000, u'x');
  EXPECT_THAT(pack(CommandBatcher::pathList(u"touch ", {}), {u"'a'", item, u"'b'"}),
              ElementsAre(u"touch 'a'", u"touch " + item, u"touch 'b'"));
  EXPECT_THAT(pack(CommandBatcher::pathList(u"touch ", {}), {item}), ElementsAre(u"", u"touch " + item));
  EXPECT_THAT(pack(CommandBatcher::commandChain(), {item}), ElementsAre(u"", item));
}

// Second item sized so that separator + item + suffix equal exactly what the
// line leaves of 32768: it joins the line; one code unit more opens a new one.
TEST(CommandBatcher, ItemThatExactlyFillsTheLimitStaysOnTheLine) {
  const ustring first = u"'a'";
  const std::size_t lineAfterFirst = 5 + first.size();  // "find 'a'"
  const std::size_t room = 32768 - lineAfterFirst;      // what the test compares with
  const ustring exact = repeated(room - 1 - 8, u'y');   // separator + item + suffix == room
  const ustring over = repeated(room - 1 - 8 + 1, u'y');

  const auto fits = pack(CommandBatcher::pathList(u"find ", u" -type f"), {first, exact});
  ASSERT_THAT(fits, ElementsAre(u"find 'a' " + exact + u" -type f"));
  EXPECT_EQ(fits[0].size(), 32768U);

  EXPECT_THAT(pack(CommandBatcher::pathList(u"find ", u" -type f"), {first, over}),
              ElementsAre(u"find 'a' -type f", u"find " + over + u" -type f"));
}

TEST(CommandBatcher, ChainLineThatExactlyFillsTheLimit) {
  const ustring first = u"mv 'a' 'b'";
  const ustring exact = repeated(32768 - first.size() - 4, u'z');
  const auto fits = pack(CommandBatcher::commandChain(), {first, exact});
  ASSERT_THAT(fits, ElementsAre(first + u" && " + exact));
  EXPECT_EQ(fits[0].size(), 32768U);

  const ustring over = exact + u'z';
  EXPECT_THAT(pack(CommandBatcher::commandChain(), {first, over}), ElementsAre(first, over));
}

// Item i is "<i>" padded with 'x' to its random length, so the lines can be
// taken apart again and every item identified.
ustring makeItem(std::size_t index, std::size_t length) {
  ustring item = u"<";
  for (char c : std::to_string(index)) item.push_back(static_cast<char16_t>(c));
  item.push_back(u'>');
  if (item.size() < length) item.append(length - item.size(), u'x');
  return item;
}

std::vector<std::size_t> itemIndices(std::vector<ustring> const& lines) {
  std::vector<std::size_t> indices;
  for (auto const& line : lines) {
    for (std::size_t open = line.find(u'<'); open != ustring::npos; open = line.find(u'<', open + 1)) {
      const std::size_t close = line.find(u'>', open);
      std::string digits;
      for (std::size_t k = open + 1; k < close; ++k) digits.push_back(static_cast<char>(line[k]));
      indices.push_back(std::stoul(digits));
    }
  }
  return indices;
}

TEST(CommandBatcher, RandomItemsMatchTheReferencePackingInOrderWithNothingLostOrRepeated) {
  std::mt19937 random(20240601);
  const std::vector<Config> configs = {
      {u"find ", u" -type f", u" "},
      {u"stat -c '%s %Y %n' ", {}, u" "},
      {{}, {}, u" && "},
  };
  std::size_t multiLineRuns = 0;
  for (int run = 0; run < 60; ++run) {
    Config const& config = configs[static_cast<std::size_t>(run) % configs.size()];
    std::uniform_int_distribution<std::size_t> count(0, 400);
    std::uniform_int_distribution<std::size_t> length(1, run % 4 == 0 ? 9000 : 600);
    std::bernoulli_distribution huge(0.01);
    std::vector<ustring> items;
    const std::size_t n = count(random);
    for (std::size_t i = 0; i < n; ++i) items.push_back(makeItem(i, huge(random) ? 33000 : length(random)));

    const auto lines = pack(CommandBatcher(config.prefix, config.suffix, config.separator), items);
    ASSERT_EQ(lines, referencePack(config, items)) << "run " << run;

    std::vector<std::size_t> expected(n);
    for (std::size_t i = 0; i < n; ++i) expected[i] = i;
    ASSERT_EQ(itemIndices(lines), expected) << "run " << run;
    for (auto const& line : lines) {
      ASSERT_TRUE(line.ends_with(config.suffix));
      if (config.prefix.empty()) {
        ASSERT_FALSE(line.starts_with(config.separator)) << "run " << run;
      }
    }
    if (lines.size() > 1) ++multiLineRuns;
  }
  EXPECT_GT(multiLineRuns, 20U);
}

}  // namespace
