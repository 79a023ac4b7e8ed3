#pragma once
// One SFTP session over a byte stream: the only code that speaks SFTP.
//
// Owns the framing (outgoing packets queued, incoming bytes cut into
// packets), the request ids, the table of requests awaiting a reply, the
// count of file data in flight, and what the server said of itself (version,
// extensions, limits). Every request carries a Ticket naming the ReplyHandler
// that gets its reply, with the handler's own kind, subject and numbers; the
// replies are handed over from pump(), in arrival order. It knows nothing of
// files, trees, temporaries or options.
//
// One transfer may drive several sessions (one per channel of a connection):
// each has its own ids and queues; pump each with mayWait = false, then wait
// on one of them.
//
// It measures the link from its own replies: the shortest time a request
// took to be answered (the round trip, with the server's own time), and the
// file data answered so far (READ and WRITE), from which a caller tells the
// rate at which data moves.
//
// Errors: a reply that cannot be decoded, or that answers no request, throws
// ProtocolError; the transport throws SSHError (ConnectionLost, Timeout,
// Transfer) when the stream ends or stalls. Afterwards the session is dead.
// A handler's exception passes through pump() unchanged.
// Not thread-safe.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Transport.hpp"

namespace foundation::sshclient::internal::sftp {

class ReplyHandler;

// What a reply is for, in the words of the handler that asked.
struct Ticket {
  ReplyHandler* handler = nullptr;
  std::uint32_t kind = 0;
  void* subject = nullptr;
  std::uint64_t offset = 0;  // of file data, or an index of the handler's
  std::uint32_t length = 0;  // of file data asked for or sent
};

class ReplyHandler {
 public:
  // `reply` and the views in it live only for the call.
  virtual void onReply(Ticket const& ticket, Reply const& reply) = 0;

 protected:
  ReplyHandler() = default;
  ~ReplyHandler() = default;
  ReplyHandler(ReplyHandler const&) = default;
  ReplyHandler& operator=(ReplyHandler const&) = default;
};

class SftpSession {
 public:
  // `peer` ("user@host:port") names the server in messages.
  SftpSession(Transport& transport, std::string peer);
  SftpSession(SftpSession const&) = delete;
  SftpSession& operator=(SftpSession const&) = delete;

  // Sends INIT and asks for the server's limits, without waiting: requests
  // may follow at once (the server answers VERSION first; one that does not
  // know the limits request refuses it, and the defaults hold).
  // limitsKnown() tells when the limits arrived; until VERSION offers()
  // knows no extension. A VERSION of another protocol version throws
  // ProtocolError from pump().
  void begin();
  // begin(), then pumps until VERSION arrived.
  void start();
  [[nodiscard]] bool started() const noexcept { return versionReceived_; }

  [[nodiscard]] std::string const& peer() const noexcept { return peer_; }
  [[nodiscard]] bool offers(std::string_view extension) const noexcept;
  [[nodiscard]] bool limitsKnown() const noexcept { return limitsKnown_; }
  // The server answered limits@openssh.com (not merely refused it): it is
  // one that serves a READ with a single read() of the file.
  [[nodiscard]] bool limitsStated() const noexcept { return limitsStated_; }
  // Bytes per READ and WRITE: the server's stated limits (at most 1 MiB),
  // else 32 KiB.
  [[nodiscard]] std::uint32_t readChunk() const noexcept { return readChunk_; }
  [[nodiscard]] std::uint32_t writeChunk() const noexcept { return writeChunk_; }
  // Handles the server allows open at once; 0 when it did not say.
  [[nodiscard]] std::uint64_t handleLimit() const noexcept { return handleLimit_; }

  // ---- requests: each reply goes to ticket.handler
  void open(Ticket const& ticket, std::string_view path, std::uint32_t flags, Attributes const& attributes);
  void close(Ticket const& ticket, std::string_view handle);
  // READ and WRITE count ticket.length (WRITE: the data's size) as in flight
  // until answered.
  void read(Ticket const& ticket, std::string_view handle, std::uint64_t offset, std::uint32_t length);
  void write(Ticket const& ticket, std::string_view handle, std::uint64_t offset, ByteView data);
  void lstat(Ticket const& ticket, std::string_view path);
  void stat(Ticket const& ticket, std::string_view path);
  void setstat(Ticket const& ticket, std::string_view path, Attributes const& attributes);
  void fsetstat(Ticket const& ticket, std::string_view handle, Attributes const& attributes);
  void opendir(Ticket const& ticket, std::string_view path);
  void readdir(Ticket const& ticket, std::string_view handle);
  void remove(Ticket const& ticket, std::string_view path);
  void mkdir(Ticket const& ticket, std::string_view path, Attributes const& attributes);
  void rmdir(Ticket const& ticket, std::string_view path);
  void realpath(Ticket const& ticket, std::string_view path);
  // posix-rename@openssh.com (replaces an existing target) where offered,
  // else the plain RENAME (which refuses one).
  void rename(Ticket const& ticket, std::string_view from, std::string_view to, bool replacing = true);
  void readlink(Ticket const& ticket, std::string_view path);
  void symlink(Ticket const& ticket, std::string_view target, std::string_view link);
  void statvfs(Ticket const& ticket, std::string_view path);
  // copy-data (only where offers(kCopyDataExtension)); `length` 0: to the
  // end of the file read.
  void copyData(Ticket const& ticket, std::string_view readHandle, std::uint64_t readOffset, std::uint64_t length,
                std::string_view writeHandle, std::uint64_t writeOffset);
  // A request whose answer nobody needs (closing a handle after a failure,
  // removing a temporary): its reply is read and dropped.
  [[nodiscard]] static Ticket ignored() noexcept { return {}; }
  // One whose answer nobody waits for either (a read handle closed once its
  // file is whole here): pending() counts it, awaited() does not.
  [[nodiscard]] static Ticket unawaited() noexcept { return {nullptr, kUnawaited}; }
  // Whether posix-rename is used (the server offers it and it is allowed).
  [[nodiscard]] bool replacingRename() const noexcept { return posixRename_; }
  void usePosixRename(bool allowed) noexcept;

