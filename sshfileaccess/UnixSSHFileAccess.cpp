#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <algorithm>
#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/lexical_cast.hpp>
#include <ctime>
#include <initializer_list>
#include <string_view>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/RemotePath.hpp"
#include "sshfileaccess/Utils.hpp"
#include "sshfileaccess/platform/filesystem/Path.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

namespace fsd = fl::filesystem::detail;

namespace {

// The packing test works on 32-bit signed lengths.
std::int32_t length32(std::size_t length) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(length)); }

// Pieces of a command line, one blank between neighbours and nowhere else.
ustring joined(std::initializer_list<std::u16string_view> pieces) {
  ustring line;
  for (auto piece = pieces.begin(); piece != pieces.end(); ++piece) {
    if (piece != pieces.begin()) line.push_back(u' ');
    line.append(*piece);
  }
  return line;
}

template <class Result, class Single>
std::vector<Result> eachPath(std::vector<ustring> const& paths, Single single) {
  std::vector<Result> results;
  results.reserve(paths.size());
  for (auto const& path : paths) results.push_back(single(path));
  return results;
}

// "<size> <seconds since the epoch> <name>"; the name may hold blanks.
FileInfo parseStatLine(ustring const& line) {
  const std::size_t s1 = line.find(u' ');
  const std::size_t s2 = s1 == ustring::npos ? ustring::npos : line.find(u' ', s1 + 1);
  if (s2 == ustring::npos || s2 + 1 == line.size()) {
    throw FileAccessException(std::string("Failed to parse output of stat"), FileAccessException::Code::RemoteError);
  }
  FileInfo info;
  info.size = boost::lexical_cast<unsigned long long>(line.substr(0, s1));
  const auto seconds = boost::lexical_cast<long>(line.substr(s1 + 1, s2 - s1 - 1));
  info.lastWriteTime = boost::posix_time::from_time_t(static_cast<std::time_t>(seconds));
  info.path = line.substr(s2 + 1);
  return info;
}

// A relative path that begins with '-' would be read as an option (rm -rf,
// find -delete, ...): it is passed as "./" + path, which names the same file.
bool readsAsOption(ustring const& path) { return !path.empty() && path.front() == u'-'; }

ustring operandForm(ustring const& path) { return readsAsOption(path) ? u"./" + path : path; }

// One path as a quoted command-line operand that no tool takes for an option.
ustring operand(ustring const& path) { return quoted(operandForm(path)); }

// `line` as the caller would have written it, when it starts with the operand
// form of `path`: find prints "./-x/a" for the start path "-x".
std::optional<ustring> inCallersForm(ustring const& line, ustring const& path) {
  ustring const sent = operandForm(path);
  if (line.compare(0, sent.size(), sent) != 0) return std::nullopt;
  if (line.size() != sent.size() && sent.back() != u'/' && line[sent.size()] != u'/') return std::nullopt;
  return path + line.substr(sent.size());
}

// find prints the files of its start paths in their order, each line
// beginning with its start path as sent: the lines of a path sent as "./-x"
// get the caller's "-x" back.
void restoreStartPaths(std::vector<ustring> const& paths, std::vector<ustring>& files) {
  auto start = paths.begin();
  for (auto& file : files) {
    for (auto candidate = start; candidate != paths.end(); ++candidate) {
      if (auto restored = inCallersForm(file, *candidate)) {
        file = std::move(*restored);
        start = candidate;
        break;
      }
    }
  }
}

// Path-list lines "<prefix>'<p1>' '<p2>' ..." for the paths [first, last).
template <class Iterator>
std::vector<ustring> pathListLines(ustring prefix, Iterator first, Iterator last) {
  CommandBatcher batcher = CommandBatcher::pathList(std::move(prefix), {});
  for (; first != last; ++first) batcher.add(operand(*first));
  return batcher.finish();
}

// "dir/link/" names the folder behind the link, and "rm -rf" would empty it.
bool namesFolderOnly(ustring const& path) {
  return !path.empty() && path.back() == u'/' && path.find_first_not_of(u'/') != ustring::npos;
}

// Removes a path that ends in '/' only when its last name is no symbolic
// link; otherwise fails with the words of the local side.
ustring guardedRemoval(ustring const& path) {
  const ustring named = path.substr(0, path.find_last_not_of(u'/') + 1);
  return u"if test -L " + operand(named) + u"; then printf '%s' " +
         quoted(u"cannot remove '" + path + u"': Not a directory") + u" >&2; else rm -rf " + operand(path) + u"; fi";
}

ustring finalName(ustring const& path) {
  if (path.empty()) return {};
  return fsd::make_generic_form(fsd::extract_filename(fsd::make_native_form(path, true)));
}

}  // namespace

// ---- CommandBatcher ----------------------------------------------------------------

CommandBatcher::CommandBatcher(ustring prefix, ustring suffix, ustring separator)
    : prefix_(std::move(prefix)),
      suffix_(std::move(suffix)),
      separator_(std::move(separator)),
      line_(ucharStringstream()) {}

