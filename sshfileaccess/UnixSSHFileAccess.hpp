#pragma once
// FileAccessInterface on a remote Unix host: every operation is composed into
// POSIX shell command lines (each path single-quoted, pieces joined by single
// blanks), run over the SSH client owned by SSHFileAccess, and answered from
// the commands' standard output. List forms pack their paths into few command
// lines with CommandBatcher, so many paths cost few round trips. A relative
// path that begins with '-' goes into a command line as "./" + path, so that no
// tool reads it as an option; answers name it as the caller wrote it.
//
// Move-only; one object must not be used from two threads at once.
// Throws FileAccessException(RemoteError) when a command complains on standard
// error (untar: exits non-zero) or stat output cannot be parsed;
// boost::bad_lexical_cast when a stat number is malformed. Exceptions of the
// SSH client pass through unchanged.

#include <cstdint>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

#include "sshfileaccess/SSHFileAccess.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

// Packs items into command lines of the form prefix, item, separator, item,
// ..., suffix. An item is added to the open line only while the separator,
// the item and the suffix still fit into maxLength minus the line's current
// length (the prefix is not counted, the separator always is); otherwise the
// open line is closed first — even when it is empty, which yields a line that
// is the suffix alone. Items are never split or reordered.
class CommandBatcher {
 public:
  static constexpr std::int32_t kMaxLength = 32768;

  CommandBatcher(ustring prefix, ustring suffix, ustring separator);

  // One quoted path per item: prefix + "'a' 'b'" + suffix.
  static CommandBatcher pathList(ustring prefix, ustring suffix);
  // Whole commands joined by " && ", nothing before or after.
  static CommandBatcher commandChain();

  void add(ustring const& item);
  // Closes the open line, if any, and hands over all lines in order. No items
  // give no lines.
  std::vector<ustring> finish();

 private:
  [[nodiscard]] std::int32_t lineLength();
  void closeLine();

  std::int32_t maxLength_ = kMaxLength;
  ustring prefix_;
  ustring suffix_;
  ustring separator_;
  std::vector<ustring> lines_;
  std::basic_stringstream<char16_t> line_;
};

class SSHFA_EXPORT UnixSSHFileAccess : public SSHFileAccess {
 public:
  UnixSSHFileAccess(ustring host, int port, AuthMethods authMethods);
  explicit UnixSSHFileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client);
  UnixSSHFileAccess(UnixSSHFileAccess&& other) noexcept;
  UnixSSHFileAccess& operator=(UnixSSHFileAccess&& other) noexcept;
  UnixSSHFileAccess(UnixSSHFileAccess const&) = delete;
  UnixSSHFileAccess& operator=(UnixSSHFileAccess const&) = delete;
  ~UnixSSHFileAccess() override;

  // The transfer entry point of SSHFileAccess stays reachable beside the
  // remote copy operations.
  using SSHFileAccess::copy;

  // "test <flag> '<path>' && echo 1"; true when standard output starts with '1'.
  bool runTestCmd(ustring const& flag, ustring path);
  // Appends "<path>/<line>" for every line that "ls -1 '<path>'" prints.
  void list(ustring const& path, std::vector<ustring>& out);

  void copy(ustring const& source, ustring const& destination) override;
  void copy(PathPairs const& pairs) override;
  bool exists(ustring const& path) override;
  std::vector<bool> exists(PathList const& paths) override;
  bool isFile(ustring const& path) override;
  std::vector<bool> isFile(PathList const& paths) override;
  bool isDir(ustring const& path) override;
  std::vector<bool> isDir(PathList const& paths) override;
  ustring parent(ustring const& path) override;
  std::vector<ustring> parent(PathList const& paths) override;
  void touch(ustring const& path) override;
  void touch(PathList const& paths) override;
  void remove(ustring const& path) override;
  void remove(PathList const& paths) override;
  void makeDir(ustring const& path) override;
  void makeDir(PathList const& paths) override;
  void move(ustring const& source, ustring const& destination) override;
  void move(PathPairs const& pairs) override;
  void tar(ustring const& source, ustring const& archivePath) override;
  void untar(ustring const& archivePath, ustring const& destinationFolder) override;
  void zip(ustring const& source, ustring const& archivePath) override;
  void unzip(ustring const& archivePath, ustring const& destinationFolder) override;
  std::vector<ustring> list(ustring const& path) override;
  std::vector<ustring> list(PathList const& paths) override;
  std::vector<ustring> listRecursively(ustring const& path) override;
  std::vector<ustring> listRecursively(PathList const& paths) override;
  std::optional<FileInfo> getFileInfo(ustring const& path) override;
  std::vector<std::optional<FileInfo>> getFileInfo(PathList const& paths) override;

 private:
  void runPathListCommand(ustring prefix, PathList const& paths);
  void runCommandChain(ustring const& commandWord, PathPairs const& pairs);
  void pack(ustring const& source, ustring const& archivePath, ustring const& packCommand);
};

}  // namespace nimbal::remoteaccess::sshfileaccess
