#include "sshfileaccess/platform/sshclient/internal/ShellChannelRunner.hpp"

#include "sshfileaccess/platform/sshclient/internal/StateFreeCommand.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <random>
#include <string_view>
#include <utility>

namespace foundation::sshclient::internal {

namespace {

using Clock = std::chrono::steady_clock;

// Parsed identically by sh, bash, csh, tcsh and fish. Started this way, sh
// names itself "sh" in $0 and in its messages, as under the exec wrapper.
constexpr char const* kShellCommand = "exec sh";

// Each cat is given 2^kCatRounds pairs of pipes. A cat that has run out ends
// its shell, so the runner moves to a new shell one command earlier: the
// last marker would race with the end.
constexpr int kCatRounds = 12;
constexpr std::size_t kCommandsPerShell = (std::size_t{1} << kCatRounds) - 1;

// Once the shell process has ended, how long its helpers may take to close
// the channel, delivering what is still in the pipes.
constexpr std::chrono::seconds kCloseGrace{2};

// The longest status text after a marker: "255", or "-" for "not run".
constexpr std::size_t kMaxStatusText = 3;

std::string shellQuoted(std::string_view text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  quoted += '\'';
  for (char const c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  quoted += '\'';
  return quoted;
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Where the last line of `text` - `marker`, a short status text, "\n" -
// starts; nullopt while it has not fully arrived.
std::optional<std::size_t> markerLine(std::string_view text, std::string_view marker) {
  if (text.empty() || text.back() != '\n') return std::nullopt;
  std::size_t const longest = marker.size() + kMaxStatusText + 1;
  std::size_t const at = text.find(marker, text.size() > longest ? text.size() - longest : 0);
  if (at == std::string_view::npos) return std::nullopt;
  return at;
}

// The start-up script. It creates the private folder with the pipes (o/O
// for standard output and its marker, e/E for standard error, l to watch the
// shell's life) and a supervisor, detached so that $! stays unset in the
// shell. The supervisor starts the two cats, each under a watcher that sends
// the cat's pid over l and, once the cat has ended, an empty line. A third
// line means the shell can no longer deliver results, so it is killed;
// end-of-file on l means the shell has gone (it holds l open on fd 9), so
// the cats are stopped and, once their watchers have said so over l, the
// folder is removed. Errors of the helpers go
// to /dev/null; cat copies standard error through fd 3. The last lines
// announce readiness with `ready` and the folder's path, then keep the
// channel's standard error on fd 8 for commands evaluated in the shell itself
// and silence the shell's own: a command killed by a signal must not earn a
// "Killed" from it, which an exec channel never shows.
std::string startupScript(std::string const& folderName, std::string const& ready) {
  return "(set +s) 2>/dev/null && set +s\n"  // $- without "s", as under sh -c
         "d=${TMPDIR:-/tmp}/" +
         folderName +
         "\n"
         "(umask 077 && mkdir \"$d\" && cd \"$d\" && mkfifo o O e E l) || exit\n"
         "a='o O' b='e E' n=0\n"
         "while [ \"$n\" -lt " +
         std::to_string(kCatRounds) +
         " ]; do a=\"$a $a\" b=\"$b $b\" n=$((n+1)); done\n"
         "( (cd \"$d\" || exit\n"
         "  { cat $a </dev/null 3>&- & echo \"$!\" >l; wait \"$!\"; echo >l; } &\n"
         "  { cat $b </dev/null >&3 3>&- & echo \"$!\" >l; wait \"$!\"; echo >l; } &\n"
         "  read -r p; read -r q; read -r x && kill -KILL $$\n"
         "  kill \"$p\" \"$q\"; wait; cd / && rm -rf \"$d\") <\"$d/l\" 3>&2 2>/dev/null & )\n"
         "exec 9>\"$d/l\"\n"
         "printf '%s%s\\n' " +
         ready +
         " \"$d\"\n"
         "printf '%s\\n' " +
         ready +
         " >&2\n"
         "unset a b d n\n"
         "exec 8>&2 2>/dev/null\n";
}

}  // namespace

// One running shell with its channel.
class ShellChannelRunner::Shell {
 public:
  // Starts the shell; throws SSHError(Channel) with what it said when it
  // does not come up.
  explicit Shell(Session& session);

  // The shell is alive, nothing unexpected is waiting on the channel and the
  // cats have rounds left.
  bool ready();

  struct Outcome {
    std::optional<CommandOutput> output;  // set when the command completed
    bool started = true;                  // false: provably never started
  };
  Outcome run(std::string const& command);

  // Why the shell is gone, for messages.
  [[nodiscard]] std::string describeEnd() const;

 private:
  // Sends `input` while collecting both streams until `done()` holds (true)
  // or the shell and its helpers are gone (then the result of a last done()).
  template <class Done>
  bool exchange(std::string_view input, std::string& out, std::string& err, Done const& done);

  Session& session_;
  Channel channel_;
  bool arrived_ = false;
  ArrivalWatch watch_{channel_.raw(), arrived_};
  std::random_device random_;
  // The fixed parts of a command line around the command text and the marker.
  std::string check_;
  std::string redirections_;
  std::string statusPipe_;
  std::string markerPipe_;
  std::size_t commandsLeft_ = kCommandsPerShell;
};

ShellChannelRunner::Shell::Shell(Session& session) : session_(session), channel_(session) {
  channel_.requestExec(kShellCommand);
  std::string const ready = randomMarker(random_);
  std::string out;
  std::string err;
  std::optional<std::size_t> readyAt;
  bool const started = exchange(startupScript("sshfa-shell." + randomMarker(random_), ready), out, err, [&] {
    if (!endsWith(err, ready + "\n") || out.empty() || out.back() != '\n') return false;
    std::size_t const at = out.rfind(ready);
    if (at == std::string::npos) return false;
    readyAt = at;
    return true;
  });
  if (!started) {
    std::string said = err;
    while (!said.empty() && (said.back() == '\n' || said.back() == '\r')) said.pop_back();
    session_.fail(SSHError::Kind::Channel,
                  "cannot start a shell on the server" + (said.empty() ? std::string() : ": " + said));
  }
  // What precedes the ready line is the login's (a banner, a warning of a
  // login script), not any command's.
  std::string const folder = out.substr(*readyAt + ready.size(), out.size() - 1 - *readyAt - ready.size());
  auto const pipe = [&](char name) { return shellQuoted(folder + "/" + name); };
  check_ = "if [ -p " + pipe('o') + " ] && [ -p " + pipe('O') + " ] && [ -p " + pipe('e') + " ] && [ -p " + pipe('E') +
           " ]; then (exec 8>&- 9>&-; eval ";
  redirections_ = " </dev/null) </dev/null >" + pipe('o') + " 2>" + pipe('e') + "; printf '%s%d\\n' ";
  statusPipe_ = " \"$?\" >" + pipe('O') + " && printf '%s\\n' ";
  markerPipe_ = " >" + pipe('E') + " || exit; else printf '%s-\\n' ";
}

template <class Done>
bool ShellChannelRunner::Shell::exchange(std::string_view input, std::string& out, std::string& err, Done const& done) {
  std::optional<Clock::time_point> giveUpAt;
  for (;;) {
    arrived_ = false;
    bool progressed = false;
    if (!input.empty()) {
      std::size_t const written = channel_.write(input);
      input.remove_prefix(written);
      progressed = written > 0;
    }
    bool const received = channel_.read(out, Stream::Stdout) + channel_.read(err, Stream::Stderr) > 0;
    if (received && done()) return true;
    if (channel_.finished()) return done();
    if (!giveUpAt && channel_.exitStatus()) giveUpAt = Clock::now() + kCloseGrace;
    if (giveUpAt && Clock::now() >= *giveUpAt) return done();
    if (progressed || received || arrived_) continue;
    if (giveUpAt) {
      auto const left = std::chrono::ceil<std::chrono::milliseconds>(*giveUpAt - Clock::now());
      session_.wait(std::max(left, std::chrono::milliseconds(1)));
    } else {
      session_.wait();
    }
  }
}

bool ShellChannelRunner::Shell::ready() {
  // Reading first takes in whatever news has arrived (an exit status, EOF).
  std::string stray;
  if (channel_.read(stray, Stream::Stdout) + channel_.read(stray, Stream::Stderr) > 0) return false;
  return commandsLeft_ > 0 && !channel_.exitStatus() && !channel_.remoteEof() && !channel_.finished();
}

ShellChannelRunner::Shell::Outcome ShellChannelRunner::Shell::run(std::string const& command) {
  // The exec wrapper reads the text through "$(cat)", which drops trailing
  // line feeds.
  std::string_view text = command;
  while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  std::string const marker = randomMarker(random_);
  std::string line;
  if (isStateFreeCommand(text)) {
    // Output written by the shell itself cannot linger after the marker, so
    // it goes to the channel directly, and the cats keep their rounds.
    line = "{ eval " + shellQuoted(text) + "; } 2>&8; printf '%s%d\\n' " + marker + " \"$?\" && printf '%s\\n' " +
           marker + " >&8 || exit\n";
  } else {
    --commandsLeft_;
    line = check_ + shellQuoted(text) + redirections_ + marker + statusPipe_ + marker + markerPipe_ + marker +
           "; exit; fi\n";
  }

  std::string out;
  std::string err;
  std::optional<std::size_t> outAt;
  bool const completed = exchange(line, out, err, [&] {
    outAt = markerLine(out, marker);
    if (!outAt) return false;
    return out.compare(*outAt + marker.size(), 2, "-\n") == 0 || endsWith(err, marker + "\n");
  });
  if (!completed) return {};
  std::string_view const status(out.data() + *outAt + marker.size(), out.size() - 1 - *outAt - marker.size());
  if (status == "-") return {std::nullopt, false};
  CommandOutput result;
  auto const [end, error] = std::from_chars(status.data(), status.data() + status.size(), result.exitStatus);
  if (error != std::errc() || end != status.data() + status.size()) {
    session_.fail(SSHError::Kind::Channel, "the shell on the server reported an unreadable exit status");
  }
  out.resize(*outAt);
  err.resize(err.size() - marker.size() - 1);
  result.out = std::move(out);
  result.err = std::move(err);
  return {std::move(result), true};
}

std::string ShellChannelRunner::Shell::describeEnd() const {
  std::optional<int> const status = channel_.exitStatus();
  if (!status) return "the server closed its channel";
  if (*status > 128) return "it was killed by signal " + std::to_string(*status - 128);
  return "it exited with status " + std::to_string(*status);
}

ShellChannelRunner::ShellChannelRunner(Session& session) : session_(session) {}

ShellChannelRunner::~ShellChannelRunner() = default;

CommandOutput ShellChannelRunner::run(std::string const& command) {
  if (fallback_) return fallback_->run(command);
  for (bool retried = false;; retried = true) {
    if (shell_ && !shell_->ready()) shell_.reset();
    if (!shell_) {
      try {
        shell_ = std::make_unique<Shell>(session_);
      } catch (SSHError const& error) {
        if (error.kind() != SSHError::Kind::Channel) throw;
        fallback_.emplace(session_);
        return fallback_->run(command);
      }
    }
    Shell::Outcome outcome;
    try {
      outcome = shell_->run(command);
    } catch (...) {
      shell_.reset();
      throw;
    }
    if (outcome.output) return std::move(*outcome.output);
    std::string const cause =
        outcome.started ? "the shell on the server ended while running the command (" + shell_->describeEnd() +
                              "); its result is lost"
                        : std::string("the shell on the server lost its private pipes and could not run the command");
    shell_.reset();
    if (!outcome.started && !retried) continue;
    session_.fail(SSHError::Kind::Channel, cause);
  }
}

}  // namespace foundation::sshclient::internal
