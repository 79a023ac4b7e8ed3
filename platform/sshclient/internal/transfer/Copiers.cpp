#include "sshfileaccess/platform/sshclient/internal/transfer/Copiers.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace foundation::sshclient::internal::transfer {

std::optional<std::size_t> copierFor(std::span<CopierLoad const> loads, std::size_t queueBound) {
  for (std::size_t i = 0; i < loads.size(); ++i) {
    if (loads[i].holds) return loads[i].queued < queueBound ? std::optional(i) : std::nullopt;
  }
  std::optional<std::size_t> best;
  for (std::size_t i = 0; i < loads.size(); ++i) {
    if (loads[i].queued >= queueBound) continue;
    if (!best || loads[i].queued + loads[i].active < loads[*best].queued + loads[*best].active) best = i;
  }
  return best;
}

std::size_t channelsFor(std::chrono::nanoseconds roundTrip) {
  constexpr double kChannelWindow = 2 * 1024 * 1024;
  auto const wanted = std::ceil(kConnectionRate * std::chrono::duration<double>(roundTrip).count() / kChannelWindow);
  auto const windows = wanted < 1 ? std::size_t{1} : static_cast<std::size_t>(wanted);
  return std::clamp(windows, kLeastChannels, kMostChannels);
}

sftp::EngineOptions startingOptions(std::chrono::nanoseconds roundTrip) {
  sftp::EngineOptions options;
  if (roundTrip >= kLongRoundTrip) {
    options.maxOpenFiles = options.maxOpenFilesCap;
    options.uploadOpenAheadBytes = 0;
  }
  return options;
}

std::size_t filesOpenPerChannel(std::size_t limit, std::size_t channels, std::size_t cap) {
  auto const room = limit > kReservedFiles ? (limit - kReservedFiles) / 2 : 0;
  return std::clamp(room / std::max<std::size_t>(1, channels), kFewestFiles, std::max(cap, kFewestFiles));
}

std::size_t foldersOpen(std::size_t limit) {
  return std::max(limit > kReservedFiles ? (limit - kReservedFiles) / 4 : 0, kFewestFolders);
}

void Copiers::shareOut() {
  if (copiers_.size() < 2) return;
  for (auto* each : copiers_) each->shareStripes(&board_);
}

void Copiers::add(FileTask task) {
  queue_.push_back(std::move(task));
  feed();
}

void Copiers::feed() {
  if (cancelled_) return;
  if (copiers_.size() == 1) {
    while (!queue_.empty()) {
      copiers_.front()->add(std::move(queue_.front()));
      queue_.pop_front();
    }
    return;
  }
  std::vector<CopierLoad> loads(copiers_.size());
  while (!queue_.empty()) {
    for (std::size_t i = 0; i < copiers_.size(); ++i) {
      loads[i] = {copiers_[i]->waiting(), copiers_[i]->active(), copiers_[i]->holds(queue_.front().destination)};
    }
    auto const chosen = copierFor(loads, kQueuedEach);
    if (!chosen) return;
    copiers_[*chosen]->add(std::move(queue_.front()));
    queue_.pop_front();
  }
}

void Copiers::poll() {
  feed();
  if (copiers_.size() > 1 && !cancelled_) {
    for (auto* copier : copiers_) {
      if (copier->waiting() == 0 && copier->active() == 0) copier->help();
    }
  }
  for (auto* copier : copiers_) copier->poll();
}

bool Copiers::idle() const noexcept {
  if (!queue_.empty() && !cancelled_) return false;
  for (auto const* copier : copiers_) {
    if (!copier->idle()) return false;
  }
  return true;
}

bool Copiers::awaitsDeltas() const noexcept {
  if (!queue_.empty() && !cancelled_) return false;
  bool any = false;
  for (auto const* copier : copiers_) {
    if (copier->idle()) continue;
    if (!copier->awaitsDeltas()) return false;
    any = true;
  }
  return any;
}

std::size_t Copiers::waiting() const noexcept {
  auto count = queue_.size();
  for (auto const* copier : copiers_) count += copier->waiting();
  return count;
}

std::optional<std::string> Copiers::current() const {
  for (auto const* copier : copiers_) {
    if (auto current = copier->current()) return current;
  }
  return std::nullopt;
}

std::string Copiers::context() const {
  for (auto const* copier : copiers_) {
    if (auto context = copier->context(); !context.empty()) return context;
  }
  return {};
}

void Copiers::cancel() {
  cancelled_ = true;
  queue_.clear();
  for (auto* copier : copiers_) copier->cancel();
}

void Copiers::abandon() noexcept {
  for (auto* copier : copiers_) copier->abandon();
}

}  // namespace foundation::sshclient::internal::transfer
