#include "tools/sshfa/TransferRules.hpp"

#include <cctype>
#include <cmath>
#include <limits>

#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/RemoteOperand.hpp"

namespace sshfa::cli {
namespace {

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string baseName(std::string const& path) {
  auto const trimmed = withoutTrailingSlashes(path);
  auto const slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

// "[USER@]HOST:" of a remote operand as typed; "" for a local one.
std::string remotePrefix(std::string const& operand) {
  auto const remote = parseRemoteOperand(operand);
  if (!remote) return {};
  // The path is the text after the colon, but for "host:" (the login folder, ".").
  auto const typedPath = operand.back() == ':' ? std::size_t{0} : remote->path.size();
  return operand.substr(0, operand.size() - typedPath);
}

// The operand's path without its "HOST:".
std::string pathOf(std::string const& operand) { return operand.substr(remotePrefix(operand).size()); }

// The operand's parent folder with a trailing '/', in the operand's form
// ("box:/srv/www/site" -> "box:/srv/www/", "site" -> "./").
std::string parentForm(std::string const& operand) {
  auto const path = withoutTrailingSlashes(pathOf(operand));
  auto const slash = path.rfind('/');
  return remotePrefix(operand) + (slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1));
}

}  // namespace

std::optional<std::uint64_t> parseRate(std::string_view text) {
  std::size_t digits = 0;
  while (digits < text.size() && (std::isdigit(static_cast<unsigned char>(text[digits])) != 0 || text[digits] == '.')) {
    ++digits;
  }
  if (digits == 0) return std::nullopt;
  double value = 0;
  try {
    std::size_t used = 0;
    value = std::stod(std::string(text.substr(0, digits)), &used);
    if (used != digits) return std::nullopt;
  } catch (std::exception const&) {
    return std::nullopt;
  }
  auto unit = std::string(text.substr(digits));
  for (char& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  double scale = 1;
  if (!unit.empty() && unit != "B") {
    auto const prefix = std::string_view("KMGT").find(unit.front());
    auto const rest = unit.substr(1);
    if (prefix == std::string_view::npos || (!rest.empty() && rest != "I" && rest != "B" && rest != "IB")) {
      return std::nullopt;
    }
    scale = std::pow(1024.0, static_cast<double>(prefix + 1));
  }
  double const rate = std::floor(value * scale);
  if (rate < 1 || rate > static_cast<double>(std::numeric_limits<std::uint64_t>::max() / 2)) return std::nullopt;
  return static_cast<std::uint64_t>(rate);
}

std::string homeRelative(std::string const& command, std::string const& path) {
  if (path == "~" || path == "~/") return ".";
  if (path.starts_with("~/")) return path.substr(2);
  if (path.starts_with("~")) {
    throw UsageError(command + ": '" + path +
                     "' names another user's login folder, which SFTP cannot reach by name; write its full path");
  }
  return path;
}

bool syncUploads(std::vector<std::string> const& operands) {
  if (operands.size() != 2) throw UsageError("sync takes SOURCE DESTINATION (one of them HOST:PATH)");
  bool const fromRemote = parseRemoteOperand(operands[0]).has_value();
  bool const toRemote = parseRemoteOperand(operands[1]).has_value();
  if (fromRemote == toRemote) {
    throw UsageError(fromRemote ? "sync: '" + operands[0] + "' and '" + operands[1] +
                                      "' are both remote; sync copies between this machine and the remote host"
                                : "sync: name the remote side as HOST:PATH (sshfa sync ./site host:/srv/www/site); "
                                  "a local name with a colon is written ./a:b");
  }
  return toRemote;
}

void refuseWholeFolderDestination(std::string const& path, std::string const& typed, std::string const& source,
                                  bool remote) {
  auto const trimmed = withoutTrailingSlashes(path);
  bool const home = remote && (trimmed == "." || trimmed.empty());
  bool const root = trimmed == "/";
  if (!home && !root) return;
  auto name = baseName(pathOf(source));
  if (name.empty() || name == "." || name == ".." || name == "/") name = "NAME";
  throw UsageError("sync: '" + typed + "' names " + (home ? "the login folder" : "the root folder") +
                   " itself, which sync would make a copy of '" + source +
                   "' (removing, with --delete, all else in "
                   "it); name the copy: '" +
                   (parseRemoteOperand(typed) ? typed.substr(0, typed.find(':') + 1) : "") + (root ? "/" : "") + name +
                   "'");
}

bool nestsUnderItsOwnName(std::string const& source, std::string const& destination) {
  if (destination.empty() || destination.back() == '/') return false;
  auto const name = baseName(source);
  return !name.empty() && name != "." && name != ".." && name != "/" && name == baseName(destination);
}

std::string nestingNote(std::string const& command, std::string const& source, std::string const& destination) {
  auto const name = baseName(pathOf(source));
  auto const path = pathOf(destination);
  return command + ": '" + destination + "' is a folder already, so '" + name + "' goes into it as '" + path + "/" +
         name + "', as cp and scp do; to update '" + destination + "' itself, run 'sshfa sync " + source + " " +
         destination + "' or 'sshfa " + command + " " + source + " " + parentForm(destination) +
         "' (its parent, with a " + "trailing /); either repeats exactly";
}

}  // namespace sshfa::cli
