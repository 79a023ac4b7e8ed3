#include "sshfileaccess/platform/sshclient/internal/transfer/LocalWriter.hpp"

#include <unistd.h>

#include <iterator>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopyJob.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::transfer {

using namespace copying;  // NOLINT(google-build-using-namespace): the copier's own pieces

std::string makeFile(LocalWriter::File const& file, std::mt19937_64& random) {
  auto const& folder = *file.folder;
  UniqueFd fd;
  std::string temp;
  for (int attempt = 1;; ++attempt) {
    temp = randomTemporaryName(file.name, random);
    auto const error = folder.createFile(temp, file.createMode, fd);
    if (error == 0) break;
    if (error != EEXIST || attempt == kTempAttempts) {
      return "cannot create " + quoted(folder.pathOf(temp)) + ": " + errnoText(error);
    }
  }
  auto const failed = [&](std::string message) {
    fd.reset();
    folder.removeFile(temp);
    return message;
  };
  auto const* const data = file.bytes.get();
  auto const written = fullIo(
      [&](std::size_t done) { return ::pwrite(fd.get(), data + done, file.length - done, static_cast<off_t>(done)); },
      file.length);
  if (written < 0 || static_cast<std::size_t>(written) < file.length) {
    return failed("cannot write " + quoted(folder.pathOf(temp)) + ": " +
                  errnoText(written < 0 ? static_cast<int>(-written) : EIO));
  }
  bool modeFailed = false;
  if (auto const error = setAttributesOf(fd.get(), file.kept, modeFailed); error != 0) {
    return failed(std::string(modeFailed ? "cannot set the mode of " : "cannot set the time of ") +
                  quoted(folder.pathOf(temp)) + ": " + errnoText(error));
  }
  if (auto const error = fd.close(); error != 0) {
    return failed("cannot write " + quoted(folder.pathOf(temp)) + ": " + errnoText(error));
  }
  if (auto const error = folder.rename(temp, file.name); error != 0) {
    return failed("cannot replace " + quoted(file.destination) + ": " + errnoText(error));
  }
  return {};
}

LocalWriter::LocalWriter(std::size_t threads) {
  threads_.reserve(threads);
  for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
}

LocalWriter::~LocalWriter() {
  flush();
  {
    std::lock_guard const lock(mutex_);
    ending_ = true;
  }
  handed_.notify_all();
  for (auto& thread : threads_) thread.join();
}

void LocalWriter::post(File file) {
  posted_.push_back(std::move(file));
  ++inHand_;
}

void LocalWriter::flush() {
  if (posted_.empty()) return;
  {
    std::lock_guard const lock(mutex_);
    std::move(posted_.begin(), posted_.end(), std::back_inserter(files_));
  }
  posted_.clear();
  handed_.notify_all();
}

std::vector<LocalWriter::Outcome> LocalWriter::take() {
  std::vector<Outcome> taken;
  {
    std::lock_guard const lock(mutex_);
    taken.swap(outcomes_);
  }
  inHand_ -= taken.size();
  return taken;
}

void LocalWriter::await() {
  if (inHand_ == 0) return;
  flush();
  std::unique_lock lock(mutex_);
  finished_.wait(lock, [this] { return !outcomes_.empty(); });
}

void LocalWriter::work() {
  std::mt19937_64 random(std::random_device{}());
  std::unique_lock lock(mutex_);
  for (;;) {
    handed_.wait(lock, [this] { return ending_ || !files_.empty(); });
    if (files_.empty()) return;
    auto file = std::move(files_.front());
    files_.pop_front();
    lock.unlock();
    Outcome outcome{file.owner, file.key, makeFile(file, random)};
    file = File{};
    lock.lock();
    outcomes_.push_back(std::move(outcome));
    finished_.notify_one();
  }
}

}  // namespace foundation::sshclient::internal::transfer
