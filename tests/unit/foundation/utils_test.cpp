#include "sshfileaccess/Utils.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)

TEST(Conversion, StrAndUstrAreTheI18nConversions) {
  EXPECT_EQ(str2ustr("\xC3\xA9\xFF"), u"\u00E9\xDCFF");
  EXPECT_EQ(ustr2str(u"\u00E9\xDCFF"), "\xC3\xA9\xFF");
}

// ---- quoted -------------------------------------------------------------------

TEST(Quoted, WrapsTextInApostrophes) {
  EXPECT_EQ(quoted(u"a b"), u"'a b'");
  EXPECT_EQ(quoted(u""), u"''");
  EXPECT_EQ(quoted(u"$x `y` \\ \n"), u"'$x `y` \\ \n'");
}

TEST(Quoted, EscapesEveryApostrophe) {
  EXPECT_EQ(quoted(u"it's"), u"'it'\\''s'");
  EXPECT_EQ(quoted(u"''"), u"''\\'''\\'''");
}

TEST(Quoted, SingleApostropheGivesSixCharacters) {
  const ustring q = quoted(u"'");
  EXPECT_EQ(q, u"''\\'''");
  EXPECT_EQ(q.size(), 6U);
}

TEST(Quoted, VectorPrefixesEveryElementWithABlank) {
  EXPECT_EQ(quoted(std::vector<ustring>{u"a", u"b"}), u" 'a' 'b'");
  EXPECT_EQ(quoted(std::vector<ustring>{}), u"");
  EXPECT_EQ(quoted(std::vector<ustring>{u"it's"}), u" 'it'\\''s'");
}

TEST(Quoted, VectorWithOneEmptyElementGivesBlankAndTwoApostrophes) {
  EXPECT_EQ(quoted(std::vector<ustring>{u""}), u" ''");
}

// Runs printf '%s\0' with the quoted words through /bin/sh and returns what
// the shell passed to printf, one string per word.
std::vector<std::string> echoThroughShell(std::vector<std::string> const& names) {
  std::vector<ustring> words;
  for (auto const& n : names) words.push_back(fl::i18n::utf8_to_ustring(n));
  const std::string command = "printf '%s\\000'" + ustr2str(quoted(words));
  FILE* pipe = popen(command.c_str(), "r");  // NOLINT(cert-env33-c): the point is to ask the real shell
  if (pipe == nullptr) return {};
  std::string out;
  char buf[4096];
  std::size_t n = 0;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  pclose(pipe);
  std::vector<std::string> result;
  std::size_t begin = 0;
  for (std::size_t end = out.find('\0'); end != std::string::npos; end = out.find('\0', begin)) {
    result.push_back(out.substr(begin, end - begin));
    begin = end + 1;
  }
  return result;
}

TEST(Quoted, ShellSeesExactlyTheOriginalBytes) {
  const std::vector<std::string> fixed = {
      "plain",  "with blank", "it's",     "''",      "back\\slash",       "$HOME",    "`id`",      "$(id)", "new\nline",
      "-n",     "--",         "*",        "a;b|c&d", "\xC3\xA9t\xC3\xA9", "\xFF\xFE", "tab\there", "",      "!",
      "\"dq\"", "~",          "#comment", "a\r\nb",
  };
  EXPECT_EQ(echoThroughShell(fixed), fixed);
}

TEST(Quoted, ShellSeesExactlyTheOriginalBytesForRandomNames) {
  std::mt19937 rng(7);
  const std::string special = " '\"\\$`!*?[]{}()<>|&;#~\n\t\r-=%";
  std::uniform_int_distribution<int> kind(0, 3);
  std::uniform_int_distribution<int> len(0, 24);
  std::uniform_int_distribution<int> any(1, 255);
  std::uniform_int_distribution<std::size_t> pick(0, special.size() - 1);
  for (int batch = 0; batch < 10; ++batch) {
    std::vector<std::string> names;
    for (int i = 0; i < 200; ++i) {
      std::string name;
      const int n = len(rng);
      for (int j = 0; j < n; ++j) {
        switch (kind(rng)) {
          case 0:
            name.push_back(special[pick(rng)]);
            break;
          case 1:
            name.push_back(static_cast<char>(any(rng)));
            break;
          case 2:
            name += "\xE2\x82\xAC";
            break;
          default:
            name.push_back(static_cast<char>('a' + j % 26));
            break;
        }
      }
      names.push_back(name);
    }
    ASSERT_EQ(echoThroughShell(names), names) << "batch " << batch;
  }
}

// ---- trim, split, fullfile ----------------------------------------------------------

TEST(Trim, RemovesCharactersOfTheSetAtBothEnds) {
  EXPECT_EQ(trim(u"  x  ", u" "), u"x");
  EXPECT_EQ(trim(u"\n\rab c\r\n", u"\n\r"), u"ab c");
  EXPECT_EQ(trim(u"xyxaxy", u"xy"), u"a");
}

TEST(Trim, EmptySetLeavesTextUnchanged) { EXPECT_EQ(trim(u"  x  ", u""), u"  x  "); }