  // ---- driving
  // Sends what can go, takes in what has come and hands every reply to its
  // handler; sleeps in the transport when nothing moved and `mayWait`.
  // Whether anything moved.
  bool pump(bool mayWait = true);
  // Pumps until every request sent so far is answered.
  void drain();
  // Sleeps until the stream may move (see Transport::wait).
  void wait();

  // Requests not answered yet; an awaited VERSION counts as one.
  [[nodiscard]] std::size_t pending() const noexcept { return pending_.size() + (versionAwaited_ ? 1U : 0U); }
  [[nodiscard]] std::size_t awaited() const noexcept { return pending() - unawaited_; }
  [[nodiscard]] std::size_t queuedBytes() const noexcept { return out_.size() - sent_; }
  [[nodiscard]] std::uint64_t dataInFlight() const noexcept { return dataInFlight_; }

  // ---- what the replies measured
  using Clock = std::chrono::steady_clock;
  // The shortest time from a request's sending to its answer; zero before
  // the first answer.
  [[nodiscard]] Clock::duration roundTrip() const noexcept { return roundTrip_; }
  // File data of READs and WRITEs answered so far (asked for or sent).
  [[nodiscard]] std::uint64_t dataAnswered() const noexcept { return dataAnswered_; }
  // Room offered to the transport for each receive: a channel lets the
  // server send that much ahead of what was read (see Channel::read). At
  // least 512 KiB.
  void setReceiveRoom(std::size_t bytes) noexcept;
  [[nodiscard]] std::size_t receiveRoom() const noexcept { return receiveRoom_; }

 private:
  struct Waiting {
    Ticket ticket;
    std::uint32_t data = 0;  // file data counted in flight
    Clock::time_point sent;  // queued, in fact: sent at once unless much is queued before it
  };
  // The answer to limits@openssh.com, taken in by the session itself.
  class LimitsReply final : public ReplyHandler {
   public:
    explicit LimitsReply(SftpSession& session) : session_(session) {}
    void onReply(Ticket const& ticket, Reply const& reply) override;

   private:
    SftpSession& session_;
  };

  std::uint32_t track(Ticket const& ticket, std::uint32_t data = 0);
  PacketWriter writer();
  void onPacket(ByteView packet);
  void adopt(Limits const& limits);

  Transport& transport_;
  std::string peer_;
  Bytes out_;
  std::size_t sent_ = 0;
  PacketReader in_;
  std::uint32_t nextId_ = 0;
  static constexpr std::uint32_t kUnawaited = UINT32_MAX;  // the kind of unawaited()
  static bool isUnawaited(Ticket const& ticket) noexcept {
    return ticket.handler == nullptr && ticket.kind == kUnawaited;
  }

  std::unordered_map<std::uint32_t, Waiting> pending_;
  std::size_t unawaited_ = 0;  // of pending_
  std::uint64_t dataInFlight_ = 0;
  std::uint64_t dataAnswered_ = 0;
  Clock::duration roundTrip_{};
  Clock::time_point initSent_;
  std::size_t receiveRoom_;

  bool versionReceived_ = false;
  bool versionAwaited_ = false;  // INIT sent: VERSION counts as pending
  // Replies that overtook VERSION, handled right after it.
  std::vector<std::vector<std::uint8_t>> early_;
  std::vector<Extension> extensions_;
  bool posixRename_ = false;
  bool posixRenameAllowed_ = true;
  bool limitsKnown_ = false;
  bool limitsStated_ = false;
  std::uint32_t readChunk_;
  std::uint32_t writeChunk_;
  std::uint64_t handleLimit_ = 0;
  LimitsReply limitsReply_{*this};
};

}  // namespace foundation::sshclient::internal::sftp