CommandBatcher CommandBatcher::pathList(ustring prefix, ustring suffix) {
  return {std::move(prefix), std::move(suffix), u" "};
}

CommandBatcher CommandBatcher::commandChain() { return {{}, {}, u" && "}; }

void CommandBatcher::add(ustring const& item) {
  const std::int32_t needed = length32(separator_.size() + item.size() + suffix_.size());
  if (maxLength_ - lineLength() < needed) closeLine();
  line_ << (lineLength() == 0 ? prefix_ : separator_) << item;
}

std::vector<ustring> CommandBatcher::finish() {
  if (lineLength() != 0) closeLine();
  return std::move(lines_);
}

std::int32_t CommandBatcher::lineLength() { return static_cast<std::int32_t>(line_.tellp()); }

void CommandBatcher::closeLine() {
  line_ << suffix_;
  lines_.push_back(line_.str());
  line_.str(ustring());
}

// ---- construction ----------------------------------------------------------------

UnixSSHFileAccess::UnixSSHFileAccess(ustring host, int port, AuthMethods authMethods)
    : SSHFileAccess(std::move(host), port, std::move(authMethods)) {}

UnixSSHFileAccess::UnixSSHFileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client)
    : SSHFileAccess(std::move(client)) {}

UnixSSHFileAccess::UnixSSHFileAccess(UnixSSHFileAccess&& other) noexcept = default;
UnixSSHFileAccess& UnixSSHFileAccess::operator=(UnixSSHFileAccess&& other) noexcept = default;
UnixSSHFileAccess::~UnixSSHFileAccess() = default;

// ---- queries -----------------------------------------------------------------------

bool UnixSSHFileAccess::runTestCmd(ustring const& flag, ustring path) {
  const ustring out = executeExpectNoError(joined({u"test", flag, operand(path), u"&& echo 1"})).getStdout();
  return !out.empty() && out.front() == u'1';
}

bool UnixSSHFileAccess::exists(ustring const& path) { return runTestCmd(u"-e", path); }

std::vector<bool> UnixSSHFileAccess::exists(PathList const& paths) {
  return eachPath<bool>(paths, [this](ustring const& path) { return exists(path); });
}

bool UnixSSHFileAccess::isFile(ustring const& path) { return runTestCmd(u"-f", path); }

std::vector<bool> UnixSSHFileAccess::isFile(PathList const& paths) {
  return eachPath<bool>(paths, [this](ustring const& path) { return isFile(path); });
}

bool UnixSSHFileAccess::isDir(ustring const& path) { return runTestCmd(u"-d", path); }

std::vector<bool> UnixSSHFileAccess::isDir(PathList const& paths) {
  return eachPath<bool>(paths, [this](ustring const& path) { return isDir(path); });
}

ustring UnixSSHFileAccess::parent(ustring const& path) { return remoteParent(path); }

std::vector<ustring> UnixSSHFileAccess::parent(PathList const& paths) {
  return eachPath<ustring>(paths, [this](ustring const& path) { return parent(path); });
}

void UnixSSHFileAccess::list(ustring const& path, std::vector<ustring>& out) {
  const std::vector<ustring> names = split(execute(joined({u"ls -1", operand(path)})).getStdout());
  const ustring prefix = !path.empty() && path.back() == u'/' ? path : path + u'/';
  // For a file operand ls prints the operand itself; a name in a folder
  // never holds a '/', so only that echo can equal "./-x".
  const bool echoesOperand = readsAsOption(path);
  for (auto const& name : names) out.push_back(prefix + (echoesOperand && name == operandForm(path) ? path : name));
}

std::vector<ustring> UnixSSHFileAccess::list(ustring const& path) {
  std::vector<ustring> out;
  list(path, out);
  return out;
}

std::vector<ustring> UnixSSHFileAccess::list(PathList const& paths) {
  std::vector<ustring> out;
  for (auto const& path : paths) list(path, out);
  return out;
}

std::vector<ustring> UnixSSHFileAccess::listRecursively(ustring const& path) { return listRecursively(PathList{path}); }

std::vector<ustring> UnixSSHFileAccess::listRecursively(PathList const& paths) {
  CommandBatcher batcher = CommandBatcher::pathList(u"find ", u" -type f");
  for (auto const& path : paths) batcher.add(operand(path));
  std::vector<ustring> files;
  for (auto const& result : execute(batcher.finish())) {
    for (auto& line : split(result.getStdout())) files.push_back(std::move(line));
  }
  if (std::any_of(paths.begin(), paths.end(), readsAsOption)) restoreStartPaths(paths, files);
  return files;
}

// ---- file information ----------------------------------------------------------------

std::optional<FileInfo> UnixSSHFileAccess::getFileInfo(ustring const& path) {
  return getFileInfo(PathList{path}).at(0);
}

