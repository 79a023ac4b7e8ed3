#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"

#include <algorithm>
#include <utility>

namespace foundation::sshclient::internal::sftp {

namespace {

constexpr std::uint32_t kDefaultChunk = 32U * 1024U;
constexpr std::uint32_t kMaxChunk = 1024U * 1024U;
// Room offered to each receive: large replies arrive in few calls, and a
// partial packet is seldom moved to make room.
constexpr std::size_t kReceiveRoom = 512U * 1024U;
// Received bytes handled per turn before sending again.
constexpr std::size_t kReceiveBatch = 1024U * 1024U;

std::uint32_t chunkFor(std::uint64_t stated, std::uint64_t maxPacket) {
  std::uint64_t chunk = stated > 0 ? std::min<std::uint64_t>(stated, kMaxChunk) : kDefaultChunk;
  if (maxPacket > 2048) chunk = std::min<std::uint64_t>(chunk, maxPacket - 1024);
  return static_cast<std::uint32_t>(std::max<std::uint64_t>(1, chunk));
}

void noteRoundTrip(SftpSession::Clock::duration& shortest, SftpSession::Clock::time_point sent) {
  auto const took = SftpSession::Clock::now() - sent;
  if (shortest == SftpSession::Clock::duration::zero() || took < shortest) shortest = took;
}

}  // namespace

SftpSession::SftpSession(Transport& transport, std::string peer)
    : transport_(transport),
      peer_(std::move(peer)),
      receiveRoom_(kReceiveRoom),
      readChunk_(kDefaultChunk),
      writeChunk_(kDefaultChunk) {}

void SftpSession::begin() {
  writer().init();
  initSent_ = Clock::now();
  versionAwaited_ = true;
  // Asked for at once, not after VERSION offered them: a server that does
  // not know the request refuses it (the defaults hold), and the answer
  // arrives with those to the first requests.
  writer().limits(track({&limitsReply_}));
}

void SftpSession::start() {
  begin();
  while (!versionReceived_) pump();
}

void SftpSession::setReceiveRoom(std::size_t bytes) noexcept { receiveRoom_ = std::max(bytes, kReceiveRoom); }

bool SftpSession::offers(std::string_view extension) const noexcept {
  return std::any_of(extensions_.begin(), extensions_.end(),
                     [&](Extension const& offered) { return offered.name == extension; });
}

void SftpSession::LimitsReply::onReply(Ticket const& /*ticket*/, Reply const& reply) {
  session_.limitsStated_ = reply.type == PacketType::ExtendedReply;
  session_.adopt(session_.limitsStated_ ? decodeLimits(reply.data) : Limits{});
}

void SftpSession::usePosixRename(bool allowed) noexcept {
  posixRenameAllowed_ = allowed;
  posixRename_ = allowed && offers(kPosixRenameExtension);
}

void SftpSession::adopt(Limits const& limits) {
  limitsKnown_ = true;
  readChunk_ = chunkFor(limits.maxReadLength, limits.maxPacketLength);
  writeChunk_ = chunkFor(limits.maxWriteLength, limits.maxPacketLength);
  handleLimit_ = limits.maxOpenHandles;
}

PacketWriter SftpSession::writer() {
  if (sent_ > 0 && sent_ >= out_.size() / 2) {
    out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(sent_));
    sent_ = 0;
  }
  return PacketWriter(out_);
}

std::uint32_t SftpSession::track(Ticket const& ticket, std::uint32_t data) {
  auto const id = nextId_++;
  pending_.emplace(id, Waiting{ticket, data, Clock::now()});
  if (isUnawaited(ticket)) ++unawaited_;
  dataInFlight_ += data;
  return id;
}

void SftpSession::open(Ticket const& ticket, std::string_view path, std::uint32_t flags, Attributes const& attributes) {
  writer().open(track(ticket), path, flags, attributes);
}

void SftpSession::close(Ticket const& ticket, std::string_view handle) { writer().close(track(ticket), handle); }

void SftpSession::read(Ticket const& ticket, std::string_view handle, std::uint64_t offset, std::uint32_t length) {
  writer().read(track(ticket, length), handle, offset, length);
}

void SftpSession::write(Ticket const& ticket, std::string_view handle, std::uint64_t offset, ByteView data) {
  writer().write(track(ticket, static_cast<std::uint32_t>(data.size())), handle, offset, data);
}

void SftpSession::lstat(Ticket const& ticket, std::string_view path) { writer().lstat(track(ticket), path); }

void SftpSession::stat(Ticket const& ticket, std::string_view path) { writer().stat(track(ticket), path); }

