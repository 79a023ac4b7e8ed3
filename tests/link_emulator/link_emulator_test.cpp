// The relay on real sockets: delays are never shorter than asked (lower
// bounds only, which a loaded machine cannot break), rates are reported, the
// bottleneck holds no more than its bound, resets arrive when asked, and an
// SSH connection works through it.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/link_emulator/LinkEmulator.hpp"
#include "tests/support/LinkTestHelpers.hpp"

namespace sshfa::linkemu {
namespace {

using namespace std::chrono_literals;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::uint64_t kGigabit = 1'000'000'000;

double ms(Clock::duration d) { return Milliseconds(d).count(); }

[[noreturn]] void fail(std::string const& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {
    int const on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Socket(Socket const&) = delete;
  Socket& operator=(Socket const&) = delete;
  Socket& operator=(Socket&&) = delete;

  static Socket connectTo(int port) {
    Socket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets API
    if (::connect(s.fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      fail("cannot connect to 127.0.0.1:" + std::to_string(port));
    }
    return s;
  }

  [[nodiscard]] int fd() const noexcept { return fd_; }

  void sendAll(std::string_view data) const {
    while (!data.empty()) {
      ssize_t const n = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
      if (n < 0) fail("cannot send");
      data.remove_prefix(static_cast<std::size_t>(n));
    }
  }
  // Exactly `size` bytes; fewer only at the end of the stream.
  [[nodiscard]] std::string receive(std::size_t size) const {
    std::string got(size, '\0');
    std::size_t have = 0;
    while (have < size) {
      ssize_t const n = ::recv(fd_, got.data() + have, size - have, 0);
      if (n < 0) fail("cannot receive");
      if (n == 0) break;
      have += static_cast<std::size_t>(n);
    }
    got.resize(have);
    return got;
  }
  // Bytes until the stream ends or fails, and the errno of a failure (0 for an orderly end).
  [[nodiscard]] std::pair<std::string, int> drain() const {
    std::string all;
    char buffer[65536];
    while (true) {
      ssize_t const n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n < 0) return {all, errno};
      if (n == 0) return {all, 0};
      all.append(buffer, static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_;
};

// A listener on 127.0.0.1 that hands each connection, in turn, to `handler`
// on a thread of its own.
class Server {
 public:
  explicit Server(std::function<void(Socket&)> handler) : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets API
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener_.fd(), generic, sizeof address) != 0 || ::listen(listener_.fd(), 8) != 0 ||
        ::getsockname(listener_.fd(), generic, &length) != 0) {
      fail("cannot listen on 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, handler = std::move(handler)] {
      while (true) {
        int const fd = ::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        Socket connection(fd);
        handler(connection);
      }
    });
  }
  ~Server() {
    ::shutdown(listener_.fd(), SHUT_RDWR);
    thread_.join();
  }
  Server(Server const&) = delete;
  Server& operator=(Server const&) = delete;

  [[nodiscard]] int port() const noexcept { return port_; }

 private:
  Socket listener_;
  int port_ = 0;
  std::thread thread_;
};

void echo(Socket& s) {
  char buffer[65536];
  while (true) {
    ssize_t const n = ::recv(s.fd(), buffer, sizeof buffer, 0);
    if (n <= 0) return;
    s.sendAll(std::string_view(buffer, static_cast<std::size_t>(n)));
  }
}

// Bytes with a pattern that a shifted or lost chunk breaks.
std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 65536) % 251);
  return bytes;
}

using sshfa::testing::linkSettings;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

