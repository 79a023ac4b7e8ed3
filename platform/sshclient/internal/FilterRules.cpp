#include "sshfileaccess/platform/sshclient/internal/FilterRules.hpp"

#include <algorithm>
#include <array>
#include <optional>

namespace foundation::sshclient::internal {
namespace {

ParsedRule problem(std::string cause) { return ParsedRule{{}, false, std::move(cause)}; }

// The path's last n names (all of it when it has fewer).
std::string_view lastNames(std::string_view path, int n) {
  for (std::size_t i = path.size(); i-- > 0;) {
    if (path[i] == '/' && --n == 0) return path.substr(i + 1);
  }
  return path;
}

// The pattern's glob and where it applies, or why it cannot be used.
std::optional<std::string> compilePattern(std::string_view text, RulePattern& pattern) {
  if (text.ends_with('/')) {
    pattern.folderOnly = true;
    text.remove_suffix(1);
  }
  bool const anchored = text.starts_with('/');
  std::string_view const body = anchored ? text.substr(1) : text;
  if (body.empty()) return "empty pattern";
  bool const wild = body.find_first_of("*?[") != std::string_view::npos;
  if (wild) {
    if (auto why = globProblem(body)) return why;
  }
  bool const starStar = wild && body.find("**") != std::string_view::npos;
  bool const hasSlash = text.find('/') != std::string_view::npos;
  pattern.wholePath = hasSlash || starStar;
  pattern.slashBefore = starStar && text.starts_with("**");
  pattern.slashAfterFolder = starStar && body.ends_with("***");
  if (!anchored && hasSlash && !starStar) {
    pattern.tail = static_cast<int>(std::count(text.begin(), text.end(), '/')) + 1;
  } else if (!anchored && starStar && !pattern.slashBefore) {
    pattern.tail = -1;
  }
  pattern.glob = Glob(body, GlobDialect::Rsync);
  return std::nullopt;
}

ParsedRule patternRule(Rule rule, std::string_view pattern) {
  if (auto why = compilePattern(pattern, rule.pattern)) return problem(std::move(*why));
  return ParsedRule{{std::move(rule)}, false, {}};
}

struct RuleType {
  char letter;
  std::string_view name;
  Rule::Kind kind;
  bool sourceSide;
  bool destinationSide;
};

constexpr std::array<RuleType, 6> kRuleTypes{{
    {'-', "exclude", Rule::Kind::Exclude, true, true},
    {'+', "include", Rule::Kind::Include, true, true},
    {'H', "hide", Rule::Kind::Exclude, true, false},
    {'S', "show", Rule::Kind::Include, true, false},
    {'P', "protect", Rule::Kind::Exclude, false, true},
    {'R', "risk", Rule::Kind::Include, false, true},
}};

bool isSeparator(char c) { return c == ' ' || c == '_'; }

}  // namespace

bool RulePattern::applies(Subject const& subject) const {
  if (folderOnly && !subject.isFolder()) return negated;
  if (!wholePath) return glob.matches(subject.name()) != negated;
  std::string_view const path = subject.path(slashBefore, slashAfterFolder && subject.isFolder());
  bool matched = false;
  if (tail > 0) {
    matched = glob.matches(lastNames(path, tail));
  } else {
    matched = glob.matches(path);
    for (std::size_t i = 0; tail < 0 && !matched && i < path.size(); ++i) {
      if (path[i] == '/') matched = glob.matches(path.substr(i + 1));
    }
  }
  return matched != negated;
}

ParsedRule parseFilterRule(std::string_view text) {
  if (text.empty()) return problem("empty rule");
  // A long name is a lower-case word; a short one is one character.
  bool const startsWord = text[0] >= 'a' && text[0] <= 'z';
  std::size_t const word =
      startsWord ? std::min(text.find_first_not_of("abcdefghijklmnopqrstuvwxyz-"), text.size()) : 0;
  std::string_view const type = word > 0 ? text.substr(0, word) : text.substr(0, 1);
  std::string_view rest = text.substr(type.size());
  bool const longName = word > 0;
  auto const named = [&](char letter, std::string_view name) { return longName ? type == name : type[0] == letter; };

  if (named('!', "clear")) {
    if (!rest.empty()) return problem("'" + std::string(type) + "' takes no modifiers or pattern");
    return ParsedRule{{}, true, {}};
  }
  if (named('.', "merge") || named(':', "dir-merge")) {
    return problem("merge rules are not supported (use --exclude-from or --include-from)");
  }
  auto const found =
      std::find_if(kRuleTypes.begin(), kRuleTypes.end(), [&](RuleType const& t) { return named(t.letter, t.name); });
  if (found == kRuleTypes.end()) return problem("unknown rule type '" + std::string(type) + "'");

  Rule rule;
  rule.kind = found->kind;
  rule.sourceSide = found->sourceSide;
  rule.destinationSide = found->destinationSide;
  rule.sideGiven = !(found->sourceSide && found->destinationSide);
  bool const sidesAllowed = !rule.sideGiven;
  if (longName && !rest.empty() && rest.front() != ',' && !isSeparator(rest.front())) {
    return problem("a ',', ' ' or '_' must follow '" + std::string(type) + "'");
  }
  if (rest.starts_with(',')) rest.remove_prefix(1);
  std::string seen;
  bool source = false;
  bool destination = false;
  for (; !rest.empty() && !isSeparator(rest.front()); rest.remove_prefix(1)) {
    char const modifier = rest.front();
    if (seen.find(modifier) != std::string::npos)
      return problem("modifier '" + std::string(1, modifier) + "' given twice");
    seen.push_back(modifier);
    if (modifier == '!') {
      rule.pattern.negated = true;
    } else if ((modifier == 's' || modifier == 'r') && sidesAllowed) {
      (modifier == 's' ? source : destination) = true;
    } else if (modifier == 's' || modifier == 'r') {
      return problem("modifier '" + std::string(1, modifier) + "' is only for - and + rules");
    } else {
      return problem("unknown modifier '" + std::string(1, modifier) + "'");
    }
  }
  if (source || destination) {
    rule.sourceSide = source;
    rule.destinationSide = destination;
    rule.sideGiven = true;
  }
  if (rest.size() <= 1) return problem("missing pattern");
  return patternRule(std::move(rule), rest.substr(1));
}

ParsedRule parsePatternRule(std::string_view text, Rule::Kind kind) {
  if (text == "!") return ParsedRule{{}, true, {}};
  Rule rule;
  rule.kind = kind;
  if (text.starts_with("- ") || text.starts_with("+ ")) {
    rule.kind = text[0] == '-' ? Rule::Kind::Exclude : Rule::Kind::Include;
    text.remove_prefix(2);
  }
  return patternRule(std::move(rule), text);
}

void FilterRules::derive() {
  sourceSide.clear();
  destinationSide.clear();
  readsGitignore = false;
  for (Rule const& rule : given) {
    readsGitignore = readsGitignore || rule.kind == Rule::Kind::Gitignore;
    if (rule.sourceSide) sourceSide.push_back(rule);
    if (rule.destinationSide && (rule.sideGiven || !deleteExcluded)) destinationSide.push_back(rule);
  }
}

Verdict firstVerdict(std::vector<Rule> const& rules, Subject const& subject, IgnoreLevel const* ignores) {
  for (Rule const& rule : rules) {
    if (rule.kind == Rule::Kind::Gitignore) {
      if (subject.name() == ".git") return Verdict::Exclude;
      if (Verdict const verdict = ignoreVerdict(ignores, subject); verdict != Verdict::None) return verdict;
    } else if (rule.pattern.applies(subject)) {
      return rule.kind == Rule::Kind::Include ? Verdict::Include : Verdict::Exclude;
    }
  }
  return Verdict::None;
}

}  // namespace foundation::sshclient::internal
