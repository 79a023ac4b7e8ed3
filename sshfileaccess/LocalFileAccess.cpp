#include "sshfileaccess/LocalFileAccess.hpp"

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/exception/diagnostic_information.hpp>
#include <ctime>
#include <stdexcept>
#include <string>
#include <system_error>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/Utils.hpp"
#include "sshfileaccess/platform/archive/Archive.hpp"
#include "sshfileaccess/platform/filesystem/FileSystem.hpp"
#include "sshfileaccess/platform/filesystem/Path.hpp"

namespace nimbal::remoteaccess::sshfileaccess {
namespace {

namespace fs = fl::filesystem;
using boost::posix_time::ptime;

// Runs one call into the file-system or archive library and reports its
// failure as a local FileAccessException. Framework exceptions come first, so
// a FileAccessException raised inside is wrapped again, with LocalError.
template <class Call>
decltype(auto) guarded(Call&& call) {
  try {
    return std::forward<Call>(call)();
  } catch (foundation::core::except::IException const& e) {
    throw FileAccessException(e.ToUstring(), FileAccessException::Code::LocalError);
  } catch (std::exception const& e) {
    throw FileAccessException(std::string(e.what()), FileAccessException::Code::LocalError);
  }
}

fs::file_status::bits_type typeOf(fs::file_status const& status) {
  return status.bits() & fs::file_status::file_type_mask;
}

ustring genericFullPath(fs::directory_entry const& entry) {
  return fs::detail::make_generic_form(fs::detail::make_native_form(entry.path_name(), true));
}

// Breaking the date into year, month and day validates it: a time whose date
// Boost cannot express fails here, where it is logged, rather than later in
// the caller.
ptime wholeSeconds(ptime time) {
  if (time.is_special()) return time;
  const auto ymd = time.date().year_month_day();
  const auto tod = time.time_of_day();
  return {boost::gregorian::date(ymd.year, ymd.month, ymd.day),
          boost::posix_time::time_duration(tod.hours(), tod.minutes(), tod.seconds())};
}

ptime currentUtcSecond() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  if (::gmtime_r(&now, &utc) == nullptr) throw std::runtime_error("could not convert calendar time to UTC time");
  return boost::posix_time::ptime_from_tm(utc);
}

void extract(ustring const& archivePath, ustring const& destinationFolder) {
  guarded([&] { velmar::io::archive::core::extractArchive(archivePath, destinationFolder, ustring(), ustring()); });
}

}  // namespace

// ---- queries ------------------------------------------------------------------------

bool LocalFileAccess::exists(ustring const& path) {
  return guarded([&] { return fs::exists(path); });
}

std::vector<bool> LocalFileAccess::exists(PathList const& paths) {
  std::vector<bool> answers;
  answers.reserve(paths.size());
  for (auto const& path : paths) answers.push_back(exists(path));
  return answers;
}

bool LocalFileAccess::isFile(ustring const& path) {
  return typeOf(guarded([&] { return fs::status(path); })) == fs::file_status::regular_file;
}

std::vector<bool> LocalFileAccess::isFile(PathList const& paths) {
  std::vector<bool> answers;
  answers.reserve(paths.size());
  for (auto const& path : paths) answers.push_back(isFile(path));
  return answers;
}

bool LocalFileAccess::isDir(ustring const& path) {
  return typeOf(guarded([&] { return fs::status(path); })) == fs::file_status::directory_file;
}

std::vector<bool> LocalFileAccess::isDir(PathList const& paths) {
  std::vector<bool> answers;
  answers.reserve(paths.size());
  for (auto const& path : paths) answers.push_back(isDir(path));
  return answers;
}

ustring LocalFileAccess::parent(ustring const& path) {
  return guarded([&] {
    ustring native;
    if (!path.empty()) native = fs::detail::make_native_form(path, true);
    return fs::detail::extract_parent_path(native);
  });
}

std::vector<ustring> LocalFileAccess::parent(PathList const& paths) {
  std::vector<ustring> parents;
  parents.reserve(paths.size());
  for (auto const& path : paths) parents.push_back(parent(path));
  return parents;
}

void LocalFileAccess::list(ustring const& path, std::vector<ustring>& out) {
  const auto type = typeOf(fs::status(path));
  if (type == fs::file_status::regular_file) {
    out.push_back(path);
    return;
  }
  if (type != fs::file_status::directory_file) return;
  fs::upath_directory_iterator it;
  if (!path.empty()) {
    it = fs::upath_directory_iterator(fs::detail::make_native_form(path, true), fs::report_open_errors, false);
  }
  for (const fs::upath_directory_iterator end; it != end; ++it) {
    if (it->file_name() == u"." || it->file_name() == u"..") continue;
    out.push_back(genericFullPath(*it));
  }
}

std::vector<ustring> LocalFileAccess::list(ustring const& path) {
  std::vector<ustring> entries;
  list(path, entries);
  return entries;
}

std::vector<ustring> LocalFileAccess::list(PathList const& paths) {
  std::vector<ustring> entries;
  for (auto const& path : paths) list(path, entries);
  return entries;
}

void LocalFileAccess::listRecursively(ustring const& path, std::vector<ustring>& out) {
  const auto type = typeOf(fs::status(path));
  if (type == fs::file_status::regular_file) {
    out.push_back(path);
    return;
  }
  if (type != fs::file_status::directory_file) return;
  for (fs::upath_recursive_directory_iterator it(path), end; it != end; ++it) {
    if (typeOf(it->status()) == fs::file_status::regular_file) out.push_back(genericFullPath(*it));
  }
}

