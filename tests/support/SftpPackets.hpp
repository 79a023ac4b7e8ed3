#pragma once
// SFTP packets as a server writes and reads them, for test servers: a builder
// of reply bodies, the parse of a client's request, a local file's attributes
// as a server reports them, and where this machine keeps OpenSSH's
// sftp-server. The client side lives in the library's Protocol.hpp; these add
// what only a server needs.
//
// Header-only, no state. Request::firstString() throws std::out_of_range on a
// truncated string; localAttributes() throws std::runtime_error naming the
// path and the cause; sftpServerPath() when no sftp-server is installed.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"

namespace sshfa::testing {

inline std::string sftpServerPath() {
  for (char const* path : {"/usr/lib/openssh/sftp-server", "/usr/libexec/openssh/sftp-server",
                           "/usr/libexec/sftp-server", "/usr/lib/ssh/sftp-server"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  throw std::runtime_error("no sftp-server binary found");
}

// A local file's own attributes (lstat), as sftp-server reports them.
inline foundation::sshclient::internal::sftp::Attributes localAttributes(std::string const& path) {
  struct stat st {};
  if (path.find('\0') != std::string::npos || ::lstat(path.c_str(), &st) != 0) {
    throw std::runtime_error("cannot read the attributes of '" + path + "': " + std::strerror(errno));
  }
  foundation::sshclient::internal::sftp::Attributes attributes;
  attributes.size = static_cast<std::uint64_t>(st.st_size);
  attributes.uid = st.st_uid;
  attributes.gid = st.st_gid;
  attributes.permissions = st.st_mode;
  attributes.atime = static_cast<std::uint32_t>(st.st_atime);
  attributes.mtime = static_cast<std::uint32_t>(st.st_mtime);
  return attributes;
}

// Builds a packet body (type byte onwards) field by field.
class Body {
 public:
  using Bytes = foundation::sshclient::internal::sftp::Bytes;
  using ByteView = foundation::sshclient::internal::sftp::ByteView;
  using PacketType = foundation::sshclient::internal::sftp::PacketType;
  using Attributes = foundation::sshclient::internal::sftp::Attributes;

  explicit Body(PacketType type) { u8(static_cast<std::uint8_t>(type)); }
  Body& u8(std::uint8_t v) {
    bytes_.push_back(v);
    return *this;
  }
  Body& u32(std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes_.push_back(static_cast<std::uint8_t>(v >> shift));
    return *this;
  }
  Body& u64(std::uint64_t v) {
    u32(static_cast<std::uint32_t>(v >> 32U));
    return u32(static_cast<std::uint32_t>(v));
  }
  Body& str(std::string_view s) {
    u32(static_cast<std::uint32_t>(s.size()));
    bytes_.insert(bytes_.end(), s.begin(), s.end());
    return *this;
  }
  Body& raw(ByteView bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  // In the library's own encoding: that of a SETSTAT of the empty path, after
  // its 13 bytes of length, type, id and path.
  Body& attributes(Attributes const& attributes) {
    Bytes setstat;
    foundation::sshclient::internal::sftp::PacketWriter(setstat).setstat(0, "", attributes);
    bytes_.insert(bytes_.end(), setstat.begin() + 13, setstat.end());
    return *this;
  }
  [[nodiscard]] Bytes const& bytes() const { return bytes_; }
  // The body without its last `n` bytes.
  [[nodiscard]] Bytes cut(std::size_t n) const { return Bytes(bytes_.begin(), bytes_.end() - static_cast<long>(n)); }
  // The body with its length field in front, as on the wire.
  [[nodiscard]] Bytes framed() const { return framed(bytes_); }
  [[nodiscard]] static Bytes framed(ByteView body) {
    Bytes out;
    out.reserve(body.size() + 4);
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(body.size() >> shift));
    out.insert(out.end(), body.begin(), body.end());
    return out;
  }

 private:
  Bytes bytes_;
};

inline Body status(std::uint32_t id, foundation::sshclient::internal::sftp::StatusCode code) {
  return std::move(Body(Body::PacketType::Status).u32(id).u32(static_cast<std::uint32_t>(code)).str("").str(""));
}

// One request as the server sees it.
struct Request {
  Body::PacketType type{};
  std::uint32_t id = 0;
  Body::Bytes body;  // after the id

  // Reads the string field at the front of the body (paths, handles).
  [[nodiscard]] std::string firstString() const {
    if (body.size() < 4) throw std::out_of_range("truncated request");
    auto const length =
        (std::uint32_t{body[0]} << 24U) | (std::uint32_t{body[1]} << 16U) | (std::uint32_t{body[2]} << 8U) | body[3];
    if (body.size() - 4 < length) throw std::out_of_range("truncated request");
    return std::string(body.begin() + 4, body.begin() + 4 + length);
  }
  // The 64-bit and 32-bit fields after the first string (READ's offset, length).
  [[nodiscard]] std::pair<std::uint64_t, std::uint32_t> offsetAndLength() const {
    std::size_t at = 4 + firstString().size();
    std::uint64_t offset = 0;
    for (int i = 0; i < 8; ++i) offset = (offset << 8U) | body[at++];
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i) length = (length << 8U) | body[at++];
    return {offset, length};
  }
};

// `packet` holds at least its type byte and, but for INIT, its id.
inline Request parseRequest(Body::ByteView packet) {
  Request request;
  request.type = static_cast<Body::PacketType>(packet[0]);
  if (request.type == Body::PacketType::Init) return request;
  request.id = (std::uint32_t{packet[1]} << 24U) | (std::uint32_t{packet[2]} << 16U) |
               (std::uint32_t{packet[3]} << 8U) | packet[4];
  request.body.assign(packet.begin() + 5, packet.end());
  return request;
}

}  // namespace sshfa::testing
