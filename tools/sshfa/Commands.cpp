#include "tools/sshfa/Commands.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cerrno>
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

// A JSON array with one element per line.
std::string jsonArray(std::vector<std::string> const& elements) {
  if (elements.empty()) return "[]\n";
  std::string out = "[\n";
  for (std::size_t i = 0; i < elements.size(); ++i) {
    out += "  " + elements[i] + (i + 1 < elements.size() ? ",\n" : "\n");
  }
  return out + "]\n";
}

int answerBools(FileCommand const& command, std::string const& key, PathList const& paths,
                std::vector<bool> const& answers) {
  std::string out;
  std::vector<std::string> elements;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (command.json) {
      elements.push_back(fmt::format("{{\"path\": {}, \"{}\": {}}}", jsonString(paths[i]), key, answers[i]));
    } else if (paths.size() == 1) {
      out += fmt::format("{}\n", answers[i]);
    } else {
      out += fmt::format("{}\t{}\n", answers[i], shown(paths[i]));
    }
  }
  writeTo(stdout, command.json ? jsonArray(elements) : out);
  return 0;
}

int answerParents(FileCommand const& command, PathList const& paths, std::vector<ustring> const& parents) {
  std::string out;
  std::vector<std::string> elements;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (command.json) {
      elements.push_back(fmt::format("{{\"path\": {}, \"parent\": {}}}", jsonString(paths[i]), jsonString(parents[i])));
    } else {
      out += shown(parents[i]) + "\n";
    }
  }
  writeTo(stdout, command.json ? jsonArray(elements) : out);
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
// left out, are reported and make the status 1.
int answerList(FileCommand const& command, ListAnswer const& answer) {
  reportMissing(answer.missing, "access");
  std::string warnings;
  for (auto const& line : answer.warnings) warnings += "sshfa: " + forStream(STDERR_FILENO, line) + "\n";
  writeTo(stderr, warnings);
  std::string out;
  std::vector<std::string> elements;
  for (auto const& entry : answer.entries) {
    if (command.json) {
      elements.push_back(jsonString(entry));
    } else {
      out += shown(entry) + "\n";
    }
  }
  writeTo(stdout, command.json ? jsonArray(elements) : out);
  return answer.missing.empty() && answer.warnings.empty() ? 0 : 1;
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
int answerStat(FileCommand const& command, PathList const& paths, StatAnswer const& answer) {
  std::string out;
  std::vector<std::string> elements;
  int status = 0;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    auto const& info = answer.infos[i];
    auto const& error = answer.errors[i];
    if (!info) {
      status = 1;
      writeTo(stderr, fmt::format("sshfa: cannot stat '{}': {}\n", forStream(STDERR_FILENO, paths[i]),
                                  error.empty() ? "No such file or directory" : forStream(STDERR_FILENO, error)));
    }
    bool const timed = info && !info->lastWriteTime.is_special();
    if (command.json) {
      if (!info && !error.empty()) {
        elements.push_back(fmt::format("{{\"path\": {}, \"error\": {}}}", jsonString(paths[i]), jsonString(error)));
      } else if (!info) {
        elements.push_back(fmt::format("{{\"path\": {}, \"exists\": false}}", jsonString(paths[i])));
      } else if (timed) {
        elements.push_back(fmt::format(
            "{{\"path\": {}, \"exists\": true, \"size\": {}, \"mtime\": \"{}\", "
            "\"mtimeEpoch\": {}}}",
            jsonString(paths[i]), info->size, isoTime(info->lastWriteTime), epochSeconds(info->lastWriteTime)));
      } else {
        elements.push_back(
            fmt::format("{{\"path\": {}, \"exists\": true, \"size\": {}, \"mtime\": null, "
                        "\"mtimeEpoch\": null}}",
                        jsonString(paths[i]), info->size));
      }
    } else if (info) {
      out += fmt::format("{}\t{}\t{}\n", info->size, timed ? isoTime(info->lastWriteTime) : "-", shown(paths[i]));
    }
  }
  writeTo(stdout, command.json ? jsonArray(elements) : out);
  return status;
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

std::map<std::string, Query> const& queries() {
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

using Handler = std::function<int(sfa::FileAccessInterface&, FileCommand const&)>;

std::map<std::string, Handler> const& handlers() {
  static std::map<std::string, Handler> const table{
      {"parent",
       [](auto& side, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerParents(c, paths, side.parent(paths));
       }},
      {"touch",
       [](auto& side, auto const& c) {
         side.touch(toPaths(c.args));
         return 0;
       }},
      {"rm",
       [](auto& side, auto const& c) {
         side.remove(toPaths(c.args));
         return 0;
       }},
      {"mkdir",
       [](auto& side, auto const& c) {
         side.makeDir(toPaths(c.args));
         return 0;
       }},
      {"cp",
       [](auto& side, auto const& c) {
         side.copy(toPairs(c.name, c.args));
         return 0;
       }},
      {"mv",
       [](auto& side, auto const& c) {
         side.move(toPairs(c.name, c.args));
         return 0;
       }},
      {"tar",
       [](auto& side, auto const& c) {
         requireArgs(c, 2, "SOURCE ARCHIVE");
         refuseCompressedName(c);
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { packTar(side, from, to); });
         return 0;
       }},
      {"zip",
       [](auto& side, auto const& c) {
         requireArgs(c, 2, "SOURCE ARCHIVE");
         refuseCompressedName(c);
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { packZip(side, from, to); });
         return 0;
       }},
      {"untar",
       [](auto& side, auto const& c) {
         requireArgs(c, 2, "ARCHIVE FOLDER");
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { side.untar(from, to); });
         return 0;
       }},
      {"unzip",
       [](auto& side, auto const& c) {
         requireArgs(c, 2, "ARCHIVE FOLDER");
         archiveCommand(side, c, [&side](auto const& from, auto const& to) { unpackZip(side, from, to); });
         return 0;
       }},
  };
  return table;
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

