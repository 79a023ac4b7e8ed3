#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"

#include <algorithm>
#include <cstring>

namespace foundation::sshclient::internal::sftp {

namespace {

// Bounds-checked cursor over one packet.
class Cursor {
 public:
  explicit Cursor(ByteView bytes) : bytes_(bytes) {}

  [[nodiscard]] std::size_t remaining() const noexcept { return bytes_.size() - pos_; }

  std::uint8_t u8(char const* field) {
    need(1, field);
    return bytes_[pos_++];
  }

  std::uint32_t u32(char const* field) {
    need(4, field);
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = (value << 8U) | bytes_[pos_++];
    return value;
  }

  std::uint64_t u64(char const* field) {
    auto const high = static_cast<std::uint64_t>(u32(field));
    return (high << 32U) | u32(field);
  }

  ByteView bytes(char const* field) {
    auto const length = u32(field);
    need(length, field);
    auto const view = bytes_.subspan(pos_, length);
    pos_ += length;
    return view;
  }

  std::string_view string(char const* field) {
    auto const view = bytes(field);
    return {reinterpret_cast<char const*>(view.data()), view.size()};
  }

  ByteView rest() {
    auto const view = bytes_.subspan(pos_);
    pos_ = bytes_.size();
    return view;
  }

  void expectEnd(std::string_view what) const {
    if (remaining() != 0) {
      throw ProtocolError(std::to_string(remaining()) + " unexpected bytes after " + std::string(what));
    }
  }

 private:
  void need(std::size_t count, char const* field) const {
    if (remaining() < count) throw ProtocolError(std::string("truncated ") + field);
  }

