#pragma once
// Filters of tree transfers (foundation::sshclient): which entries of a
// source tree a transfer takes, and which extraneous entries of the
// destination a deletion keeps.
//
// A Filter is a value built from rules in the order they are given, as
// rsync's --exclude, --include, --exclude-from, --include-from, --filter
// and --delete-excluded build them, plus --gitignore. A rule that cannot be
// understood throws FilterError naming its position, its text and the
// cause, and leaves the filter's rules as they were. A default Filter has
// no rules: it takes everything and protects nothing.
//
// The listing walks a tree one folder at a time and asks a FilterFolder
// about each entry: Filter::root() answers for the entries of the folder
// being transferred, FilterFolder::enter() for those of a subfolder. The
// caller reads rules files and .gitignore files (locally or over SFTP) and
// hands over their text: nothing here does I/O.
//
// Thread-safety: a Filter is a value (its adders change only itself);
// FilterFolders are immutable. Both may be read from any number of threads
// at once. Nothing throws but FilterError from the adders and
// std::bad_alloc.
//
// ---- paths ------------------------------------------------------------------
// A pattern is matched against the entry's path relative to the root of
// the source folder being transferred, names joined by '/' ("src/lib/a.c"),
// or against its name alone, as follows. Names are bytes, compared as they
// are: case matters.
//
// ---- patterns of --exclude, --include and --filter (rsync's) ----------------
// - '*' matches any run of characters but '/'; '**' (two or more '*')
//   matches any run including '/'; '?' one character but '/'; '[...]' one
//   character of a class: ranges (a-z), '!' or '^' first negates,
//   [:alpha:] and the other POSIX classes (ASCII), never '/'. '\' makes
//   the next character literal. A pattern without '*', '?' or '[' is
//   literal, its '\' included.
// - A pattern without '/' (a trailing one aside) and without '**' matches
//   the name at any depth: "*.o", "build".
// - A pattern with a '/' inside matches the end of the path, from a name's
//   start: "lib/gen" matches "lib/gen" and "src/lib/gen"; "logs/*.log"
//   matches "logs/a.log" and "x/logs/a.log", not "logs/old/a.log".
// - A pattern with '**' is matched against the path from its start or from
//   just after any '/'; one starting with '**' as if the path began with
//   '/': "**/gen" matches "gen" and "a/b/gen".
// - A leading '/' anchors the pattern at the root: "/build" matches "build",
//   not "src/build". ("/**/gen" needs a folder before "gen".)
// - A trailing '/' matches folders only (a symbolic link is not a folder
//   unless the transfer follows links).
// - "dir/***" matches "dir" and everything below it.
// - Rules apply in order and the first that matches decides; when none
//   matches the entry is taken. A folder not taken is not entered, whatever
//   later rules say of what it holds: --include '*/' --include '*.c'
//   --exclude '*' takes every folder and the .c files in them; --include
//   '*.c' --exclude '*' only the .c files at the top.
// - An empty pattern ("", "/") is an error, and so is a wildcard pattern
//   that can never match (an unclosed '[', an unknown [:class:], a lone
//   '\' at the end).
//
// ---- sides and deletion -----------------------------------------------------
// Each rule applies on the source side (what is taken), the destination side
// (what a deletion of extraneous entries keeps: protected), or both. An
// exclusion on the destination side protects: an extraneous entry whose
// first matching destination rule excludes it stays, and a protected folder
// is kept whole, not looked into. Inside an extraneous folder being deleted,
// each entry is asked in turn (FilterFolder::enter() with no text), and the
// folders holding a protected entry stay. Rules of both sides: -, +,
// --exclude, --include, the .gitignore files (".git" included);
// deleteExcluded() makes them source-side only, so that a destination's
// ".git" is deleted too.
//
// ---- .gitignore files (gitignore()) -----------------------------------------
// git's rules, the answer git ls-files -co --exclude-standard gives on a tree
// where nothing is tracked:
// - Each folder's .gitignore text applies to the entries below that folder.
//   The listing reads it only when it is a regular file (git does not
//   follow a symbolic link for it), and not in folders it does not enter.
// - Empty lines and lines starting with '#' are ignored; trailing spaces are
//   dropped unless escaped with '\'; a '\r' before a line's end and a UTF-8
//   byte order mark are dropped. "\#" and "\!" start a pattern with '#' or
//   '!'.
// - '!' negates: an entry the pattern matches is taken again, unless a
//   folder above it is left out.
// - A pattern with a '/' at its start or inside is relative to the folder
//   of its file ("/build", "doc/*.html"); without one it matches the name
//   at any depth below that folder. A trailing '/' matches folders only.
// - Wildcards as above, except that '**' crosses '/' only as a whole name:
//   "**/x" matches x in every folder, "a/**" everything inside a,
//   "a/**/b" b in a and in any folder below a; elsewhere "**" is '*',
//   but right after a pattern's literal head it crosses '/' as git's does
//   ("src/li**" matches "src/lib/a.c").
// - Within a file the last matching pattern decides; a deeper file decides
//   before a shallower one. When none matches, the rules after gitignore()
//   decide.
// - Entries named ".git" are left out at every level.
// - Not read: .gitignore files above the folder being transferred,
//   .git/info/exclude and git's core.excludesFile. A nested repository is
//   entered like any folder (git lists it as one entry).

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "sshfileaccess/export.hpp"

