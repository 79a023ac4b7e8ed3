#pragma once
// rsync's filter rules parsed and matched (internal; the rules are listed
// in Filter.hpp). Parsing reports a bad rule by its cause and throws
// nothing but std::bad_alloc; the caller names the rule. Rules and
// FilterRules are immutable once built: thread-safe to read.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/FilterSubject.hpp"
#include "sshfileaccess/platform/sshclient/internal/GitIgnore.hpp"
#include "sshfileaccess/platform/sshclient/internal/Glob.hpp"

namespace foundation::sshclient::internal {

// A pattern of --exclude, --include or --filter.
struct RulePattern {
  Glob glob;
  // > 0: matched against the path's last `tail` names; -1: against the path
  // from its start or from just after any '/'; 0: from its start.
  int tail = 0;
  bool wholePath = false;         // else the name alone
  bool slashBefore = false;       // the path is matched as "/path" (a pattern starting with "**")
  bool slashAfterFolder = false;  // a folder is matched as "path/" ("dir/***")
  bool folderOnly = false;
  bool negated = false;  // the rule applies where the pattern does not match

  [[nodiscard]] bool applies(Subject const& subject) const;
};

struct Rule {
  enum class Kind : std::uint8_t { Exclude, Include, Gitignore };
  Kind kind = Kind::Exclude;
  bool sourceSide = true;
  bool destinationSide = true;
  bool sideGiven = false;  // H, S, P, R, 's' or 'r': deleteExcluded leaves the sides as they are
  RulePattern pattern;
};

// One rule read: a rule, a clear ("!"), or why it is bad.
struct ParsedRule {
  std::vector<Rule> rules;  // none or one
  bool clears = false;
  std::string problem;  // empty: good
};

// A --filter rule: "TYPE[,MODIFIERS] PATTERN".
[[nodiscard]] ParsedRule parseFilterRule(std::string_view text);
// An --exclude or --include pattern (kind: which), with rsync's "- ", "+ "
// and "!" prefixes.
[[nodiscard]] ParsedRule parsePatternRule(std::string_view text, Rule::Kind kind);

struct FilterRules {
  std::vector<Rule> given;  // what the last clear left, in order
  bool deleteExcluded = false;
  // From the above (derive()):
  std::vector<Rule> sourceSide;
  std::vector<Rule> destinationSide;
  bool readsGitignore = false;

  void derive();
};

// The first applying rule's verdict; ignores: the .gitignore files of the
// subject's folder and above.
[[nodiscard]] Verdict firstVerdict(std::vector<Rule> const& rules, Subject const& subject, IgnoreLevel const* ignores);

}  // namespace foundation::sshclient::internal
