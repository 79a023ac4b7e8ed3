#pragma once
// Small helpers shared by the SSH client integration tests.

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

namespace ssh = foundation::sshclient;

inline fl::ustring u(std::string const& utf8) { return fl::i18n::utf8_to_ustring(utf8); }
inline std::string utf8(fl::ustring const& text) { return fl::i18n::ustring_to_utf8(text); }

// Runs `action`, which must throw SSHError; returns it (or nullopt after
// recording a failure).
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

inline std::string prefixOf(TestSshd const& server, std::string const& user) {
  return user + "@" + server.host() + ":" + std::to_string(server.port()) + ": ";
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace sshfa::testing
