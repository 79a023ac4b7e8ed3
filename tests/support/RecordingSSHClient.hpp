#pragma once
// An SSHClient test double: records every command line and transfer, answers
// commands from a script (by default: exit 0, empty output), never connects.

#include <deque>
#include <functional>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace sshfa::testing {

namespace ssh = foundation::sshclient;

class RecordingSSHClient : public ssh::SSHClient {
 public:
  // Decides the result of one command; the default answers exit 0 and no output.
  using Responder = std::function<ssh::ExecuteCommandResult(fl::ustring const& command)>;

  ssh::ExecuteCommandResult executeCommand(ssh::ExecuteCommand command) override {
    commands.push_back(command.getCommand());
    if (!scripted.empty()) {
      ssh::ExecuteCommandResult result = scripted.front();
      scripted.pop_front();
      return result;
    }
    return responder ? responder(command.getCommand()) : ssh::ExecuteCommandResult{};
  }

  // Its commands are answered here, so they always run.
  bool shellAvailable() override { return true; }

  void copyFiles(ssh::CopyFilesCommand command) override { transfers.push_back(std::move(command)); }

  void setKeepaliveInterval(std::chrono::seconds interval) override { keepalive = interval; }
  [[nodiscard]] std::chrono::seconds getKeepaliveInterval() const override { return keepalive; }

  std::vector<fl::ustring> commands;
  std::vector<ssh::CopyFilesCommand> transfers;
  std::deque<ssh::ExecuteCommandResult> scripted;  // consumed first, in order
  Responder responder;
  std::chrono::seconds keepalive{30};
};

}  // namespace sshfa::testing
