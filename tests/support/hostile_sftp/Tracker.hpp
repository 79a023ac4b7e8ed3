#pragma once
// What the hostile SFTP server changes between a client and the real
// sftp-server. It follows OPENDIR requests (id -> path), their HANDLE replies
// (handle -> folder) and READDIR requests (id -> folder), and rewrites the
// NAME replies to READDIR of folders that a rule names: the added entries go
// into the first NAME reply of each opened handle, replaced attributes into
// every reply. It also answers READLINK of FOLDER/NAME for a link rule with a
// target.
// Every other packet passes unchanged.
//
// Packets are bodies, type byte onwards, as PacketReader yields them.
// Thread-safe: request() and reply() may run on two threads, one per
// direction, provided each request is seen before the server can answer it.
// reply() throws std::runtime_error when a rule's '@PATH' cannot be read, and
// ProtocolError when a NAME reply it must rewrite is malformed.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"
#include "tests/support/hostile_sftp/Rules.hpp"

namespace sshfa::testing::hostile {

using Attributes = foundation::sshclient::internal::sftp::Attributes;
using Bytes = foundation::sshclient::internal::sftp::Bytes;
using ByteView = foundation::sshclient::internal::sftp::ByteView;

// The real path of `path` (realpath), or nullopt when it does not resolve.
using Resolve = std::function<std::optional<std::string>(std::string const& path)>;
// The attributes of the file `path` itself (lstat); throws std::runtime_error
// naming the path and the cause.
using Lookup = std::function<Attributes(std::string const& path)>;
// One line per change, without line feed.
using Log = std::function<void(std::string const& line)>;

// Whether the path a client sent names `folder`: the same bytes, or both
// resolve to the same real folder.
bool namesFolder(std::string const& requested, std::string const& folder, Resolve const& resolve);

// The attributes that `rule` gives its entry. `real` holds the real entry's
// (replace) or just the server's uid and gid (added entries).
Attributes attributesOf(Rule const& rule, Attributes const& real, Lookup const& lookup);

// An "ls -l" line in the shape of sftp-server's, for an added entry.
std::string longName(std::string_view name, Attributes const& attributes);

// The NAME reply `packet` with `rules` applied: added entries when
// `addEntries`, replaced attributes always. nullopt when nothing changed.
std::optional<Bytes> rewriteNames(ByteView packet, std::vector<Rule const*> const& rules, bool addEntries,
                                  Attributes const& owner, Lookup const& lookup);

class Tracker {
 public:
  // `owner`: the uid and gid that added entries carry.
  Tracker(std::vector<Rule> rules, Attributes const& owner, Resolve resolve, Lookup lookup, Log log);

  // A request on its way to the server: nullopt to forward it, or the reply
  // to send the client instead.
  std::optional<Bytes> request(ByteView packet);
  // A reply on its way to the client: nullopt to forward it, or its replacement.
  std::optional<Bytes> reply(ByteView packet);

 private:
  struct Folder {
    std::string path;  // as the client sent it
    std::vector<Rule const*> rules;
    bool listed = false;  // a NAME reply went out already
  };

  std::vector<Rule const*> rulesFor(std::string const& path) const;
  std::optional<std::string> linkTargetFor(std::string const& path) const;

  std::vector<Rule> const rules_;
  Attributes const owner_;
  Resolve const resolve_;
  Lookup const lookup_;
  Log const log_;

  std::mutex mutex_;
  std::map<std::uint32_t, std::shared_ptr<Folder>> opening_;  // OPENDIR id
  std::map<std::string, std::shared_ptr<Folder>> handles_;
  std::map<std::uint32_t, std::shared_ptr<Folder>> reading_;  // READDIR id
};

}  // namespace sshfa::testing::hostile
