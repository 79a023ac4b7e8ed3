#pragma once
// Wire format of the SFTP protocol, version 3, as spoken by OpenSSH's
// sftp-server: packet framing, request encoding and reply decoding.
//
// Pure data handling, no I/O. Encoders append whole packets to a byte buffer.
// Decoders check every length against the bytes actually present and throw
// ProtocolError on anything malformed or truncated; they never read past the
// packet they are given. Decoded strings and data are views into that packet
// and live only as long as it does.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::sshclient::internal::sftp {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<std::uint8_t const>;

inline constexpr std::uint32_t kProtocolVersion = 3;

enum class PacketType : std::uint8_t {
  Init = 1,
  Version = 2,
  Open = 3,
  Close = 4,
  Read = 5,
  Write = 6,
  Lstat = 7,
  Fstat = 8,
  Setstat = 9,
  Fsetstat = 10,
  Opendir = 11,
  Readdir = 12,
  Remove = 13,
  Mkdir = 14,
  Rmdir = 15,
  Realpath = 16,
  Stat = 17,
  Rename = 18,
  Readlink = 19,
  Symlink = 20,
  Status = 101,
  Handle = 102,
  Data = 103,
  Name = 104,
  Attrs = 105,
  Extended = 200,
  ExtendedReply = 201,
};

enum class StatusCode : std::uint32_t {
  Ok = 0,
  Eof = 1,
  NoSuchFile = 2,
  PermissionDenied = 3,
  Failure = 4,
  BadMessage = 5,
  NoConnection = 6,
  ConnectionLost = 7,
  OpUnsupported = 8,
};

namespace openflags {
inline constexpr std::uint32_t kRead = 0x01;
inline constexpr std::uint32_t kWrite = 0x02;
inline constexpr std::uint32_t kAppend = 0x04;
inline constexpr std::uint32_t kCreate = 0x08;
inline constexpr std::uint32_t kTruncate = 0x10;
inline constexpr std::uint32_t kExclusive = 0x20;
}  // namespace openflags

namespace attrflags {
inline constexpr std::uint32_t kSize = 0x01;
inline constexpr std::uint32_t kUidGid = 0x02;
inline constexpr std::uint32_t kPermissions = 0x04;
inline constexpr std::uint32_t kAcModTime = 0x08;
inline constexpr std::uint32_t kExtended = 0x80000000U;
}  // namespace attrflags

// File type bits of Attributes::permissions (the server's st_mode).
namespace modebits {
inline constexpr std::uint32_t kTypeMask = 0170000;
inline constexpr std::uint32_t kDirectory = 0040000;
inline constexpr std::uint32_t kRegular = 0100000;
inline constexpr std::uint32_t kSymlink = 0120000;
}  // namespace modebits

inline constexpr std::string_view kPosixRenameExtension = "posix-rename@openssh.com";
inline constexpr std::string_view kLimitsExtension = "limits@openssh.com";
inline constexpr std::string_view kStatvfsExtension = "statvfs@openssh.com";
// Copies between two open handles on the server (OpenSSH 9.0 and later).
inline constexpr std::string_view kCopyDataExtension = "copy-data";

// Reply packets larger than this are refused before any buffering: no
// honest server sends them (OpenSSH's limit is 256 KiB).
inline constexpr std::uint32_t kMaxPacketLength = 4U * 1024U * 1024U;

// A reply that cannot be decoded. The stream cannot be trusted afterwards.
class ProtocolError : public std::runtime_error {
 public:
  explicit ProtocolError(std::string const& what) : std::runtime_error("malformed SFTP reply: " + what) {}
};

struct Attributes {
  std::optional<std::uint64_t> size;
  std::optional<std::uint32_t> uid;
  std::optional<std::uint32_t> gid;
  std::optional<std::uint32_t> permissions;
  std::optional<std::uint32_t> atime;
  std::optional<std::uint32_t> mtime;

  [[nodiscard]] bool isDirectory() const noexcept {
    return permissions && (*permissions & modebits::kTypeMask) == modebits::kDirectory;
  }
  [[nodiscard]] bool isSymlink() const noexcept {
    return permissions && (*permissions & modebits::kTypeMask) == modebits::kSymlink;
  }
  // A server that sends no type bits is taken at its word that it is a file.
  [[nodiscard]] bool isRegularOrUnknown() const noexcept {
    return !permissions || (*permissions & modebits::kTypeMask) == 0 ||
           (*permissions & modebits::kTypeMask) == modebits::kRegular;
  }
};

struct Extension {
  std::string name;
  std::string data;
};

struct VersionReply {
  std::uint32_t version = 0;
  std::vector<Extension> extensions;

  [[nodiscard]] bool offers(std::string_view name) const noexcept;
};