  ByteView bytes_;
  std::size_t pos_ = 0;
};

Attributes readAttributes(Cursor& in) {
  Attributes attributes;
  auto const flags = in.u32("attribute flags");
  if ((flags & attrflags::kSize) != 0) attributes.size = in.u64("size attribute");
  if ((flags & attrflags::kUidGid) != 0) {
    attributes.uid = in.u32("uid attribute");
    attributes.gid = in.u32("gid attribute");
  }
  if ((flags & attrflags::kPermissions) != 0) attributes.permissions = in.u32("permissions attribute");
  if ((flags & attrflags::kAcModTime) != 0) {
    attributes.atime = in.u32("atime attribute");
    attributes.mtime = in.u32("mtime attribute");
  }
  if ((flags & attrflags::kExtended) != 0) {
    auto const count = in.u32("extended attribute count");
    for (std::uint32_t i = 0; i < count; ++i) {
      in.string("extended attribute type");
      in.string("extended attribute data");
    }
  }
  return attributes;
}

std::string_view packetName(PacketType type) {
  switch (type) {
    case PacketType::Status:
      return "STATUS";
    case PacketType::Handle:
      return "HANDLE";
    case PacketType::Data:
      return "DATA";
    case PacketType::Name:
      return "NAME";
    case PacketType::Attrs:
      return "ATTRS";
    case PacketType::ExtendedReply:
      return "EXTENDED_REPLY";
    default:
      return "packet";
  }
}

}  // namespace

// ---- framing -----------------------------------------------------------------

std::span<std::uint8_t> PacketReader::writable(std::size_t minimum) {
  if (buffer_.size() - end_ < minimum) {
    if (begin_ > 0) {
      std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    // Room for a partial packet besides: a caller that always asks for
    // the same room never makes it grow again.
    if (buffer_.size() - end_ < minimum) {
      buffer_.resize(end_ + minimum + std::min<std::size_t>(minimum, kMaxPacketLength));
    }
  }
  return std::span<std::uint8_t>(buffer_).subspan(end_);
}

void PacketReader::commit(std::size_t count) { end_ += count; }

std::optional<ByteView> PacketReader::next() {
  if (end_ - begin_ < 4) return std::nullopt;
  auto const* p = buffer_.data() + begin_;
  auto const length =
      (std::uint32_t{p[0]} << 24U) | (std::uint32_t{p[1]} << 16U) | (std::uint32_t{p[2]} << 8U) | std::uint32_t{p[3]};
  if (length == 0) throw ProtocolError("empty packet");
  if (length > kMaxPacketLength) throw ProtocolError("packet of " + std::to_string(length) + " bytes is too long");
  if (end_ - begin_ - 4 < length) return std::nullopt;
  ByteView const packet(buffer_.data() + begin_ + 4, length);
  begin_ += 4 + std::size_t{length};
  if (begin_ == end_) begin_ = end_ = 0;
  return packet;
}

// ---- encoding ----------------------------------------------------------------

void PacketWriter::putU8(std::uint8_t value) { out_.push_back(value); }

void PacketWriter::putU32(std::uint32_t value) {
  std::uint8_t const bytes[] = {static_cast<std::uint8_t>(value >> 24U), static_cast<std::uint8_t>(value >> 16U),
                                static_cast<std::uint8_t>(value >> 8U), static_cast<std::uint8_t>(value)};
  out_.insert(out_.end(), std::begin(bytes), std::end(bytes));
}

void PacketWriter::putU64(std::uint64_t value) {
  putU32(static_cast<std::uint32_t>(value >> 32U));
  putU32(static_cast<std::uint32_t>(value));
}

void PacketWriter::putString(std::string_view value) {
  putU32(static_cast<std::uint32_t>(value.size()));
  out_.insert(out_.end(), value.begin(), value.end());
}

void PacketWriter::putAttributes(Attributes const& attributes) {
  std::uint32_t flags = 0;
  if (attributes.size) flags |= attrflags::kSize;
  if (attributes.uid && attributes.gid) flags |= attrflags::kUidGid;
  if (attributes.permissions) flags |= attrflags::kPermissions;
  if (attributes.atime && attributes.mtime) flags |= attrflags::kAcModTime;
  putU32(flags);
  if (attributes.size) putU64(*attributes.size);
  if ((flags & attrflags::kUidGid) != 0) {
    putU32(*attributes.uid);
    putU32(*attributes.gid);
  }
  if (attributes.permissions) putU32(*attributes.permissions);
  if ((flags & attrflags::kAcModTime) != 0) {
    putU32(*attributes.atime);
    putU32(*attributes.mtime);
  }
}

std::size_t PacketWriter::begin(PacketType type) {
  auto const start = out_.size();
  putU32(0);
  putU8(static_cast<std::uint8_t>(type));
  return start;
}

std::size_t PacketWriter::begin(PacketType type, std::uint32_t id) {
  auto const start = begin(type);
  putU32(id);
  return start;
}

void PacketWriter::end(std::size_t start) {
  auto const length = static_cast<std::uint32_t>(out_.size() - start - 4);
  out_[start] = static_cast<std::uint8_t>(length >> 24U);
  out_[start + 1] = static_cast<std::uint8_t>(length >> 16U);
  out_[start + 2] = static_cast<std::uint8_t>(length >> 8U);
  out_[start + 3] = static_cast<std::uint8_t>(length);
}

void PacketWriter::init() {
  auto const start = begin(PacketType::Init);
  putU32(kProtocolVersion);
  end(start);
}

void PacketWriter::open(std::uint32_t id, std::string_view path, std::uint32_t flags, Attributes const& attributes) {
  auto const start = begin(PacketType::Open, id);
  putString(path);
  putU32(flags);
  putAttributes(attributes);
  end(start);
}

void PacketWriter::close(std::uint32_t id, std::string_view handle) {
  auto const start = begin(PacketType::Close, id);
  putString(handle);
  end(start);
}

void PacketWriter::read(std::uint32_t id, std::string_view handle, std::uint64_t offset, std::uint32_t length) {
  auto const start = begin(PacketType::Read, id);
  putString(handle);
  putU64(offset);
  putU32(length);
  end(start);
}

void PacketWriter::write(std::uint32_t id, std::string_view handle, std::uint64_t offset, ByteView data) {
  auto const start = begin(PacketType::Write, id);
  putString(handle);
  putU64(offset);
  putU32(static_cast<std::uint32_t>(data.size()));
  out_.insert(out_.end(), data.begin(), data.end());
  end(start);
}

void PacketWriter::lstat(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Lstat, id);
  putString(path);
  end(start);
}

void PacketWriter::stat(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Stat, id);
  putString(path);
  end(start);
}

