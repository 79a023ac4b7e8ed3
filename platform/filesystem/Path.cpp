#include "sshfileaccess/platform/filesystem/Path.hpp"

#include "sshfileaccess/platform/filesystem/FileSystem.hpp"

namespace fl::filesystem::detail {
namespace {

constexpr char16_t kSep = u'/';

// End of the text once trailing separators are ignored (keeps a lone root).
std::size_t endWithoutTrailingSeparators(ustring const& path) {
  std::size_t end = path.size();
  while (end > 1 && path[end - 1] == kSep) --end;
  return end;
}

}  // namespace

ustring make_native_form(ustring const& path, bool removeTrailingSeparators) {
  if (!removeTrailingSeparators) return path;
  ustring out;
  out.reserve(path.size());
  for (const char16_t c : path) {
    if (c == kSep && !out.empty() && out.back() == kSep) continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == kSep) out.pop_back();
  return out;
}

ustring make_generic_form(ustring const& path) { return path; }

ustring extract_parent_path(ustring const& path) {
  const std::size_t end = endWithoutTrailingSeparators(path);
  if (end == 1 && path[0] == kSep) return {};
  const std::size_t slash = path.rfind(kSep, end == 0 ? 0 : end - 1);
  if (slash == ustring::npos) return {};
  std::size_t parentEnd = slash;
  while (parentEnd > 0 && path[parentEnd - 1] == kSep) --parentEnd;
  return parentEnd == 0 ? ustring(1, kSep) : path.substr(0, parentEnd);
}

ustring extract_filename(ustring const& path) {
  const std::size_t end = endWithoutTrailingSeparators(path);
  if (end == 1 && path[0] == kSep) return {};
  const std::size_t slash = path.rfind(kSep, end == 0 ? 0 : end - 1);
  const std::size_t begin = slash == ustring::npos ? 0 : slash + 1;
  return path.substr(begin, end - begin);
}

std::string make_native_access_form_with_cleanup_i18n(ustring const& path) {
  return native_bytes(make_native_form(path, true));
}

}  // namespace fl::filesystem::detail