std::vector<std::optional<FileInfo>> UnixSSHFileAccess::getFileInfo(PathList const& paths) {
  CommandBatcher batcher = CommandBatcher::pathList(u"stat -c '%s %Y %n' ", {});
  for (auto const& path : paths) batcher.add(operand(path));
  std::vector<FileInfo> records;
  for (auto const& result : execute(batcher.finish())) {
    for (auto const& line : split(result.getStdout())) records.push_back(parseStatLine(line));
  }

  // stat prints its lines in the order of its operands, so one forward merge
  // pairs them; a path without a line (missing, unreadable) gets nothing.
  std::vector<std::optional<FileInfo>> infos;
  infos.reserve(paths.size());
  auto record = records.begin();
  for (auto const& path : paths) {
    if (record != records.end() && record->path == operandForm(path)) {
      record->path = path;
      infos.emplace_back(std::move(*record));
      ++record;
    } else {
      infos.emplace_back();
    }
  }
  return infos;
}

// ---- mutations -------------------------------------------------------------------------

void UnixSSHFileAccess::runPathListCommand(ustring prefix, PathList const& paths) {
  executeExpectNoError(pathListLines(std::move(prefix), paths.begin(), paths.end()));
}

void UnixSSHFileAccess::runCommandChain(ustring const& commandWord, PathPairs const& pairs) {
  CommandBatcher batcher = CommandBatcher::commandChain();
  for (auto const& [source, destination] : pairs)
    batcher.add(joined({commandWord, operand(source), operand(destination)}));
  executeExpectNoError(batcher.finish());
}

void UnixSSHFileAccess::copy(ustring const& source, ustring const& destination) {
  copy(PathPairs{{source, destination}});
}

void UnixSSHFileAccess::copy(PathPairs const& pairs) {
  PathList destinations;
  destinations.reserve(pairs.size());
  for (auto const& pair : pairs) destinations.push_back(pair.second);
  makeDir(parent(destinations));
  runCommandChain(u"cp -r", pairs);
}

void UnixSSHFileAccess::touch(ustring const& path) { touch(PathList{path}); }

void UnixSSHFileAccess::touch(PathList const& paths) { runPathListCommand(u"touch ", paths); }

void UnixSSHFileAccess::remove(ustring const& path) { remove(PathList{path}); }

// A path that ends in '/' gets a guarded line of its own between the batched
// lines of the others, so the paths are still removed in their order.
void UnixSSHFileAccess::remove(PathList const& paths) {
  std::vector<ustring> lines;
  auto plain = paths.begin();
  for (auto path = paths.begin(); path != paths.end(); ++path) {
    if (!namesFolderOnly(*path)) continue;
    for (auto& line : pathListLines(u"rm -rf ", plain, path)) lines.push_back(std::move(line));
    lines.push_back(guardedRemoval(*path));
    plain = std::next(path);
  }
  for (auto& line : pathListLines(u"rm -rf ", plain, paths.end())) lines.push_back(std::move(line));
  executeExpectNoError(lines);
}

void UnixSSHFileAccess::makeDir(ustring const& path) { makeDir(PathList{path}); }

void UnixSSHFileAccess::makeDir(PathList const& paths) { runPathListCommand(u"mkdir -p ", paths); }

void UnixSSHFileAccess::move(ustring const& source, ustring const& destination) {
  move(PathPairs{{source, destination}});
}

// Unlike copy, no destination folders are made: a move into a missing folder fails.
void UnixSSHFileAccess::move(PathPairs const& pairs) { runCommandChain(u"mv", pairs); }

// ---- archives --------------------------------------------------------------------------

// Packing from the source's parent keeps the folders above the source out of
// the archive.
void UnixSSHFileAccess::pack(ustring const& source, ustring const& archivePath, ustring const& packCommand) {
  executeExpectNoError(
      joined({u"cd", operand(parent(source)), packCommand, operand(archivePath), operand(finalName(source))}));
}

void UnixSSHFileAccess::tar(ustring const& source, ustring const& archivePath) {
  pack(source, archivePath, u"&& tar -cf");
}

void UnixSSHFileAccess::zip(ustring const& source, ustring const& archivePath) {
  pack(source, archivePath, u"&& zip -r");
}

// Judged by the exit status alone: extraction may warn and still succeed.
void UnixSSHFileAccess::untar(ustring const& archivePath, ustring const& destinationFolder) {
  const ExecuteCommandResult result =
      execute(joined({u"cd", operand(destinationFolder), u"&& tar -xf", operand(archivePath)}));
  if (result.getExitcode() != 0) {
    throw FileAccessException(result.getStderr(), FileAccessException::Code::RemoteError);
  }
}

// No "cd" here: a relative archive path is read from the login folder, and
// "-d" makes a missing destination itself.
void UnixSSHFileAccess::unzip(ustring const& archivePath, ustring const& destinationFolder) {
  executeExpectNoError(joined({u"unzip", operand(archivePath), u"-d", operand(destinationFolder)}));
}

}  // namespace nimbal::remoteaccess::sshfileaccess
