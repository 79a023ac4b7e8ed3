// Each case of data/gitignore-cases.txt against what git ls-files -co
// --exclude-standard listed on the same tree (data/gitignore-expected.txt).

#include <gtest/gtest.h>

#include "tests/unit/filter/FilterCases.hpp"

namespace sshfa::testing::filter {
namespace {

struct GitignoreCase {
  std::string name;
  IgnoreFiles files;  // by folder, "" at the root
};

// Failures name the case.
void PrintTo(GitignoreCase const& c, std::ostream* out) { *out << c.name; }

std::vector<GitignoreCase> gitignoreCases() {
  std::vector<GitignoreCase> cases;
  std::string folder;
  std::string lineEnd = "\n";
  std::string start;
  for (auto const& line : dataLines("gitignore-cases.txt")) {
    if (line.starts_with("== ")) {
      auto const words = split(line.substr(3), ' ');
      cases.push_back({words.front(), {}});
      lineEnd = std::find(words.begin(), words.end(), "crlf") != words.end() ? "\r\n" : "\n";
      start = std::find(words.begin(), words.end(), "bom") != words.end() ? "\xEF\xBB\xBF" : "";
    } else if (line.starts_with("@ ")) {
      folder = line.substr(2) == "." ? "" : line.substr(2);
      cases.back().files[folder] = start;
    } else if (line.starts_with("|")) {
      cases.back().files[folder] += line.substr(1) + lineEnd;
    } else if (line.starts_with(":") && line.ends_with("|")) {
      cases.back().files[folder] += line.substr(1, line.size() - 2) + lineEnd;
    }
  }
  return cases;
}

class GitignoreCases : public ::testing::TestWithParam<GitignoreCase> {};

TEST_P(GitignoreCases, TakesWhatGitListsAsNotIgnored) {
  auto const answer = answerTo("gitignore-expected.txt", GetParam().name);
  ASSERT_TRUE(answer) << "no answer; run tests/unit/filter/regenerate_expected.py";

  Tree tree = readTree("tree.txt");
  for (auto const& [folder, text] : GetParam().files) tree.add('f', join(folder, ".gitignore"));
  // The repository's own folder, which git never lists.
  tree.add('d', ".git");
  tree.add('f', ".git/HEAD");
  tree.add('d', ".git/info");
  tree.add('f', ".git/info/exclude");

  ssh::Filter filter;
  filter.gitignore();
  std::vector<std::string> files;
  for (auto const& entry : takenFrom(filter, tree, GetParam().files)) {
    if (entry.type != 'd') files.push_back(entry.path);  // git lists no folders
  }
  EXPECT_EQ(files, *answer);
}

INSTANTIATE_TEST_SUITE_P(Data, GitignoreCases, ::testing::ValuesIn(gitignoreCases()), caseName<GitignoreCase>);

TEST(GitignoreCaseData, EveryCaseHasItsAnswer) {
  auto const cases = gitignoreCases();
  auto const answers = readAnswers("gitignore-expected.txt");
  EXPECT_EQ(answers.size(), cases.size());
  for (auto const& c : cases) EXPECT_TRUE(answers.contains(c.name)) << c.name;
}

}  // namespace
}  // namespace sshfa::testing::filter
