#pragma once
// The rules of the hostile SFTP server: entries it adds to the listing of a
// folder, and real entries whose attributes it changes.
//
// Rules file: one rule a line, fields separated by one TAB; blank lines and
// lines starting with '#' are skipped.
//
//   PLACEMENT  FOLDER  NAME  TYPE  MODE  SIZE  MTIME  [LINKTARGET]
//
//   PLACEMENT  before: NAME is added in front of the real entries of the
//              folder's first NAME reply (once per opened handle); after:
//              behind them; replace: the real entry NAME, in every reply,
//              gets the attributes given (the long name stays the server's).
//   FOLDER     the folder as the client opens it (OPENDIR), or any path that
//              resolves to the same real folder.
//   NAME       the entry's name, any bytes, the empty name included.
//   TYPE       file, dir, link, fifo, socket, char, block; or '-'.
//   MODE       permission bits in octal (0644).
//   SIZE       bytes, decimal.
//   MTIME      seconds since 1970, decimal, below 2^32 (atime is set alike).
//   LINKTARGET what READLINK of FOLDER/NAME answers, for TYPE link (an added
//              link, or a real entry made one: a real folder can pose as a
//              link and still be opened); when the field is absent, READLINK
//              goes to the real server.
//
// MODE, SIZE and MTIME may be '@PATH': the value of the real file PATH
// (lstat, at the time of the listing; a PATH that cannot be read ends the
// session). '-' keeps the real value of a replaced entry, and sends nothing
// for an added one (with TYPE and MODE both '-', no permissions at all; with
// only MODE '-', the type bits alone). Added entries carry the server
// process's uid and gid.
//
// FOLDER, NAME, LINKTARGET and PATH take C escapes for any byte: \t \n \r,
// \\ (a backslash), \0 (NUL) and \xHH. No other byte is special there:
// '-', '@', '.', '..' and '/' are names like any other.
//
// Examples (shown with blanks; the file separates fields with one TAB):
//   before   /r/tree  ../outside.txt  file  0644  @/r/outside.txt  @/r/outside.txt
//   after    /r/tree  evil            link  0777  4                1700000000  /tmp/elsewhere
//   after    /r/tree  evil            dir   0755  4096             1700000000
//   before   /r/tree  a\0b            file  0600  1                1700000000
//   replace  /r/tree  plain.txt       dir   -     -                -
//
// Pure data and text; no I/O. Not thread-safe per object, no shared state.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sshfa::testing::hostile {

enum class Placement { Before, After, Replace };

// Unchanged is '-': the real type of a replaced entry, no type bits for an added one.
enum class EntryType { Unchanged, File, Directory, Symlink, Fifo, Socket, CharDevice, BlockDevice };

// A value taken from the real file at `path` when the listing is sent.
struct CopiedFrom {
  std::string path;
  bool operator==(CopiedFrom const&) const = default;
};

// One of MODE, SIZE, MTIME: a number, a copy, or '-' (default constructed).
class Field {
 public:
  Field() = default;
  Field(std::uint64_t value) : value_(value) {}            // NOLINT(google-explicit-constructor)
  Field(CopiedFrom source) : value_(std::move(source)) {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] bool absent() const noexcept { return std::holds_alternative<std::monostate>(value_); }
  [[nodiscard]] std::uint64_t const* number() const noexcept { return std::get_if<std::uint64_t>(&value_); }
  [[nodiscard]] CopiedFrom const* copied() const noexcept { return std::get_if<CopiedFrom>(&value_); }
  bool operator==(Field const&) const = default;

 private:
  std::variant<std::monostate, std::uint64_t, CopiedFrom> value_;
};

struct Rule {
  Placement placement = Placement::Before;
  std::string folder;
  std::string name;
  EntryType type = EntryType::File;
  Field mode;  // permission bits only; the type bits come from `type`
  Field size;
  Field mtime;
  std::optional<std::string> linkTarget;  // links only
  bool operator==(Rule const&) const = default;
};

// Throws std::invalid_argument naming the line and the field at fault.
std::vector<Rule> parseRules(std::string_view text);
// The text that parseRules reads back as `rules`; throws std::invalid_argument
// for a rule that parseRules would refuse.
std::string formatRules(std::vector<Rule> const& rules);

// C escapes of the rules file, both ways; unescape throws std::invalid_argument.
std::string escape(std::string_view bytes);
std::string unescape(std::string_view text);

// The S_IFMT bits of a type; 0 for Unchanged.
std::uint32_t typeBits(EntryType type) noexcept;

}  // namespace sshfa::testing::hostile
