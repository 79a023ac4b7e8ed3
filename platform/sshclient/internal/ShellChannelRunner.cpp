#include "sshfileaccess/platform/sshclient/internal/ShellChannelRunner.hpp"

#include "sshfileaccess/platform/sshclient/internal/StateFreeCommand.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <string_view>
#include <utility>

namespace foundation::sshclient::internal {

namespace {

using Clock = std::chrono::steady_clock;

// Parsed identically by sh, bash, csh, tcsh and fish. Started this way, sh
// names itself "sh" in $0 and in its messages, as under the exec wrapper.
constexpr char const* kShellCommand = "exec sh";

// Each cat is given 2^kCatRounds pairs of pipes (a command's output and its
// marker). A cat that has run out ends its shell, so the runner moves to a
// new shell one command earlier: the last marker would race with the end.
constexpr int kCatRounds = 12;
constexpr std::size_t kCommandsPerShell = (std::size_t{1} << kCatRounds) - 1;

// Once the shell process has ended, how long its helpers may take to close
// the channel, delivering what is still in the pipes.
constexpr std::chrono::seconds kCloseGrace{2};

// A command silent this long has its cats looked at: killed while it ran,
// they took its marker with them, and the shell, still alive, would be
// waited for without end. Each look that finds them there doubles the wait
// for the next, up to the longest: a long quiet command costs the server a
// session now and then, not every few seconds.
constexpr std::chrono::seconds kSilence{5};
constexpr std::chrono::seconds kLongestSilence{320};

// The longest status text after a marker: "255", or "-" for "not run".
constexpr std::size_t kMaxStatusText = 3;

void appendAll(std::string& line, std::initializer_list<std::string_view> pieces) {
  for (std::string_view const piece : pieces) line += piece;
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

// The start-up script. The pipes are anonymous: a cat reopens its own pipe
// descriptors through /dev/fd (which on Linux opens the pipe anew and never
// waits for a writer), and the shell opens write ends through the cats'
// /proc/PID/fd. So once started, nothing of the shell has a name on the
// server, and a session killed in any way leaves no file behind.
//
// Each cat holds four pipes, 3 4 5 6: a command's output and its marker for
// one set, then the same for the other set; commands alternate between the
// sets. The shell always opens the write end of the pipe a cat reads next
// before it closes the one of the pipe the cat reads now, so a cat never
// meets an empty pipe without a writer before its time: it reaches the end of
// a command's output only when every process holding it has closed it (the
// command, its background jobs), like sshd with an exec channel's pipes. The
// marker pipe of a set holds its marker (written after the command) before
// the cat gets there.
//
// Five named pipes with random names (mode 0600) exist for the first
// milliseconds only: the cats and the holder of the life pipe wait on them
// until the shell holds its write ends (an anonymous pipe without any writer
// would end at once), and the helpers report the cats' process ids on them.
// They are removed in the background, not to keep the shell waiting.
//
// Each cat is the child of a helper that waits in `read` on the life pipe,
// which only the shell holds open for writing: the helper does not reap it
// meanwhile, so a cat's process id cannot be reused while the shell lives (a
// dead cat stays a zombie), and once the shell has gone the helper stops its
// cat and ends. Helper errors go to /dev/null. The last lines announce
// readiness with `ready` and the two cats' ids. The shell keeps the channel's
// standard error (also on fd 8, for the cat of standard error), so that a
// command evaluated in the shell itself needs no redirection; a command run
// in a subshell is waited for with the shell's standard error on /dev/null:
// it must not earn a "Killed" from the shell, which an exec channel never
// shows.
//
// The first line prints `alive` at once: the shell's word that it is there,
// before anything else of the script can fail.
std::string startupScript(std::string const& pipeName, std::string const& alive, std::string const& ready) {
  // Sets up the four pipes of one cat on descriptors 3 to 6, one pipeline at
  // a time, then runs `body` with them.
  auto const withPipes = [](std::string const& body) {
    return ": | { exec 3<&0; : | { exec 4<&0; : | { exec 5<&0; : | { exec 6<&0 </dev/null\n" + body +
           "; } & } & } & } &\n";
  };
  // One cat: waits on its named pipe, then reads 3 4 5 6 over and over.
  auto const cat = [](char const* name, char const* report, char const* output) {
    return std::string("  (cd /dev/fd && exec cat \"$d.") + name + "\" $a " + output + ") & echo \"$!\" >\"$d." +
           report + "\"\n  exec <&7 >/dev/null 3<&- 4<&- 5<&- 6<&- 7<&- 8>&- 9>&-; read -r _; kill \"$!\"";
  };
  return markerPrint(alive) +
         "\n"
         "(set +s) 2>/dev/null && set +s\n"  // $- without "s", as under sh -c
         "[ -d /proc/sys/kernel ] && [ -d /dev/fd ] || exit\n"
         "d=${TMPDIR:-/tmp}/" +
         pipeName +
         "\n"
         "(mkfifo -m 600 \"$d.o\" \"$d.e\" \"$d.h\" \"$d.p\" \"$d.q\") || exit\n"
         "a='3 4 5 6' n=1\n"
         "while [ \"$n\" -lt " +
         std::to_string(kCatRounds) +
         " ]; do a=\"$a $a\" n=$((n+1)); done\n"
         "exec 8>&2 9>&1\n"
         "( exec 2>/dev/null </dev/null\n"
         "cat \"$d.h\" 8>&- 9>&- | { exec 7<&0\n" +
         withPipes(cat("o", "p", ">&9 8>&- 9>&-")) + withPipes(cat("e", "q", ">&8 7<&- 8>&- 9>&-")) +
         "} & )\n"
         "read -r p <\"$d.p\" && read -r q <\"$d.q\" || exit\n"
         "exec 3>\"$d.o\" 4>\"$d.e\" 5>\"$d.h\"\n"
         "(rm -f \"$d.o\" \"$d.e\" \"$d.h\" \"$d.p\" \"$d.q\" &)\n"
         "exec 9>\"/proc/$p/fd/7\" 6>\"/proc/$p/fd/3\" 7>\"/proc/$q/fd/3\" 3>&- 4>&- 5>&-\n"
         "printf '%s %s %s\\n' " +
         ready +
         " \"$p\" \"$q\"\n"
         "printf '%s\\n' " +
         ready +
         " >&2\n"
         "unset a d n p q\n";
}

// The process id of a cat, as the ready line gives it.
bool isProcessId(std::string_view text) {
  return !text.empty() && text.size() <= 10 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
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
    bool catsGone = false;                // its cats ended while it ran
  };
  Outcome run(std::string const& command);

  // Why the shell is gone, for messages.
  [[nodiscard]] std::string describeEnd() const;

 private:
  // Sends `input` while collecting both streams until `done()` holds (true)
  // or the shell and its helpers are gone (then the result of a last done()).
  // With `watch`, after kSilence without news (then twice as long each time)
  // the cats are looked at, and once they are gone so is the wait (false).
  template <class Done>
  bool exchange(std::string_view input, std::string& out, std::string& err, Done const& done, bool watch = false);
  // Whether both cats have ended, asked on an exec channel of its own; false
  // when that cannot be asked (a server of one session per connection).
  bool catsGone();

  Session& session_;
  Channel channel_;
  bool arrived_ = false;
  ArrivalWatch watch_{channel_.raw(), arrived_};
  std::random_device random_;
  // The /proc paths a command line opens, for each of the two sets of pipes;
  // set_ is the set of the next command.
  struct CatPipes {
    std::string out;  // the pipe of the cat of standard output
    std::string err;  // the pipe of the cat of standard error
  };
  struct PipeSet {
    CatPipes marker;  // where the markers go
    CatPipes next;    // the other set's output pipes
  };
  std::array<PipeSet, 2> sets_;
  std::size_t set_ = 0;
  std::size_t commandsLeft_ = kCommandsPerShell;
  std::string catsAlive_;  // the command that succeeds while both cats live
  bool cannotAsk_ = false;
  bool lostCats_ = false;
  std::string line_;  // the line of the last command; its room is reused
};

ShellChannelRunner::Shell::Shell(Session& session) : session_(session), channel_(session) {
  channel_.requestExec(kShellCommand);
  std::string const alive = randomMarker(random_);
  std::string const ready = randomMarker(random_);
  LoginNoiseFilter login(alive);
  std::string out;
  std::string err;
  std::optional<std::size_t> readyAt;
  std::string const script = startupScript("sshfa-shell." + randomMarker(random_), alive, ready);
  bool const started = exchange(script, out, err, [&] {
    login.drop(out);
    if (login.foreign()) return true;
    if (!endsWith(err, ready + "\n") || out.empty() || out.back() != '\n') return false;
    std::size_t const at = out.rfind(ready);
    if (at == std::string::npos) return false;
    readyAt = at;
    return true;
  });
  // No word from a shell: what answered is something else (an account
  // limited to SFTP says so in a line of text and closes the channel).
  if (!login.passed()) session_.failNoShell();
  session_.noteShellFound();
  if (!started) {
    std::string said = err;
    while (!said.empty() && (said.back() == '\n' || said.back() == '\r')) said.pop_back();
    session_.fail(SSHError::Kind::Channel,
                  "cannot start a shell on the server" + (said.empty() ? std::string() : ": " + said));
  }
  // What precedes the ready line is the login's (a banner, a warning of a
  // login script), not any command's.
  std::string_view const ids(out.data() + *readyAt + ready.size(), out.size() - 1 - *readyAt - ready.size());
  std::size_t const blank = ids.rfind(' ');
  bool const twoWords = !ids.empty() && ids.front() == ' ' && blank != std::string_view::npos && blank > 0;
  std::string_view const outCat = twoWords ? ids.substr(1, blank - 1) : std::string_view();
  std::string_view const errCat = twoWords ? ids.substr(blank + 1) : std::string_view();
  if (!isProcessId(outCat) || !isProcessId(errCat)) {
    session_.fail(SSHError::Kind::Channel, "cannot start a shell on the server: it announced itself unreadably");
  }
  catsAlive_ = "[ -e /proc/" + std::string(outCat) + "/fd/3 ] && [ -e /proc/" + std::string(errCat) + "/fd/3 ]";
  auto const pipes = [&](int fd) {
    std::string const n = std::to_string(fd);
    return CatPipes{"/proc/" + std::string(outCat) + "/fd/" + n, "/proc/" + std::string(errCat) + "/fd/" + n};
  };
  // Set 0: output on 3, marker on 4; set 1: output on 5, marker on 6.
  sets_[0] = {pipes(4), pipes(5)};
  sets_[1] = {pipes(6), pipes(3)};
}

template <class Done>
bool ShellChannelRunner::Shell::exchange(std::string_view input, std::string& out, std::string& err, Done const& done,
                                         bool watch) {
  std::optional<Clock::time_point> giveUpAt;
  auto news = Clock::now();
  std::chrono::milliseconds silence = kSilence;
  for (;;) {
    arrived_ = false;
    bool progressed = false;
    if (!input.empty()) {
      // A shell that has gone tells it by its channel, not by a failed write.
      std::size_t const written = channel_.offer(input);
      input.remove_prefix(written);
      progressed = written > 0;
    }
    bool const received = channel_.read(out, Stream::Stdout) + channel_.read(err, Stream::Stderr) > 0;
    if (received && done()) return true;
    if (channel_.finished()) return done();
    if (!giveUpAt && channel_.exitStatus()) giveUpAt = Clock::now() + kCloseGrace;
    if (giveUpAt && Clock::now() >= *giveUpAt) return done();
    if (progressed || received || arrived_) {
      news = Clock::now();
      continue;
    }
    if (giveUpAt) {
      auto const left = std::chrono::ceil<std::chrono::milliseconds>(*giveUpAt - Clock::now());
      session_.wait(std::max(left, std::chrono::milliseconds(1)));
    } else if (watch && !cannotAsk_) {
      session_.wait(silence);
      if (Clock::now() - news < silence) continue;
      if (catsGone()) {
        lostCats_ = true;
        return done();
      }
      news = Clock::now();
      silence = std::min<std::chrono::milliseconds>(silence * 2, kLongestSilence);
    } else {
      session_.wait();
    }
  }
}

bool ShellChannelRunner::Shell::catsGone() {
  try {
    return ExecChannelRunner(session_).run(catsAlive_).exitStatus != 0;
  } catch (SSHError const& e) {
    if (e.kind() != SSHError::Kind::Channel) throw;
    cannotAsk_ = true;
    return false;
  }
}

bool ShellChannelRunner::Shell::ready() {
  // Takes in whatever news has arrived (stray output, an exit status, EOF).
  session_.takeIn();
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
  std::string& line = line_;
  line.clear();
  if (isStateFreeCommand(text)) {
    // Output written by the shell itself cannot linger after the marker, so
    // it goes to the channel directly, and the cats keep their rounds. The
    // one redirection is the marker's on standard error.
    line += "eval ";
    appendQuoted(line, text);
    appendAll(line, {"; printf '%s%d\\n' ", marker, " \"$?\" && printf '%s\\n' ", marker, " >&2 || exit\n"});
  } else {
    --commandsLeft_;
    // The command writes to the pipes held on 6 and 7, the markers go to
    // the set's marker pipes, then 6 and 7 move to the other set, which
    // closes this set's output pipes. A cat that has gone (its descriptors
    // gone from /proc) means the command is not run.
    PipeSet const& pipes = sets_[set_];
    set_ ^= 1U;
    appendAll(line, {"{ if [ -e ", pipes.marker.out, " ] && [ -e ", pipes.marker.err,
                     " ]; then (exec 6>&- 7>&- 8>&- 9>&-; eval "});
    appendQuoted(line, text);
    appendAll(line, {" </dev/null) </dev/null >&6 2>&7; printf '%s%d\\n' ", marker, " \"$?\" >", pipes.marker.out,
                     " && printf '%s\\n' ", marker, " >", pipes.marker.err, " || exit; exec 6>", pipes.next.out, " 7>",
                     pipes.next.err, "; else printf '%s-\\n' ", marker, "; exit; fi; } 2>/dev/null\n"});
  }

  std::string out;
  std::string err;
  std::optional<std::size_t> outAt;
  bool const completed = exchange(
      line_, out, err,
      [&] {
        outAt = markerLine(out, marker);
        if (!outAt) return false;
        return out.compare(*outAt + marker.size(), 2, "-\n") == 0 || endsWith(err, marker + "\n");
      },
      true);
  if (!completed) return {.output = std::nullopt, .started = true, .catsGone = lostCats_};
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

bool ShellChannelRunner::haveShell() {
  if (fallback_) return false;
  if (shell_ && !shell_->ready()) shell_.reset();
  if (shell_) return true;
  try {
    shell_ = std::make_unique<Shell>(session_);
    return true;
  } catch (SSHError const& error) {
    if (error.kind() != SSHError::Kind::Channel) throw;
    fallback_.emplace(session_);
    return false;
  }
}

void ShellChannelRunner::probe() {
  session_.requireShell();
  if (!haveShell()) fallback_->probe();
}

CommandOutput ShellChannelRunner::run(std::string const& command) {
  // Known to be missing: no new shell is tried for each command.
  session_.requireShell();
  for (bool retried = false;; retried = true) {
    if (!haveShell()) return fallback_->run(command);
    Shell::Outcome outcome;
    try {
      outcome = shell_->run(command);
    } catch (...) {
      shell_.reset();
      throw;
    }
    if (outcome.output) return std::move(*outcome.output);
    std::string const cause =
        outcome.catsGone ? std::string(
                               "the shell on the server lost the processes that copy its output while running "
                               "the command; its result is lost")
        : outcome.started ? "the shell on the server ended while running the command (" + shell_->describeEnd() +
                                "); its result is lost"
                          : std::string("the shell on the server lost its private pipes and could not run the command");
    shell_.reset();
    if (!outcome.started && !retried) continue;
    session_.fail(SSHError::Kind::Channel, cause);
  }
}

}  // namespace foundation::sshclient::internal
