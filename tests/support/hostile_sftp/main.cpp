// sshfa_hostile_sftp: an SFTP server that lies about folder listings, for the
// tests of clients that must not trust the names a server sends.
//
//   sshfa_hostile_sftp --rules FILE [--log FILE] [-- SFTP-SERVER-ARGUMENTS...]
//
// Made to be sshd's SFTP subsystem ("Subsystem sftp /path/sshfa_hostile_sftp
// --rules FILE"), or run over pipes. It starts OpenSSH's sftp-server with the
// arguments after "--", relays both streams packet by packet and rewrites
// what the rules in FILE say (format: Rules.hpp; what changes: Tracker.hpp).
// Everything else passes byte for byte. FILE is read once, when the session
// starts. --log appends a line for each session and each change, prefixed
// with the process id.
//
// Exit status: the server's; 2 for bad arguments or rules, or a rule that
// cannot be applied (a '@PATH' that cannot be read), with the cause on
// standard error and in the log.

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/PipedProcess.hpp"
#include "tests/support/SftpPackets.hpp"
#include "tests/support/hostile_sftp/Rules.hpp"
#include "tests/support/hostile_sftp/Tracker.hpp"

namespace {

namespace hostile = sshfa::testing::hostile;
namespace sftp = foundation::sshclient::internal::sftp;

struct Options {
  std::string rulesFile;
  std::string logFile;
  std::vector<std::string> serverArguments;
};

std::string errnoText(std::string const& what, std::string const& path) {
  return "cannot " + what + " '" + path + "': " + std::strerror(errno);
}

Options parseArguments(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string const argument = argv[i];
    if (argument == "--") {
      options.serverArguments.assign(argv + i + 1, argv + argc);
      break;
    }
    if ((argument == "--rules" || argument == "--log") && i + 1 < argc) {
      (argument == "--rules" ? options.rulesFile : options.logFile) = argv[++i];
      continue;
    }
    throw std::invalid_argument("unknown or incomplete argument '" + argument +
                                "'; usage: sshfa_hostile_sftp --rules FILE [--log FILE] [-- SFTP-SERVER-ARGUMENTS...]");
  }
  if (options.rulesFile.empty()) throw std::invalid_argument("--rules FILE is required");
  return options;
}

// Whole lines appended with one write each, so that sessions running at once
// do not tear each other's lines.
class LogFile {
 public:
  explicit LogFile(std::string const& path) {
    if (path.empty()) return;
    fd_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ < 0) throw std::runtime_error(errnoText("open the log", path));
  }
  ~LogFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  LogFile(LogFile const&) = delete;
  LogFile& operator=(LogFile const&) = delete;

  void line(std::string const& text) const {
    if (fd_ < 0) return;
    auto const whole = std::to_string(::getpid()) + ": " + text + "\n";
    (void)!::write(fd_, whole.data(), whole.size());
  }

 private:
  int fd_ = -1;
};

std::string readRules(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error(errnoText("read the rules file", path));
  std::string text;
  char buffer[8192];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      auto const message = errnoText("read the rules file", path);
      ::close(fd);
      throw std::runtime_error(message);
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return text;
}

std::optional<std::string> realPath(std::string const& path) {
  if (path.find('\0') != std::string::npos) return std::nullopt;
  char resolved[PATH_MAX];
  if (::realpath(path.c_str(), resolved) == nullptr) return std::nullopt;
  return std::string(resolved);
}

// False when the reader has gone.
bool writeAll(int fd, sftp::Bytes const& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    auto const n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EPIPE) return false;
    if (n < 0) throw std::runtime_error(std::string("cannot relay: ") + std::strerror(errno));
    done += static_cast<std::size_t>(n);
  }
  return true;
}

void append(sftp::Bytes& out, sftp::ByteView packet) {
  auto const framed = sshfa::testing::Body::framed(packet);
  out.insert(out.end(), framed.begin(), framed.end());
}

// Reads whole packets from `fd` until it ends or `deliver` says the reader
// of the other side has gone. `handle` turns each packet into what goes out.
void relay(int fd, std::function<void(sftp::ByteView packet)> const& handle, std::function<bool()> const& deliver) {
  sftp::PacketReader reader;
  for (;;) {
    auto space = reader.writable(65536);
    auto const n = ::read(fd, space.data(), space.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw std::runtime_error(std::string("cannot relay: ") + std::strerror(errno));
    if (n == 0) return;
    reader.commit(static_cast<std::size_t>(n));
    while (auto const packet = reader.next()) handle(*packet);
    if (!deliver()) return;
  }
}

// Ends the whole process from either relay thread: the other one may sit in
// a read() that nothing else would end.
[[noreturn]] void finish(sshfa::testing::PipedProcess const& child, int status) {
  ::kill(child.pid, SIGTERM);
  ::_exit(status);
}

int serve(Options const& options, LogFile const& log) {
  auto rules = hostile::parseRules(readRules(options.rulesFile));
  log.line("session with " + std::to_string(rules.size()) + " rules from '" + options.rulesFile + "'");
  hostile::Attributes owner;
  owner.uid = ::getuid();
  owner.gid = ::getgid();
  hostile::Tracker tracker(std::move(rules), owner, realPath, sshfa::testing::localAttributes,
                           [&](std::string const& line) { log.line(line); });

  ::signal(SIGPIPE, SIG_IGN);
  auto const child = sshfa::testing::startPiped(sshfa::testing::sftpServerPath(), options.serverArguments);
  std::mutex toClient;  // both directions answer the client

  auto const fatal = [&](std::exception const& e) {
    std::cerr << "sshfa_hostile_sftp: " << e.what() << std::endl;
    log.line(e.what());
    finish(child, 2);
  };

  std::thread replies([&] {
    try {
      sftp::Bytes out;
      relay(
          child.output,
          [&](sftp::ByteView packet) {
            auto const changed = tracker.reply(packet);
            append(out, changed ? sftp::ByteView(*changed) : packet);
          },
          [&] {
            std::lock_guard const lock(toClient);
            bool const delivered = writeAll(STDOUT_FILENO, out);
            out.clear();
            return delivered;
          });
      int status = 0;
      ::waitpid(child.pid, &status, 0);
      ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 2);
    } catch (std::exception const& e) {
      fatal(e);
    }
  });

  try {
    sftp::Bytes out;
    sftp::Bytes answers;
    relay(
        STDIN_FILENO,
        [&](sftp::ByteView packet) {
          if (auto const answer = tracker.request(packet)) {
            append(answers, *answer);
          } else {
            append(out, packet);
          }
        },
        [&] {
          bool delivered = writeAll(child.input, out);
          if (!answers.empty()) {
            std::lock_guard const lock(toClient);
            delivered = writeAll(STDOUT_FILENO, answers) && delivered;
          }
          out.clear();
          answers.clear();
          return delivered;
        });
  } catch (std::exception const& e) {
    fatal(e);
  }
  // The client is done: the server ends on its own, and the replies thread
  // exits the process once it has passed on the server's last words.
  ::close(child.input);
  replies.join();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  try {
    options = parseArguments(argc, argv);
  } catch (std::exception const& e) {
    std::cerr << "sshfa_hostile_sftp: " << e.what() << std::endl;
    return 2;
  }
  try {
    LogFile const log(options.logFile);
    try {
      return serve(options, log);
    } catch (std::exception const& e) {
      log.line(e.what());
      throw;
    }
  } catch (std::exception const& e) {
    std::cerr << "sshfa_hostile_sftp: " << e.what() << std::endl;
    return 2;
  }
}