TEST(LinkEmulator, APingPongTakesAtLeastTheRoundTrip) {
  Server server(echo);
  LinkEmulator link(linkSettings(server.port(), 10ms, 10ms, kGigabit));
  auto const client = Socket::connectTo(link.port());
  client.sendAll("x");
  ASSERT_EQ(client.receive(1), "x");
  std::vector<double> rounds;
  for (int i = 0; i < 20; ++i) {
    auto const start = Clock::now();
    client.sendAll("y");
    ASSERT_EQ(client.receive(1), "y");
    rounds.push_back(ms(Clock::now() - start));
    EXPECT_GE(rounds.back(), 20.0);
  }
  std::printf("ping-pong over a 20 ms round trip: median %.3f ms, most %.3f ms\n", median(rounds),
              *std::max_element(rounds.begin(), rounds.end()));
  RecordProperty("median_round_trip_us", static_cast<int>(median(rounds) * 1000));
}

TEST(LinkEmulator, EachDirectionHasItsOwnDelay) {
  std::promise<std::pair<Clock::time_point, Clock::time_point>> atServer;
  Server server([&](Socket& s) {
    (void)s.receive(1);
    auto const received = Clock::now();
    auto const sent = Clock::now();
    s.sendAll("b");
    atServer.set_value({received, sent});
  });
  LinkEmulator link(linkSettings(server.port(), 5ms, 30ms));
  auto const client = Socket::connectTo(link.port());
  std::this_thread::sleep_for(100ms);  // past the handshake
  auto const sent = Clock::now();
  client.sendAll("a");
  ASSERT_EQ(client.receive(1), "b");
  auto const received = Clock::now();
  auto const [serverReceived, serverSent] = atServer.get_future().get();
  EXPECT_GE(ms(serverReceived - sent), 5.0);
  EXPECT_GE(ms(received - serverSent), 30.0);
  std::printf("one way: up %.3f ms (5 asked), down %.3f ms (30 asked)\n", ms(serverReceived - sent),
              ms(received - serverSent));
}

TEST(LinkEmulator, ANewConnectionCostsAHandshake) {
  std::promise<std::pair<Clock::time_point, Clock::time_point>> atServer;
  Server server([&](Socket& s) {
    auto const accepted = Clock::now();
    s.sendAll("banner");
    (void)s.receive(1);
    atServer.set_value({accepted, Clock::now()});
  });
  LinkEmulator link(linkSettings(server.port(), 10ms, 10ms));
  auto const start = Clock::now();
  auto const client = Socket::connectTo(link.port());
  client.sendAll("x");
  ASSERT_EQ(client.receive(6), "banner");
  auto const banner = Clock::now();
  auto const [accepted, firstByte] = atServer.get_future().get();
  // SYN, SYN-ACK, ACK: the server accepts after one and a half round trips,
  // the client's first byte arrives with the ACK, the banner a round trip later.
  EXPECT_GE(ms(accepted - start), 30.0);
  EXPECT_GE(ms(firstByte - start), 30.0);
  EXPECT_GE(ms(banner - start), 40.0);
  std::printf("handshake over a 20 ms round trip: accepted after %.3f ms, banner after %.3f ms\n", ms(accepted - start),
              ms(banner - start));
}

TEST(LinkEmulator, TheEndOfTheStreamFollowsTheBytes) {
  std::promise<std::pair<std::string, Clock::time_point>> atServer;
  Server server([&](Socket& s) {
    auto [bytes, error] = s.drain();
    atServer.set_value({error == 0 ? bytes : "error", Clock::now()});
  });
  LinkEmulator link(linkSettings(server.port(), 10ms, 10ms));
  auto const client = Socket::connectTo(link.port());
  std::this_thread::sleep_for(50ms);
  client.sendAll("abc");
  auto const closed = Clock::now();
  ::shutdown(client.fd(), SHUT_WR);
  auto const [bytes, ended] = atServer.get_future().get();
  EXPECT_EQ(bytes, "abc");
  EXPECT_GE(ms(ended - closed), 10.0);
}

