// The Filter's rules read and reported, its sides, and how a listing asks
// it folder by folder.

#include "sshfileaccess/platform/sshclient/Filter.hpp"

#include <gtest/gtest.h>

#include <functional>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace foundation::sshclient {
namespace {

// The message of the FilterError that adding throws.
std::string errorOf(std::function<void(Filter&)> const& add) {
  Filter filter;
  try {
    add(filter);
  } catch (FilterError const& e) {
    return e.what();
  }
  return "no error";
}

struct BadRule {
  char const* rule;
  char const* message;
};

class BadFilterRules : public ::testing::TestWithParam<BadRule> {};

TEST_P(BadFilterRules, AreNamedWithTheirPositionAndCause) {
  EXPECT_EQ(errorOf([](Filter& f) { f.exclude("*.o").include("*.c").rule(GetParam().rule); }), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BadFilterRules,
    ::testing::Values(BadRule{"x foo", "bad filter rule 3 ('x foo'): unknown rule type 'x'"},
                      BadRule{"", "bad filter rule 3 (''): empty rule"},
                      BadRule{" - foo", "bad filter rule 3 (' - foo'): unknown rule type ' '"},
                      BadRule{"-foo", "bad filter rule 3 ('-foo'): unknown modifier 'f'"},
                      BadRule{"-", "bad filter rule 3 ('-'): missing pattern"},
                      BadRule{"+ ", "bad filter rule 3 ('+ '): missing pattern"},
                      BadRule{"-!! foo", "bad filter rule 3 ('-!! foo'): modifier '!' given twice"},
                      BadRule{"Ps foo", "bad filter rule 3 ('Ps foo'): modifier 's' is only for - and + rules"},
                      BadRule{"- /", "bad filter rule 3 ('- /'): empty pattern"},
                      BadRule{"- *.[ch", "bad filter rule 3 ('- *.[ch'): no ']' closes the '[' at character 3"},
                      BadRule{"exclude!foo",
                              "bad filter rule 3 ('exclude!foo'): a ',', ' ' or '_' must follow 'exclude'"},
                      BadRule{"excludes foo", "bad filter rule 3 ('excludes foo'): unknown rule type 'excludes'"},
                      BadRule{"! foo", "bad filter rule 3 ('! foo'): '!' takes no modifiers or pattern"},
                      BadRule{"clear x", "bad filter rule 3 ('clear x'): 'clear' takes no modifiers or pattern"},
                      BadRule{". rules.txt",
                              "bad filter rule 3 ('. rules.txt'): merge rules are not supported (use --exclude-from "
                              "or --include-from)"},
                      BadRule{"dir-merge .rules",
                              "bad filter rule 3 ('dir-merge .rules'): merge rules are not supported (use "
                              "--exclude-from or --include-from)"}));

TEST(BadPatterns, AreNamedWithTheirPositionAndCause) {
  EXPECT_EQ(errorOf([](Filter& f) { f.exclude(""); }), "bad filter rule 1 (''): empty pattern");
  EXPECT_EQ(errorOf([](Filter& f) { f.exclude("a").include("/"); }), "bad filter rule 2 ('/'): empty pattern");
  EXPECT_EQ(errorOf([](Filter& f) { f.exclude("- "); }), "bad filter rule 1 ('- '): empty pattern");
  EXPECT_EQ(errorOf([](Filter& f) { f.include("[[:nope:]]*"); }),
            "bad filter rule 1 ('[[:nope:]]*'): unknown character class '[:nope:]'");
  EXPECT_EQ(errorOf([](Filter& f) { f.exclude("a*\\"); }), "bad filter rule 1 ('a*\\'): a lone '\\' ends it");
  // Without a wildcard, '\' is an ordinary character.
  EXPECT_EQ(errorOf([](Filter& f) { f.exclude("foo\\"); }), "no error");
}

TEST(BadPatterns, FromAFileAreNamedByFileAndLine) {
  EXPECT_EQ(errorOf([](Filter& f) { f.excludeFrom("# comment\n*.o\n\n[x\n", "rules.txt"); }),
            "bad filter rule in 'rules.txt' line 4 ('[x'): no ']' closes the '[' at character 1");
  EXPECT_EQ(errorOf([](Filter& f) { f.includeFrom("*.c\r\n- \r\n", "inc"); }),
            "bad filter rule in 'inc' line 2 ('- '): empty pattern");
}

TEST(BadPatterns, LeaveTheRulesAsTheyWere) {
  Filter filter;
  filter.exclude("*.o");
  EXPECT_THROW(filter.excludeFrom("*.c\n[x\n", "rules.txt"), FilterError);
  EXPECT_THROW(filter.rule("- [x"), FilterError);
  EXPECT_THROW(filter.exclude("["), FilterError);
  EXPECT_TRUE(filter.root().takes("a.c", false));
  EXPECT_FALSE(filter.root().takes("a.o", false));
  // Failed rules keep their numbers.
  EXPECT_EQ(errorOf([](Filter& f) {
              f.exclude("*.o");
              EXPECT_THROW(f.exclude("["), FilterError);
              f.rule("x");
            }),
            "bad filter rule 3 ('x'): unknown rule type 'x'");
}

TEST(NoRules, TakeEverythingAndProtectNothing) {
  Filter const filter;
  EXPECT_TRUE(filter.empty());
  EXPECT_FALSE(filter.readsGitignore());
  EXPECT_FALSE(filter.deletesExcluded());
  auto const folder = filter.root("*\n").enter("src", "*\n").enter("lib");
  EXPECT_EQ(folder.path(), "src/lib");
  EXPECT_TRUE(folder.takes(".git", true));
  EXPECT_TRUE(folder.takes("x.o", false));
  EXPECT_FALSE(folder.protects("x.o", false));
  EXPECT_TRUE(FilterFolder().takes("x", true));
  EXPECT_TRUE(TreeTransferOptions{}.filter.empty());
}

TEST(Rules, ClearedToNothingLeaveAnEmptyFilter) {
  Filter filter;
  filter.exclude("*.o").gitignore().rule("!");
  EXPECT_TRUE(filter.empty());
  EXPECT_FALSE(filter.readsGitignore());
  filter.exclude("*.c").exclude("!");
  EXPECT_TRUE(filter.empty());
}

TEST(Rules, CopiesAreIndependentValues) {
  Filter first;
  first.exclude("*.o");
  Filter second = first;
  second.exclude("*.c").deleteExcluded();
  EXPECT_TRUE(first.root().takes("a.c", false));
  EXPECT_FALSE(first.deletesExcluded());
  EXPECT_FALSE(second.root().takes("a.c", false));
  EXPECT_FALSE(second.root().takes("a.o", false));
}

TEST(Rules, AskedFolderByFolderMatchTheWholePath) {
  Filter filter;
  filter.exclude("/top").exclude("lib/gen/").exclude("src/*.h");
  auto const root = filter.root();
  auto const src = root.enter("src");
  auto const lib = src.enter("lib");
  EXPECT_FALSE(root.takes("top", false));
  EXPECT_TRUE(src.takes("top", false));
  EXPECT_TRUE(src.takes("gen", true));
  EXPECT_FALSE(lib.takes("gen", true));
  EXPECT_TRUE(lib.takes("gen", false));
  EXPECT_FALSE(src.takes("a.h", false));
  EXPECT_TRUE(lib.takes("a.h", false));
  EXPECT_FALSE(root.enter("x").enter("src").takes("a.h", false));
}

TEST(Sides, ExcludedEntriesAreProtectedUnlessDeleteExcluded) {
  Filter filter;
  filter.exclude("*.log").rule("H *.tmp").rule("P *.bak").rule("-r *.old").rule("-s *.o");
  auto root = filter.root();
  EXPECT_FALSE(root.takes("a.log", false));
  EXPECT_TRUE(root.protects("a.log", false));
  EXPECT_FALSE(root.takes("a.tmp", false));
  EXPECT_FALSE(root.protects("a.tmp", false));
  EXPECT_TRUE(root.takes("a.bak", false));
  EXPECT_TRUE(root.protects("a.bak", false));
  EXPECT_TRUE(root.takes("a.old", false));
  EXPECT_TRUE(root.protects("a.old", false));
  EXPECT_FALSE(root.takes("a.o", false));
  EXPECT_FALSE(root.protects("a.o", false));

  filter.deleteExcluded();
  EXPECT_TRUE(filter.deletesExcluded());
  root = filter.root();
  EXPECT_FALSE(root.takes("a.log", false));
  EXPECT_FALSE(root.protects("a.log", false));
  EXPECT_TRUE(root.protects("a.bak", false));
  EXPECT_TRUE(root.protects("a.old", false));

  filter.deleteExcluded(false);
  EXPECT_TRUE(filter.root().protects("a.log", false));
}

TEST(Sides, IncludeAndRiskEndProtection) {
  Filter filter;
  filter.rule("R keep.log").include("x.log").exclude("*.log");
  auto const root = filter.root();
  EXPECT_FALSE(root.protects("keep.log", false));
  EXPECT_FALSE(root.protects("x.log", false));
  EXPECT_TRUE(root.protects("y.log", false));
  EXPECT_FALSE(root.takes("keep.log", false));
}

TEST(Gitignore, FilesApplyBelowTheirFolderDeepestFirst) {
  Filter filter;
  filter.gitignore();
  EXPECT_TRUE(filter.readsGitignore());
  EXPECT_FALSE(filter.empty());
  auto const root = filter.root("*.o\n/gen/\n");
  auto const src = root.enter("src", "!keep.o\n/gen/\n");
  EXPECT_FALSE(root.takes("keep.o", false));
  EXPECT_TRUE(src.takes("keep.o", false));
  EXPECT_TRUE(src.enter("lib").takes("keep.o", false));
  EXPECT_FALSE(root.enter("lib").takes("keep.o", false));
  EXPECT_FALSE(root.takes("gen", true));
  EXPECT_TRUE(root.takes("gen", false));
  EXPECT_FALSE(src.takes("gen", true));
  EXPECT_TRUE(src.enter("lib").takes("gen", true));
}

TEST(Gitignore, LeavesOutGitFoldersAtEveryLevel) {
  Filter filter;
  filter.gitignore();
  EXPECT_FALSE(filter.root().takes(".git", true));
  EXPECT_FALSE(filter.root().enter("sub").takes(".git", false));
  EXPECT_TRUE(filter.root().takes(".gitignore", false));
}

TEST(Gitignore, TakesItsPlaceAmongTheRules) {
  Filter filter;
  filter.include("keep.log").gitignore().exclude("*.tmp");
  auto const root = filter.root("*.log\n!*.tmp\n!x.c\n");
  EXPECT_TRUE(root.takes("keep.log", false));
  EXPECT_FALSE(root.takes("x.log", false));
  EXPECT_TRUE(root.takes("x.tmp", false));  // git's negation decides before the rule after it
  EXPECT_TRUE(root.takes("x.c", false));

  Filter later;
  later.exclude("*.tmp").gitignore();
  EXPECT_FALSE(later.root("!*.tmp\n").takes("x.tmp", false));
}

TEST(Gitignore, TextIsUnreadWithoutGitignore) {
  Filter filter;
  filter.exclude("*.c");
  EXPECT_FALSE(filter.readsGitignore());
  EXPECT_TRUE(filter.root("*.o\n").takes("a.o", false));
  EXPECT_TRUE(filter.root().enter("src", "*.o\n").takes("a.o", false));
}

TEST(Gitignore, IgnoredEntriesAreProtectedUnlessDeleteExcluded) {
  Filter filter;
  filter.gitignore();
  EXPECT_TRUE(filter.root("*.o\n").protects("a.o", false));
  EXPECT_TRUE(filter.root().protects(".git", true));
  EXPECT_FALSE(filter.root("*.o\n").protects("a.c", false));
  filter.deleteExcluded();
  EXPECT_FALSE(filter.root("*.o\n").protects("a.o", false));
  EXPECT_FALSE(filter.root("*.o\n").takes("a.o", false));
}

}  // namespace
}  // namespace foundation::sshclient
