#pragma once
// SftpFiles over one SFTP session (internal to the client).
//
// Each call sends its requests through a table that hands every reply to the
// callback of its request, so the requests of all paths go out together (at
// most requestsInFlight awaiting replies). Folders are listed many at once
// within a budget of open handles, and a listing that finds folders starts
// them at once, so a tree costs one round trip per level. Files are copied
// a few at once, each with copy-data or a read-write pipeline of its own.
//
// The link (transport and session) is opened on the first call. A call that
// fails below the level of a path (the connection, the server, a reply that
// cannot be read) drops it, and the next call opens another; such failures
// are SSHError (a malformed reply: Transfer, naming the peer).
// Not thread-safe.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>

#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"

namespace foundation::sshclient::internal::files {

// A byte stream to an SFTP server and the started session on it.
class SftpLink {
 public:
  virtual ~SftpLink() = default;
  virtual sftp::SftpSession& session() = 0;

 protected:
  SftpLink() = default;
  SftpLink(SftpLink const&) = default;
  SftpLink& operator=(SftpLink const&) = default;
};

// The link over a `Transport` made from `arguments`; the session is started
// (INIT, VERSION) by the constructor.
template <class Transport>
class LinkOver final : public SftpLink {
 public:
  template <class... Arguments>
  explicit LinkOver(std::string peer, Arguments&&... arguments)
      : transport_(std::forward<Arguments>(arguments)...), session_(transport_, std::move(peer)) {
    session_.start();
  }
  sftp::SftpSession& session() override { return session_; }

 private:
  Transport transport_;
  sftp::SftpSession session_;
};

struct FilesOptions {
  // Off: files are read and written through the client even where the
  // server offers copy-data.
  bool useCopyData = true;
  std::size_t requestsInFlight = 1024;
  std::size_t foldersOpen = 32;  // folders listed at once
  std::size_t filesOpen = 16;    // files copied at once (two handles each)
  std::size_t readsPerFile = 16;
};

// What one call of SessionFiles works with (defined with it).
class Call;

class SessionFiles final : public SftpFiles {
 public:
  using OpenLink = std::function<std::unique_ptr<SftpLink>()>;

  explicit SessionFiles(OpenLink openLink, FilesOptions options = {});
  ~SessionFiles() override;
  SessionFiles(SessionFiles const&) = delete;
  SessionFiles& operator=(SessionFiles const&) = delete;

  std::vector<FileStatus> lstat(Paths const& paths) override;
  std::vector<FileStatus> stat(Paths const& paths) override;
  std::vector<FolderListing> list(Paths const& folders) override;
  std::vector<Tree> walk(Paths const& roots, RootLinks rootLinks) override;
  std::vector<std::optional<std::string>> readlink(Paths const& paths) override;
  std::vector<std::optional<std::string>> realpath(Paths const& paths) override;

  void makeFolders(Paths const& paths) override;
  void remove(Paths const& paths) override;
  void rename(PathPairs const& pairs, Destination destination) override;
  void touch(Paths const& paths, std::optional<std::int64_t> seconds) override;
  void copy(PathPairs const& pairs, Destination destination) override;

  // Whether the link is open (for tests of its life).
  [[nodiscard]] bool linked() const noexcept { return link_ != nullptr; }

 private:
  // Runs `body` on a Call over the open link; drops the link when the call
  // fails below the level of a path.
  void run(std::function<void(Call&)> const& body);

  OpenLink openLink_;
  FilesOptions options_;
  std::unique_ptr<SftpLink> link_;
  std::string peer_;
  std::mt19937_64 random_;
};

}  // namespace foundation::sshclient::internal::files