TEST(Trim, TextMadeOnlyOfTheSetGivesEmpty) {
  EXPECT_EQ(trim(u"   ", u" "), u"");
  EXPECT_EQ(trim(u"", u" "), u"");
  EXPECT_EQ(trim(u"", u""), u"");
}

TEST(Split, CutsAtLineFeeds) {
  EXPECT_EQ(split(u"a\nb\n"), (std::vector<ustring>{u"a", u"b"}));
  EXPECT_EQ(split(u"\n\na\n\nb\r\n"), (std::vector<ustring>{u"a", u"", u"b"}));
}

TEST(Split, EmptyAndLineBreakOnlyTextsGiveNoLines) {
  EXPECT_TRUE(split(u"").empty());
  EXPECT_TRUE(split(u"\r\n").empty());
  EXPECT_TRUE(split(u"\n\n\r").empty());
}

TEST(Split, RunsOfLineFeedsGiveEmptyElements) {
  EXPECT_EQ(split(u"a\n\n\nb"), (std::vector<ustring>{u"a", u"", u"", u"b"}));
}

TEST(Split, CarriageReturnsInsideStay) { EXPECT_EQ(split(u"a\r\nb\r\n"), (std::vector<ustring>{u"a\r", u"b"})); }

TEST(Split, BlanksAreKept) { EXPECT_EQ(split(u" a \n b "), (std::vector<ustring>{u" a ", u" b "})); }

TEST(Fullfile, JoinsWithOneSlash) {
  EXPECT_EQ(fullfile(u"dir", {u"a", u"b c"}), (std::vector<ustring>{u"dir/a", u"dir/b c"}));
  EXPECT_TRUE(fullfile(u"dir", {}).empty());
}

TEST(Fullfile, DoesNotNormalise) {
  EXPECT_EQ(fullfile(u"dir/", {u"f"}), (std::vector<ustring>{u"dir//f"}));
  EXPECT_EQ(fullfile(u"", {u"f"}), (std::vector<ustring>{u"/f"}));
  EXPECT_EQ(fullfile(u"d", {u""}), (std::vector<ustring>{u"d/"}));
}

TEST(UcharStringstream, TakesTextAndNumbers) {
  auto s = ucharStringstream();
  s << u"n=" << 12345 << u' ' << 3.25;
  EXPECT_EQ(s.str(), u"n=12345 3.25");
  EXPECT_FALSE(s.fail());
}

// ---- copy lists ----------------------------------------------------------------------

TEST(FormatCopiedPaths, OnePair) {
  const std::string s = formatCopiedPaths(u"a", u"b");
  EXPECT_EQ(s, "\"a\" -> \"b\"");
  EXPECT_EQ(s.size(), 10U);
}

TEST(FormatCopiedPaths, NothingIsEscapedAndTextIsUtf8) {
  EXPECT_EQ(formatCopiedPaths(u"a\"b", u"\u00E9"), "\"a\"b\" -> \"\xC3\xA9\"");
}

TEST(FormatCopiedPaths, PairsEndWithATabEach) {
  const std::vector<std::pair<ustring, ustring>> pairs = {{u"a", u"b"}, {u"c", u"d"}};
  EXPECT_EQ(formatCopiedPaths(pairs), "\"a\" -> \"b\"\t\"c\" -> \"d\"\t");
  EXPECT_EQ(formatCopiedPaths(std::vector<std::pair<ustring, ustring>>{}), "");
}

TEST(FormatCopiedPaths, TwoListsMatchThePairForm) {
  EXPECT_EQ(formatCopiedPaths(std::vector<ustring>{u"a", u"c"}, std::vector<ustring>{u"b", u"d"}),
            "\"a\" -> \"b\"\t\"c\" -> \"d\"\t");
  EXPECT_EQ(formatCopiedPaths(std::vector<ustring>{}, std::vector<ustring>{}), "");
}

TEST(FormatCopiedPaths, ExtraDestinationsAreIgnored) {
  EXPECT_EQ(formatCopiedPaths(std::vector<ustring>{u"a"}, std::vector<ustring>{u"b", u"x", u"y"}), "\"a\" -> \"b\"\t");
}

TEST(MakeCopyVector, NoNamesGiveNoPairs) { EXPECT_TRUE(makeCopyVector(u"s", u"d", {}).empty()); }

TEST(MakeCopyVector, JoinsBothDirectoriesWithEachName) {
  using Pairs = std::vector<std::pair<ustring, ustring>>;
  EXPECT_EQ(makeCopyVector(u"s", u"d", {u"x"}), (Pairs{{u"s/x", u"d/x"}}));
  EXPECT_EQ(makeCopyVector(u"s/", u"", {u"x", u"y"}), (Pairs{{u"s//x", u"/x"}, {u"s//y", u"/y"}}));
}

TEST(AddPathsToVector, AppendsAfterExistingElements) {
  std::vector<ustring> paths = {u"keep"};
  addPathsToVector(paths, u"d", {u"a", u"b"});
  EXPECT_EQ(paths, (std::vector<ustring>{u"keep", u"d/a", u"d/b"}));
  addPathsToVector(paths, u"d", {});
  EXPECT_EQ(paths.size(), 3U);
}

}  // namespace
