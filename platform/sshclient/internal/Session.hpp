#pragma once
// One connected, authenticated SSH connection and its channels: the layer on
// which command execution, the persistent shell and file transfers are built.
//
// Driving I/O
// -----------
// After construction the ssh_session is in NON-BLOCKING mode and must stay so
// (never call ssh_set_blocking): every libssh call returns at once (SSH_AGAIN,
// 0 bytes, ...) and Session::wait() is the one place that sleeps. wait() sends
// the keep-alives and throws SSHError(ConnectionLost) when the server stays
// silent, so a loop of this shape can never hang:
//
//   Channel channel(session);
//   channel.requestExec("cat");
//   for (;;) {
//     bool progressed = input.consume(channel.write(input.rest()));  // takes what the window allows
//     progressed |= channel.read(out, Stream::Stdout) > 0;
//     progressed |= channel.read(err, Stream::Stderr) > 0;
//     if (channel.finished()) break;
//     if (!progressed) session.wait();
//   }
//
// - Read stdout and stderr in the same loop, each until it yields nothing. The
//   server stops sending on BOTH streams once the channel window is used up,
//   so reading one stream to its end before the other can deadlock.
// - Channel::write() takes what the peer's window allows and queues it in
//   libssh's output buffer; it never waits. Queued bytes are flushed by wait()
//   (it polls for writability while output is pending) and by later libssh
//   calls. A window adjust from the server arrives as input: after wait()
//   returns, try the write again. writeAll() is the waiting form.
// - wait() processes what arrived (channel data lands in the channel's
//   buffers, replies complete pending requests, exit statuses are recorded),
//   so after it returns, Channel::read and the pending non-blocking call find
//   the news. (Channel reads alone stop pulling packets off the socket once
//   the channel has seen end-of-file; wait() does not.)
// - Raw libssh use (raw()) is fine inside such a loop as long as the calls
//   are non-blocking ones; anything that could block must go through wait().
//
// Keep-alive: while wait() sleeps, it sends keepalive@openssh.com (a global
// request with want-reply) after each keep-alive interval in which nothing
// arrived from the server. Any byte from the server counts as the answer:
// libssh's count of bytes taken off the socket is the witness, since libssh
// may take the reply off the socket inside any call. An interval that ends
// with a keep-alive outstanding and no byte received is unanswered, and the
// third unanswered interval in a row fails the session with ConnectionLost:
// a silent server is given up 3 to 4 intervals after its last byte, an
// idle-but-alive one never. An interval of zero disables keep-alives.
//
// Errors: every failure is an SSHError thrown through fail(), whose message
// is "user@host:port: cause". A session that threw ConnectionLost is dead;
// after other kinds (e.g. Channel) it stays usable.
//
// Thread-safety: one thread at a time per session and its channels.

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace foundation::sshclient::internal {

class Session {
 public:
  // Connects and authenticates. `host` is UTF-8; port <= 0 means the port of
  // ~/.ssh/config, else 22. Throws SSHError (Connect, Timeout, HostKeyUnknown,
  // HostKeyChanged, Authentication).
  Session(std::string host, int port, AuthMethods const& authMethods, SSHClientOptions const& options);
  ~Session();

  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;
  Session(Session&&) = delete;
  Session& operator=(Session&&) = delete;

  [[nodiscard]] ssh_session raw() const noexcept;

  // "user@host:port" of the connection, for messages.
  [[nodiscard]] std::string const& describe() const noexcept;

  // Throws SSHError(kind, "user@host:port: " + cause): the one throw helper
  // of the client.
  [[noreturn]] void fail(SSHError::Kind kind, std::string const& cause) const;

  // libssh's text for the last error on this session ("" when none).
  [[nodiscard]] std::string libraryError() const;

  // Sleeps until the server sent something, pending output could be flushed,
  // or `timeout` passed (returns false only then). Sends keep-alives and
  // throws SSHError(ConnectionLost) as described above.
  // A signal also ends the sleep (returns true), so that a caller's loop
  // can look at what the signal asked for.
  static constexpr std::chrono::milliseconds kForever{-1};
  bool wait(std::chrono::milliseconds timeout = kForever);
  // The same, also woken when `fd` (when >= 0) can be read without blocking
  // (or is at its end), which sets `readable`.
  bool wait(std::chrono::milliseconds timeout, int fd, bool& readable);

  // Takes in what has already arrived, without sleeping: one poll(). True
  // when bytes came in. Throws SSHError(ConnectionLost) as wait() does.
  bool takeIn();

  [[nodiscard]] std::chrono::seconds keepaliveInterval() const noexcept;
  // What the key exchange of the connection settled on.
  [[nodiscard]] NegotiatedAlgorithms const& negotiated() const noexcept;
  void setKeepaliveInterval(std::chrono::seconds interval) noexcept;

  // Whether a shell runs commands on this connection, once known: true when
  // one answered with its marker, false after failNoShell(); nullopt before.
  [[nodiscard]] std::optional<bool> shellFound() const noexcept;
  void noteShellFound() noexcept;
  // Records that the server runs no shell (it refused to run a command, or
  // something else answered one) and throws SSHError(NoShell). It holds for
  // the connection: see requireShell().
  [[noreturn]] void failNoShell();
  // Throws that same error at once, without a round trip, once recorded.
  void requireShell() const;

 private:
  friend class Channel;
  // Bytes reached a channel without passing through wait().
  void noteServerActivity() noexcept;

  class Impl;
  std::unique_ptr<Impl> impl_;
};

enum class Stream { Stdout = 0, Stderr = 1 };

// An open session channel ("session" type). Closes and frees it on
// destruction. Must not outlive its Session. Failures throw SSHError(Channel)
// or, when the connection is gone, SSHError(ConnectionLost).
class Channel {
 public:
  enum class Answer { Wait, Later };
  // Opens the channel, waiting through Session::wait(); with Answer::Later
  // it returns at once, so that several channels open in one round trip:
  // requestAnswered() then reports the server's answer (a refusal throws
  // SSHError(Channel)), and nothing else may be asked of the channel before.
  explicit Channel(Session& session, Answer answer = Answer::Wait);
  ~Channel();

  Channel(Channel&& other) noexcept;
  Channel& operator=(Channel&&) = delete;
  Channel(Channel const&) = delete;
  Channel& operator=(Channel const&) = delete;

  [[nodiscard]] ssh_channel raw() const noexcept;
  [[nodiscard]] Session& session() const noexcept;

  // Ask the server to run a command, start a shell (no pty: a plain byte
  // stream) or start a subsystem. Answer::Wait waits for the answer (a
  // refusal throws SSHError(Channel); for a command or a shell, NoShell
  // through Session::failNoShell()). Answer::Later returns at once, so
  // that input can follow without waiting a round trip; requestAnswered()
  // then reports the answer.
  void requestExec(std::string const& command, Answer answer = Answer::Wait);
  void requestShell(Answer answer = Answer::Wait);
  void requestSubsystem(std::string const& subsystem, Answer answer = Answer::Wait);
  // True once the last request was accepted (at once after Answer::Wait);
  // throws SSHError(Channel) when the server refused it.
  bool requestAnswered();

  // Queues as much of `data` as the peer's window allows; returns how much.
  std::size_t write(std::string_view data);
  // The same, but once the server has closed the channel the data is
  // dropped (returns its size) instead of failing: for input that whatever
  // ran need not read to its end, where the closed channel tells the rest.
  std::size_t offer(std::string_view data);
  // Queues all of `data`, waiting for window space, and flushes it.
  void writeAll(std::string_view data);
  // Tells the server there is no more input (idempotent).
  void sendEof();

  // Reads what has already arrived on `stream`, at most `size` bytes; 0 when
  // nothing is there (yet, or any more: see finished()). Room of more than
  // kBaseWindow bytes on standard output is offered to the server: the
  // channel's receive window grows to `size`, so that the server may send
  // that much ahead (libssh keeps it near kBaseWindow otherwise).
  std::size_t read(void* buffer, std::size_t size, Stream stream);
  static constexpr std::size_t kBaseWindow = 1280000;
  // Appends everything that has already arrived on `stream` to `out`. Costs
  // no system call when nothing has arrived since the last read: it does not
  // look at the socket (wait() and takeIn() do).
  std::size_t read(std::string& out, Stream stream);

  // The server closed the channel and everything it sent has been read.
  [[nodiscard]] bool finished() const;
  // The server sent end-of-file (no more data on either stream).
  [[nodiscard]] bool remoteEof() const;

  // The command's exit status once the server reported it; a command killed
  // by a signal reports 128 + the signal number.
  [[nodiscard]] std::optional<int> exitStatus() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Notes, for as long as it lives, that libssh has taken in data, end-of-file,
// close or new window space for a channel, wherever that happened (in a read,
// in Channel::finished(), in a write). The data stays in libssh's buffers for
// Channel::read. A loop must not sleep on the socket while such news waits:
// clear the flag before a round of reads, and wait only when no read made
// progress and the flag is still clear.
class ArrivalWatch {
 public:
  ArrivalWatch(ssh_channel channel, bool& arrived);
  ~ArrivalWatch();
  ArrivalWatch(ArrivalWatch const&) = delete;
  ArrivalWatch& operator=(ArrivalWatch const&) = delete;

 private:
  ssh_channel channel_;
  ssh_channel_callbacks_struct callbacks_{};
};

}  // namespace foundation::sshclient::internal
