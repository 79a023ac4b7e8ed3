#include "tools/sshfa/Commands.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <string_view>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/LocalFileAccess.hpp"
#include "sshfileaccess/UnixSSHFileAccess.hpp"
#include "sshfileaccess/platform/filesystem/Path.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Json.hpp"
#include "tools/sshfa/Queries.hpp"
#include "tools/sshfa/RemoteArchive.hpp"
#include "tools/sshfa/Text.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
using fl::ustring;
using PathList = sfa::FileAccessInterface::PathList;
using PathPairs = sfa::FileAccessInterface::PathPairs;

std::string shown(ustring const& text) { return forStream(STDOUT_FILENO, text); }

// Unbuffered: a streamed command's output is seen as it arrives.
void writeFully(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t const n = ::write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      throw std::runtime_error(fmt::format(
          "cannot write to {}: {}", fd == STDOUT_FILENO ? "standard output" : "standard error", std::strerror(errno)));
    }
    text.remove_prefix(static_cast<std::size_t>(n));
  }
}

PathList toPaths(std::vector<std::string> const& args) {
  PathList paths;
  paths.reserve(args.size());
  for (auto const& arg : args) paths.push_back(fl::i18n::utf8_to_ustring(arg));
  return paths;
}

// The answer of a command: plain text, or its one JSON document.
void answer(FileCommand const& command, std::string const& plain, Json const& json) {
  writeTo(stdout, command.json ? document(json) : plain);
}

// As test(1) does: the status is 1 when any answer is false.
int answerBools(FileCommand const& command, std::string const& key, PathList const& paths,
                std::vector<bool> const& answers) {
  std::string out;
  Json json = Json::array();
  for (std::size_t i = 0; i < paths.size(); ++i) {
    bool const yes = answers[i];
    json.push_back({{"path", jsonName(paths[i])}, {key, yes}});
    out += paths.size() == 1 ? fmt::format("{}\n", yes) : fmt::format("{}\t{}\n", yes, shown(paths[i]));
  }
  answer(command, out, json);
  return std::all_of(answers.begin(), answers.end(), [](bool yes) { return yes; }) ? 0 : 1;
}

int answerParents(FileCommand const& command, PathList const& paths, std::vector<ustring> const& parents) {
  std::string out;
  Json json = Json::array();
  for (std::size_t i = 0; i < paths.size(); ++i) {
    json.push_back({{"path", jsonName(paths[i])}, {"parent", jsonName(parents[i])}});
    out += shown(parents[i]) + "\n";
  }
  answer(command, out, json);
  return 0;
}

void reportMissing(PathList const& paths, char const* verb) {
  std::string text;
  for (auto const& path : paths) {
    text += fmt::format("sshfa: cannot {} '{}': No such file or directory\n", verb, forStream(STDERR_FILENO, path));
  }
  writeTo(stderr, text);
}

// Like ls: a file as itself, a folder by its entries (files first, then the
// folders' entries, each in the order given); a missing path, and a name
// left out, are reported (in the JSON answer too) and make the status 1.
int answerList(FileCommand const& command, ListAnswer const& listed) {
  reportMissing(listed.missing, "access");
  std::string warnings;
  Json leftOut = Json::array();
  for (auto const& line : listed.warnings) {
    warnings += "sshfa: " + forStream(STDERR_FILENO, line) + "\n";
    leftOut.push_back(line);
  }
  writeTo(stderr, warnings);
  std::string out;
  for (auto const& entry : listed.entries) out += shown(entry) + "\n";
  answer(command, out,
         {{"entries", jsonNames(listed.entries)}, {"missing", jsonNames(listed.missing)}, {"warnings", leftOut}});
  return listed.missing.empty() && listed.warnings.empty() ? 0 : 1;
}

std::string isoTime(boost::posix_time::ptime const& time) {
  return boost::posix_time::to_iso_extended_string(time) + "Z";
}

long long epochSeconds(boost::posix_time::ptime const& time) {
  static boost::posix_time::ptime const kEpoch(boost::gregorian::date(1970, 1, 1));
  return (time - kEpoch).total_seconds();
}