void PacketWriter::fstat(std::uint32_t id, std::string_view handle) {
  auto const start = begin(PacketType::Fstat, id);
  putString(handle);
  end(start);
}

void PacketWriter::setstat(std::uint32_t id, std::string_view path, Attributes const& attributes) {
  auto const start = begin(PacketType::Setstat, id);
  putString(path);
  putAttributes(attributes);
  end(start);
}

void PacketWriter::fsetstat(std::uint32_t id, std::string_view handle, Attributes const& attributes) {
  auto const start = begin(PacketType::Fsetstat, id);
  putString(handle);
  putAttributes(attributes);
  end(start);
}

void PacketWriter::remove(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Remove, id);
  putString(path);
  end(start);
}

void PacketWriter::realpath(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Realpath, id);
  putString(path);
  end(start);
}

void PacketWriter::rename(std::uint32_t id, std::string_view from, std::string_view to) {
  auto const start = begin(PacketType::Rename, id);
  putString(from);
  putString(to);
  end(start);
}

void PacketWriter::posixRename(std::uint32_t id, std::string_view from, std::string_view to) {
  auto const start = begin(PacketType::Extended, id);
  putString(kPosixRenameExtension);
  putString(from);
  putString(to);
  end(start);
}

void PacketWriter::limits(std::uint32_t id) {
  auto const start = begin(PacketType::Extended, id);
  putString(kLimitsExtension);
  end(start);
}

void PacketWriter::opendir(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Opendir, id);
  putString(path);
  end(start);
}

void PacketWriter::readdir(std::uint32_t id, std::string_view handle) {
  auto const start = begin(PacketType::Readdir, id);
  putString(handle);
  end(start);
}

void PacketWriter::mkdir(std::uint32_t id, std::string_view path, Attributes const& attributes) {
  auto const start = begin(PacketType::Mkdir, id);
  putString(path);
  putAttributes(attributes);
  end(start);
}

void PacketWriter::rmdir(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Rmdir, id);
  putString(path);
  end(start);
}

void PacketWriter::readlink(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Readlink, id);
  putString(path);
  end(start);
}

void PacketWriter::symlink(std::uint32_t id, std::string_view target, std::string_view link) {
  auto const start = begin(PacketType::Symlink, id);
  putString(target);
  putString(link);
  end(start);
}

void PacketWriter::statvfs(std::uint32_t id, std::string_view path) {
  auto const start = begin(PacketType::Extended, id);
  putString(kStatvfsExtension);
  putString(path);
  end(start);
}

void PacketWriter::copyData(std::uint32_t id, std::string_view readHandle, std::uint64_t readOffset,
                            std::uint64_t length, std::string_view writeHandle, std::uint64_t writeOffset) {
  auto const start = begin(PacketType::Extended, id);
  putString(kCopyDataExtension);
  putString(readHandle);
  putU64(readOffset);
  putU64(length);
  putString(writeHandle);
  putU64(writeOffset);
  end(start);
}

// ---- decoding ----------------------------------------------------------------

bool VersionReply::offers(std::string_view name) const noexcept {
  return std::any_of(extensions.begin(), extensions.end(), [&](Extension const& e) { return e.name == name; });
}

VersionReply decodeVersion(ByteView packet) {
  Cursor in(packet);
  auto const type = in.u8("packet type");
  if (type != static_cast<std::uint8_t>(PacketType::Version)) {
    throw ProtocolError("expected VERSION, got packet type " + std::to_string(type));
  }
  VersionReply reply;
  reply.version = in.u32("version");
  while (in.remaining() > 0) {
    Extension extension;
    extension.name = std::string(in.string("extension name"));
    extension.data = std::string(in.string("extension data"));
    reply.extensions.push_back(std::move(extension));
  }
  return reply;
}