// The answer to limits@openssh.com; 0 means "no limit stated".
struct Limits {
  std::uint64_t maxPacketLength = 0;
  std::uint64_t maxReadLength = 0;
  std::uint64_t maxWriteLength = 0;
  std::uint64_t maxOpenHandles = 0;
};

// The part of the answer to statvfs@openssh.com that names causes.
struct FileSystemState {
  std::uint64_t bytesAvailable = 0;  // to unprivileged users
  bool readOnly = false;
};

struct NameEntry {
  std::string_view filename;
  std::string_view longname;
  Attributes attributes;
};

// One decoded reply. Which members are meaningful depends on `type`:
// Status: status, message; Handle: handle; Data: data; Name: names;
// Attrs: attributes; ExtendedReply: data (the raw reply body).
struct Reply {
  PacketType type = PacketType::Status;
  std::uint32_t id = 0;
  StatusCode status = StatusCode::Ok;
  std::string_view message;
  std::string_view handle;
  ByteView data;
  std::vector<NameEntry> names;
  Attributes attributes;
};

// ---- framing -----------------------------------------------------------------

// Reassembles packets from a byte stream. Bytes go in through writable() and
// commit(); complete packets (type byte onwards, without the length field)
// come out of next().
class PacketReader {
 public:
  // Room for at least `minimum` more bytes.
  std::span<std::uint8_t> writable(std::size_t minimum);
  void commit(std::size_t count);
  // The next complete packet, valid until the next call of any member;
  // nullopt when more bytes are needed. Throws ProtocolError on a length
  // of 0 or above kMaxPacketLength.
  std::optional<ByteView> next();
  [[nodiscard]] std::size_t buffered() const noexcept { return end_ - begin_; }

 private:
  Bytes buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// ---- encoding ----------------------------------------------------------------

// Appends packets to `out`. Each begin..() call writes a whole packet.
class PacketWriter {
 public:
  explicit PacketWriter(Bytes& out) : out_(out) {}

  void init();
  void open(std::uint32_t id, std::string_view path, std::uint32_t flags, Attributes const& attributes);
  void close(std::uint32_t id, std::string_view handle);
  void read(std::uint32_t id, std::string_view handle, std::uint64_t offset, std::uint32_t length);
  void write(std::uint32_t id, std::string_view handle, std::uint64_t offset, ByteView data);
  void lstat(std::uint32_t id, std::string_view path);
  void stat(std::uint32_t id, std::string_view path);
  void fstat(std::uint32_t id, std::string_view handle);
  void setstat(std::uint32_t id, std::string_view path, Attributes const& attributes);
  void fsetstat(std::uint32_t id, std::string_view handle, Attributes const& attributes);
  void remove(std::uint32_t id, std::string_view path);
  void realpath(std::uint32_t id, std::string_view path);
  void rename(std::uint32_t id, std::string_view from, std::string_view to);
  void posixRename(std::uint32_t id, std::string_view from, std::string_view to);
  void limits(std::uint32_t id);
  void opendir(std::uint32_t id, std::string_view path);
  void readdir(std::uint32_t id, std::string_view handle);
  void mkdir(std::uint32_t id, std::string_view path, Attributes const& attributes);
  void rmdir(std::uint32_t id, std::string_view path);
  void readlink(std::uint32_t id, std::string_view path);
  // OpenSSH's order: the target first, then the link's own path.
  void symlink(std::uint32_t id, std::string_view target, std::string_view link);
  void statvfs(std::uint32_t id, std::string_view path);
  // `length` 0: up to the end of the file read.
  void copyData(std::uint32_t id, std::string_view readHandle, std::uint64_t readOffset, std::uint64_t length,
                std::string_view writeHandle, std::uint64_t writeOffset);

 private:
  std::size_t begin(PacketType type);
  std::size_t begin(PacketType type, std::uint32_t id);
  void end(std::size_t start);
  void putU8(std::uint8_t value);
  void putU32(std::uint32_t value);
  void putU64(std::uint64_t value);
  void putString(std::string_view value);
  void putAttributes(Attributes const& attributes);

  Bytes& out_;
};

// ---- decoding ----------------------------------------------------------------

// `packet` starts with the type byte. Throws ProtocolError.
VersionReply decodeVersion(ByteView packet);
Reply decodeReply(ByteView packet);
Limits decodeLimits(ByteView extendedReplyData);
FileSystemState decodeStatvfs(ByteView extendedReplyData);

// "No such file", "Permission denied", ... for a status code.
std::string statusText(StatusCode code);
// The status text, followed by the server's own message in parentheses when
// that adds something (control characters replaced).
std::string describeStatus(StatusCode code, std::string_view serverMessage);

}  // namespace foundation::sshclient::internal::sftp
