#pragma once
// Helpers shared by the persistent-shell tests: clients in either command
// mode, and comparisons that stay readable for megabytes of output.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

using fl::ustring;

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

}  // namespace sshfa::testing
