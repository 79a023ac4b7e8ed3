// The SFTP session against a real sftp-server over pipes: the handshake and
// what the server says of itself, replies handed to their handlers with
// their tickets, data in flight counted, and a reply to nothing refused.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"
#include "tests/unit/sftp/FakeServer.hpp"
#include "tests/unit/sftp/SftpServerProcess.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;

// Keeps what each reply said, by ticket kind.
class Recorder final : public ReplyHandler {
 public:
  struct Seen {
    std::uint32_t kind = 0;
    std::uint64_t offset = 0;
    PacketType type{};
    StatusCode status = StatusCode::Ok;
    std::string text;  // a handle, a name, or data
    Attributes attributes;
  };

  void onReply(Ticket const& ticket, Reply const& reply) override {
    Seen seen{ticket.kind, ticket.offset, reply.type, reply.status, {}, reply.attributes};
    if (reply.type == PacketType::Handle) seen.text = std::string(reply.handle);
    if (reply.type == PacketType::Name && !reply.names.empty()) seen.text = std::string(reply.names[0].filename);
    if (reply.type == PacketType::Data) seen.text.assign(reply.data.begin(), reply.data.end());
    seen_.push_back(std::move(seen));
  }
  [[nodiscard]] Ticket ticket(std::uint32_t kind, std::uint64_t offset = 0) { return {this, kind, nullptr, offset, 0}; }
  std::vector<Seen> seen_;
};

class SessionTest : public ::testing::Test {
 protected:
  ScratchDir scratch_;
};

TEST_F(SessionTest, StartsAndLearnsTheServersExtensionsAndLimits) {
  SftpServerProcess server;
  SftpSession session(server, "test@peer");
  session.start();
  EXPECT_TRUE(session.offers(kPosixRenameExtension));
  EXPECT_TRUE(session.replacingRename());
  EXPECT_FALSE(session.offers("no-such@example.com"));
  session.drain();
  ASSERT_TRUE(session.limitsKnown());
  EXPECT_GT(session.readChunk(), 32U * 1024U);
  EXPECT_LE(session.readChunk(), 1024U * 1024U);
  EXPECT_GT(session.handleLimit(), 0U);
}

TEST_F(SessionTest, RepliesReachTheirHandlersWithTheirTickets) {
  writeFile(scratch_ / "f", "hello");
  SftpServerProcess server;
  SftpSession session(server, "test@peer");
  session.start();
  session.drain();  // the limits
  Recorder recorder;
  auto const path = (scratch_ / "f").string();
  session.lstat(recorder.ticket(1, 10), path);
  session.mkdir(recorder.ticket(2, 20), (scratch_ / "d").string(), Attributes{});
  session.realpath(recorder.ticket(3, 30), (scratch_ / "d" / "..").string());
  session.lstat(recorder.ticket(4, 40), (scratch_ / "absent").string());
  session.open(recorder.ticket(5, 50), path, openflags::kRead, Attributes{});
  EXPECT_EQ(session.pending(), 5U);
  session.drain();
  ASSERT_EQ(recorder.seen_.size(), 5U);
  EXPECT_EQ(recorder.seen_[0].kind, 1U);
  EXPECT_EQ(recorder.seen_[0].offset, 10U);
  EXPECT_EQ(recorder.seen_[0].attributes.size, 5U);
  EXPECT_EQ(recorder.seen_[1].status, StatusCode::Ok);
  EXPECT_TRUE(fs::is_directory(scratch_ / "d"));
  EXPECT_EQ(recorder.seen_[2].text, fs::canonical(scratch_.path()).string());
  EXPECT_EQ(recorder.seen_[3].status, StatusCode::NoSuchFile);
  ASSERT_EQ(recorder.seen_[4].type, PacketType::Handle);

  auto const handle = recorder.seen_[4].text;
  session.read({&recorder, 6, nullptr, 0, 64}, handle, 0, 64);
  EXPECT_EQ(session.dataInFlight(), 64U);
  session.drain();
  EXPECT_EQ(session.dataInFlight(), 0U);
  EXPECT_EQ(recorder.seen_.back().text, "hello");
  session.close(SftpSession::ignored(), handle);
  session.drain();
  EXPECT_EQ(recorder.seen_.size(), 6U);
}

// A request nobody waits for counts as pending until its reply, never as
// awaited; the replies of the others still reach their handlers.
TEST_F(SessionTest, AnUnawaitedRequestIsPendingButNotAwaited) {
  writeFile(scratch_ / "f", "hello");
  SftpServerProcess server;
  SftpSession session(server, "test@peer");
  session.start();
  session.drain();
  Recorder recorder;
  session.open(recorder.ticket(1), (scratch_ / "f").string(), openflags::kRead, Attributes{});
  session.drain();
  ASSERT_EQ(recorder.seen_.size(), 1U);
  session.close(SftpSession::unawaited(), recorder.seen_[0].text);
  session.lstat(recorder.ticket(2), (scratch_ / "f").string());
  EXPECT_EQ(session.pending(), 2U);
  EXPECT_EQ(session.awaited(), 1U);
  session.drain();
  EXPECT_EQ(session.pending(), 0U);
  EXPECT_EQ(session.awaited(), 0U);
  ASSERT_EQ(recorder.seen_.size(), 2U);
  EXPECT_EQ(recorder.seen_[1].kind, 2U);
  EXPECT_EQ(recorder.seen_[1].attributes.size, 5U);
}

TEST_F(SessionTest, MeasuresTheRoundTripAndTheDataAnswered) {
  writeFile(scratch_ / "f", "hello");
  SftpServerProcess server;
  SftpSession session(server, "test@peer");
  EXPECT_EQ(session.roundTrip(), SftpSession::Clock::duration::zero());
  session.start();
  auto const first = session.roundTrip();
  EXPECT_GT(first, SftpSession::Clock::duration::zero());
  session.drain();
  EXPECT_LE(session.roundTrip(), first);  // the shortest so far
  Recorder recorder;
  session.open(recorder.ticket(1), (scratch_ / "f").string(), openflags::kRead | openflags::kWrite, Attributes{});
  session.drain();
  ASSERT_EQ(recorder.seen_.at(0).type, PacketType::Handle);
  auto const handle = recorder.seen_[0].text;
  EXPECT_EQ(session.dataAnswered(), 0U);
  session.write(recorder.ticket(2), handle, 5, ByteView(reinterpret_cast<std::uint8_t const*>("there"), 5));
  session.read(recorder.ticket(3), handle, 0, 64);
  session.drain();
  // As asked for and sent, not as read: the READ found 5 bytes.
  EXPECT_EQ(session.dataAnswered(), 5U + 64U);
  session.close(SftpSession::ignored(), handle);
  session.drain();
}

TEST_F(SessionTest, AReplyToNoRequestIsAProtocolError) {
  FakeServer server([](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Init) return out.push_back(Body(PacketType::Version).u32(3).framed());
    if (r.type == PacketType::Extended) return out.push_back(status(r.id, StatusCode::OpUnsupported).framed());
    out.push_back(status(r.id + 7, StatusCode::Ok).framed());
  });
  SftpSession session(server, "test@peer");
  session.start();
  Recorder recorder;
  session.lstat(recorder.ticket(1), "/x");
  EXPECT_THROW(session.drain(), ProtocolError);
}

}  // namespace
}  // namespace sshfa::testing
