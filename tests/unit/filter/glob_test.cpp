#include "sshfileaccess/platform/sshclient/internal/Glob.hpp"

#include <gtest/gtest.h>

namespace foundation::sshclient::internal {
namespace {

struct GlobCase {
  char const* pattern;
  char const* text;
  bool rsync;  // rsync's answer
  bool git;    // git's answer
};

class GlobCases : public ::testing::TestWithParam<GlobCase> {};

TEST_P(GlobCases, MatchesAsEachDialectDoes) {
  auto const& c = GetParam();
  EXPECT_EQ(Glob(c.pattern, GlobDialect::Rsync).matches(c.text), c.rsync);
  EXPECT_EQ(Glob(c.pattern, GlobDialect::Git).matches(c.text), c.git);
}

INSTANTIATE_TEST_SUITE_P(
    Table, GlobCases,
    ::testing::Values(GlobCase{"main.c", "main.c", true, true}, GlobCase{"main.c", "main.cc", false, false},
                      GlobCase{"*.c", "main.c", true, true}, GlobCase{"*.c", "src/main.c", false, false},
                      GlobCase{"*", "", true, true}, GlobCase{"*", "a/b", false, false},
                      GlobCase{"**", "a/b", true, true}, GlobCase{"a/*", "a/b/c", false, false},
                      GlobCase{"a/**", "a/b/c", true, true}, GlobCase{"a/**", "a", false, false},
                      // rsync: every "**" crosses '/' and matches at least what it spans
                      GlobCase{"a/**/b", "a/b", false, true}, GlobCase{"a/**/b", "a/x/y/b", true, true},
                      GlobCase{"a**b", "a/x/b", true, false}, GlobCase{"a**b", "axb", true, true},
                      GlobCase{"**/b", "b", false, true}, GlobCase{"**/b", "x/b", true, true},
                      // git: after a literal head, "**" starts the rest and crosses '/'
                      GlobCase{"src/li**", "src/lib/core.c", true, true},
                      GlobCase{"s*/li**", "src/lib/core.c", true, false}, GlobCase{"?", "/", false, false},
                      GlobCase{"a?c", "abc", true, true}, GlobCase{"[a-c]x", "bx", true, true},
                      GlobCase{"[a-c]x", "dx", false, false}, GlobCase{"[!a-c]x", "dx", true, true},
                      GlobCase{"[^a-c]x", "ax", false, false}, GlobCase{"a[!x]b", "a/b", false, false},
                      GlobCase{"[]]", "]", true, true}, GlobCase{"[!]]", "a", true, true},
                      GlobCase{"[a-]", "-", true, true}, GlobCase{"[[:digit:]]*", "7up", true, true},
                      GlobCase{"[[:upper:][:digit:]]", "Q", true, true}, GlobCase{"[[:x]", "x", true, true},
                      GlobCase{"[\\]]", "]", true, true}, GlobCase{"star\\*", "star*", true, true},
                      GlobCase{"star\\*", "stars", false, false},
                      // rsync reads a pattern without wildcards literally, its '\' too
                      GlobCase{"a\\b", "a\\b", true, false}, GlobCase{"a\\b", "ab", false, true},
                      // malformed: nothing matches
                      GlobCase{"*.[ch", "a.c", false, false}, GlobCase{"*.[ch", "a.[ch", false, false},
                      GlobCase{"[[:nope:]]", "a", false, false}, GlobCase{"a*\\", "ab\\", false, false}));

TEST(GlobProblem, NamesWhatCanNeverMatch) {
  EXPECT_EQ(globProblem("*.c"), std::nullopt);
  EXPECT_EQ(globProblem("[]]x"), std::nullopt);
  EXPECT_EQ(globProblem("[[:x]"), std::nullopt);
  EXPECT_EQ(globProblem("*.[ch"), "no ']' closes the '[' at character 3");
  EXPECT_EQ(globProblem("x[!]"), "no ']' closes the '[' at character 2");
  EXPECT_EQ(globProblem("a[[:nope:]]"), "unknown character class '[:nope:]'");
  EXPECT_EQ(globProblem("a*\\"), "a lone '\\' ends it");
  EXPECT_EQ(globProblem("a\\[b"), std::nullopt);
}

}  // namespace
}  // namespace foundation::sshclient::internal
