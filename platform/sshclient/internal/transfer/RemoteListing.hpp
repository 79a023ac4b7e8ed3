#pragma once
// Remote folders listed over an SFTP session into entries, many folders at
// once: OPENDIR, READDIR until the end (every answer carries each entry's
// attributes, so nothing is asked per entry), CLOSE; each link's text by a
// READLINK sent at once; with `follow`, each link is STATed and taken as what
// it points to. Paths are examined the same way (LSTAT, or STAT).
//
// Small files the listing needs (a folder's .gitignore) are read whole.
//
// A name the server lists is joined to nothing here: the one "." and ".."
// of a listing are dropped, and any other name that is not a plain name
// ("", "..", or holding '/' or NUL) is dropped with a note naming it and its
// folder. The sink gets each folder's listing once, complete and sorted.
// A failure to read a folder is its listing's error, not an exception.
//
// May call only the session; never decides what to copy. Not thread-safe.

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>

#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Entry.hpp"

namespace foundation::sshclient::internal::transfer {

class ListingSink {
 public:
  virtual void listed(void* cookie, Listing listing) = 0;
  // `entry` nullopt: `error` says why ("No such file", ...).
  virtual void examined(void* cookie, std::optional<Entry> entry, std::string const& error) = 0;
  // A small file's bytes (rules the listing needs); nullopt when it could
  // not be read whole.
  virtual void read(void* cookie, std::optional<std::string> text) = 0;

 protected:
  ListingSink() = default;
  ~ListingSink() = default;
  ListingSink(ListingSink const&) = default;
  ListingSink& operator=(ListingSink const&) = default;
};

class RemoteLister final : public sftp::ReplyHandler {
 public:
  RemoteLister(sftp::SftpSession& session, ListingSink& sink, bool follow);
  ~RemoteLister();
  RemoteLister(RemoteLister const&) = delete;
  RemoteLister& operator=(RemoteLister const&) = delete;

  void list(std::string const& path, void* cookie);
  // One path: LSTAT, or STAT when `follow` (a link's text read after LSTAT).
  void examine(std::string const& path, bool follow, void* cookie);
  // A small file read whole (at most 1 MiB): OPEN, READ to the end, CLOSE.
  // With `prefix`: its first `prefix` bytes only (fewer: not read whole).
  void readFile(std::string const& path, void* cookie, std::optional<std::uint64_t> prefix = std::nullopt);
  // Folders whose listing is not complete yet.
  [[nodiscard]] std::size_t busy() const noexcept { return folders_.size(); }

  void onReply(sftp::Ticket const& ticket, sftp::Reply const& reply) override;

 private:
  struct Folder;
  struct Examined;
  struct Reading;
  void onFolderReply(Folder& folder, sftp::Ticket const& ticket, sftp::Reply const& reply);
  void takeNames(Folder& folder, sftp::Reply const& reply);
  void settle(Folder& folder);
  void onExamined(Examined& examined, sftp::Ticket const& ticket, sftp::Reply const& reply);
  void onRead(Reading& reading, sftp::Ticket const& ticket, sftp::Reply const& reply);

  sftp::SftpSession& session_;
  ListingSink& sink_;
  bool follow_;
  std::unordered_map<Folder*, std::unique_ptr<Folder>> folders_;
  std::unordered_map<Examined*, std::unique_ptr<Examined>> examined_;
  std::unordered_map<Reading*, std::unique_ptr<Reading>> reading_;
};

// An entry from SFTP attributes.
Entry entryFromAttributes(std::string name, sftp::Attributes const& attributes);

}  // namespace foundation::sshclient::internal::transfer