bool isFileCommand(std::string const& name) { return handlers().count(name) != 0 || queries().count(name) != 0; }

int runFileCommand(sfa::FileAccessInterface& side, FileCommand const& command) {
  if (auto const query = queries().find(command.name); query != queries().end()) {
    return query->second(*queriesOf(side), command);
  }
  return handlers().at(command.name)(side, command);
}

int runRemoteFileCommand(sfa::FileAccess& access, FileCommand const& command) {
  if (auto const query = queries().find(command.name); query != queries().end()) {
    return query->second(*queriesOf(access.sftp()), command);
  }
  return runFileCommand(*access.remote(), command);
}

int runExec(sfa::FileAccess& access, std::vector<std::string> const& words, bool json, bool noInput) {
  std::string command;
  for (auto const& word : words) command += (command.empty() ? "" : " ") + word;
  if (json) {
    auto const result = access.remoteExecute(fl::i18n::utf8_to_ustring(command));
    writeTo(stdout, fmt::format("{{\"exitCode\": {}, \"stdout\": {}, \"stderr\": {}}}\n", result.getExitcode(),
                                jsonString(result.getStdout()), jsonString(result.getStderr())));
    return std::clamp(result.getExitcode(), 0, 255);
  }
  InterruptGuard const guard;
  foundation::sshclient::CommandStreams streams;
  streams.out = [](std::string_view text) { writeFully(STDOUT_FILENO, text); };
  streams.err = [](std::string_view text) { writeFully(STDERR_FILENO, text); };
  streams.inputFd = noInput ? -1 : STDIN_FILENO;
  streams.stopRequested = [] { return pendingInterrupt() != 0; };
  int const status = access.remoteExecuteStreaming(fl::i18n::utf8_to_ustring(command), streams);
  throwIfInterrupted();
  return std::clamp(status, 0, 255);
}

}  // namespace sshfa::cli
