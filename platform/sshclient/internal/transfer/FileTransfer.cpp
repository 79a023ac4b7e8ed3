// The flat copies of SSHClient::copyFiles: every item's file to exactly its
// destination over one SFTP session, many at once; the first file that fails
// stops new ones, and the transfer then names the first failed item.

#include <algorithm>
#include <exception>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopy.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransfer.hpp"

namespace foundation::sshclient::internal {

namespace {

using transfer::FileTask;

class FileTransfer final : public transfer::FileObserver {
 public:
  FileTransfer(sftp::SftpSession& session, CopyFilesCommand const& command, sftp::ProgressCallback const& progress,
               sftp::EngineOptions const& options)
      : session_(session), command_(command), progress_(progress), interval_(options.progressInterval) {
    bool const upload = command.getDirection() == TransferDirection::LocalToRemote;
    transfer::CopySettings settings = transfer::copySettings(options, upload, 1);
    settings.createMode = static_cast<std::uint32_t>(command.getMode()) & 07777U;
    settings.stopOnFailure = true;
    copier_ = std::make_unique<transfer::FileCopier>(session, settings, *this, counters_);
    session.usePosixRename(options.usePosixRename);
    auto const& items = command.getItems();
    for (std::size_t i = 0; i < items.size(); ++i) {
      FileTask task;
      task.item = i;
      task.source = fl::i18n::ustring_to_utf8(upload ? items[i].localPath : items[i].remotePath);
      task.destination = fl::i18n::ustring_to_utf8(upload ? items[i].remotePath : items[i].localPath);
      copier_->add(std::move(task));
    }
  }

  void run() {
    try {
      session_.begin();
      for (;;) {
        copier_->poll();
        if (copier_->idle() && session_.pending() == 0 && session_.queuedBytes() == 0) break;
        if (session_.pending() == 0 && session_.queuedBytes() == 0) throw std::logic_error("SFTP transfer stalled");
        session_.pump();
        report(false);
      }
    } catch (SSHError const& e) {
      copier_->abandon();
      std::string cause = e.what();
      if (cause.starts_with(session_.peer() + ": ")) cause.erase(0, session_.peer().size() + 2);
      throw SSHError(e.kind(), context() + cause);
    } catch (sftp::ProtocolError const& e) {
      copier_->abandon();
      throw SSHError(SSHError::Kind::Transfer, context() + e.what());
    } catch (...) {
      copier_->abandon();
      throw;
    }
    if (cancelled_) std::rethrow_exception(cancelled_);
    report(true);
    if (failures_.empty()) return;
    std::sort(failures_.begin(), failures_.end());
    auto message = failures_.front().second;
    if (auto const more = failures_.size() - 1; more > 0) {
      message += " (and " + std::to_string(more) + (more == 1 ? " more file" : " more files") + " failed)";
    }
    throw SSHError(SSHError::Kind::Transfer, message);
  }

  void fileDone(FileTask const& /*task*/) override {}
  void fileFailed(FileTask const& task, std::string const& message) override {
    failures_.emplace_back(task.item, message);
  }

 private:
  std::string context() const {
    auto context = copier_->context();
    return context.empty() ? "SFTP session with " + session_.peer() + ": " : context;
  }

  void report(bool final) {
    if (!progress_ || cancelled_) return;
    auto const now = std::chrono::steady_clock::now();
    if (!final && now - last_ < interval_) return;
    last_ = now;
    if (auto const current = copier_->current()) current_ = *current;
    TransferProgress progress;
    progress.bytesDone = counters_.bytesDone;
    progress.bytesTotal = counters_.bytesTotal;
    progress.filesDone = counters_.filesDone;
    progress.filesTotal = command_.getItems().size();
    progress.currentFile = fl::i18n::utf8_to_ustring(current_);
    try {
      progress_(progress);
    } catch (...) {
      // Wound down cleanly: temporaries go, nothing further starts.
      cancelled_ = std::current_exception();
      copier_->cancel();
    }
  }

  sftp::SftpSession& session_;
  CopyFilesCommand const& command_;
  sftp::ProgressCallback const& progress_;
  std::chrono::milliseconds interval_;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
  transfer::TransferCounters counters_;
  std::unique_ptr<transfer::FileCopier> copier_;
  std::vector<std::pair<std::size_t, std::string>> failures_;
  std::exception_ptr cancelled_;
  std::string current_;
};

}  // namespace

namespace sftp {

namespace {

// A command run in place when it is given.
class InPlaceCommand final : public RemoteCommand {
 public:
  explicit InPlaceCommand(std::function<std::string(std::string const&)> const& shell) : shell_(shell) {}
  void run(std::string const& command) override {
    if (!shell_) throw SSHError(SSHError::Kind::NoShell, "no remote shell to run commands with");
    output_ = shell_(command);
  }
  bool poll() override { return true; }
  [[nodiscard]] bool news() const override { return false; }
  void wait() override {}
  [[nodiscard]] std::string const& output() const override { return output_; }

 private:
  std::function<std::string(std::string const&)> const& shell_;
  std::string output_;
};

}  // namespace

std::unique_ptr<RemoteCommand> openCommand(RemoteShell const& shell) {
  if (shell.open) return shell.open();
  return std::make_unique<InPlaceCommand>(shell.run);
}

std::unique_ptr<RemoteCommand> startCommand(RemoteShell const& shell, std::string const& command) {
  auto started = openCommand(shell);
  started->run(command);
  return started;
}

std::optional<std::string> commandsRefused(SSHError const& error) {
  switch (error.kind()) {
    case SSHError::Kind::NoShell:
      return "the server allows SFTP only";
    case SSHError::Kind::Channel:
      return std::string("the server refused a channel to run commands on (") + error.what() + ")";
    default:
      return std::nullopt;
  }
}

void recordRefusal(SSHError const& error, std::optional<std::string>& why) {
  why = commandsRefused(error);
  if (!why) throw;  // NOLINT(misc-throw-by-value-catch-by-reference): the error being handled
}

std::string finishCommand(RemoteCommand& command) {
  while (!command.poll()) {
    if (!command.news()) command.wait();
  }
  return command.output();
}

void transfer(Transport& transport, std::string const& peer, CopyFilesCommand const& command,
              ProgressCallback const& progress, EngineOptions const& options) {
  if (command.getItems().empty()) return;
  SftpSession session(transport, peer);
  FileTransfer(session, command, progress, options).run();
}

TreeTransferReport transferTrees(Transport& transport, std::string const& peer, CopyTreesCommand const& command,
                                 ProgressCallback const& progress, RemoteShell const& shell,
                                 EngineOptions const& options, MoreStreams more) {
  SftpSession session(transport, peer);
  return transfer::TreeTransfer(session, command, progress, shell, options, std::move(more)).run();
}

}  // namespace sftp

}  // namespace foundation::sshclient::internal