std::vector<ustring> LocalFileAccess::listRecursively(ustring const& path) {
  std::vector<ustring> files;
  listRecursively(path, files);
  return files;
}

std::vector<ustring> LocalFileAccess::listRecursively(PathList const& paths) {
  std::vector<ustring> files;
  for (auto const& path : paths) listRecursively(path, files);
  return files;
}

std::optional<FileInfo> LocalFileAccess::getFileInfo(ustring const& path) {
  try {
    const fs::file_status status = fs::status(path);
    if ((status.bits() & fs::file_status::file_not_found) != 0) return std::nullopt;
    return FileInfo{path, status.size(), wholeSeconds(status.last_write_time())};
  } catch (...) {
    logRecord(kSwallowedErrorSeverity,
              [] { return "Exception caught: " + boost::current_exception_diagnostic_information(true); });
    return std::nullopt;
  }
}

std::vector<std::optional<FileInfo>> LocalFileAccess::getFileInfo(PathList const& paths) {
  std::vector<std::optional<FileInfo>> infos;
  for (auto const& path : paths) infos.push_back(getFileInfo(path));
  return infos;
}

// ---- mutations ------------------------------------------------------------------------

void LocalFileAccess::copy(ustring const& source, ustring const& destination) {
  makeDir(parent(destination));
  guarded([&] { fs::copy(source, destination, fs::copy_option::recursive | fs::copy_option::overwrite_existing); });
}

void LocalFileAccess::copy(PathPairs const& pairs) {
  for (auto const& [source, destination] : pairs) copy(source, destination);
}

void LocalFileAccess::touch(ustring const& path) {
  guarded([&] {
    const fs::basic_ofstream<char> stream(fs::detail::make_native_access_form_with_cleanup_i18n(path),
                                          std::ios_base::app | std::ios_base::out);
    fs::last_write_time(path, currentUtcSecond());
  });
}

void LocalFileAccess::touch(PathList const& paths) {
  for (auto const& path : paths) touch(path);
}

void LocalFileAccess::remove(ustring const& path) {
  guarded([&] { fs::remove_all(path); });
}

void LocalFileAccess::remove(PathList const& paths) {
  for (auto const& path : paths) remove(path);
}

void LocalFileAccess::removeImpl(ustring const& path) { fs::remove_all(path); }

void LocalFileAccess::makeDir(ustring const& path) {
  if (fs::exists(path) && typeOf(fs::status(path)) == fs::file_status::directory_file) return;
  guarded([&] { fs::create_directories(path); });
}

void LocalFileAccess::makeDir(PathList const& paths) {
  for (auto const& path : paths) makeDir(path);
}

void LocalFileAccess::move(ustring const& source, ustring const& destination) {
  guarded([&] { fs::rename(source, destination, fs::rename_options{}); });
}

void LocalFileAccess::move(PathPairs const& pairs) {
  for (auto const& [source, destination] : pairs) move(source, destination);
}

// ---- archives ------------------------------------------------------------------------

void LocalFileAccess::archive(ustring const& source, ustring const& archivePath, ustring const& format) {
  guarded([&] {
    const std::vector<ustring> files = listRecursively(source);
    const ustring base = parent(source);
    std::vector<ustring> entryNames;
    entryNames.reserve(files.size());
    // Only the base's length counts: the entry name starts after it, past
    // any separators, so the source's own name leads every entry.
    for (auto const& file : files) {
      const std::size_t start = file.find_first_not_of(u"/\\", base.size());
      if (start == ustring::npos) throw std::out_of_range("basic_string");
      entryNames.push_back(file.substr(start));
    }
    velmar::io::archive::core::createArchive(archivePath, files, entryNames, format);
  });
}

void LocalFileAccess::archiveTree(ustring const& source, ustring const& archivePath, ustring const& format) {
  guarded([&] {
    // Without trailing '/', so that a link is stored as the link, as tar does.
    const ustring root = source.empty() ? source : fs::detail::make_native_form(source, true);
    const fs::file_status status = fs::symlink_status(root);
    if ((status.bits() & fs::file_status::file_not_found) != 0) {
      throw std::system_error(ENOENT, std::generic_category(), "cannot pack '" + ustr2str(source) + "'");
    }
    const ustring name = fs::detail::extract_filename(root);
    if (name.empty()) throw std::invalid_argument("cannot pack '" + ustr2str(source) + "': it has no name of its own");
    std::vector<ustring> paths{root};
    std::vector<ustring> entryNames{name};
    if (typeOf(status) == fs::file_status::directory_file) {
      // Paths beneath are the root, a '/' and the rest.
      for (fs::upath_recursive_directory_iterator it(root), end; it != end; ++it) {
        paths.push_back(it->path_name());
        entryNames.push_back(name + it->path_name().substr(root.size()));
      }
    }
    velmar::io::archive::core::createTreeArchive(archivePath, paths, entryNames, format);
  });
}

void LocalFileAccess::tar(ustring const& source, ustring const& archivePath) { archive(source, archivePath, u"tar"); }

void LocalFileAccess::zip(ustring const& source, ustring const& archivePath) { archive(source, archivePath, u"zip"); }

void LocalFileAccess::untar(ustring const& archivePath, ustring const& destinationFolder) {
  extract(archivePath, destinationFolder);
}

void LocalFileAccess::unzip(ustring const& archivePath, ustring const& destinationFolder) {
  extract(archivePath, destinationFolder);
}

}  // namespace nimbal::remoteaccess::sshfileaccess
