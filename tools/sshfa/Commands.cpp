#include "tools/sshfa/Commands.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdio>
#include <functional>
#include <map>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "tools/sshfa/Text.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
using fl::ustring;
using PathList = sfa::FileAccessInterface::PathList;
using PathPairs = sfa::FileAccessInterface::PathPairs;

std::string shown(ustring const& text) { return forStream(STDOUT_FILENO, text); }

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

int answerList(FileCommand const& command, std::vector<ustring> const& entries) {
  std::string out;
  std::vector<std::string> elements;
  for (auto const& entry : entries) {
    if (command.json) {
      elements.push_back(jsonString(entry));
    } else {
      out += shown(entry) + "\n";
    }
  }
  writeTo(stdout, command.json ? jsonArray(elements) : out);
  return 0;
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
int answerStat(FileCommand const& command, PathList const& paths,
               std::vector<std::optional<sfa::FileInfo>> const& infos) {
  std::string out;
  std::vector<std::string> elements;
  int status = 0;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    auto const& info = infos[i];
    if (!info) {
      status = 1;
      writeTo(stderr,
              fmt::format("sshfa: cannot stat '{}': No such file or directory\n", forStream(STDERR_FILENO, paths[i])));
    }
    bool const timed = info && !info->lastWriteTime.is_special();
    if (command.json) {
      if (!info) {
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

using Handler = std::function<int(sfa::FileAccessInterface&, FileCommand const&)>;

std::map<std::string, Handler> const& handlers() {
  static std::map<std::string, Handler> const table{
      {"exists",
       [](auto& side, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerBools(c, "exists", paths, side.exists(paths));
       }},
      {"isfile",
       [](auto& side, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerBools(c, "isFile", paths, side.isFile(paths));
       }},
      {"isdir",
       [](auto& side, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerBools(c, "isDir", paths, side.isDir(paths));
       }},
      {"parent",
       [](auto& side, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerParents(c, paths, side.parent(paths));
       }},
      {"ls",
       [](auto& side, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerList(c, c.recursive ? side.listRecursively(paths) : side.list(paths));
       }},
      {"stat",
       [](auto& side, auto const& c) {
         auto const paths = toPaths(c.args);
         return answerStat(c, paths, side.getFileInfo(paths));
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
         auto const paths = toPaths(c.args);
         side.tar(paths[0], paths[1]);
         return 0;
       }},
      {"zip",
       [](auto& side, auto const& c) {
         requireArgs(c, 2, "SOURCE ARCHIVE");
         auto const paths = toPaths(c.args);
         side.zip(paths[0], paths[1]);
         return 0;
       }},
      {"untar",
       [](auto& side, auto const& c) {
         requireArgs(c, 2, "ARCHIVE FOLDER");
         auto const paths = toPaths(c.args);
         side.untar(paths[0], paths[1]);
         return 0;
       }},
      {"unzip",
       [](auto& side, auto const& c) {
         requireArgs(c, 2, "ARCHIVE FOLDER");
         auto const paths = toPaths(c.args);
         side.unzip(paths[0], paths[1]);
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

bool isFileCommand(std::string const& name) { return handlers().count(name) != 0; }

int runFileCommand(sfa::FileAccessInterface& side, FileCommand const& command) {
  return handlers().at(command.name)(side, command);
}

int runExec(sfa::FileAccess& access, std::vector<std::string> const& words, bool json) {
  std::string command;
  for (auto const& word : words) command += (command.empty() ? "" : " ") + word;
  auto const result = access.remoteExecute(fl::i18n::utf8_to_ustring(command));
  if (json) {
    writeTo(stdout, fmt::format("{{\"exitCode\": {}, \"stdout\": {}, \"stderr\": {}}}\n", result.getExitcode(),
                                jsonString(result.getStdout()), jsonString(result.getStderr())));
  } else {
    writeTo(stdout, raw(result.getStdout()));
    writeTo(stderr, raw(result.getStderr()));
  }
  return std::clamp(result.getExitcode(), 0, 255);
}

}  // namespace sshfa::cli