// Missing paths are reported on standard error and make the status 1; the
// others are still answered.
int answerStat(FileCommand const& command, PathList const& paths, StatAnswer const& stated) {
  std::string out;
  Json json = Json::array();
  int status = 0;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    auto const& info = stated.infos[i];
    auto const& error = stated.errors[i];
    Json element{{"path", jsonName(paths[i])}};
    if (!info) {
      status = 1;
      writeTo(stderr, fmt::format("sshfa: cannot stat '{}': {}\n", forStream(STDERR_FILENO, paths[i]),
                                  error.empty() ? "No such file or directory" : forStream(STDERR_FILENO, error)));
      if (error.empty()) {
        element["exists"] = false;
      } else {
        element["error"] = error;
      }
      json.push_back(std::move(element));
      continue;
    }
    bool const timed = !info->lastWriteTime.is_special();
    element["exists"] = true;
    element["size"] = info->size;
    element["mtime"] = timed ? Json(isoTime(info->lastWriteTime)) : Json();
    element["mtimeEpoch"] = timed ? Json(epochSeconds(info->lastWriteTime)) : Json();
    json.push_back(std::move(element));
    out += fmt::format("{}\t{}\t{}\n", info->size, timed ? isoTime(info->lastWriteTime) : "-", shown(paths[i]));
  }
  answer(command, out, json);
  return status;
}

// The paths that were there before a mutation under `there`, the others
// under `absent`: one more round trip, asked for a JSON answer only.
Json byPresence(Queries& queries, FileCommand const& command, PathList const& paths, char const* there,
                char const* absent) {
  if (!command.json) return {};
  auto const present = queries.present(paths);
  Json json{{there, Json::array()}, {absent, Json::array()}};
  for (std::size_t i = 0; i < paths.size(); ++i) json[present[i] ? there : absent].push_back(jsonName(paths[i]));
  return json;
}

Json pairsOf(PathPairs const& pairs) {
  Json json = Json::array();
  for (auto const& [source, destination] : pairs) {
    json.push_back({{"source", jsonName(source)}, {"destination", jsonName(destination)}});
  }
  return json;
}

void requireArgs(FileCommand const& command, std::size_t count, char const* usage) {
  if (command.args.size() != count) throw UsageError(fmt::format("usage: {} {}", command.name, usage));
}

bool endsWith(std::string const& text, std::string_view suffix) {
  if (text.size() < suffix.size()) return false;
  for (std::size_t i = 0; i < suffix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[text.size() - suffix.size() + i])) != suffix[i]) return false;
  }
  return true;
}

// tar and zip write their format uncompressed; a name that promises
// compression would be a lie that only shows when it is unpacked elsewhere.
void refuseCompressedName(FileCommand const& command) {
  static constexpr std::array<std::string_view, 17> kCompressed{".gz",  ".tgz",  ".taz",  ".z",   ".xz",  ".txz",
                                                                ".bz2", ".tbz",  ".tbz2", ".tb2", ".zst", ".tzst",
                                                                ".lz",  ".lzma", ".tlz",  ".lz4", ".br"};
  std::string const& archive = command.args[1];
  for (auto const suffix : kCompressed) {
    if (endsWith(archive, suffix)) {
      throw UsageError(fmt::format(
          "{}: '{}' names a compressed archive, but {} writes it uncompressed; give a name ending in .{} and "
          "compress it afterwards (for example: sshfa exec gzip FILE)",
          command.name, archive, command.name, command.name));
    }
  }
  if (command.name == "zip" && endsWith(archive, ".tar")) {
    throw UsageError(fmt::format("zip: '{}' names a tar archive, but zip writes zip archives; use tar", archive));
  }
}

// Runs an archive command; when it fails, finds the cause the tool can name
// (a missing source or archive, a destination that is no folder) with one
// more round trip, and otherwise passes the failure on.
void archiveCommand(sfa::FileAccessInterface& side, FileCommand const& command,
                    std::function<void(ustring const&, ustring const&)> const& run) {
  auto const paths = toPaths(command.args);
  bool const packs = command.name == "tar" || command.name == "zip";
  try {
    run(paths[0], paths[1]);
  } catch (sfa::FileAccessException const& e) {
    bool const found = side.exists(paths[0]);
    std::string const source = forStream(STDERR_FILENO, paths[0]);
    std::string const target = forStream(STDERR_FILENO, paths[1]);
    if (!found) {
      throw sfa::FileAccessException(
          fmt::format("cannot {} '{}': No such file or directory", packs ? "pack" : "unpack", source), e.code());
    }
    if (!packs && !side.isDir(paths[1])) {
      throw sfa::FileAccessException(fmt::format("cannot unpack '{}' into '{}': no such folder", source, target),
                                     e.code());
    }
    throw;
  }
}

