#pragma once
// A UnixSSHFileAccess over a RecordingSSHClient: every command line it sends is
// recorded, and each command's result comes from a script.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/UnixSSHFileAccess.hpp"
#include "tests/support/RecordingSSHClient.hpp"

namespace sshfa::testing {

template <class Remote = nimbal::remoteaccess::sshfileaccess::UnixSSHFileAccess>
class RecordingRemoteTest : public ::testing::Test {
 protected:
  RecordingRemoteTest() {
    auto client = std::make_unique<RecordingSSHClient>();
    client_ = client.get();
    remote_ = std::make_unique<Remote>(std::move(client));
  }

  // Queues the result of the next command that is sent.
  void reply(fl::ustring out, fl::ustring err = {}, int exitcode = 0) {
    client_->scripted.emplace_back(exitcode, std::move(out), std::move(err));
  }
  [[nodiscard]] std::vector<fl::ustring> const& sent() const { return client_->commands; }

  RecordingSSHClient* client_ = nullptr;
  std::unique_ptr<Remote> remote_;
};

// Runs `action` and checks that it throws FileAccessException with code
// RemoteError and exactly `message`.
template <class Action>
void expectRemoteError(Action&& action, std::string const& message) {
  using nimbal::remoteaccess::sshfileaccess::FileAccessException;
  try {
    action();
    ADD_FAILURE() << "expected FileAccessException(RemoteError) \"" << message << "\"";
  } catch (FileAccessException const& e) {
    EXPECT_EQ(e.code(), FileAccessException::Code::RemoteError);
    EXPECT_EQ(std::string(e.what()), message);
  }
}

inline fl::ustring repeated(std::size_t count, char16_t c) { return fl::ustring(count, c); }

inline fl::ustring number(std::size_t value) {
  fl::ustring text;
  for (const char c : std::to_string(value)) text.push_back(static_cast<char16_t>(c));
  return text;
}

}  // namespace sshfa::testing
