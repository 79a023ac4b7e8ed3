#include "tests/support/hostile_sftp/Tracker.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "tests/support/SftpPackets.hpp"

namespace sshfa::testing::hostile {

namespace sftp = foundation::sshclient::internal::sftp;
using sftp::PacketType;

namespace {

std::uint32_t idOf(ByteView packet) {
  return (std::uint32_t{packet[1]} << 24U) | (std::uint32_t{packet[2]} << 16U) | (std::uint32_t{packet[3]} << 8U) |
         packet[4];
}

std::string quoted(std::string_view bytes) { return "'" + escape(bytes) + "'"; }

// The value a field gives, or nullopt for '-'.
std::optional<std::uint64_t> valueOf(Field const& field, Lookup const& lookup,
                                     std::optional<std::uint64_t> (*pick)(Attributes const&)) {
  if (auto const* number = field.number()) return *number;
  if (auto const* copied = field.copied()) return pick(lookup(copied->path));
  return std::nullopt;
}

char typeLetter(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return 'd';
    case S_IFLNK:
      return 'l';
    case S_IFIFO:
      return 'p';
    case S_IFSOCK:
      return 's';
    case S_IFCHR:
      return 'c';
    case S_IFBLK:
      return 'b';
    default:
      return '-';
  }
}

}  // namespace

bool namesFolder(std::string const& requested, std::string const& folder, Resolve const& resolve) {
  if (requested == folder) return true;
  auto const real = resolve(requested);
  return real && real == resolve(folder);
}

Attributes attributesOf(Rule const& rule, Attributes const& real, Lookup const& lookup) {
  Attributes out = real;
  auto const mode = valueOf(rule.mode, lookup, [](Attributes const& a) -> std::optional<std::uint64_t> {
    return a.permissions ? std::optional<std::uint64_t>(*a.permissions & 07777U) : std::nullopt;
  });
  if (rule.type != EntryType::Unchanged || mode) {
    std::uint32_t const type = rule.type != EntryType::Unchanged ? typeBits(rule.type) : real.permissions.value_or(0);
    std::uint32_t const bits = mode ? static_cast<std::uint32_t>(*mode) : real.permissions.value_or(0);
    out.permissions = (type & S_IFMT) | (bits & 07777U);
  }
  if (auto const size = valueOf(rule.size, lookup, [](Attributes const& a) { return a.size; })) out.size = *size;
  auto const mtime = valueOf(rule.mtime, lookup, [](Attributes const& a) -> std::optional<std::uint64_t> {
    return a.mtime ? std::optional<std::uint64_t>(*a.mtime) : std::nullopt;
  });
  if (mtime) {
    out.mtime = static_cast<std::uint32_t>(*mtime);
    if (!out.atime) out.atime = out.mtime;
  }
  return out;
}

std::string longName(std::string_view name, Attributes const& attributes) {
  auto const mode = attributes.permissions.value_or(0);
  std::string permissions(1, typeLetter(mode));
  static constexpr char kLetters[] = "rwxrwxrwx";
  for (std::uint32_t i = 0; i < 9; ++i) permissions += (mode & (0400U >> i)) != 0 ? kLetters[i] : '-';
  std::array<char, 32> date{};
  auto const mtime = static_cast<std::time_t>(attributes.mtime.value_or(0));
  std::tm parts{};
  ::gmtime_r(&mtime, &parts);
  auto const dateLength = std::strftime(date.data(), date.size(), "%b %e  %Y", &parts);
  std::array<char, 128> head{};
  auto const headLength =
      std::snprintf(head.data(), head.size(), "%-10s %3u %-8u %-8u %8llu ", permissions.c_str(), 1U,
                    attributes.uid.value_or(0), attributes.gid.value_or(0),
                    static_cast<unsigned long long>(attributes.size.value_or(0)));  // NOLINT(google-runtime-int)
  return std::string(head.data(), static_cast<std::size_t>(headLength)) + std::string(date.data(), dateLength) + " " +
         std::string(name);
}

std::optional<Bytes> rewriteNames(ByteView packet, std::vector<Rule const*> const& rules, bool addEntries,
                                  Attributes const& owner, Lookup const& lookup) {
  auto const reply = sftp::decodeReply(packet);
  std::vector<Rule const*> before;
  std::vector<Rule const*> after;
  if (addEntries) {
    for (auto const* rule : rules) {
      if (rule->placement == Placement::Before) before.push_back(rule);
      if (rule->placement == Placement::After) after.push_back(rule);
    }
  }
  bool changed = !before.empty() || !after.empty();

  Body out(PacketType::Name);
  out.u32(reply.id).u32(static_cast<std::uint32_t>(reply.names.size() + before.size() + after.size()));
  auto const add = [&](Rule const& rule) {
    auto const attributes = attributesOf(rule, owner, lookup);
    out.str(rule.name).str(longName(rule.name, attributes)).attributes(attributes);
  };
  for (auto const* rule : before) add(*rule);
  for (std::size_t i = 0; i < reply.names.size(); ++i) {
    auto const& entry = reply.names[i];
    // An entry's bytes run from its name's length field to the next entry.
    auto const offsetOf = [&](sftp::NameEntry const& e) {
      return static_cast<std::size_t>(reinterpret_cast<std::uint8_t const*>(e.filename.data()) - packet.data()) - 4;
    };
    auto const begin = offsetOf(entry);
    auto const end = i + 1 < reply.names.size() ? offsetOf(reply.names[i + 1]) : packet.size();
    Rule const* replacement = nullptr;
    for (auto const* rule : rules) {
      if (rule->placement == Placement::Replace && rule->name == entry.filename) replacement = rule;
    }
    if (replacement == nullptr) {
      out.raw(packet.subspan(begin, end - begin));
      continue;
    }
    out.str(entry.filename).str(entry.longname).attributes(attributesOf(*replacement, entry.attributes, lookup));
    changed = true;
  }
  for (auto const* rule : after) add(*rule);
  if (!changed) return std::nullopt;
  return out.bytes();
}

