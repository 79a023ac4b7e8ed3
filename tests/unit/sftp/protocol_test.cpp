#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/sftp/FakeServer.hpp"

namespace foundation::sshclient::internal::sftp {
namespace {

// Packets are compared in a readable form: bytes as two hex digits, blank-separated.
std::string hex(ByteView bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (auto const b : bytes) {
    if (!text.empty()) text += ' ';
    text += kDigits[b >> 4U];
    text += kDigits[b & 15U];
  }
  return text;
}

Bytes fromHex(std::string const& text) {
  Bytes bytes;
  for (std::size_t i = 0; i < text.size(); i += 3) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

using sshfa::testing::Body;

std::string text(std::string_view view) { return std::string(view); }

std::string errorOf(Bytes const& body) {
  try {
    decodeReply(body);
  } catch (ProtocolError const& e) {
    return e.what();
  }
  return "no error";
}

// ---- encoding ----------------------------------------------------------------

TEST(SftpEncode, Init) {
  Bytes out;
  PacketWriter(out).init();
  EXPECT_EQ(hex(out), "00 00 00 05 01 00 00 00 03");
}

TEST(SftpEncode, OpenWithPermissions) {
  Bytes out;
  Attributes attributes;
  attributes.permissions = 0744;
  PacketWriter(out).open(7, "/a", openflags::kWrite | openflags::kCreate | openflags::kExclusive, attributes);
  EXPECT_EQ(hex(out), "00 00 00 17 03 00 00 00 07 00 00 00 02 2f 61 00 00 00 2a 00 00 00 04 00 00 01 e4");
}

TEST(SftpEncode, OpenWithoutAttributes) {
  Bytes out;
  PacketWriter(out).open(1, "x", openflags::kRead, Attributes{});
  EXPECT_EQ(hex(out), "00 00 00 12 03 00 00 00 01 00 00 00 01 78 00 00 00 01 00 00 00 00");
}

TEST(SftpEncode, AllAttributes) {
  Bytes out;
  Attributes a;
  a.size = 0x100000000ULL;
  a.uid = 1;
  a.gid = 2;
  a.permissions = 0644;
  a.atime = 3;
  a.mtime = 4;
  PacketWriter(out).setstat(9, "p", a);
  EXPECT_EQ(hex(out),
            "00 00 00 2a 09 00 00 00 09 00 00 00 01 70 00 00 00 0f 00 00 00 01 00 00 00 00 00 00 00 01 00 00 00 02 "
            "00 00 01 a4 00 00 00 03 00 00 00 04");
}

TEST(SftpEncode, FsetstatSize) {
  Bytes out;
  Attributes a;
  a.size = 5;
  PacketWriter(out).fsetstat(2, "h", a);
  EXPECT_EQ(hex(out), "00 00 00 16 0a 00 00 00 02 00 00 00 01 68 00 00 00 01 00 00 00 00 00 00 00 05");
}

TEST(SftpEncode, CloseReadWriteWithHugeOffsets) {
  Bytes out;
  PacketWriter writer(out);
  writer.close(1, "H");
  writer.read(2, "H", 0x123456789ULL, 32768);
  std::string const data = "abc";
  writer.write(3, "H", 0xffffffff00000001ULL, ByteView(reinterpret_cast<std::uint8_t const*>(data.data()), 3));
  EXPECT_EQ(hex(out),
            "00 00 00 0a 04 00 00 00 01 00 00 00 01 48 "
            "00 00 00 16 05 00 00 00 02 00 00 00 01 48 00 00 00 01 23 45 67 89 00 00 80 00 "
            "00 00 00 19 06 00 00 00 03 00 00 00 01 48 ff ff ff ff 00 00 00 01 00 00 00 03 61 62 63");
}

TEST(SftpEncode, PathRequests) {
  Bytes out;
  PacketWriter writer(out);
  writer.lstat(1, "a");
  writer.stat(2, "a");
  writer.fstat(3, "h");
  writer.remove(4, "a");
  writer.realpath(5, ".");
  EXPECT_EQ(hex(out),
            "00 00 00 0a 07 00 00 00 01 00 00 00 01 61 "
            "00 00 00 0a 11 00 00 00 02 00 00 00 01 61 "
            "00 00 00 0a 08 00 00 00 03 00 00 00 01 68 "
            "00 00 00 0a 0d 00 00 00 04 00 00 00 01 61 "
            "00 00 00 0a 10 00 00 00 05 00 00 00 01 2e");
}

TEST(SftpEncode, Renames) {
  Bytes out;
  PacketWriter writer(out);
  writer.rename(1, "a", "b");
  writer.posixRename(2, "a", "b");
  EXPECT_EQ(hex(out),
            "00 00 00 0f 12 00 00 00 01 00 00 00 01 61 00 00 00 01 62 "
            "00 00 00 2b c8 00 00 00 02 00 00 00 18 " +
                hex(Bytes(kPosixRenameExtension.begin(), kPosixRenameExtension.end())) +
                " 00 00 00 01 61 00 00 00 01 62");
}

TEST(SftpEncode, Limits) {
  Bytes out;
  PacketWriter(out).limits(4);
  EXPECT_EQ(hex(out),
            "00 00 00 1b c8 00 00 00 04 00 00 00 12 " + hex(Bytes(kLimitsExtension.begin(), kLimitsExtension.end())));
}

TEST(SftpEncode, TreeRequests) {
  Bytes out;
  PacketWriter(out).mkdir(1, "d", Attributes{});
  EXPECT_EQ(hex(out), "00 00 00 0e 0e 00 00 00 01 00 00 00 01 64 00 00 00 00");
  out.clear();
  // OpenSSH's order: the target, then the link.
  PacketWriter(out).symlink(2, "t", "l");
  EXPECT_EQ(hex(out), "00 00 00 0f 14 00 00 00 02 00 00 00 01 74 00 00 00 01 6c");
  out.clear();
  PacketWriter(out).readdir(3, "h");
  EXPECT_EQ(hex(out), "00 00 00 0a 0c 00 00 00 03 00 00 00 01 68");
  out.clear();
  PacketWriter(out).rmdir(4, "d");
  EXPECT_EQ(hex(out), "00 00 00 0a 0f 00 00 00 04 00 00 00 01 64");
}

TEST(SftpEncode, BytesAreNotText) {
  Bytes out;
  std::string const name("a\n'\xff b", 6);
  PacketWriter(out).remove(1, name);
  EXPECT_EQ(hex(out), "00 00 00 0f 0d 00 00 00 01 00 00 00 06 61 0a 27 ff 20 62");
}

// ---- decoding ----------------------------------------------------------------

TEST(SftpDecode, VersionWithExtensions) {
  auto const body = Body(PacketType::Version)
                        .u32(3)
                        .str("posix-rename@openssh.com")
                        .str("1")
                        .str("limits@openssh.com")
                        .str("1")
                        .bytes();
  auto const version = decodeVersion(body);
  EXPECT_EQ(version.version, 3U);
  ASSERT_EQ(version.extensions.size(), 2U);
  EXPECT_EQ(version.extensions[1].name, "limits@openssh.com");
  EXPECT_EQ(version.extensions[1].data, "1");
  EXPECT_TRUE(version.offers(kPosixRenameExtension));
  EXPECT_TRUE(version.offers(kLimitsExtension));
  EXPECT_FALSE(version.offers("fsync@openssh.com"));
}

TEST(SftpDecode, VersionWithoutExtensions) {
  auto const version = decodeVersion(Body(PacketType::Version).u32(3).bytes());
  EXPECT_TRUE(version.extensions.empty());
}

TEST(SftpDecode, VersionErrors) {
  auto const message = [](Bytes const& body) {
    try {
      decodeVersion(body);
    } catch (ProtocolError const& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  EXPECT_EQ(message(Body(PacketType::Handle).u32(3).bytes()),
            "malformed SFTP reply: expected VERSION, got packet type 102");
  EXPECT_EQ(message(Body(PacketType::Version).u32(3).str("x").bytes()),
            "malformed SFTP reply: truncated extension data");
  EXPECT_EQ(message(Body(PacketType::Version).cut(0)), "malformed SFTP reply: truncated version");
  EXPECT_EQ(message({}), "malformed SFTP reply: truncated packet type");
}

TEST(SftpDecode, Status) {
  auto const body = Body(PacketType::Status).u32(9).u32(2).str("No such file").str("").bytes();
  auto const reply = decodeReply(body);
  EXPECT_EQ(reply.type, PacketType::Status);
  EXPECT_EQ(reply.id, 9U);
  EXPECT_EQ(reply.status, StatusCode::NoSuchFile);
  EXPECT_EQ(text(reply.message), "No such file");
}

TEST(SftpDecode, StatusWithoutMessage) {
  auto const reply = decodeReply(Body(PacketType::Status).u32(1).u32(0).bytes());
  EXPECT_EQ(reply.status, StatusCode::Ok);
  EXPECT_TRUE(reply.message.empty());
}

TEST(SftpDecode, Handle) {
  auto const body = Body(PacketType::Handle).u32(5).str(std::string("\0\1", 2)).bytes();
  auto const reply = decodeReply(body);
  EXPECT_EQ(reply.type, PacketType::Handle);
  EXPECT_EQ(reply.handle, std::string_view("\0\1", 2));
}

TEST(SftpDecode, Data) {
  auto const body = Body(PacketType::Data).u32(6).str("hello").bytes();
  auto const reply = decodeReply(body);
  EXPECT_EQ(reply.type, PacketType::Data);
  EXPECT_EQ(std::string(reply.data.begin(), reply.data.end()), "hello");
  // A view into the packet, not a copy.
  EXPECT_EQ(reply.data.data(), body.data() + 9);
}

TEST(SftpDecode, Attrs) {
  auto const reply = decodeReply(Body(PacketType::Attrs)
                                     .u32(7)
                                     .u32(attrflags::kSize | attrflags::kUidGid | attrflags::kPermissions |
                                          attrflags::kAcModTime | attrflags::kExtended)
                                     .u64(5ULL << 32U)
                                     .u32(1000)
                                     .u32(100)
                                     .u32(0100644)
                                     .u32(11)
                                     .u32(12)
                                     .u32(1)
                                     .str("type")
                                     .str("data")
                                     .bytes());
  EXPECT_EQ(reply.type, PacketType::Attrs);
  EXPECT_EQ(reply.attributes.size, 5ULL << 32U);
  EXPECT_EQ(reply.attributes.uid, 1000U);
  EXPECT_EQ(reply.attributes.gid, 100U);
  EXPECT_EQ(reply.attributes.permissions, 0100644U);
  EXPECT_EQ(reply.attributes.atime, 11U);
  EXPECT_EQ(reply.attributes.mtime, 12U);
  EXPECT_FALSE(reply.attributes.isDirectory());
  EXPECT_TRUE(reply.attributes.isRegularOrUnknown());
}

TEST(SftpDecode, FileTypes) {
  Attributes a;
  EXPECT_TRUE(a.isRegularOrUnknown());
  a.permissions = 040755;
  EXPECT_TRUE(a.isDirectory());
  EXPECT_FALSE(a.isRegularOrUnknown());
  a.permissions = 020666;  // character device
  EXPECT_FALSE(a.isDirectory());
  EXPECT_FALSE(a.isRegularOrUnknown());
  a.permissions = 0644;  // no type bits
  EXPECT_TRUE(a.isRegularOrUnknown());
}

TEST(SftpDecode, Name) {
  auto const body = Body(PacketType::Name)
                        .u32(8)
                        .u32(2)
                        .str("a")
                        .str("-rw a")
                        .u32(attrflags::kSize)
                        .u64(3)
                        .str("b")
                        .str("")
                        .u32(0)
                        .bytes();
  auto const reply = decodeReply(body);
  ASSERT_EQ(reply.names.size(), 2U);
  EXPECT_EQ(text(reply.names[0].filename), "a");
  EXPECT_EQ(text(reply.names[0].longname), "-rw a");
  EXPECT_EQ(reply.names[0].attributes.size, 3U);
  EXPECT_EQ(text(reply.names[1].filename), "b");
  EXPECT_FALSE(reply.names[1].attributes.size);
}

TEST(SftpDecode, Statvfs) {
  // bsize, frsize, blocks, bfree, bavail, files, ffree, favail, fsid, flag, namemax
  auto const full = Body(PacketType::ExtendedReply)
                        .u32(5)
                        .u64(4096)
                        .u64(4096)
                        .u64(256)
                        .u64(0)
                        .u64(0)
                        .u64(10)
                        .u64(5)
                        .u64(5)
                        .u64(1)
                        .u64(0)
                        .u64(255)
                        .bytes();
  auto const state = decodeStatvfs(decodeReply(full).data);
  EXPECT_EQ(state.bytesAvailable, 0U);
  EXPECT_FALSE(state.readOnly);
  auto const readOnly = Body(PacketType::ExtendedReply)
                            .u32(5)
                            .u64(4096)
                            .u64(1024)
                            .u64(256)
                            .u64(9)
                            .u64(8)
                            .u64(10)
                            .u64(5)
                            .u64(5)
                            .u64(1)
                            .u64(1)
                            .u64(255)
                            .bytes();
  auto const other = decodeStatvfs(decodeReply(readOnly).data);
  EXPECT_EQ(other.bytesAvailable, 8U * 1024U);
  EXPECT_TRUE(other.readOnly);
  EXPECT_THROW(decodeStatvfs(decodeReply(Body(PacketType::ExtendedReply).u32(5).u64(1).bytes()).data), ProtocolError);
}

TEST(SftpDecode, ExtendedReplyAndLimits) {
  auto const body = Body(PacketType::ExtendedReply).u32(3).u64(262144).u64(261120).u64(261120).u64(1019).bytes();
  auto const reply = decodeReply(body);
  EXPECT_EQ(reply.type, PacketType::ExtendedReply);
  EXPECT_EQ(reply.data.size(), 32U);
  auto const limits = decodeLimits(reply.data);
  EXPECT_EQ(limits.maxPacketLength, 262144U);
  EXPECT_EQ(limits.maxReadLength, 261120U);
  EXPECT_EQ(limits.maxWriteLength, 261120U);
  EXPECT_EQ(limits.maxOpenHandles, 1019U);
}

TEST(SftpDecode, TruncatedLimits) {
  Bytes const data(31, 0);
  EXPECT_THROW(decodeLimits(data), ProtocolError);
}

TEST(SftpDecode, TruncatedRepliesAreErrors) {
  EXPECT_EQ(errorOf(Body(PacketType::Status).u32(1).bytes()), "malformed SFTP reply: truncated status code");
  EXPECT_EQ(errorOf(Body(PacketType::Status).u32(1).u32(4).str("Failure").bytes()),
            "malformed SFTP reply: truncated status language tag");
  EXPECT_EQ(errorOf(Body(PacketType::Handle).u32(1).str("abc").cut(1)), "malformed SFTP reply: truncated handle");
  EXPECT_EQ(errorOf(Body(PacketType::Handle).u32(1).str("").bytes()), "malformed SFTP reply: empty handle");
  EXPECT_EQ(errorOf(Body(PacketType::Data).u32(1).u32(100).str("x").bytes()), "malformed SFTP reply: truncated data");
  EXPECT_EQ(errorOf(Body(PacketType::Attrs).u32(1).u32(attrflags::kSize).u32(0).bytes()),
            "malformed SFTP reply: truncated size attribute");
  EXPECT_EQ(errorOf(Body(PacketType::Attrs).u32(1).u32(attrflags::kAcModTime).u32(0).bytes()),
            "malformed SFTP reply: truncated mtime attribute");
  EXPECT_EQ(errorOf(Body(PacketType::Attrs).u32(1).u32(attrflags::kExtended).u32(2).str("a").str("b").bytes()),
            "malformed SFTP reply: truncated extended attribute type");
  EXPECT_EQ(errorOf(Body(PacketType::Data).u32(1).cut(1)), "malformed SFTP reply: truncated request id");
}

TEST(SftpDecode, ForgedNameCountAllocatesNothing) {
  EXPECT_EQ(errorOf(Body(PacketType::Name).u32(1).u32(0xffffffffU).bytes()),
            "malformed SFTP reply: truncated NAME entries");
}

TEST(SftpDecode, HugeStringLengthIsTruncation) {
  EXPECT_EQ(errorOf(Body(PacketType::Data).u32(1).u32(0xffffffffU).bytes()), "malformed SFTP reply: truncated data");
}

TEST(SftpDecode, TrailingBytesAreErrors) {
  EXPECT_EQ(errorOf(Body(PacketType::Handle).u32(1).str("h").u8(0).bytes()),
            "malformed SFTP reply: 1 unexpected bytes after HANDLE");
}

TEST(SftpDecode, UnexpectedTypes) {
  EXPECT_EQ(errorOf(Body(PacketType::Open).u32(1).bytes()), "malformed SFTP reply: unexpected packet type 3");
  EXPECT_EQ(errorOf(Body(PacketType::Version).u32(3).bytes()), "malformed SFTP reply: unexpected packet type 2");
}

// ---- framing -----------------------------------------------------------------

void feed(PacketReader& reader, Bytes const& bytes) {
  auto space = reader.writable(bytes.size());
  ASSERT_GE(space.size(), bytes.size());
  std::copy(bytes.begin(), bytes.end(), space.begin());
  reader.commit(bytes.size());
}

TEST(SftpFraming, PacketsSplitAnywhere) {
  Bytes stream;
  PacketWriter writer(stream);
  writer.remove(1, "first");
  writer.remove(2, std::string(70000, 'x'));
  writer.remove(3, "");
  for (std::size_t step : {1U, 3U, 4U, 5U, 4096U, 100000U}) {
    PacketReader reader;
    std::vector<std::size_t> sizes;
    for (std::size_t at = 0; at < stream.size(); at += step) {
      feed(reader, Bytes(stream.begin() + static_cast<long>(at),
                         stream.begin() + static_cast<long>(std::min(stream.size(), at + step))));
      while (auto packet = reader.next()) sizes.push_back(packet->size());
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{14, 70009, 9})) << "step " << step;
    EXPECT_EQ(reader.buffered(), 0U);
  }
}

TEST(SftpFraming, PacketContent) {
  PacketReader reader;
  feed(reader, fromHex("00 00 00 05 65 00 00 00 2a 00 00"));
  auto packet = reader.next();
  ASSERT_TRUE(packet);
  EXPECT_EQ(hex(*packet), "65 00 00 00 2a");
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.buffered(), 2U);
}

TEST(SftpFraming, ZeroLengthIsAnError) {
  PacketReader reader;
  feed(reader, fromHex("00 00 00 00"));
  EXPECT_THROW(reader.next(), ProtocolError);
}

TEST(SftpFraming, OverlongIsRefusedBeforeBuffering) {
  PacketReader reader;
  feed(reader, fromHex("00 40 00 01"));
  try {
    reader.next();
    FAIL() << "no error";
  } catch (ProtocolError const& e) {
    EXPECT_STREQ(e.what(), "malformed SFTP reply: packet of 4194305 bytes is too long");
  }
}

TEST(SftpFraming, LargestAllowedPacket) {
  PacketReader reader;
  Bytes bytes = fromHex("00 40 00 00");
  bytes.resize(4 + kMaxPacketLength, 7);
  feed(reader, bytes);
  auto packet = reader.next();
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->size(), kMaxPacketLength);
}

// ---- status texts ------------------------------------------------------------

TEST(SftpStatus, Texts) {
  EXPECT_EQ(statusText(StatusCode::Ok), "Success");
  EXPECT_EQ(statusText(StatusCode::Eof), "End of file");
  EXPECT_EQ(statusText(StatusCode::NoSuchFile), "No such file");
  EXPECT_EQ(statusText(StatusCode::PermissionDenied), "Permission denied");
  EXPECT_EQ(statusText(StatusCode::Failure), "Failure");
  EXPECT_EQ(statusText(StatusCode::BadMessage), "Bad message");
  EXPECT_EQ(statusText(StatusCode::NoConnection), "No connection");
  EXPECT_EQ(statusText(StatusCode::ConnectionLost), "Connection lost");
  EXPECT_EQ(statusText(StatusCode::OpUnsupported), "Operation unsupported");
  EXPECT_EQ(statusText(static_cast<StatusCode>(42)), "Unknown error 42");
}

TEST(SftpStatus, ServerMessageOnlyWhenItAddsSomething) {
  EXPECT_EQ(describeStatus(StatusCode::NoSuchFile, "No such file"), "No such file");
  EXPECT_EQ(describeStatus(StatusCode::NoSuchFile, "no such FILE"), "No such file");
  EXPECT_EQ(describeStatus(StatusCode::NoSuchFile, ""), "No such file");
  EXPECT_EQ(describeStatus(StatusCode::Failure, "  Disk quota exceeded\n"), "Failure (Disk quota exceeded)");
  EXPECT_EQ(describeStatus(StatusCode::Failure, "a\x1b[2Jb"), "Failure (a [2Jb)");
  EXPECT_EQ(describeStatus(StatusCode::Failure, "\n\t"), "Failure");
}

}  // namespace
}  // namespace foundation::sshclient::internal::sftp
