#pragma once
// Helpers shared by the persistent-shell tests: clients in either command
// mode, and comparisons that stay readable for megabytes of output.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "platform/i18n/i18n.hpp"
#include "platform/sshclient/SSHClient.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

namespace ssh = foundation::sshclient;
using fl::ustring;

inline ustring u(std::string const& utf8) { return fl::i18n::utf8_to_ustring(utf8); }
inline std::string utf8(ustring const& text) { return fl::i18n::ustring_to_utf8(text); }

inline ssh::SSHClientOptions optionsFor(TestSshd const& server, ssh::CommandMode mode) {
  auto options = server.options();
  options.commandMode = mode;
  return options;
}

inline std::unique_ptr<ssh::SSHClient> connectIn(ssh::CommandMode mode, TestSshd const& server = TestSshd::instance()) {
  return server.connect(optionsFor(server, mode));
}

inline ssh::ExecuteCommandResult run(ssh::SSHClient& client, ustring const& command) {
  return client.executeCommand(ssh::ExecuteCommand(command));
}

// Printable form of a piece of output: escapes for control and non-ASCII
// code units, at most `limit` code units from `from`.
inline std::string excerpt(ustring const& text, std::size_t from, std::size_t limit = 60) {
  std::string shown;
  for (std::size_t i = from; i < text.size() && i < from + limit; ++i) {
    char16_t const c = text[i];
    if (c >= 0x20 && c < 0x7F && c != u'\\') {
      shown += static_cast<char>(c);
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      shown += escape;
    }
  }
  return shown;
}

// Equality of two outputs that reports the first difference, not both texts.
inline ::testing::AssertionResult sameText(ustring const& actual, ustring const& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  std::size_t const from = at > 20 ? at - 20 : 0;
  return ::testing::AssertionFailure() << "lengths " << actual.size() << " and " << expected.size()
                                       << ", first difference at " << at << ":\n  actual:   \"" << excerpt(actual, from)
                                       << "\"\n  expected: \"" << excerpt(expected, from) << "\"";
}

// Runs `action`, which must throw SSHError; returns it.
template <class Action>
std::optional<ssh::SSHError> catchSSHError(Action&& action) {
  try {
    action();
  } catch (ssh::SSHError const& error) {
    return error;
  } catch (std::exception const& error) {
    ADD_FAILURE() << "expected SSHError, got: " << error.what();
    return std::nullopt;
  }
  ADD_FAILURE() << "expected SSHError, nothing was thrown";
  return std::nullopt;
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace sshfa::testing
