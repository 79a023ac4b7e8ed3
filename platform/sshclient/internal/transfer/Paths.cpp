#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"

#include <vector>

namespace foundation::sshclient::internal::transfer {

namespace {

std::vector<std::string_view> components(std::string_view path) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    auto const slash = path.find('/', start);
    auto const end = slash == std::string_view::npos ? path.size() : slash;
    if (end > start) parts.push_back(path.substr(start, end - start));
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return parts;
}

std::string joinedParts(std::vector<std::string_view> const& parts, std::size_t first, std::size_t last,
                        bool absolute) {
  std::string out = absolute ? "/" : "";
  for (std::size_t i = first; i < last; ++i) {
    if (!out.empty() && out.back() != '/') out += '/';
    out.append(parts[i]);
  }
  return out;
}

// The canonical path of the longest prefix of `path` that resolves (all of
// it when `mustExist`), followed by the rest, normalized.
std::optional<std::string> resolvedByPrefix(std::string const& path, RealPath const& realPath, bool mustExist);

}  // namespace

bool suspectName(std::string_view name) noexcept {
  return name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos ||
         name.find('\0') != std::string_view::npos;
}

std::string joined(std::string_view folder, std::string_view name) {
  std::string out;
  out.reserve(folder.size() + name.size() + 1);
  out.append(folder);
  if (out.empty() || out.back() != '/') out += '/';
  out.append(name);
  return out;
}

bool hasDotComponents(std::string_view path) noexcept {
  for (auto const part : components(path)) {
    if (part == "." || part == "..") return true;
  }
  return false;
}

std::string normalized(std::string_view path) {
  bool const absolute = path.starts_with('/');
  std::vector<std::string_view> kept;
  for (auto const part : components(path)) {
    if (part == ".") continue;
    if (part == "..") {
      if (!kept.empty() && kept.back() != "..") {
        kept.pop_back();
      } else if (!absolute) {
        kept.push_back(part);
      }
      continue;
    }
    kept.push_back(part);
  }
  auto out = joinedParts(kept, 0, kept.size(), absolute);
  return out.empty() ? std::string(".") : out;
}

std::optional<std::string> resolved(std::string const& path, RealPath const& realPath, bool mustExist) {
  if (!hasDotComponents(path)) return path;
  return resolvedByPrefix(path, realPath, mustExist);
}

std::optional<std::string> canonical(std::string const& path, RealPath const& realPath) {
  auto out = resolvedByPrefix(path, realPath, false);
  if (out && out->size() > 1 && out->ends_with('/')) out->pop_back();
  return out;
}

namespace {

std::optional<std::string> resolvedByPrefix(std::string const& path, RealPath const& realPath, bool mustExist) {
  auto const parts = components(path);
  if (parts.empty()) {
    auto real = realPath(path.starts_with('/') ? "/" : ".");
    return real;
  }
  bool const absolute = path.starts_with('/');
  bool const contents = path.ends_with('/') || parts.back() == "." || parts.back() == "..";
  std::size_t const shortest = mustExist ? parts.size() : 0;
  for (std::size_t k = parts.size() + 1; k-- > shortest;) {
    if (k == 0 && absolute) {
      // The root always resolves to itself.
      auto out = normalized(path);
      if (contents && !out.ends_with('/')) out += '/';
      return out;
    }
    auto const prefix = k == 0 ? std::string(".") : joinedParts(parts, 0, k, absolute);
    auto const real = realPath(prefix);
    if (!real) continue;
    auto out = normalized(*real + "/" + joinedParts(parts, k, parts.size(), false));
    if (contents && !out.ends_with('/')) out += '/';
    return out;
  }
  return std::nullopt;
}

}  // namespace

bool overlaps(std::string_view source, std::string_view destination) noexcept {
  return source == destination || strictlyBelow(source, destination);
}

bool loopbackPeer(std::string_view peer) noexcept {
  auto const at = peer.find('@');
  auto const colon = peer.rfind(':');
  if (colon == std::string_view::npos || (at != std::string_view::npos && colon < at)) return false;
  auto host =
      peer.substr(at == std::string_view::npos ? 0 : at + 1, colon - (at == std::string_view::npos ? 0 : at + 1));
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  return host == "localhost" || host == "::1" || host == "ip6-localhost" || host.starts_with("127.");
}

bool strictlyBelow(std::string_view root, std::string_view path) noexcept {
  while (root.size() > 1 && root.ends_with('/')) root.remove_suffix(1);
  if (root == "/") return path.size() > 1 && path.starts_with('/');
  return path.size() > root.size() + 1 && path.starts_with(root) && path[root.size()] == '/';
}

}  // namespace foundation::sshclient::internal::transfer
