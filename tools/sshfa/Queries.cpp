#include "tools/sshfa/Queries.hpp"

#include <algorithm>
#include <boost/date_time/posix_time/conversion.hpp>
#include <ctime>
#include <filesystem>

#include "sshfileaccess/LocalFileAccess.hpp"
#include "sshfileaccess/Utils.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
namespace ssh = foundation::sshclient;
using fl::ustring;

std::string bytes(ustring const& text) { return fl::i18n::ustring_to_utf8(text); }
ustring text(std::string const& bytes) { return fl::i18n::utf8_to_ustring(bytes); }

// The list forms of the interface, one call per query.
class InterfaceQueries final : public Queries {
 public:
  explicit InterfaceQueries(sfa::FileAccessInterface& side) : side_(side) {}

  std::vector<bool> exists(PathList const& paths) override { return side_.exists(paths); }
  std::vector<bool> isFile(PathList const& paths) override { return side_.isFile(paths); }
  std::vector<bool> isDir(PathList const& paths) override { return side_.isDir(paths); }

  // A local link is there even when it leads nowhere; another side answers
  // as exists does.
  std::vector<bool> present(PathList const& paths) override {
    if (dynamic_cast<sfa::LocalFileAccess*>(&side_) == nullptr) return side_.exists(paths);
    std::vector<bool> out;
    out.reserve(paths.size());
    for (auto const& path : paths) {
      std::error_code error;
      out.push_back(std::filesystem::exists(std::filesystem::symlink_status(bytes(path), error)));
    }
    return out;
  }

  StatAnswer stat(PathList const& paths) override {
    return {side_.getFileInfo(paths), std::vector<std::string>(paths.size())};
  }

  // Folders cost one round trip, files and missing paths one more.
  ListAnswer list(PathList const& paths, bool recursive) override {
    ListAnswer answer;
    std::vector<bool> const folder = side_.isDir(paths);
    PathList folders;
    PathList others;
    for (std::size_t i = 0; i < paths.size(); ++i) (folder[i] ? folders : others).push_back(paths[i]);
    if (!others.empty()) {
      std::vector<bool> const present = side_.exists(others);
      for (std::size_t i = 0; i < others.size(); ++i)
        (present[i] ? answer.entries : answer.missing).push_back(others[i]);
    }
    if (!folders.empty()) {
      auto listed = recursive ? side_.listRecursively(folders) : side_.list(folders);
      answer.entries.insert(answer.entries.end(), std::make_move_iterator(listed.begin()),
                            std::make_move_iterator(listed.end()));
    }
    return answer;
  }

 private:
  sfa::FileAccessInterface& side_;
};

ssh::SftpFiles::Paths bytesOf(PathList const& paths) {
  ssh::SftpFiles::Paths out;
  out.reserve(paths.size());
  for (auto const& path : paths) out.push_back(bytes(path));
  return out;
}

std::string leftOut(std::string const& folder, std::string const& name) {
  return "'" + folder + "' lists a name that is not a plain name, left out: '" + name + "'";
}

// One batch of SFTP requests per query; names as their bytes.
class SftpQueries final : public Queries {
 public:
  explicit SftpQueries(ssh::SftpFiles& files) : files_(files) {}

  std::vector<bool> exists(PathList const& paths) override {
    return answers(paths, [](ssh::FileStatus const& status) { return status.exists(); });
  }
  std::vector<bool> isFile(PathList const& paths) override {
    return answers(paths, [](ssh::FileStatus const& status) { return status.kind == ssh::FileKind::File; });
  }
  std::vector<bool> isDir(PathList const& paths) override {
    return answers(paths, [](ssh::FileStatus const& status) { return status.kind == ssh::FileKind::Folder; });
  }
  std::vector<bool> present(PathList const& paths) override {
    std::vector<bool> out;
    for (auto const& status : statuses(paths, "lstat")) out.push_back(status.exists());
    return out;
  }

