#include "sshfileaccess/platform/sshclient/internal/Glob.hpp"

#include <array>
#include <cstddef>

namespace foundation::sshclient::internal {
namespace {

constexpr std::string_view kSpecials = "*?[\\";

// What one step of a match concludes. The two aborts prune the search: no
// later start of the text can match the rest of the pattern (All), or none
// can without a '/'-crossing '*' before it (ToStarStar).
enum class Wild { Match, NoMatch, AbortAll, AbortToStarStar };

enum class ClassResult { Match, NoMatch, Unterminated, UnknownName };

int byte(char c) { return static_cast<unsigned char>(c); }

// Whether byte c is of the POSIX class name, in ASCII (bytes beyond it
// belong to no class, whatever the locale); nothing for an unknown name.
std::optional<bool> inNamedClass(std::string_view name, int c) {
  bool const upper = c >= 'A' && c <= 'Z';
  bool const lower = c >= 'a' && c <= 'z';
  bool const digit = c >= '0' && c <= '9';
  bool const graph = c > ' ' && c < 0x7f;
  struct Named {
    std::string_view name;
    bool in;
  };
  std::array<Named, 12> const classes{{{"alnum", upper || lower || digit},
                                       {"alpha", upper || lower},
                                       {"blank", c == ' ' || c == '\t'},
                                       {"cntrl", c < ' ' || c == 0x7f},
                                       {"digit", digit},
                                       {"graph", graph},
                                       {"lower", lower},
                                       {"print", graph || c == ' '},
                                       {"punct", graph && !upper && !lower && !digit},
                                       {"space", c == ' ' || (c >= '\t' && c <= '\r')},
                                       {"upper", upper},
                                       {"xdigit", digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')}}};
  for (auto const& named : classes) {
    if (named.name == name) return named.in;
  }
  return std::nullopt;
}

// The class opening at pat[open] against byte c; end receives the index
// past its ']'. A ']' right after the opening (or its '!') is a member.
ClassResult matchClass(std::string_view pat, std::size_t open, int c, std::size_t& end) {
  std::size_t i = open + 1;
  if (i >= pat.size()) return ClassResult::Unterminated;
  bool const negated = pat[i] == '!' || pat[i] == '^';
  if (negated) ++i;
  bool matched = false;
  int previous = -1;  // the last single member, the low end of a range
  do {
    if (i >= pat.size()) return ClassResult::Unterminated;
    int current = byte(pat[i]);
    if (pat[i] == '\\') {
      if (++i >= pat.size()) return ClassResult::Unterminated;
      current = byte(pat[i]);
      matched = matched || c == current;
    } else if (pat[i] == '-' && previous >= 0 && i + 1 < pat.size() && pat[i + 1] != ']') {
      ++i;
      if (pat[i] == '\\' && ++i >= pat.size()) return ClassResult::Unterminated;
      matched = matched || (c >= previous && c <= byte(pat[i]));
      current = -1;
    } else if (pat[i] == '[' && i + 1 < pat.size() && pat[i + 1] == ':') {
      std::size_t const nameStart = i + 2;
      std::size_t const close = pat.find(']', nameStart);
      if (close == std::string_view::npos) return ClassResult::Unterminated;
      if (close > nameStart && pat[close - 1] == ':') {
        auto const in = inNamedClass(pat.substr(nameStart, close - 1 - nameStart), c);
        if (!in) {
          end = close + 1;
          return ClassResult::UnknownName;
        }
        matched = matched || *in;
        i = close;
        current = -1;
      } else {
        matched = matched || c == '[';  // "[:" without ":]" is a plain '['
      }
    } else {
      matched = matched || c == current;
    }
    previous = current;
    ++i;
  } while (i >= pat.size() || pat[i] != ']');
  end = i + 1;
  return matched != negated && c != '/' ? ClassResult::Match : ClassResult::NoMatch;
}

// A wildcard match of pat against text, both whole; pat's first character
// counts as the start of a pattern (for the Git dialect's "**").
class Matcher {
 public:
  Matcher(std::string_view pat, std::string_view text, GlobDialect dialect)
      : pat_(pat), text_(text), dialect_(dialect) {}

  [[nodiscard]] Wild run(std::size_t p, std::size_t t) const {
    while (p < pat_.size()) {
      char const pc = pat_[p];
      if (t >= text_.size() && pc != '*') return Wild::AbortAll;
      switch (pc) {
        case '*':
          return star(p, t);
        case '?':
          if (text_[t] == '/') return Wild::NoMatch;
          ++p;
          break;
        case '[': {
          std::size_t end = 0;
          if (matchClass(pat_, p, byte(text_[t]), end) != ClassResult::Match) return Wild::NoMatch;
          p = end;
          break;
        }
        case '\\':
          // A lone '\' at the end matches nothing.
          if (p + 1 >= pat_.size() || text_[t] != pat_[p + 1]) return Wild::NoMatch;
          p += 2;
          break;
        default:
          if (text_[t] != pc) return Wild::NoMatch;
          ++p;
          break;
      }
      ++t;
    }
    return t == text_.size() ? Wild::Match : Wild::NoMatch;
  }

 private:
  // pat_[p] is the first '*' of a run.
  [[nodiscard]] Wild star(std::size_t p, std::size_t t) const {
    std::size_t q = p + 1;
    while (q < pat_.size() && pat_[q] == '*') ++q;
    bool crossesSlash = false;
    if (q - p >= 2) {
      if (dialect_ == GlobDialect::Rsync) {
        crossesSlash = true;
      } else {
        bool const wholeBefore = p == 0 || pat_[p - 1] == '/';
        bool const wholeAfter =
            q == pat_.size() || pat_[q] == '/' || (pat_[q] == '\\' && q + 1 < pat_.size() && pat_[q + 1] == '/');
        if (wholeBefore && wholeAfter) {
          // "**/" first tries matching no folder at all.
          if (q < pat_.size() && pat_[q] == '/' && run(q + 1, t) == Wild::Match) return Wild::Match;
          crossesSlash = true;
        }
      }
    }
    if (q == pat_.size()) {
      return crossesSlash || text_.find('/', t) == std::string_view::npos ? Wild::Match : Wild::NoMatch;
    }
    if (!crossesSlash && pat_[q] == '/') {
      // One '*' before a '/' takes the rest of this component.
      std::size_t const slash = text_.find('/', t);
      return slash == std::string_view::npos ? Wild::NoMatch : run(q, slash);
    }
    bool const literalNext = kSpecials.find(pat_[q]) == std::string_view::npos;
    for (; t < text_.size(); ++t) {
      if (literalNext && text_[t] != pat_[q]) {
        if (!crossesSlash && text_[t] == '/') return Wild::AbortToStarStar;
        continue;
      }
      Wild const result = run(q, t);
      if (result != Wild::NoMatch) {
        if (!crossesSlash || result != Wild::AbortToStarStar) return result;
      } else if (!crossesSlash && text_[t] == '/') {
        return Wild::AbortToStarStar;
      }
    }
    return Wild::AbortAll;
  }

  std::string_view pat_;
  std::string_view text_;
  GlobDialect dialect_;
};

bool hasNoSpecials(std::string_view text) { return text.find_first_of(kSpecials) == std::string_view::npos; }

}  // namespace

std::optional<std::string> globProblem(std::string_view pattern) {
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '\\') {
      if (++i >= pattern.size()) return std::string("a lone '\\' ends it");
    } else if (pattern[i] == '[') {
      std::size_t end = 0;
      switch (matchClass(pattern, i, 0, end)) {
        case ClassResult::Unterminated:
          return "no ']' closes the '[' at character " + std::to_string(i + 1);
        case ClassResult::UnknownName: {
          std::size_t const open = pattern.rfind("[:", end - 1);
          return "unknown character class '" + std::string(pattern.substr(open, end - open)) + "'";
        }
        case ClassResult::Match:
        case ClassResult::NoMatch:
          i = end - 1;
          break;
      }
    }
  }
  return std::nullopt;
}

Glob::Glob(std::string_view pattern, GlobDialect dialect) : dialect_(dialect) {
  bool const literal =
      dialect == GlobDialect::Rsync ? pattern.find_first_of("*?[") == std::string_view::npos : hasNoSpecials(pattern);
  if (literal) {
    prefix_ = pattern;
    return;
  }
  // A literal head is compared directly; the rest starts a pattern of its
  // own, as git matches the rest of a path after a pattern's literal head.
  std::size_t const head = pattern.find_first_of(kSpecials);
  prefix_ = pattern.substr(0, head);
  std::string_view const rest = pattern.substr(head);
  if (rest.size() >= 2 && rest[0] == '*' && hasNoSpecials(rest.substr(1))) {
    shape_ = Shape::StarSuffix;
    rest_ = rest.substr(1);
  } else {
    shape_ = Shape::General;
    rest_ = rest;
  }
}

bool Glob::matches(std::string_view text) const {
  switch (shape_) {
    case Shape::Literal:
      return text == prefix_;
    case Shape::StarSuffix: {
      if (text.size() < prefix_.size() + rest_.size() || !text.starts_with(prefix_) || !text.ends_with(rest_)) {
        return false;
      }
      auto const middle = text.substr(prefix_.size(), text.size() - prefix_.size() - rest_.size());
      return middle.find('/') == std::string_view::npos;
    }
    case Shape::General:
      break;
  }
  if (!text.starts_with(prefix_)) return false;
  return Matcher(rest_, text.substr(prefix_.size()), dialect_).run(0, 0) == Wild::Match;
}

}  // namespace foundation::sshclient::internal