Reply decodeReply(ByteView packet) {
  Cursor in(packet);
  Reply reply;
  auto const type = in.u8("packet type");
  reply.type = static_cast<PacketType>(type);
  reply.id = in.u32("request id");
  switch (reply.type) {
    case PacketType::Status:
      reply.status = static_cast<StatusCode>(in.u32("status code"));
      // Some servers end the packet after the code.
      if (in.remaining() > 0) {
        reply.message = in.string("status message");
        in.string("status language tag");
      }
      break;
    case PacketType::Handle:
      reply.handle = in.string("handle");
      if (reply.handle.empty()) throw ProtocolError("empty handle");
      break;
    case PacketType::Data:
      reply.data = in.bytes("data");
      break;
    case PacketType::Name: {
      auto const count = in.u32("name count");
      // Each entry takes at least 12 bytes: no reserve() from a forged count.
      if (count > in.remaining() / 12) throw ProtocolError("truncated NAME entries");
      reply.names.reserve(count);
      for (std::uint32_t i = 0; i < count; ++i) {
        NameEntry entry;
        entry.filename = in.string("file name");
        entry.longname = in.string("long name");
        entry.attributes = readAttributes(in);
        reply.names.push_back(entry);
      }
      break;
    }
    case PacketType::Attrs:
      reply.attributes = readAttributes(in);
      break;
    case PacketType::ExtendedReply:
      reply.data = in.rest();
      break;
    default:
      throw ProtocolError("unexpected packet type " + std::to_string(type));
  }
  in.expectEnd(packetName(reply.type));
  return reply;
}

Limits decodeLimits(ByteView extendedReplyData) {
  Cursor in(extendedReplyData);
  Limits limits;
  limits.maxPacketLength = in.u64("limits max-packet-length");
  limits.maxReadLength = in.u64("limits max-read-length");
  limits.maxWriteLength = in.u64("limits max-write-length");
  limits.maxOpenHandles = in.u64("limits max-open-handles");
  return limits;
}

FileSystemState decodeStatvfs(ByteView extendedReplyData) {
  Cursor in(extendedReplyData);
  FileSystemState state;
  in.u64("statvfs bsize");
  auto const fragment = in.u64("statvfs frsize");
  in.u64("statvfs blocks");
  in.u64("statvfs bfree");
  state.bytesAvailable = in.u64("statvfs bavail") * fragment;
  in.u64("statvfs files");
  in.u64("statvfs ffree");
  in.u64("statvfs favail");
  in.u64("statvfs fsid");
  constexpr std::uint64_t kReadOnlyFlag = 1;
  state.readOnly = (in.u64("statvfs flag") & kReadOnlyFlag) != 0;
  return state;
}

std::string statusText(StatusCode code) {
  switch (code) {
    case StatusCode::Ok:
      return "Success";
    case StatusCode::Eof:
      return "End of file";
    case StatusCode::NoSuchFile:
      return "No such file";
    case StatusCode::PermissionDenied:
      return "Permission denied";
    case StatusCode::Failure:
      return "Failure";
    case StatusCode::BadMessage:
      return "Bad message";
    case StatusCode::NoConnection:
      return "No connection";
    case StatusCode::ConnectionLost:
      return "Connection lost";
    case StatusCode::OpUnsupported:
      return "Operation unsupported";
  }
  return "Unknown error " + std::to_string(static_cast<std::uint32_t>(code));
}

std::string describeStatus(StatusCode code, std::string_view serverMessage) {
  auto text = statusText(code);
  std::string message;
  for (char const c : serverMessage) message.push_back(static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? ' ' : c);
  auto const first = message.find_first_not_of(' ');
  if (first == std::string::npos) return text;
  message = message.substr(first, message.find_last_not_of(' ') - first + 1);
  auto const lower = [](std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return s;
  };
  if (lower(message) == lower(text)) return text;
  return text + " (" + message + ")";
}

}  // namespace foundation::sshclient::internal::sftp