// Sends `size` bytes through a link of `bitsPerSecond` and 5 ms each way;
// returns the rate reached in percent of the configured one.
double bulk(std::uint64_t bitsPerSecond, std::size_t size) {
  std::promise<std::pair<std::string, Clock::time_point>> atServer;
  Server server([&](Socket& s) {
    std::string got = s.receive(size);
    atServer.set_value({std::move(got), Clock::now()});
  });
  LinkEmulator link(linkSettings(server.port(), 5ms, 5ms, bitsPerSecond));
  auto const client = Socket::connectTo(link.port());
  std::this_thread::sleep_for(50ms);
  std::string const data = pattern(size);
  auto const start = Clock::now();
  client.sendAll(data);
  auto const [got, end] = atServer.get_future().get();
  EXPECT_TRUE(got == data) << "the bytes changed on the way";
  double const wire = static_cast<double>(size) * 8.0 / static_cast<double>(bitsPerSecond) * 1000.0;
  double const elapsed = ms(end - start);
  EXPECT_GE(elapsed, wire + 5.0);
  double const percent = wire / (elapsed - 5.0) * 100.0;
  std::printf("bulk %zu MiB at %.0f Mbit/s: %.3f s, %.1f %% of the rate\n", size >> 20U,
              static_cast<double>(bitsPerSecond) / 1e6, elapsed / 1000.0, percent);
  return percent;
}

TEST(LinkEmulator, ABulkStreamKeepsToTheRate) {
  RecordProperty("percent_of_100_mbit", static_cast<int>(bulk(100'000'000, 8U << 20U)));
  RecordProperty("percent_of_1_gbit", static_cast<int>(bulk(kGigabit, 64U << 20U)));
}

TEST(LinkEmulator, AFullBottleneckLeavesTheRestInTheSendersSocket) {
  std::promise<void> readNow;
  std::promise<std::pair<std::string, int>> atServer;
  Server server([&](Socket& s) {
    readNow.get_future().wait();
    atServer.set_value(s.drain());
  });
  auto settings = linkSettings(server.port(), 20ms, 20ms, 80'000'000);
  settings.bufferBytes = std::size_t{256} * 1024;
  LinkEmulator link(settings);
  LinkDirection const shape({20ms, settings.bitsPerSecond, settings.bufferBytes}, Clock::now());
  auto const client = Socket::connectTo(link.port());
  ::fcntl(client.fd(), F_SETFL, O_NONBLOCK);
  std::string const data = pattern(64U << 20U);
  // Write until the sender's socket has stayed full for 300 ms.
  std::size_t sent = 0;
  auto lastProgress = Clock::now();
  while (Clock::now() - lastProgress < 300ms && sent < data.size()) {
    ssize_t const n =
        ::send(client.fd(), data.data() + sent, std::min<std::size_t>(65536, data.size() - sent), MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
      lastProgress = Clock::now();
    } else {
      ASSERT_EQ(errno, EAGAIN);
      std::this_thread::sleep_for(1ms);
    }
  }
  EXPECT_LT(sent, data.size()) << "nothing pushed back";
  auto const held = link.stats().mostHeld;
  EXPECT_LE(held, shape.memoryBound());
  EXPECT_GT(held, settings.bufferBytes);
  std::printf(
      "receiver not reading: %zu bytes written before the sender's socket filled; the relay held %llu "
      "(bound %zu)\n",
      sent, static_cast<unsigned long long>(held), shape.memoryBound());
  readNow.set_value();
  ::fcntl(client.fd(), F_SETFL, 0);
  ::shutdown(client.fd(), SHUT_WR);
  auto const [got, error] = atServer.get_future().get();
  EXPECT_EQ(error, 0);
  EXPECT_EQ(got.size(), sent);
  EXPECT_TRUE(got == data.substr(0, sent)) << "the bytes changed on the way";
}