// ---- Tracker -------------------------------------------------------------------

Tracker::Tracker(std::vector<Rule> rules, Attributes const& owner, Resolve resolve, Lookup lookup, Log log)
    : rules_(std::move(rules)),
      owner_(owner),
      resolve_(std::move(resolve)),
      lookup_(std::move(lookup)),
      log_(std::move(log)) {}

std::vector<Rule const*> Tracker::rulesFor(std::string const& path) const {
  std::vector<Rule const*> found;
  for (auto const& rule : rules_) {
    if (namesFolder(path, rule.folder, resolve_)) found.push_back(&rule);
  }
  return found;
}

std::optional<std::string> Tracker::linkTargetFor(std::string const& path) const {
  for (auto const& rule : rules_) {
    if (!rule.linkTarget) continue;
    auto const suffix = "/" + rule.name;
    if (path.size() < suffix.size() || path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0) continue;
    if (namesFolder(path.substr(0, path.size() - suffix.size()), rule.folder, resolve_)) return rule.linkTarget;
  }
  return std::nullopt;
}

std::optional<Bytes> Tracker::request(ByteView packet) {
  if (packet.size() < 5) return std::nullopt;
  auto const type = static_cast<PacketType>(packet[0]);
  if (type != PacketType::Opendir && type != PacketType::Readdir && type != PacketType::Close &&
      type != PacketType::Readlink) {
    return std::nullopt;
  }
  auto const parsed = parseRequest(packet);
  std::string argument;
  try {
    argument = parsed.firstString();
  } catch (std::out_of_range const&) {
    return std::nullopt;  // the server's to refuse
  }
  switch (type) {
    case PacketType::Opendir: {
      auto rules = rulesFor(argument);
      if (rules.empty()) return std::nullopt;
      std::lock_guard const lock(mutex_);
      opening_[parsed.id] = std::make_shared<Folder>(Folder{argument, std::move(rules)});
      return std::nullopt;
    }
    case PacketType::Readdir: {
      std::lock_guard const lock(mutex_);
      if (auto const folder = handles_.find(argument); folder != handles_.end()) reading_[parsed.id] = folder->second;
      return std::nullopt;
    }
    case PacketType::Close: {
      // sftp-server hands the same handle out again once it is closed.
      std::lock_guard const lock(mutex_);
      handles_.erase(argument);
      return std::nullopt;
    }
    default: {
      auto const target = linkTargetFor(argument);
      if (!target) return std::nullopt;
      log_("READLINK of " + quoted(argument) + " answered " + quoted(*target));
      return Body(PacketType::Name).u32(parsed.id).u32(1).str(*target).str(*target).attributes({}).bytes();
    }
  }
}

std::optional<Bytes> Tracker::reply(ByteView packet) {
  if (packet.size() < 5) return std::nullopt;
  auto const type = static_cast<PacketType>(packet[0]);
  if (type != PacketType::Handle && type != PacketType::Name && type != PacketType::Status) return std::nullopt;
  auto const id = idOf(packet);

  std::lock_guard const lock(mutex_);
  if (auto const opened = opening_.find(id); opened != opening_.end()) {
    if (type == PacketType::Handle) handles_[std::string(sftp::decodeReply(packet).handle)] = opened->second;
    opening_.erase(opened);
    return std::nullopt;
  }
  auto const read = reading_.find(id);
  if (read == reading_.end()) return std::nullopt;
  auto const folder = read->second;
  reading_.erase(read);
  if (type != PacketType::Name) return std::nullopt;
  auto rewritten = rewriteNames(packet, folder->rules, !folder->listed, owner_, lookup_);
  if (rewritten) {
    auto const added = folder->listed ? 0 : std::count_if(folder->rules.begin(), folder->rules.end(), [](auto* rule) {
      return rule->placement != Placement::Replace;
    });
    log_("listing of " + quoted(folder->path) + " rewritten: " + std::to_string(added) + " entries added");
  }
  folder->listed = true;
  return rewritten;
}

}  // namespace sshfa::testing::hostile
