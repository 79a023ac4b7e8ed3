#pragma once
// The filter tests' data (tests/unit/filter/data, answers written by
// regenerate_expected.py) and a walk that asks a Filter as a tree listing
// does: one folder at a time, a folder left out never entered, each
// folder's .gitignore handed over as it is entered.

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "sshfileaccess/platform/sshclient/Filter.hpp"

namespace sshfa::testing::filter {

namespace ssh = foundation::sshclient;

inline std::string dataPath(std::string const& name) { return std::string(SSHFA_FILTER_DATA) + "/" + name; }

inline std::string readData(std::string const& name) {
  std::ifstream in(dataPath(name), std::ios::binary);
  if (!in) throw std::runtime_error("cannot open '" + dataPath(name) + "'");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::vector<std::string> split(std::string const& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (std::size_t end = text.find(separator); end != std::string::npos; end = text.find(separator, start)) {
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  parts.push_back(text.substr(start));
  return parts;
}

// The data file's lines but comments; the last empty one (after the final
// newline) dropped.
inline std::vector<std::string> dataLines(std::string const& name) {
  std::vector<std::string> lines;
  for (auto& line : split(readData(name), '\n')) {
    if (!line.starts_with('#')) lines.push_back(std::move(line));
  }
  if (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

// An entry as the answers write it: "TYPE<TAB>PATH", TYPE d, f or l.
struct Entry {
  char type;
  std::string path;
  bool operator<(Entry const& other) const { return path < other.path; }
};

class Tree {
 public:
  void add(char type, std::string const& path) {
    entries_.insert({type, path});
    std::size_t const slash = path.rfind('/');
    std::string const folder = slash == std::string::npos ? "" : path.substr(0, slash);
    children_[folder].emplace_back(slash == std::string::npos ? path : path.substr(slash + 1), type);
  }
  // The entries of folder ("" at the root): name and type.
  [[nodiscard]] std::vector<std::pair<std::string, char>> children(std::string const& folder) const {
    auto const found = children_.find(folder);
    return found == children_.end() ? std::vector<std::pair<std::string, char>>{} : found->second;
  }
  [[nodiscard]] std::set<Entry> const& entries() const { return entries_; }

 private:
  std::set<Entry> entries_;
  std::map<std::string, std::vector<std::pair<std::string, char>>> children_;
};

inline Tree readTree(std::string const& name) {
  Tree tree;
  for (auto const& line : dataLines(name)) {
    auto const fields = split(line, '\t');
    tree.add(fields.at(0).at(0), fields.at(1));
  }
  return tree;
}

inline std::string join(std::string const& folder, std::string const& name) {
  return folder.empty() ? name : folder + "/" + name;
}

// Answers by case name; sections "== NAME" followed by lines.
inline std::map<std::string, std::vector<std::string>> readAnswers(std::string const& name) {
  std::map<std::string, std::vector<std::string>> answers;
  std::vector<std::string>* current = nullptr;
  // Not dataLines(): an answer may start with '#'.
  for (auto const& line : split(readData(name), '\n')) {
    if (line.starts_with("== ")) {
      current = &answers[line.substr(3)];
    } else if (current != nullptr && !line.empty()) {
      current->push_back(line);
    }
  }
  return answers;
}

// The answer to case name in file; nothing when the file has none (run
// regenerate_expected.py).
inline std::optional<std::vector<std::string>> answerTo(std::string const& file, std::string const& name) {
  auto answers = readAnswers(file);
  auto found = answers.find(name);
  if (found == answers.end()) return std::nullopt;
  return std::move(found->second);
}

// .gitignore texts by folder ("" at the root).
using IgnoreFiles = std::map<std::string, std::string>;

inline std::string ignoreText(IgnoreFiles const& files, std::string const& folder) {
  auto const found = files.find(folder);
  return found == files.end() ? std::string() : found->second;
}

// What the source walk takes, in a listing's order.
inline void walk(ssh::FilterFolder const& folder, Tree const& tree, IgnoreFiles const& ignores,
                 std::set<Entry>& taken) {
  for (auto const& [name, type] : tree.children(folder.path())) {
    bool const isFolder = type == 'd';
    if (!folder.takes(name, isFolder)) continue;
    std::string const path = join(folder.path(), name);
    taken.insert({type, path});
    if (isFolder) walk(folder.enter(name, ignoreText(ignores, path)), tree, ignores, taken);
  }
}

inline std::set<Entry> takenFrom(ssh::Filter const& filter, Tree const& tree, IgnoreFiles const& ignores = {}) {
  std::set<Entry> taken;
  walk(filter.root(ignoreText(ignores, "")), tree, ignores, taken);
  return taken;
}

inline bool keepProtected(ssh::FilterFolder const& folder, Tree const& destination, std::set<Entry>& kept);

// An extraneous destination entry of folder: kept whole when protected; a
// folder that is not is deleted but for its protected entries and the
// folders holding them. True when anything stays.
inline bool keepEntry(ssh::FilterFolder const& folder, std::string const& name, char type, Tree const& destination,
                      std::set<Entry>& kept) {
  std::string const path = join(folder.path(), name);
  if (folder.protects(name, type == 'd')) {
    for (auto const& entry : destination.entries()) {
      if (entry.path == path || entry.path.starts_with(path + "/")) kept.insert(entry);
    }
    return true;
  }
  if (type != 'd' || !keepProtected(folder.enter(name), destination, kept)) return false;
  kept.insert({type, path});
  return true;
}

inline bool keepProtected(ssh::FilterFolder const& folder, Tree const& destination, std::set<Entry>& kept) {
  bool any = false;
  for (auto const& [name, type] : destination.children(folder.path())) {
    any = keepEntry(folder, name, type, destination, kept) || any;
  }
  return any;
}

// A mirror's deletion below folder: what the destination keeps beyond the
// source's taken entries.
inline void deleteExtraneous(ssh::FilterFolder const& folder, Tree const& destination, std::set<Entry> const& taken,
                             std::set<Entry>& kept) {
  for (auto const& [name, type] : destination.children(folder.path())) {
    if (!taken.contains({type, join(folder.path(), name)})) {
      keepEntry(folder, name, type, destination, kept);
    } else if (type == 'd') {
      deleteExtraneous(folder.enter(name), destination, taken, kept);
    }
  }
}

// A case's name as a test's name.
template <class Case>
std::string caseName(::testing::TestParamInfo<Case> const& param) {
  std::string name = param.param.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

inline std::vector<std::string> lines(std::set<Entry> const& entries) {
  std::vector<std::string> out;
  for (auto const& entry : entries) out.push_back(std::string(1, entry.type) + "\t" + entry.path);
  return out;
}

}  // namespace sshfa::testing::filter
