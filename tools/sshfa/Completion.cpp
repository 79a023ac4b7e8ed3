#include "tools/sshfa/Completion.hpp"

#include <algorithm>
#include <cstdio>

#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/RemoteOperand.hpp"

namespace sshfa::cli {
namespace {

namespace ssh = foundation::sshclient;

// A completion must come at once or not at all.
constexpr std::chrono::seconds kPatience{1};

}  // namespace

std::string completionFolder(std::string const& typed) {
  auto const slash = typed.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : typed.substr(0, slash);
}

std::vector<std::string> completionsFor(std::string const& typed, std::vector<Candidate> const& entries) {
  auto const slash = typed.rfind('/');
  auto const folder = slash == std::string::npos ? std::string() : typed.substr(0, slash + 1);
  auto const start = typed.substr(folder.size());
  std::vector<std::string> out;
  for (auto const& entry : entries) {
    if (entry.name == "." || entry.name == ".." || entry.name.find('\n') != std::string::npos) continue;
    if (!entry.name.starts_with(start) || (entry.name.starts_with('.') && !start.starts_with('.'))) continue;
    out.push_back(folder + entry.name + (entry.folder ? "/" : ""));
  }
  std::sort(out.begin(), out.end());
  return out;
}

int completeRemote(ConnectionSettings settings, std::string const& word) {
  auto const remote = parseRemoteOperand(word);
  if (!remote) return 1;
  settings.host = remote->host;
  if (!remote->user.empty()) settings.user = remote->user;
  settings.batch = true;
  settings.connectTimeout = kPatience;
  settings.verbose = false;
  // The text after the colon, as typed ("host:" alone is the login folder).
  auto const typed = word.back() == ':' ? std::string() : remote->path;
  ProgressRouter progress;
  auto const access = connect(settings, progress);
  // "~/" is the login folder, where SFTP's relative paths start.
  auto const folder = completionFolder(typed.starts_with("~/") ? typed.substr(2) : typed);
  auto const listing = access->sftp().list({folder}).front();
  std::vector<Candidate> entries;
  for (auto const& entry : listing.entries) entries.push_back({entry.name, entry.status.kind == ssh::FileKind::Folder});
  std::string out;
  auto const prefix = word.substr(0, word.size() - typed.size());
  for (auto const& candidate : completionsFor(typed, entries)) out += prefix + candidate + "\n";
  writeTo(stdout, out);
  return 0;
}

}  // namespace sshfa::cli