TEST(LinkEmulator, KillResetsTheLiveConnectionsAndKeepsListening) {
  std::promise<int> serverError;
  bool first = true;
  Server server([&](Socket& s) {
    s.sendAll(s.receive(1));
    auto const [rest, error] = s.drain();
    if (std::exchange(first, false)) serverError.set_value(error);
  });
  LinkEmulator link(linkSettings(server.port(), 1ms, 1ms));
  {
    auto const client = Socket::connectTo(link.port());
    client.sendAll("x");
    ASSERT_EQ(client.receive(1), "x");
    link.killConnections();
    auto const [rest, error] = client.drain();
    EXPECT_EQ(rest, "");
    EXPECT_EQ(error, ECONNRESET);
    EXPECT_EQ(serverError.get_future().get(), ECONNRESET);
  }
  auto const client = Socket::connectTo(link.port());
  client.sendAll("y");
  EXPECT_EQ(client.receive(1), "y");
  EXPECT_EQ(link.stats().killed, 1U);
  EXPECT_EQ(link.stats().accepted, 2U);
}

TEST(LinkEmulator, AConnectionIsResetAfterTheBytesAsked) {
  std::promise<std::pair<std::size_t, int>> atServer;
  Server server([&](Socket& s) {
    auto const [bytes, error] = s.drain();
    atServer.set_value({bytes.size(), error});
  });
  auto settings = linkSettings(server.port(), 0ms, 0ms);
  settings.killAfterBytes = 1U << 20U;
  LinkEmulator link(settings);
  auto const client = Socket::connectTo(link.port());
  std::string const data = pattern(4U << 20U);
  std::size_t sent = 0;
  while (sent < data.size()) {
    ssize_t const n = ::send(client.fd(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
  }
  auto const [received, error] = atServer.get_future().get();
  EXPECT_LE(received, std::size_t{1} << 20U);
  EXPECT_EQ(error, ECONNRESET);
  EXPECT_EQ(link.stats().killed, 1U);
}

TEST(LinkEmulator, ARefusingTargetResetsTheClient) {
  int port = 0;
  {
    Server closed([](Socket&) {});
    port = closed.port();
  }
  LinkEmulator link(linkSettings(port, 0ms, 0ms));
  auto const client = Socket::connectTo(link.port());
  auto const [rest, error] = client.drain();
  EXPECT_EQ(rest, "");
  EXPECT_EQ(error, ECONNRESET);
}

TEST(LinkEmulator, APortInUseIsRefusedByName) {
  Server busy(echo);
  auto settings = linkSettings(busy.port(), 0ms, 0ms);
  settings.listenPort = busy.port();
  try {
    LinkEmulator link(settings);
    ADD_FAILURE() << "listened on a port in use";
  } catch (std::runtime_error const& error) {
    EXPECT_EQ(error.what(), "cannot listen on 127.0.0.1:" + std::to_string(busy.port()) + ": Address already in use");
  }
}

TEST(LinkEmulator, TheTraceHasEveryChunkInAndOut) {
  Server server(echo);
  auto const trace = sshfa::testing::TestSshd::makeTempDir() / "trace";
  auto settings = linkSettings(server.port(), 1ms, 1ms, 100'000'000);
  settings.tracePath = trace;
  {
    LinkEmulator link(settings);
    auto const client = Socket::connectTo(link.port());
    std::string const data = pattern(100'000);
    client.sendAll(data);
    EXPECT_TRUE(client.receive(data.size()) == data);
  }
  std::ifstream in(trace);
  std::map<std::string, std::size_t> totals;
  double seconds = 0;
  double previous = 0;
  std::string id;
  std::string direction;
  std::string event;
  std::size_t bytes = 0;
  while (in >> seconds >> id >> direction >> event >> bytes) {
    EXPECT_EQ(id, "1");
    EXPECT_GE(seconds, previous);
    previous = seconds;
    totals[direction.append(" ").append(event)] += bytes;
  }
  EXPECT_EQ(totals, (std::map<std::string, std::size_t>{
                        {"down in", 100'000}, {"down out", 100'000}, {"up in", 100'000}, {"up out", 100'000}}));
}

// ---- the program -------------------------------------------------------------------

// link_emulator with `arguments`, its standard output and error on pipes.
struct Program {
  explicit Program(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), SSHFA_LINK_EMULATOR);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int out[2];
    int err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) fail("cannot create a pipe");
    pid = ::fork();
    if (pid == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    output = out[0];
    errors = err[0];
  }
  ~Program() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    ::close(output);
    ::close(errors);
  }
  Program(Program const&) = delete;
  Program& operator=(Program const&) = delete;

  static std::string readAll(int fd) {
    std::string all;
    char buffer[4096];
    for (ssize_t n = 0; (n = ::read(fd, buffer, sizeof buffer)) > 0;) all.append(buffer, static_cast<std::size_t>(n));
    return all;
  }
  // The first line of standard output.
  [[nodiscard]] std::string line() const {
    std::string text;
    char c = 0;
    while (::read(output, &c, 1) == 1 && c != '\n') text += c;
    return text;
  }
  // Exit status once it ended.
  int wait() {
    int status = 0;
    ::waitpid(std::exchange(pid, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  pid_t pid = 0;
  int output = -1;
  int errors = -1;
};

TEST(LinkEmulatorProgram, SigusrOneResetsTheConnectionsAndSigtermStopsIt) {
  Server server(echo);
  Program program({"--target", "127.0.0.1:" + std::to_string(server.port()), "--delay-ms", "1", "--rate", "1G"});
  std::string const listening = program.line();
  ASSERT_TRUE(listening.starts_with("listening 127.0.0.1:")) << listening;
  EXPECT_EQ(program.line(), "target 127.0.0.1:" + std::to_string(server.port()) +
                                ", delay up 1.000 ms, down 1.000 ms, rate 1000000000 bit/s, buffer 250000 bytes");
  auto const client = Socket::connectTo(std::stoi(listening.substr(listening.rfind(':') + 1)));
  client.sendAll("x");
  ASSERT_EQ(client.receive(1), "x");
  ::kill(program.pid, SIGUSR1);
  auto const [rest, error] = client.drain();
  EXPECT_EQ(error, ECONNRESET);
  ::kill(program.pid, SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(Program::readAll(program.errors), "link_emulator: 1 connections, 1 reset, 1 bytes up, 1 bytes down\n");
}

TEST(LinkEmulatorProgram, ABadCommandLineIsRefusedByName) {
  Program program({"--target", "127.0.0.1:22", "--rate", "1X"});
  EXPECT_EQ(program.wait(), 2);
  std::string const errors = Program::readAll(program.errors);
  EXPECT_TRUE(errors.starts_with("link_emulator: invalid rate '1X'\nusage: link_emulator --target HOST:PORT"))
      << errors;
  EXPECT_EQ(Program::readAll(program.output), "");
}

// ---- an SSH connection through the link ------------------------------------------

TEST(LinkEmulator, AnSshConnectionWorksThroughTheLink) {
  auto& sshd = sshfa::testing::TestSshd::instance();
  auto const link = sshfa::testing::linkTo(sshd, 10ms);
  auto const start = Clock::now();
  auto const client = sshfa::testing::connectThrough(sshd, *link, sshfa::testing::optionsThrough(sshd, *link));
  auto const connected = Clock::now();
  auto const result = client->executeCommand(foundation::sshclient::ExecuteCommand(u"echo hello"));
  auto const done = Clock::now();
  EXPECT_EQ(sshfa::testing::utf8(result.getStdout()), "hello\n");
  // TCP, the versions, key exchange, its new keys, authentication: at least five round trips.
  EXPECT_GE(ms(connected - start), 5 * 20.0);
  EXPECT_GE(ms(done - connected), 20.0);
  std::printf("over a 20 ms round trip: connected in %.1f ms, first command in %.1f ms\n", ms(connected - start),
              ms(done - connected));
  EXPECT_EQ(link->stats().accepted, 1U);
}

}  // namespace
}  // namespace sshfa::linkemu
