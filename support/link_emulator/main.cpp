// link_emulator: a TCP relay on 127.0.0.1 that behaves like a long link (see
// LinkEmulator.hpp).
//
//   link_emulator --target HOST:PORT [--listen PORT] [--delay-ms MS]
//                 [--delay-up-ms MS] [--delay-down-ms MS] [--rate BITS]
//                 [--buffer BYTES] [--kill-after BYTES] [--trace FILE]
//
// --delay-ms sets both one-way delays (the round trip is twice that);
// --delay-up-ms and --delay-down-ms set one each (up: towards the target).
// --rate takes k, M, G (bits/s, powers of 1000), --buffer K, M, G (bytes,
// powers of 1024); the buffer defaults to one bandwidth-delay product.
// Prints "listening 127.0.0.1:PORT" once it listens. SIGUSR1 resets every
// live connection; SIGTERM, SIGINT or SIGHUP stop it, after a summary line on
// standard error. Exit status 2 for a bad command line, 1 when it cannot start.

#include <signal.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>

#include "support/link_emulator/LinkEmulator.hpp"

namespace {

using sshfa::linkemu::EmulatorSettings;
using sshfa::linkemu::Nanoseconds;

class UsageError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

int number(std::string const& name, std::string const& text) {
  int value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) {
    throw UsageError("invalid " + name + " '" + text + "'");
  }
  return value;
}

Nanoseconds milliseconds(std::string const& name, std::string const& text) {
  return std::chrono::milliseconds(number(name, text));
}

EmulatorSettings parse(int argc, char** argv) {
  std::map<std::string, std::string> given;
  for (int i = 1; i < argc; ++i) {
    std::string const word = argv[i];
    if (!word.starts_with("--") || i + 1 == argc) throw UsageError("unexpected '" + word + "'");
    given[word.substr(2)] = argv[++i];
  }
  EmulatorSettings s;
  for (auto const& [name, value] : given) {
    if (name == "target") {
      auto const colon = value.rfind(':');
      if (colon == std::string::npos) throw UsageError("--target needs HOST:PORT, not '" + value + "'");
      s.targetHost = value.substr(0, colon);
      s.targetPort = number("port", value.substr(colon + 1));
    } else if (name == "listen") {
      s.listenPort = number("port", value);
    } else if (name == "delay-ms") {
      if (!given.contains("delay-up-ms")) s.delayUp = milliseconds(name, value);
      if (!given.contains("delay-down-ms")) s.delayDown = milliseconds(name, value);
    } else if (name == "delay-up-ms") {
      s.delayUp = milliseconds(name, value);
    } else if (name == "delay-down-ms") {
      s.delayDown = milliseconds(name, value);
    } else if (name == "rate") {
      s.bitsPerSecond = sshfa::linkemu::parseRate(value);
    } else if (name == "buffer") {
      s.bufferBytes = sshfa::linkemu::parseBytes(value);
    } else if (name == "kill-after") {
      s.killAfterBytes = sshfa::linkemu::parseBytes(value);
    } else if (name == "trace") {
      s.tracePath = value;
    } else {
      throw UsageError("unknown option --" + name);
    }
  }
  if (s.targetPort == 0) throw UsageError("--target HOST:PORT is required");
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  EmulatorSettings settings;
  try {
    settings = parse(argc, argv);
  } catch (std::exception const& error) {
    std::cerr << "link_emulator: " << error.what() << "\n"
              << "usage: link_emulator --target HOST:PORT [--listen PORT] [--delay-ms MS] [--delay-up-ms MS]\n"
                 "                     [--delay-down-ms MS] [--rate BITS] [--buffer BYTES] [--kill-after BYTES]\n"
                 "                     [--trace FILE]\n";
    return 2;
  }
  // Blocked before the relay thread starts, so that only sigwait sees them.
  sigset_t signals;
  sigemptyset(&signals);
  for (int s : {SIGUSR1, SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, s);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  try {
    sshfa::linkemu::LinkEmulator emulator(settings);
    auto const& s = emulator.settings();
    std::printf("listening 127.0.0.1:%d\n", emulator.port());
    std::printf("target %s:%d, delay up %.3f ms, down %.3f ms, rate %llu bit/s, buffer %zu bytes\n",
                s.targetHost.c_str(), s.targetPort, std::chrono::duration<double, std::milli>(s.delayUp).count(),
                std::chrono::duration<double, std::milli>(s.delayDown).count(),
                static_cast<unsigned long long>(s.bitsPerSecond), s.bufferBytes);
    std::fflush(stdout);
    int got = 0;
    while (sigwait(&signals, &got) == 0 && got == SIGUSR1) emulator.killConnections();
    auto const stats = emulator.stats();
    std::fprintf(stderr, "link_emulator: %llu connections, %llu reset, %llu bytes up, %llu bytes down\n",
                 static_cast<unsigned long long>(stats.accepted), static_cast<unsigned long long>(stats.killed),
                 static_cast<unsigned long long>(stats.bytesUp), static_cast<unsigned long long>(stats.bytesDown));
    return 0;
  } catch (std::exception const& error) {
    std::cerr << "link_emulator: " << error.what() << "\n";
    return 1;
  }
}
