#pragma once
// Shell wildcards matched against whole relative paths (internal).
//
// '*' matches any run of characters but '/', '?' one character but '/',
// '[...]' one character of a class ('!' or '^' first negates; ranges,
// [:alpha:] and the other POSIX names; a class never matches '/'), '\'
// makes the next character literal. Runs of two or more '*' cross '/'
// as the dialect says. Pure functions and immutable values: thread-safe,
// nothing throws but std::bad_alloc.

#include <optional>
#include <string>
#include <string_view>

namespace foundation::sshclient::internal {

enum class GlobDialect {
  // Any run of two or more '*' crosses '/'; a pattern without '*', '?' or
  // '[' is literal (its '\' too).
  Rsync,
  // A run of '*' crosses '/' only as a whole component ("**/" at the start,
  // "/**" at the end, "/**/" inside) and "**/" may match no folder at all;
  // elsewhere it is one '*'.
  Git,
};

// Why the pattern can never match: "no ']' closes the '[' at character 3",
// "unknown character class '[:foo:]'", "a lone '\' ends it"; nothing when
// it is well formed.
[[nodiscard]] std::optional<std::string> globProblem(std::string_view pattern);

// A pattern prepared once for many matches. A malformed one matches nothing.
class Glob {
 public:
  Glob() = default;  // matches the empty text only
  Glob(std::string_view pattern, GlobDialect dialect);

  // Whether the pattern matches all of text.
  [[nodiscard]] bool matches(std::string_view text) const;

 private:
  enum class Shape : unsigned char {
    Literal,     // prefix_ only
    StarSuffix,  // prefix_, one '*', then rest_ (literal)
    General,     // prefix_, then the wildcard pattern rest_
  };

  Shape shape_ = Shape::Literal;
  GlobDialect dialect_ = GlobDialect::Rsync;
  std::string prefix_;
  std::string rest_;
};

}  // namespace foundation::sshclient::internal
