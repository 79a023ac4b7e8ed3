#include "sshfileaccess/platform/sshclient/internal/StreamingCommand.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <random>
#include <string_view>

#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"

namespace foundation::sshclient::internal {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kInputChunk = 64 * 1024;
// How often a stop request is looked at while nothing else happens.
constexpr std::chrono::milliseconds kStopCheck{100};
// How long a stopped command may take to end before the next, harder
// signal; after the last, before its channel is closed under it.
constexpr std::chrono::seconds kStopGrace{2};
constexpr int kStoppedStatus = 128 + 2;  // as a shell reports SIGINT

struct StopSignal {
  int number;
  char const* name;  // as the protocol and kill -s name it
};
// A command that ignores one signal gets the next.
constexpr std::array<StopSignal, 3> kStopSignals{{{SIGINT, "INT"}, {SIGTERM, "TERM"}, {SIGKILL, "KILL"}}};

// One output stream: what the login wrote before the marker is dropped, the
// rest is handed over as it comes. On standard output, the line after the
// marker is the wrapper's process id, which is taken out.
class OutputStream {
 public:
  OutputStream(std::string_view marker, std::function<void(std::string_view)> const& sink, Stream stream)
      : noise_(marker), sink_(sink), stream_(stream), wantsId_(stream == Stream::Stdout) {}

  // True when something arrived.
  bool take(Channel& channel) {
    if (noise_.passed() && !wantsId_) {
      piece_.clear();
      if (channel.read(piece_, stream_) == 0) return false;
      hand(piece_);
      return true;
    }
    if (channel.read(head_, stream_) == 0) return false;
    if (!noise_.passed()) noise_.drop(head_);
    if (!noise_.passed()) return true;
    if (wantsId_) {
      std::size_t const end = head_.find('\n');
      if (end == std::string::npos) return true;
      std::string_view const id(head_.data(), end);
      if (!id.empty() && id.size() <= 10 && id.find_first_not_of("0123456789") == std::string_view::npos) {
        processGroup_ = std::string(id);
      }
      head_.erase(0, end + 1);
      wantsId_ = false;
    }
    hand(head_);
    head_ = std::string();
    return true;
  }

  // The process group of the command, once known ("" before).
  [[nodiscard]] std::string const& processGroup() const noexcept { return processGroup_; }
  // See LoginNoiseFilter.
  [[nodiscard]] bool marked() const noexcept { return noise_.passed(); }
  [[nodiscard]] bool foreign() const noexcept { return noise_.foreign(); }

  // A stream on which the marker never came is handed over whole.
  void finish() {
    if (!noise_.passed()) hand(head_);
  }

 private:
  void hand(std::string_view text) const {
    if (!text.empty() && sink_) sink_(text);
  }

  LoginNoiseFilter noise_;
  std::function<void(std::string_view)> const& sink_;
  Stream stream_;
  bool wantsId_;
  std::string processGroup_;
  std::string head_;   // before the marker
  std::string piece_;  // after it: the latest piece, its room reused
};

}  // namespace

int runStreaming(Session& session, std::string const& command, CommandStreams const& streams) {
  session.requireShell();
  std::random_device random;
  std::string const marker = randomMarker(random);
  Channel channel(session);
  // The command text follows the request without waiting for its answer.
  channel.requestExec(streamingWrapper(marker), Channel::Answer::Later);
  OutputStream out(marker, streams.out, Stream::Stdout);
  OutputStream err(marker, streams.err, Stream::Stderr);

  std::string pending = streamingCommandLine(command);  // to send, in order
  std::size_t sent = 0;
  bool inputOpen = streams.inputFd >= 0;
  bool inputReady = false;
  std::optional<Clock::time_point> giveUpAt;  // set once stopping: when the next signal goes
  std::size_t signalsSent = 0;
  // sshd signals the command's whole process group where it may (it refuses
  // without privilege separation), so the group is also signalled from a
  // channel of its own.
  auto const sendSignal = [&] {
    auto const& signal = kStopSignals[signalsSent++];
    ssh_channel_request_send_signal(channel.raw(), signal.name);
    if (!out.processGroup().empty() && !channel.finished()) {
      ExecChannelRunner(session).run(std::string("kill -s ") + signal.name + " -- -" + out.processGroup() +
                                     " 2>/dev/null");
    }
    if (streams.signalled) streams.signalled(signal.number);
    giveUpAt = Clock::now() + kStopGrace;
  };
  bool arrived = false;
  ArrivalWatch const watch(channel.raw(), arrived);
  for (;;) {
    arrived = false;
    bool progressed = false;
    if (sent < pending.size()) {
      // Input the command (or whatever answered) did not read when it ended
      // is dropped, as an exec channel's is.
      std::size_t const written = channel.offer(std::string_view(pending).substr(sent));
      sent += written;
      progressed = written > 0;
    }
    if (sent == pending.size()) {
      pending.clear();
      sent = 0;
      if (inputOpen && inputReady) {
        inputReady = false;
        pending.resize(kInputChunk);
        ssize_t const n = ::read(streams.inputFd, pending.data(), pending.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
          pending.clear();
        } else if (n < 0 && errno != EBADF) {
          session.fail(SSHError::Kind::Channel,
                       std::string("cannot read the command's standard input: ") + std::strerror(errno));
        } else {
          // A closed descriptor (EBADF) is input that has ended.
          pending.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
          inputOpen = n > 0;
          progressed = true;
        }
      }
      if (!inputOpen && pending.empty()) channel.sendEof();
    }
    progressed |= out.take(channel);
    progressed |= err.take(channel);
    if (out.foreign()) session.failNoShell();
    bool const started = channel.requestAnswered();
    if (channel.finished()) {
      if (!started && !channel.requestAnswered()) session.failNoShell();
      break;
    }
    if (!giveUpAt && streams.stopRequested && streams.stopRequested()) {
      inputOpen = false;
      pending.clear();
      sent = 0;
      channel.sendEof();
      sendSignal();
      progressed = true;
    }
    if (giveUpAt && Clock::now() >= *giveUpAt) {
      // Still running after the last signal: its channel goes.
      if (signalsSent == kStopSignals.size()) break;
      sendSignal();
    }
    if (progressed || arrived) continue;
    auto timeout = Session::kForever;
    if (giveUpAt) {
      timeout = std::max(std::chrono::ceil<std::chrono::milliseconds>(*giveUpAt - Clock::now()),
                         std::chrono::milliseconds(1));
    } else if (streams.stopRequested) {
      timeout = kStopCheck;
    }
    bool const wantInput = inputOpen && pending.empty();
    session.wait(timeout, wantInput ? streams.inputFd : -1, inputReady);
  }
  // Without the marker, what came was not a command's (see ExecChannelRunner);
  // a command stopped before it started says what it got.
  if (!giveUpAt && !out.marked()) session.failNoShell();
  out.finish();
  err.finish();
  if (giveUpAt) return kStoppedStatus;
  session.noteShellFound();
  std::optional<int> const status = channel.exitStatus();
  if (!status) session.fail(SSHError::Kind::Channel, "the server ended the command without reporting its exit status");
  return *status;
}

}  // namespace foundation::sshclient::internal