namespace foundation::sshclient {

namespace internal {
struct FilterRules;
struct IgnoreLevel;
}  // namespace internal

// A rule that cannot be understood, by its number (one per call of a
// Filter's exclude, include, excludeFrom, includeFrom, rule or gitignore,
// from 1, failed calls too) or by file and line:
//   bad filter rule 3 ('x foo'): unknown rule type 'x'
//   bad filter rule in 'rules.txt' line 4 ('[abc'): no ']' closes the '[' at character 1
class SSHFA_EXPORT FilterError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// The filter as seen from one folder of the source tree (or the matching
// folder of the destination).
class SSHFA_EXPORT FilterFolder {
 public:
  // Takes everything, protects nothing.
  FilterFolder();

  // Whether the transfer takes the entry of this folder named name (a
  // folder: whether it is entered at all).
  [[nodiscard]] bool takes(std::string_view name, bool isFolder) const;

  // Whether a deletion of extraneous entries keeps the destination entry
  // of this folder named name (a folder: with everything in it).
  [[nodiscard]] bool protects(std::string_view name, bool isFolder) const;

  // The subfolder name; gitignoreText: its .gitignore, empty when it has
  // none or when the filter does not read them.
  [[nodiscard]] FilterFolder enter(std::string_view name, std::string_view gitignoreText = {}) const;

  // Relative to the root, names joined by '/'; empty at the root.
  [[nodiscard]] std::string const& path() const noexcept { return path_; }

 private:
  friend class Filter;

  std::shared_ptr<internal::FilterRules const> rules_;
  std::shared_ptr<internal::IgnoreLevel const> ignores_;  // the deepest .gitignore at or above this folder
  std::string path_;
};

class SSHFA_EXPORT Filter {
 public:
  // No rules.
  Filter();

  // --exclude, --include: one pattern. A pattern starting with "- " or "+ "
  // is an exclude or include of the rest, and "!" alone clears the rules
  // before it, as rsync reads them.
  Filter& exclude(std::string_view pattern);
  Filter& include(std::string_view pattern);

  // --exclude-from, --include-from: the text of a file of patterns, one a
  // line, read as by exclude() or include(); fileName only names it in
  // errors. Empty lines and lines starting with '#' or ';' are ignored and
  // a '\r' ending a line is dropped; other spaces belong to the pattern.
  Filter& excludeFrom(std::string_view text, std::string_view fileName);
  Filter& includeFrom(std::string_view text, std::string_view fileName);

  // --filter: one rule, "TYPE[,MODIFIERS] PATTERN" (the separator is one
  // space or '_'; everything after it is the pattern, spaces included).
  //   -  exclude   leave out and protect        +  include   take
  //   H  hide      leave out (source side)      S  show      take (source side)
  //   P  protect   protect (destination side)   R  risk      do not protect (destination side)
  //   !  clear     forget every rule before it (no pattern)
  // Modifiers: '!' applies the rule to the entries its pattern does not
  // match; 's' and 'r' (on - and + only) make it source-side or
  // destination-side only. Merge rules ('.', ':') are not supported: read
  // the file and give its text to excludeFrom() or includeFrom().
  Filter& rule(std::string_view rule);

  // --gitignore: the verdict of the source tree's .gitignore files takes
  // this place among the rules (again: no change).
  Filter& gitignore();

  // --delete-excluded: the rules of both sides, the .gitignore files
  // included, become source-side only, so a deletion removes what they
  // leave out; P, R and 'r' rules still protect.
  Filter& deleteExcluded(bool on = true);

  // No rules at all: the listing need not ask.
  [[nodiscard]] bool empty() const noexcept;
  // The listing reads each folder's .gitignore.
  [[nodiscard]] bool readsGitignore() const noexcept;
  [[nodiscard]] bool deletesExcluded() const noexcept;

  // The folder being transferred; gitignoreText: its own .gitignore.
  [[nodiscard]] FilterFolder root(std::string_view gitignoreText = {}) const;

 private:
  std::shared_ptr<internal::FilterRules const> rules_;
  unsigned given_ = 0;  // rules given so far, numbered in errors
};

}  // namespace foundation::sshclient