// The queries: answered from Queries, which the side chooses.
using Query = std::function<int(Queries&, FileCommand const&)>;

std::map<std::string, Query> const& queryTable() {
  static std::map<std::string, Query> const table{
      {"exists",
       [](auto& q, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerBools(c, "exists", paths, q.exists(paths));
       }},
      {"isfile",
       [](auto& q, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerBools(c, "isFile", paths, q.isFile(paths));
       }},
      {"isdir",
       [](auto& q, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerBools(c, "isDir", paths, q.isDir(paths));
       }},
      {"ls", [](auto& q, auto const& c) { return answerList(c, q.list(toPaths(c.args), c.recursive)); }},
      {"stat",
       [](auto& q, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerStat(c, paths, q.stat(paths));
       }},
  };
  return table;
}

// The tool's archives keep what a tree is on both sides: links as links,
// empty folders, modes and times. Locally that is archiveTree; with the
// shell backend the library's tar, and zip with -y (the SFTP backend refuses
// both with its own message).
void packTar(sfa::FileAccessInterface& side, ustring const& source, ustring const& archive) {
  if (auto* local = dynamic_cast<sfa::LocalFileAccess*>(&side)) {
    local->archiveTree(source, archive, u"tar");
  } else {
    side.tar(source, archive);
  }
}

void packZip(sfa::FileAccessInterface& side, ustring const& source, ustring const& archive) {
  if (auto* local = dynamic_cast<sfa::LocalFileAccess*>(&side)) {
    local->archiveTree(source, archive, u"zip");
  } else if (auto* remote = dynamic_cast<sfa::UnixSSHFileAccess*>(&side)) {
    remote->executeExpectNoError(
        zipLine(side.parent(source), fl::filesystem::detail::extract_filename(source), archive));
  } else {
    side.zip(source, archive);
  }
}

// unzip replaces what the destination holds, as untar does: the local side
// always does, the shell backend with the tool's own line.
void unpackZip(sfa::FileAccessInterface& side, ustring const& archive, ustring const& folder) {
  if (auto* remote = dynamic_cast<sfa::UnixSSHFileAccess*>(&side)) {
    remote->executeExpectNoError(unzipLine(archive, folder));
  } else {
    side.unzip(archive, folder);
  }
}

// The mutations and parent: done on the side, with its queries at hand for
// what a JSON answer reports.
using Handler = std::function<int(sfa::FileAccessInterface&, Queries&, FileCommand const&)>;

// {"packed": SOURCE, "archive": ARCHIVE} or {"unpacked": ARCHIVE, "folder": FOLDER}.
int archived(FileCommand const& command, char const* first, char const* second) {
  auto const paths = toPaths(command.args);
  answer(command, "", {{first, jsonName(paths[0])}, {second, jsonName(paths[1])}});
  return 0;
}

std::map<std::string, Handler> const& handlerTable() {
  static std::map<std::string, Handler> const table{
      {"parent",
       [](auto& side, auto& /*queries*/, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerParents(c, paths, side.parent(paths));
       }},
      {"touch",
       [](auto& side, auto& /*queries*/, auto const& c) {
         auto const paths = toPaths(c.args);
         side.touch(paths);
         answer(c, "", {{"touched", jsonNames(paths)}});
         return 0;
       }},
      // A missing path is no failure, as with rm -f.
      {"rm",
       [](auto& side, auto& queries, auto const& c) {
         auto const paths = toPaths(c.args);
         Json const done = byPresence(queries, c, paths, "removed", "missing");
         side.remove(paths);
         answer(c, "", done);
         return 0;
       }},
      {"mkdir",
       [](auto& side, auto& queries, auto const& c) {
         auto const paths = toPaths(c.args);
         Json const before = byPresence(queries, c, paths, "existing", "made");
         side.makeDir(paths);
         answer(c, "", before.is_null() ? before : Json{{"made", before["made"]}, {"existing", before["existing"]}});
         return 0;
       }},
      {"cp",
       [](auto& side, auto& /*queries*/, auto const& c) {
         auto const pairs = toPairs(c.name, c.args);
         side.copy(pairs);
         answer(c, "", {{"copied", pairsOf(pairs)}});
         return 0;
       }},
      {"mv",
       [](auto& side, auto& /*queries*/, auto const& c) {
         auto const pairs = toPairs(c.name, c.args);
         side.move(pairs);
         answer(c, "", {{"moved", pairsOf(pairs)}});
         return 0;
       }},
      {"tar",
       [](auto& side, auto& /*queries*/, auto const& c) {
         requireArgs(c, 2, "SOURCE ARCHIVE");
         refuseCompressedName(c);
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { packTar(side, from, to); });
         return archived(c, "packed", "archive");
       }},
      {"zip",
       [](auto& side, auto& /*queries*/, auto const& c) {
         requireArgs(c, 2, "SOURCE ARCHIVE");
         refuseCompressedName(c);
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { packZip(side, from, to); });
         return archived(c, "packed", "archive");
       }},
      {"untar",
       [](auto& side, auto& /*queries*/, auto const& c) {
         requireArgs(c, 2, "ARCHIVE FOLDER");
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { side.untar(from, to); });
         return archived(c, "unpacked", "folder");
       }},
      {"unzip",
       [](auto& side, auto& /*queries*/, auto const& c) {
         requireArgs(c, 2, "ARCHIVE FOLDER");
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { unpackZip(side, from, to); });
         return archived(c, "unpacked", "folder");
       }},
  };
  return table;
}

