// Each case of data/rsync-cases.txt against what rsync -a did with the same
// arguments on the same tree (data/rsync-expected.txt).

#include <gtest/gtest.h>

#include "tests/unit/filter/FilterCases.hpp"

namespace sshfa::testing::filter {
namespace {

struct RsyncCase {
  std::string name;
  std::vector<std::string> arguments;
};

// Failures name the case.
void PrintTo(RsyncCase const& c, std::ostream* out) { *out << c.name; }

std::vector<RsyncCase> rsyncCases() {
  std::vector<RsyncCase> cases;
  for (auto const& line : dataLines("rsync-cases.txt")) {
    auto fields = split(line, '\t');
    cases.push_back({fields.front(), std::vector<std::string>(fields.begin() + 1, fields.end())});
  }
  return cases;
}

// The filter the arguments build, as the tool builds it; deletes: --delete.
ssh::Filter filterOf(std::vector<std::string> const& arguments, bool& deletes) {
  ssh::Filter filter;
  deletes = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string const& option = arguments[i];
    if (option == "--delete") {
      deletes = true;
    } else if (option == "--delete-excluded") {
      filter.deleteExcluded();
    } else if (option == "--exclude") {
      filter.exclude(arguments.at(++i));
    } else if (option == "--include") {
      filter.include(arguments.at(++i));
    } else if (option == "--filter") {
      filter.rule(arguments.at(++i));
    } else if (option == "--exclude-from") {
      filter.excludeFrom(readData(arguments.at(i + 1)), arguments.at(i + 1));
      ++i;
    } else if (option == "--include-from") {
      filter.includeFrom(readData(arguments.at(i + 1)), arguments.at(i + 1));
      ++i;
    } else {
      throw std::invalid_argument("unknown option " + option);
    }
  }
  return filter;
}

class RsyncCases : public ::testing::TestWithParam<RsyncCase> {};

TEST_P(RsyncCases, TakesAndKeepsWhatRsyncDoes) {
  auto const answer = answerTo("rsync-expected.txt", GetParam().name);
  ASSERT_TRUE(answer) << "no answer; run tests/unit/filter/regenerate_expected.py";

  bool deletes = false;
  ssh::Filter const filter = filterOf(GetParam().arguments, deletes);
  Tree const source = readTree("tree.txt");
  std::set<Entry> result = takenFrom(filter, source);
  if (deletes) {
    std::set<Entry> kept;
    deleteExtraneous(filter.root(), readTree("dest-tree.txt"), result, kept);
    result.insert(kept.begin(), kept.end());
  }
  EXPECT_EQ(lines(result), *answer);
}

INSTANTIATE_TEST_SUITE_P(Data, RsyncCases, ::testing::ValuesIn(rsyncCases()), caseName<RsyncCase>);

TEST(RsyncCaseData, EveryCaseHasItsAnswer) {
  auto const cases = rsyncCases();
  auto const answers = readAnswers("rsync-expected.txt");
  EXPECT_GE(cases.size(), 40U);
  EXPECT_EQ(answers.size(), cases.size());
  for (auto const& c : cases) EXPECT_TRUE(answers.contains(c.name)) << c.name;
}

}  // namespace
}  // namespace sshfa::testing::filter
