#pragma once
// The entry a filter is asked about, and what a list of rules concludes of
// it (internal). A Subject views storage the caller owns and reuses.

#include <cstddef>
#include <string>
#include <string_view>

namespace foundation::sshclient::internal {

enum class Verdict : unsigned char { None, Exclude, Include };

class Subject {
 public:
  // folder: the entry's folder relative to the root ("" at the root).
  // buffer receives "/" + path + "/" so that every form below is a view.
  Subject(std::string& buffer, std::string_view folder, std::string_view name, bool isFolder) : isFolder_(isFolder) {
    buffer.clear();
    buffer.push_back('/');
    if (!folder.empty()) {
      buffer.append(folder);
      buffer.push_back('/');
    }
    nameStart_ = buffer.size();
    buffer.append(name);
    buffer.push_back('/');
    framed_ = buffer;
  }

  [[nodiscard]] std::string_view name() const { return framed_.substr(nameStart_, framed_.size() - 1 - nameStart_); }
  [[nodiscard]] std::string_view path() const { return framed_.substr(1, framed_.size() - 2); }
  // The path with a '/' before it (slashBefore), after it (slashAfter), or
  // both.
  [[nodiscard]] std::string_view path(bool slashBefore, bool slashAfter) const {
    std::size_t const start = slashBefore ? 0 : 1;
    return framed_.substr(start, framed_.size() - start - (slashAfter ? 0 : 1));
  }
  [[nodiscard]] bool isFolder() const { return isFolder_; }

 private:
  std::string_view framed_;
  std::size_t nameStart_ = 0;
  bool isFolder_;
};

}  // namespace foundation::sshclient::internal