int run(sfa::FileAccessInterface& side, Queries& queries, FileCommand const& command) {
  if (auto const query = queryTable().find(command.name); query != queryTable().end()) {
    return query->second(queries, command);
  }
  return handlerTable().at(command.name)(side, queries, command);
}

}  // namespace

void writeTo(std::FILE* stream, std::string const& text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

sfa::FileAccessInterface::PathPairs toPairs(std::string const& name, std::vector<std::string> const& args) {
  if (args.empty() || args.size() % 2 != 0) {
    throw UsageError(fmt::format("{} takes pairs: SOURCE DESTINATION [SOURCE DESTINATION ...]", name));
  }
  PathPairs pairs;
  pairs.reserve(args.size() / 2);
  for (std::size_t i = 0; i < args.size(); i += 2) {
    pairs.emplace_back(fl::i18n::utf8_to_ustring(args[i]), fl::i18n::utf8_to_ustring(args[i + 1]));
  }
  return pairs;
}

bool isFileCommand(std::string const& name) { return handlerTable().count(name) != 0 || queryTable().count(name) != 0; }

int runFileCommand(sfa::FileAccessInterface& side, FileCommand const& command) {
  return run(side, *queriesOf(side), command);
}

// The queries ask over SFTP alone: remote() would find out about the shell first.
int runRemoteFileCommand(sfa::FileAccess& access, FileCommand const& command) {
  auto const queries = queriesOf(access.sftp());
  if (auto const query = queryTable().find(command.name); query != queryTable().end()) {
    return query->second(*queries, command);
  }
  return handlerTable().at(command.name)(*access.remote(), *queries, command);
}

int runExec(sfa::FileAccess& access, std::vector<std::string> const& words, bool json, bool noInput) {
  std::string command;
  for (auto const& word : words) command += (command.empty() ? "" : " ") + word;
  InterruptGuard const guard;
  foundation::sshclient::CommandStreams streams;
  // With --json the output is kept for the one answer; otherwise it is shown as it comes.
  std::string out;
  std::string err;
  if (json) {
    streams.out = [&out](std::string_view text) { out += text; };
    streams.err = [&err](std::string_view text) { err += text; };
  } else {
    streams.out = [](std::string_view text) { writeFully(STDOUT_FILENO, text); };
    streams.err = [](std::string_view text) { writeFully(STDERR_FILENO, text); };
  }
  streams.inputFd = noInput ? -1 : STDIN_FILENO;
  streams.stopRequested = [] { return pendingInterrupt() != 0; };
  streams.signalled = [](int signalNumber) { writeTo(stderr, stopNotice(signalNumber)); };
  int const status = access.remoteExecuteStreaming(fl::i18n::utf8_to_ustring(command), streams);
  throwIfInterrupted();
  if (json) {
    writeTo(stdout, document({{"exitCode", status}, {"stdout", out}, {"stderr", err}}));
  }
  return std::clamp(status, 0, 255);
}

std::string stopNotice(int signalNumber) {
  switch (signalNumber) {
    case SIGINT:
      return "sshfa: exec: stopping the remote command: SIGINT\n";
    case SIGTERM:
      return "sshfa: exec: the remote command still runs 2 s after SIGINT: SIGTERM\n";
    default:
      return "sshfa: exec: the remote command still runs 2 s after SIGTERM: SIGKILL\n";
  }
}

}  // namespace sshfa::cli