void SftpSession::setstat(Ticket const& ticket, std::string_view path, Attributes const& attributes) {
  writer().setstat(track(ticket), path, attributes);
}

void SftpSession::fsetstat(Ticket const& ticket, std::string_view handle, Attributes const& attributes) {
  writer().fsetstat(track(ticket), handle, attributes);
}

void SftpSession::opendir(Ticket const& ticket, std::string_view path) { writer().opendir(track(ticket), path); }

void SftpSession::readdir(Ticket const& ticket, std::string_view handle) { writer().readdir(track(ticket), handle); }

void SftpSession::remove(Ticket const& ticket, std::string_view path) { writer().remove(track(ticket), path); }

void SftpSession::mkdir(Ticket const& ticket, std::string_view path, Attributes const& attributes) {
  writer().mkdir(track(ticket), path, attributes);
}

void SftpSession::rmdir(Ticket const& ticket, std::string_view path) { writer().rmdir(track(ticket), path); }

void SftpSession::realpath(Ticket const& ticket, std::string_view path) { writer().realpath(track(ticket), path); }

void SftpSession::rename(Ticket const& ticket, std::string_view from, std::string_view to, bool replacing) {
  if (replacing && posixRename_) {
    writer().posixRename(track(ticket), from, to);
  } else {
    writer().rename(track(ticket), from, to);
  }
}

void SftpSession::readlink(Ticket const& ticket, std::string_view path) { writer().readlink(track(ticket), path); }

void SftpSession::symlink(Ticket const& ticket, std::string_view target, std::string_view link) {
  writer().symlink(track(ticket), target, link);
}

void SftpSession::statvfs(Ticket const& ticket, std::string_view path) { writer().statvfs(track(ticket), path); }

void SftpSession::copyData(Ticket const& ticket, std::string_view readHandle, std::uint64_t readOffset,
                           std::uint64_t length, std::string_view writeHandle, std::uint64_t writeOffset) {
  writer().copyData(track(ticket), readHandle, readOffset, length, writeHandle, writeOffset);
}

bool SftpSession::pump(bool mayWait) {
  bool moved = false;
  if (queuedBytes() > 0) {
    auto const n = transport_.send(std::span<std::uint8_t const>(out_).subspan(sent_));
    sent_ += n;
    moved = n > 0;
    if (sent_ == out_.size()) {
      out_.clear();
      sent_ = 0;
    }
  }
  std::size_t received = 0;
  while (received < kReceiveBatch) {
    auto const n = transport_.receive(in_.writable(receiveRoom_));
    if (n == 0) break;
    in_.commit(n);
    received += n;
  }
  while (auto packet = in_.next()) onPacket(*packet);
  if (!moved && received == 0 && mayWait) transport_.wait(queuedBytes() > 0);
  return moved || received > 0;
}

void SftpSession::drain() {
  while (pending() > 0 || queuedBytes() > 0) pump();
}

void SftpSession::wait() { transport_.wait(queuedBytes() > 0); }

void SftpSession::onPacket(ByteView packet) {
  if (!versionReceived_) {
    // A server may answer the requests sent behind INIT before VERSION; as
    // many as were sent wait for it.
    if (!packet.empty() && packet[0] != static_cast<std::uint8_t>(PacketType::Version) &&
        early_.size() < pending_.size()) {
      early_.emplace_back(packet.begin(), packet.end());
      return;
    }
    auto version = decodeVersion(packet);
    if (version.version != kProtocolVersion) {
      throw ProtocolError("the server speaks SFTP version " + std::to_string(version.version) + ", not " +
                          std::to_string(kProtocolVersion));
    }
    versionReceived_ = true;
    versionAwaited_ = false;
    noteRoundTrip(roundTrip_, initSent_);
    extensions_ = std::move(version.extensions);
    posixRename_ = posixRenameAllowed_ && offers(kPosixRenameExtension);
    for (auto const& early : std::exchange(early_, {})) onPacket(ByteView(early.data(), early.size()));
    return;
  }
  auto const reply = decodeReply(packet);
  auto const found = pending_.find(reply.id);
  if (found == pending_.end()) throw ProtocolError("reply to unknown request " + std::to_string(reply.id));
  auto const waiting = found->second;
  pending_.erase(found);
  if (isUnawaited(waiting.ticket)) --unawaited_;
  dataInFlight_ -= waiting.data;
  dataAnswered_ += waiting.data;
  noteRoundTrip(roundTrip_, waiting.sent);
  if (waiting.ticket.handler != nullptr) waiting.ticket.handler->onReply(waiting.ticket, reply);
}

}  // namespace foundation::sshclient::internal::sftp
