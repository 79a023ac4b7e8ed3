#include "sshfileaccess/platform/sshclient/internal/transfer/RemoteListing.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"

namespace foundation::sshclient::internal::transfer {

using sftp::PacketType;
using sftp::Reply;
using sftp::StatusCode;
using sftp::Ticket;

namespace {

enum Kind : std::uint32_t { kOpen, kRead, kLink, kFollow, kExamine, kExamineLink, kFileOpen, kFileRead };

// The largest file readFile() takes, and what it asks for at once.
constexpr std::uint64_t kMaxFileRead = 1024U * 1024U;
constexpr std::uint32_t kFileChunk = 64U * 1024U;
// READDIRs in flight for a wide folder (OpenSSH's server answers 100 names
// at a time).
constexpr int kReadsAhead = 4;

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

// A name for a message: a NUL byte would end it.
std::string shown(std::string_view name) {
  std::string out;
  for (char const c : name) {
    if (c == '\0') {
      out += "\\0";
    } else {
      out += c;
    }
  }
  return quoted(out);
}

}  // namespace

struct RemoteLister::Folder {
  std::string path;
  void* cookie = nullptr;
  std::string handle;
  Listing listing;
  std::vector<std::size_t> broken;  // entries that could not be looked at
  std::size_t waiting = 0;
  bool ended = false;
  int reads = 0;        // READDIRs in flight
  int answers = 0;      // READDIRs answered with names
  bool sawDot = false;  // each listing's one "." and ".." are the rule
  bool sawDotDot = false;
};

struct RemoteLister::Reading {
  void* cookie = nullptr;
  std::string handle;
  std::string text;
  std::uint64_t limit = kMaxFileRead;
  bool prefix = false;  // the first `limit` bytes are the answer
};

struct RemoteLister::Examined {
  std::string path;
  void* cookie = nullptr;
  std::optional<Entry> entry;
};

Entry entryFromAttributes(std::string name, sftp::Attributes const& attributes) {
  Entry entry;
  entry.name = std::move(name);
  entry.type = typeOfMode(attributes.permissions.value_or(0));
  if (attributes.permissions) entry.mode = *attributes.permissions & 07777U;
  entry.size = attributes.size.value_or(0);
  entry.mtime = attributes.mtime;
  entry.atime = attributes.atime;
  return entry;
}

RemoteLister::RemoteLister(sftp::SftpSession& session, ListingSink& sink, bool follow)
    : session_(session), sink_(sink), follow_(follow) {}

RemoteLister::~RemoteLister() = default;

void RemoteLister::list(std::string const& path, void* cookie) {
  auto folder = std::make_unique<Folder>();
  folder->path = path;
  folder->cookie = cookie;
  folder->waiting = 1;
  auto* const raw = folder.get();
  folders_.emplace(raw, std::move(folder));
  session_.opendir({this, kOpen, raw}, path.empty() ? std::string_view(".") : std::string_view(path));
}

void RemoteLister::examine(std::string const& path, bool follow, void* cookie) {
  auto examined = std::make_unique<Examined>();
  examined->path = path;
  examined->cookie = cookie;
  auto* const raw = examined.get();
  examined_.emplace(raw, std::move(examined));
  if (follow) {
    session_.stat({this, kExamine, raw}, path);
  } else {
    session_.lstat({this, kExamine, raw}, path);
  }
}

void RemoteLister::readFile(std::string const& path, void* cookie, std::optional<std::uint64_t> prefix) {
  auto reading = std::make_unique<Reading>();
  reading->cookie = cookie;
  reading->prefix = prefix.has_value();
  reading->limit = prefix.value_or(kMaxFileRead);
  auto* const raw = reading.get();
  reading_.emplace(raw, std::move(reading));
  session_.open({this, kFileOpen, raw}, path, sftp::openflags::kRead, sftp::Attributes{});
}

void RemoteLister::onRead(Reading& reading, Ticket const& ticket, Reply const& reply) {
  auto const finish = [&](bool whole) {
    if (!reading.handle.empty()) session_.close(sftp::SftpSession::ignored(), reading.handle);
    auto* const cookie = reading.cookie;
    auto text = whole ? std::optional<std::string>(std::move(reading.text)) : std::nullopt;
    reading_.erase(&reading);
    sink_.read(cookie, std::move(text));
  };
  if (ticket.kind == kFileOpen) {
    if (reply.type != PacketType::Handle) return finish(false);
    reading.handle = std::string(reply.handle);
  } else if (reply.type == PacketType::Data) {
    reading.text.append(reinterpret_cast<char const*>(reply.data.data()), reply.data.size());
    if (reading.prefix && reading.text.size() >= reading.limit) {
      reading.text.resize(reading.limit);
      return finish(true);
    }
    if (reading.text.size() > reading.limit) return finish(false);
  } else {
    return finish(!reading.prefix && reply.type == PacketType::Status && reply.status == StatusCode::Eof);
  }
  auto const rest = std::min<std::uint64_t>(kFileChunk, reading.limit + 1 - reading.text.size());
  session_.read({this, kFileRead, &reading}, reading.handle, reading.text.size(), static_cast<std::uint32_t>(rest));
}

void RemoteLister::onReply(Ticket const& ticket, Reply const& reply) {
  if (ticket.kind == kFileOpen || ticket.kind == kFileRead) {
    return onRead(*static_cast<Reading*>(ticket.subject), ticket, reply);
  }
  if (ticket.kind == kExamine || ticket.kind == kExamineLink) {
    return onExamined(*static_cast<Examined*>(ticket.subject), ticket, reply);
  }
  auto& folder = *static_cast<Folder*>(ticket.subject);
  --folder.waiting;
  onFolderReply(folder, ticket, reply);
  settle(folder);
}

void RemoteLister::onFolderReply(Folder& folder, Ticket const& ticket, Reply const& reply) {
  auto const failure = [&](std::string const& what) {
    return what + quoted(folder.path) + ": " + sftp::describeStatus(reply.status, reply.message);
  };
  switch (ticket.kind) {
    case kOpen:
      if (reply.type != PacketType::Handle) {
        folder.listing.error = failure("cannot read folder ");
        folder.ended = true;
        return;
      }
      folder.handle = std::string(reply.handle);
      // Two reads at once: a folder that fits in one answer ends a round
      // trip sooner (the second finds the end). The server answers in order.
      for (int i = 0; i < 2; ++i) {
        ++folder.waiting;
        ++folder.reads;
        session_.readdir({this, kRead, &folder}, folder.handle);
      }
      return;
    case kRead:
      --folder.reads;
      if (folder.ended) return;  // the read sent beside the one that found the end
      if (reply.type == PacketType::Name) {
        takeNames(folder, reply);
        // A folder that took two answers is wide: more reads stay in flight,
        // so that it takes fewer round trips; the few past its end just
        // find the end again.
        int const ahead = ++folder.answers < 2 ? 1 : kReadsAhead;
        while (folder.reads < ahead) {
          ++folder.waiting;
          ++folder.reads;
          session_.readdir({this, kRead, &folder}, folder.handle);
        }
        return;
      }
      if (reply.type != PacketType::Status || reply.status != StatusCode::Eof) {
        folder.listing.error = failure("cannot read folder ");
      }
      folder.ended = true;
      session_.close(sftp::SftpSession::ignored(), folder.handle);
      return;
    case kLink: {
      auto const index = static_cast<std::size_t>(ticket.offset);
      auto& entry = folder.listing.entries[index];
      if (reply.type == PacketType::Name && reply.names.size() == 1) {
        entry.linkTarget = std::string(reply.names.front().filename);
        return;
      }
      folder.listing.problems.push_back("cannot read the link " + quoted(joined(folder.path, entry.name)) + ": " +
                                        sftp::describeStatus(reply.status, reply.message));
      folder.broken.push_back(index);
      return;
    }
    case kFollow: {
      auto const index = static_cast<std::size_t>(ticket.offset);
      auto& entry = folder.listing.entries[index];
      if (reply.type == PacketType::Attrs) {
        entry = entryFromAttributes(std::move(entry.name), reply.attributes);
        entry.followed = true;
        return;
      }
      folder.listing.problems.push_back("cannot read " + quoted(joined(folder.path, entry.name)) + ": " +
                                        sftp::describeStatus(reply.status, reply.message));
      folder.broken.push_back(index);
      return;
    }
    default:
      return;
  }
}

void RemoteLister::takeNames(Folder& folder, Reply const& reply) {
  for (auto const& name : reply.names) {
    if (name.filename == "." && !std::exchange(folder.sawDot, true)) continue;
    if (name.filename == ".." && !std::exchange(folder.sawDotDot, true)) continue;
    if (suspectName(name.filename)) {
      folder.listing.suspects.push_back(shown(name.filename) + " listed in " + quoted(folder.path));
      continue;
    }
    auto entry = entryFromAttributes(std::string(name.filename), name.attributes);
    auto const index = folder.listing.entries.size();
    bool const link = entry.type == EntryType::Link;
    folder.listing.entries.push_back(std::move(entry));
    if (!link) continue;
    ++folder.waiting;
    auto const path = joined(folder.path, name.filename);
    if (follow_) {
      session_.stat({this, kFollow, &folder, index}, path);
    } else {
      session_.readlink({this, kLink, &folder, index}, path);
    }
  }
}

void RemoteLister::settle(Folder& folder) {
  if (!folder.ended || folder.waiting > 0) return;
  auto& entries = folder.listing.entries;
  std::sort(folder.broken.begin(), folder.broken.end());
  for (auto index = folder.broken.rbegin(); index != folder.broken.rend(); ++index) {
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(*index));
  }
  folder.listing.sort();
  // A name listed twice is a lie of the server's: neither is taken.
  auto& sorted = folder.listing.entries;
  for (auto first = sorted.begin(); first != sorted.end();) {
    auto const last = std::find_if(first, sorted.end(), [&](Entry const& entry) { return entry.name != first->name; });
    if (last - first > 1) {
      folder.listing.suspects.push_back(quoted(first->name) + " listed twice in " + quoted(folder.path));
      first = sorted.erase(first, last);
    } else {
      first = last;
    }
  }
  auto listing = std::move(folder.listing);
  auto* const cookie = folder.cookie;
  folders_.erase(&folder);
  sink_.listed(cookie, std::move(listing));
}

void RemoteLister::onExamined(Examined& examined, Ticket const& ticket, Reply const& reply) {
  auto const finish = [&](std::string const& error) {
    auto entry = std::move(examined.entry);
    auto* const cookie = examined.cookie;
    examined_.erase(&examined);
    sink_.examined(cookie, std::move(entry), error);
  };
  if (ticket.kind == kExamineLink) {
    if (reply.type == PacketType::Name && reply.names.size() == 1) {
      examined.entry->linkTarget = std::string(reply.names.front().filename);
      return finish({});
    }
    examined.entry.reset();
    return finish("cannot read the link: " + sftp::describeStatus(reply.status, reply.message));
  }
  if (reply.type != PacketType::Attrs) return finish(sftp::describeStatus(reply.status, reply.message));
  auto const slash = examined.path.find_last_of('/');
  examined.entry = entryFromAttributes(slash == std::string::npos ? examined.path : examined.path.substr(slash + 1),
                                       reply.attributes);
  if (examined.entry->type != EntryType::Link) return finish({});
  session_.readlink({this, kExamineLink, &examined}, examined.path);
}

}  // namespace foundation::sshclient::internal::transfer