  // A link's own size and time, as the remote stat gives them.
  StatAnswer stat(PathList const& paths) override {
    StatAnswer answer;
    for (auto const& status : statuses(paths, "lstat")) {
      answer.errors.push_back(status.error);
      if (!status.exists()) {
        answer.infos.emplace_back();
        continue;
      }
      answer.infos.emplace_back(
          sfa::FileInfo{paths[answer.infos.size()], status.size,
                        boost::posix_time::from_time_t(static_cast<std::time_t>(status.modified))});
    }
    return answer;
  }

  ListAnswer list(PathList const& paths, bool recursive) override {
    ListAnswer answer;
    auto const kinds = statuses(paths, "stat");
    ssh::SftpFiles::Paths folders;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      if (kinds[i].kind == ssh::FileKind::Folder) {
        folders.push_back(bytes(paths[i]));
      } else {
        (kinds[i].exists() ? answer.entries : answer.missing).push_back(paths[i]);
      }
    }
    if (folders.empty()) return answer;
    trace(recursive ? "walk" : "list", folders);
    if (recursive) {
      listBelow(folders, answer);
    } else {
      listIn(folders, answer);
    }
    return answer;
  }

 private:
  template <class Test>
  std::vector<bool> answers(PathList const& paths, Test test) {
    std::vector<bool> out;
    for (auto const& status : statuses(paths, "stat")) out.push_back(test(status));
    return out;
  }

  std::vector<ssh::FileStatus> statuses(PathList const& paths, char const* request) {
    if (paths.empty()) return {};
    auto const names = bytesOf(paths);
    trace(request, names);
    return request == std::string_view("stat") ? files_.stat(names) : files_.lstat(names);
  }

  // As ls: a folder's entries without the hidden ones, by their names.
  void listIn(ssh::SftpFiles::Paths const& folders, ListAnswer& answer) {
    auto const listings = files_.list(folders);
    for (std::size_t i = 0; i < folders.size(); ++i) {
      auto const& listing = listings[i];
      if (!listing.error.empty()) answer.warnings.push_back(listing.error);
      for (auto const& name : listing.suspectNames) answer.warnings.push_back(leftOut(folders[i], name));
      std::vector<std::string> names;
      for (auto const& entry : listing.entries) {
        if (!entry.name.starts_with('.')) names.push_back(entry.name);
      }
      std::sort(names.begin(), names.end());
      auto const prefix = folders[i].ends_with('/') ? folders[i] : folders[i] + "/";
      for (auto const& name : names) answer.entries.push_back(text(prefix + name));
    }
  }

  // As find -type f: every regular file below, hidden ones too, links not
  // followed below the folder given.
  void listBelow(ssh::SftpFiles::Paths const& folders, ListAnswer& answer) {
    for (auto const& tree : files_.walk(folders, ssh::RootLinks::Followed)) {
      for (auto const& line : tree.unreadable) answer.warnings.push_back(line);
      for (auto const& suspect : tree.suspectNames) answer.warnings.push_back(leftOut(suspect.folder, suspect.name));
      for (auto const& entry : tree.entries) {
        if (entry.status.kind == ssh::FileKind::File) answer.entries.push_back(text(entry.path));
      }
    }
  }

  // Under -v, in the words the library traces its own SFTP batches.
  static void trace(char const* request, ssh::SftpFiles::Paths const& names) {
    sfa::logRecord(sfa::kTraceSeverity, [&] {
      PathList paths;
      for (auto const& name : names) paths.push_back(text(name));
      return std::string("SFTP ") + request + ":" + sfa::ustr2str(sfa::quoted(paths));
    });
  }

  ssh::SftpFiles& files_;
};

}  // namespace

std::unique_ptr<Queries> queriesOf(sfa::FileAccessInterface& side) { return std::make_unique<InterfaceQueries>(side); }

std::unique_ptr<Queries> queriesOf(ssh::SftpFiles& files) { return std::make_unique<SftpQueries>(files); }

}  // namespace sshfa::cli
