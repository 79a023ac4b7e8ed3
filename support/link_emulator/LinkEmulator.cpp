#include "support/link_emulator/LinkEmulator.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <list>
#include <stdexcept>
#include <utility>
#include <vector>

namespace sshfa::linkemu {
namespace {

// Small socket receive buffers: bytes the relay has not read yet wait in the
// sender's socket, not in a second queue in front of the bottleneck.
constexpr int kReceiveBuffer = 64 * 1024;
constexpr int kListenBacklog = 128;
// Chunks one direction holds at most: many tiny reads cost little memory
// each, but not without bound.
constexpr std::size_t kMostChunks = 4096;

[[noreturn]] void fail(std::string const& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool open() const noexcept { return fd_ >= 0; }
  void reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  // Closes with a reset instead of an orderly end, as a lost link looks.
  void abort() noexcept {
    if (fd_ < 0) return;
    linger const hard{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    reset();
  }

 private:
  int fd_ = -1;
};

void setOption(int fd, int level, int name, int value) { ::setsockopt(fd, level, name, &value, sizeof value); }

struct Chunk {
  std::vector<char> bytes;
  std::size_t sent = 0;
  Clock::time_point arrival;
};

struct Direction {
  Direction(LinkShape shape, Clock::time_point opensAt) : link(shape, opensAt) {}

  // Bytes may enter now.
  [[nodiscard]] bool reading(Clock::time_point now) const {
    return !eofRead && chunks.size() < kMostChunks && link.room(now) > 0;
  }

  LinkDirection link;
  std::deque<Chunk> chunks;
  bool eofRead = false;
  Clock::time_point eofArrival;  // the end of the stream arrives after the bytes before it
  bool eofSent = false;
  bool writeBlocked = false;  // the receiver's socket is full
};

struct Connection {
  Connection(std::uint64_t number, Fd clientFd, EmulatorSettings const& s, Clock::time_point now)
      : id(number),
        client(std::move(clientFd)),
        // The target sees the connection when the handshake's last packet
        // would reach it; the client's bytes leave after the handshake.
        connectAt(now + 2 * s.delayUp + s.delayDown),
        up({s.delayUp, s.bitsPerSecond, s.bufferBytes}, now + s.delayUp + s.delayDown),
        down({s.delayDown, s.bitsPerSecond, s.bufferBytes}, connectAt) {}

  std::uint64_t id;
  Fd client;
  Fd target;
  Clock::time_point connectAt;
  bool connecting = false;
  Direction up;
  Direction down;
  std::uint64_t carried = 0;
  bool dead = false;
};

enum class Side { Client, Target };

}  // namespace

class LinkEmulator::Relay {
 public:
  Relay(EmulatorSettings const& settings, Fd listener, Fd wakeRead, Fd wakeWrite, sockaddr_storage target,
        socklen_t targetLength, std::FILE* trace)
      : settings_(settings),
        listener_(std::move(listener)),
        wakeRead_(std::move(wakeRead)),
        wakeWrite_(std::move(wakeWrite)),
        target_(target),
        targetLength_(targetLength),
        trace_(trace),
        started_(Clock::now()) {}
  ~Relay() {
    for (auto& c : connections_) abort(c);
    if (trace_ != nullptr) std::fclose(trace_);
  }
  Relay(Relay const&) = delete;
  Relay& operator=(Relay const&) = delete;

  void run();
  void wake() noexcept {
    char const byte = 0;
    [[maybe_unused]] auto const ignored = ::write(wakeWrite_.get(), &byte, 1);
  }

  std::atomic<bool> stopping{false};
  std::atomic<bool> killRequested{false};
  std::atomic<std::uint64_t> accepted{0};
  std::atomic<std::uint64_t> killed{0};
  std::atomic<std::uint64_t> bytesUp{0};
  std::atomic<std::uint64_t> bytesDown{0};
  std::atomic<std::uint64_t> mostHeld{0};

 private:
  struct Watch {
    Connection* connection;
    Side side;
  };

