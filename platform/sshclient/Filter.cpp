#include "sshfileaccess/platform/sshclient/Filter.hpp"

#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/FilterRules.hpp"

namespace foundation::sshclient {

using internal::FilterRules;
using internal::IgnoreLevel;
using internal::ParsedRule;
using internal::Rule;
using internal::Subject;
using internal::Verdict;

namespace {

[[noreturn]] void badRule(std::string const& where, std::string_view text, std::string const& cause) {
  throw FilterError("bad filter rule " + where + " ('" + std::string(text) + "'): " + cause);
}

// The rules with what was read appended; copies of the filter keep theirs.
std::shared_ptr<FilterRules const> appended(std::shared_ptr<FilterRules const> const& rules,
                                            std::vector<ParsedRule> const& read) {
  auto next = rules ? std::make_shared<FilterRules>(*rules) : std::make_shared<FilterRules>();
  for (ParsedRule const& parsed : read) {
    if (parsed.clears) next->given.clear();
    next->given.insert(next->given.end(), parsed.rules.begin(), parsed.rules.end());
  }
  next->derive();
  return next;
}

ParsedRule checked(ParsedRule parsed, unsigned position, std::string_view text) {
  if (!parsed.problem.empty()) badRule(std::to_string(position), text, parsed.problem);
  return parsed;
}

std::vector<ParsedRule> patternFile(std::string_view text, std::string_view fileName, Rule::Kind kind) {
  std::vector<ParsedRule> read;
  for (unsigned line = 1; !text.empty(); ++line) {
    std::size_t const end = std::min(text.find('\n'), text.size());
    std::string_view pattern = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (pattern.ends_with('\r')) pattern.remove_suffix(1);
    if (pattern.empty() || pattern.front() == '#' || pattern.front() == ';') continue;
    ParsedRule parsed = internal::parsePatternRule(pattern, kind);
    if (!parsed.problem.empty()) {
      badRule("in '" + std::string(fileName) + "' line " + std::to_string(line), pattern, parsed.problem);
    }
    read.push_back(std::move(parsed));
  }
  return read;
}

// The level of a folder whose .gitignore is text, below parent.
std::shared_ptr<IgnoreLevel const> ignoreLevel(std::shared_ptr<IgnoreLevel const> parent, std::size_t folderLength,
                                               std::string_view text) {
  auto patterns = internal::parseGitignore(text);
  if (patterns.empty()) return parent;
  return std::make_shared<IgnoreLevel const>(IgnoreLevel{std::move(patterns), folderLength, std::move(parent)});
}

Verdict verdictOf(std::vector<Rule> const& rules, std::string const& folder, std::string_view name, bool isFolder,
                  IgnoreLevel const* ignores) {
  if (rules.empty()) return Verdict::None;
  // Reused: a decision allocates nothing once paths stop growing.
  thread_local std::string buffer;
  return internal::firstVerdict(rules, Subject(buffer, folder, name, isFolder), ignores);
}

}  // namespace

// ---- FilterFolder -----------------------------------------------------------

FilterFolder::FilterFolder() = default;

bool FilterFolder::takes(std::string_view name, bool isFolder) const {
  return !rules_ || verdictOf(rules_->sourceSide, path_, name, isFolder, ignores_.get()) != Verdict::Exclude;
}

bool FilterFolder::protects(std::string_view name, bool isFolder) const {
  return rules_ && verdictOf(rules_->destinationSide, path_, name, isFolder, ignores_.get()) == Verdict::Exclude;
}

FilterFolder FilterFolder::enter(std::string_view name, std::string_view gitignoreText) const {
  FilterFolder child;
  child.path_.reserve(path_.size() + 1 + name.size());
  child.path_ = path_;
  if (!child.path_.empty()) child.path_.push_back('/');
  child.path_.append(name);
  if (rules_) {
    child.rules_ = rules_;
    child.ignores_ = rules_->readsGitignore ? ignoreLevel(ignores_, child.path_.size(), gitignoreText) : nullptr;
  }
  return child;
}

// ---- Filter -----------------------------------------------------------------

Filter::Filter() = default;

Filter& Filter::exclude(std::string_view pattern) {
  ++given_;
  rules_ = appended(rules_, {checked(internal::parsePatternRule(pattern, Rule::Kind::Exclude), given_, pattern)});
  return *this;
}

Filter& Filter::include(std::string_view pattern) {
  ++given_;
  rules_ = appended(rules_, {checked(internal::parsePatternRule(pattern, Rule::Kind::Include), given_, pattern)});
  return *this;
}

Filter& Filter::excludeFrom(std::string_view text, std::string_view fileName) {
  ++given_;
  rules_ = appended(rules_, patternFile(text, fileName, Rule::Kind::Exclude));
  return *this;
}

Filter& Filter::includeFrom(std::string_view text, std::string_view fileName) {
  ++given_;
  rules_ = appended(rules_, patternFile(text, fileName, Rule::Kind::Include));
  return *this;
}

Filter& Filter::rule(std::string_view rule) {
  ++given_;
  rules_ = appended(rules_, {checked(internal::parseFilterRule(rule), given_, rule)});
  return *this;
}

Filter& Filter::gitignore() {
  ++given_;
  if (readsGitignore()) return *this;
  Rule rule;
  rule.kind = Rule::Kind::Gitignore;
  rules_ = appended(rules_, {ParsedRule{{rule}, false, {}}});
  return *this;
}

Filter& Filter::deleteExcluded(bool on) {
  auto next = rules_ ? std::make_shared<FilterRules>(*rules_) : std::make_shared<FilterRules>();
  next->deleteExcluded = on;
  next->derive();
  rules_ = std::move(next);
  return *this;
}

bool Filter::empty() const noexcept { return !rules_ || rules_->given.empty(); }

bool Filter::readsGitignore() const noexcept { return rules_ && rules_->readsGitignore; }

bool Filter::deletesExcluded() const noexcept { return rules_ && rules_->deleteExcluded; }

FilterFolder Filter::root(std::string_view gitignoreText) const {
  FilterFolder folder;
  if (empty()) return folder;
  folder.rules_ = rules_;
  if (rules_->readsGitignore) folder.ignores_ = ignoreLevel(nullptr, 0, gitignoreText);
  return folder;
}

}  // namespace foundation::sshclient