  void acceptAll(Clock::time_point now);
  void step(Connection& c, Clock::time_point now);
  void startConnect(Connection& c);
  void finishConnect(Connection& c);
  void readInto(Connection& c, Direction& d, int fd, char const* name, Clock::time_point now);
  void deliver(Connection& c, Direction& d, int fd, char const* name, std::atomic<std::uint64_t>& total,
               Clock::time_point now);
  // When this direction next needs the relay without a socket event.
  static Clock::time_point nextTimer(Direction const& d, bool receiverReady, Clock::time_point now);
  static short interest(Direction const& source, Direction const& sink, Clock::time_point now);
  void abort(Connection& c) noexcept {
    c.client.abort();
    c.target.abort();
    c.dead = true;
  }
  void note(Connection const& c, char const* direction, char const* event, std::size_t bytes, Clock::time_point now) {
    if (trace_ == nullptr) return;
    std::fprintf(trace_, "%.6f %llu %s %s %zu\n", std::chrono::duration<double>(now - started_).count(),
                 static_cast<unsigned long long>(c.id), direction, event, bytes);
  }

  EmulatorSettings settings_;
  Fd listener_;
  Fd wakeRead_;
  Fd wakeWrite_;
  sockaddr_storage target_;
  socklen_t targetLength_;
  std::FILE* trace_;
  Clock::time_point started_;
  std::list<Connection> connections_;
  std::uint64_t nextId_ = 1;
  std::vector<char> readBuffer_;
};

void LinkEmulator::Relay::run() {
  // Timers fire when asked, not up to 50 µs later.
  ::prctl(PR_SET_TIMERSLACK, 1UL);
  std::vector<pollfd> fds;
  std::vector<Watch> watches;
  while (!stopping.load()) {
    auto now = Clock::now();
    if (killRequested.exchange(false)) {
      for (auto& c : connections_) {
        if (c.dead) continue;
        // Counted first: whoever sees the reset may ask at once.
        ++killed;
        abort(c);
      }
    }
    auto deadline = Clock::time_point::max();
    fds.assign(2, pollfd{});
    fds[0] = {listener_.get(), POLLIN, 0};
    fds[1] = {wakeRead_.get(), POLLIN, 0};
    watches.clear();
    for (auto& c : connections_) {
      step(c, now);
      if (c.dead) continue;
      if (!c.target.open() && !c.connecting) deadline = std::min(deadline, c.connectAt);
      deadline = std::min(deadline, nextTimer(c.up, c.target.open() && !c.connecting, now));
      deadline = std::min(deadline, nextTimer(c.down, true, now));
      short const clientEvents = interest(c.up, c.down, now);
      short targetEvents = 0;
      if (c.connecting) {
        targetEvents = POLLOUT;
      } else if (c.target.open()) {
        targetEvents = interest(c.down, c.up, now);
      }
      if (clientEvents != 0) {
        fds.push_back({c.client.get(), clientEvents, 0});
        watches.push_back({&c, Side::Client});
      }
      if (targetEvents != 0) {
        fds.push_back({c.target.get(), targetEvents, 0});
        watches.push_back({&c, Side::Target});
      }
    }
    connections_.remove_if([](Connection const& c) { return c.dead; });

    timespec wait{};
    timespec* timeout = nullptr;
    if (deadline != Clock::time_point::max()) {
      auto const left = std::max(Nanoseconds(0), std::chrono::duration_cast<Nanoseconds>(deadline - now));
      wait.tv_sec = static_cast<time_t>(left.count() / 1'000'000'000);
      wait.tv_nsec = static_cast<long>(left.count() % 1'000'000'000);
      timeout = &wait;
    }
    if (::ppoll(fds.data(), fds.size(), timeout, nullptr) < 0 && errno != EINTR) return;
    now = Clock::now();
    if ((fds[1].revents & POLLIN) != 0) {
      char drain[64];
      while (::read(wakeRead_.get(), drain, sizeof drain) > 0) {
      }
    }
    for (std::size_t i = 2; i < fds.size(); ++i) {
      short const got = fds[i].revents;
      auto& [c, side] = watches[i - 2];
      if (got == 0 || c->dead) continue;
      bool const readable = (fds[i].events & POLLIN) != 0 && (got & (POLLIN | POLLERR | POLLHUP)) != 0;
      if (side == Side::Client) {
        if ((got & POLLOUT) != 0) c->down.writeBlocked = false;
        if (readable) readInto(*c, c->up, c->client.get(), "up", now);
      } else if (c->connecting) {
        finishConnect(*c);
      } else {
        if ((got & POLLOUT) != 0) c->up.writeBlocked = false;
        if (readable) readInto(*c, c->down, c->target.get(), "down", now);
      }
      // An error or hang-up with nothing else to do: let the write find it.
      if ((got & (POLLERR | POLLHUP)) != 0) {
        c->up.writeBlocked = false;
        c->down.writeBlocked = false;
      }
    }
    if ((fds[0].revents & POLLIN) != 0) acceptAll(now);
  }
}

void LinkEmulator::Relay::acceptAll(Clock::time_point now) {
  while (true) {
    int const fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    connections_.emplace_back(nextId_++, Fd(fd), settings_, now);
    ++accepted;
  }
}

void LinkEmulator::Relay::step(Connection& c, Clock::time_point now) {
  if (!c.dead && !c.target.open() && now >= c.connectAt) startConnect(c);
  if (!c.dead && c.target.open() && !c.connecting) deliver(c, c.up, c.target.get(), "up", bytesUp, now);
  if (!c.dead) deliver(c, c.down, c.client.get(), "down", bytesDown, now);
  if (!c.dead && c.up.eofSent && c.down.eofSent) {
    c.client.reset();
    c.target.reset();
    c.dead = true;
  }
}

void LinkEmulator::Relay::startConnect(Connection& c) {
  Fd fd(::socket(target_.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.open()) return abort(c);
  setOption(fd.get(), IPPROTO_TCP, TCP_NODELAY, 1);
  setOption(fd.get(), SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets API
  int const rc = ::connect(fd.get(), reinterpret_cast<sockaddr const*>(&target_), targetLength_);
  if (rc != 0 && errno != EINPROGRESS) return abort(c);
  c.connecting = rc != 0;
  c.target = std::move(fd);
}

void LinkEmulator::Relay::finishConnect(Connection& c) {
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(c.target.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) return abort(c);
  c.connecting = false;
}

void LinkEmulator::Relay::readInto(Connection& c, Direction& d, int fd, char const* name, Clock::time_point now) {
  if (!d.reading(now)) return;
  // Read into one buffer, kept in a chunk of the size that came.
  readBuffer_.resize(d.link.room(now));
  ssize_t const n = ::read(fd, readBuffer_.data(), readBuffer_.size());
  if (n < 0) {
    if (errno != EAGAIN && errno != EINTR) abort(c);
    return;
  }
  if (n == 0) {
    d.eofRead = true;
    d.eofArrival = d.link.admit(now, 0);
    return;
  }
  auto const got = static_cast<std::size_t>(n);
  Chunk chunk;
  chunk.bytes.assign(readBuffer_.begin(), readBuffer_.begin() + n);
  chunk.arrival = d.link.admit(now, got);
  d.chunks.push_back(std::move(chunk));
  if (d.link.held() > mostHeld.load()) mostHeld = d.link.held();
  note(c, name, "in", got, now);
  c.carried += got;
  if (settings_.killAfterBytes != 0 && c.carried >= settings_.killAfterBytes) {
    ++killed;
    abort(c);
  }
}

void LinkEmulator::Relay::deliver(Connection& c, Direction& d, int fd, char const* name,
                                  std::atomic<std::uint64_t>& total, Clock::time_point now) {
  while (!d.writeBlocked && !d.chunks.empty() && d.chunks.front().arrival <= now) {
    Chunk& front = d.chunks.front();
    ssize_t const n = ::send(fd, front.bytes.data() + front.sent, front.bytes.size() - front.sent, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EAGAIN) {
        d.writeBlocked = true;
      } else if (errno != EINTR) {
        abort(c);
      }
      return;
    }
    auto const sent = static_cast<std::size_t>(n);
    front.sent += sent;
    d.link.delivered(sent);
    total += sent;
    if (front.sent == front.bytes.size()) {
      note(c, name, "out", front.bytes.size(), now);
      d.chunks.pop_front();
    }
  }
  if (d.eofRead && !d.eofSent && d.chunks.empty() && now >= d.eofArrival) {
    ::shutdown(fd, SHUT_WR);
    d.eofSent = true;
  }
}

Clock::time_point LinkEmulator::Relay::nextTimer(Direction const& d, bool receiverReady, Clock::time_point now) {
  auto next = Clock::time_point::max();
  if (receiverReady && !d.writeBlocked) {
    if (!d.chunks.empty()) {
      next = d.chunks.front().arrival;
    } else if (d.eofRead && !d.eofSent) {
      next = d.eofArrival;
    }
  }
  if (!d.eofRead && d.link.room(now) == 0) next = std::min(next, d.link.roomAt(now));
  return next;
}

short LinkEmulator::Relay::interest(Direction const& source, Direction const& sink, Clock::time_point now) {
  int events = 0;
  if (source.reading(now)) events |= POLLIN;
  if (sink.writeBlocked) events |= POLLOUT;
  return static_cast<short>(events);
}

LinkEmulator::LinkEmulator(EmulatorSettings settings) : settings_(std::move(settings)) {
  std::string const listenName = "127.0.0.1:" + std::to_string(settings_.listenPort);
  std::string const targetName = settings_.targetHost + ":" + std::to_string(settings_.targetPort);
  if (settings_.bufferBytes == 0) {
    settings_.bufferBytes = defaultBuffer(settings_.bitsPerSecond, settings_.delayUp + settings_.delayDown);
  }

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  int const resolved =
      ::getaddrinfo(settings_.targetHost.c_str(), std::to_string(settings_.targetPort).c_str(), &hints, &found);
  if (resolved != 0 || found == nullptr) {
    throw std::runtime_error("cannot resolve '" + targetName + "': " + ::gai_strerror(resolved));
  }
  sockaddr_storage target{};
  std::memcpy(&target, found->ai_addr, found->ai_addrlen);
  auto const targetLength = found->ai_addrlen;
  ::freeaddrinfo(found);

  Fd listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener.open()) fail("cannot listen on " + listenName);
  setOption(listener.get(), SOL_SOCKET, SO_REUSEADDR, 1);
  // Inherited by accepted sockets, and set before the handshake so that the
  // window scale agrees with it.
  setOption(listener.get(), SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(settings_.listenPort));
  socklen_t length = sizeof address;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets API
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener.get(), generic, sizeof address) != 0 || ::listen(listener.get(), kListenBacklog) != 0 ||
      ::getsockname(listener.get(), generic, &length) != 0) {
    fail("cannot listen on " + listenName);
  }
  port_ = ntohs(address.sin_port);

  int wake[2];
  if (::pipe2(wake, O_NONBLOCK | O_CLOEXEC) != 0) fail("cannot create a pipe");
  Fd wakeRead(wake[0]);
  Fd wakeWrite(wake[1]);

  std::FILE* trace = nullptr;
  if (!settings_.tracePath.empty()) {
    trace = std::fopen(settings_.tracePath.c_str(), "w");
    if (trace == nullptr) fail("cannot open '" + settings_.tracePath.string() + "'");
  }
  relay_ = std::make_unique<Relay>(settings_, std::move(listener), std::move(wakeRead), std::move(wakeWrite), target,
                                   targetLength, trace);
  thread_ = std::thread([relay = relay_.get()] { relay->run(); });
}

LinkEmulator::~LinkEmulator() {
  relay_->stopping = true;
  relay_->wake();
  thread_.join();
}

void LinkEmulator::killConnections() noexcept {
  relay_->killRequested = true;
  relay_->wake();
}

EmulatorStats LinkEmulator::stats() const noexcept {
  return {relay_->accepted.load(), relay_->killed.load(), relay_->bytesUp.load(), relay_->bytesDown.load(),
          relay_->mostHeld.load()};
}

}  // namespace sshfa::linkemu
