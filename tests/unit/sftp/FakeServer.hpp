#pragma once
// Test doubles at the packet level: an in-memory server that answers
// requests through a handler (to send malformed, reordered or short replies;
// replies are built with SftpPackets.hpp's Body), and a transport decorator
// that records the requests a client sends.

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Transport.hpp"
#include "tests/support/SftpPackets.hpp"

namespace sshfa::testing {

using namespace foundation::sshclient::internal::sftp;

// Answers each request through `handler`, which appends whole reply packets
// (Body::framed()) to its output. Replies to the requests of one send() call
// can be delivered in reverse order. When nothing is left to read, wait()
// throws instead of sleeping: a client that waits for an answer that will
// never come fails the test at once.
class FakeServer : public Transport {
 public:
  using Handler = std::function<void(Request const&, std::vector<Bytes>& replies)>;

  explicit FakeServer(Handler handler) : handler_(std::move(handler)) {}

  bool reverseBatches = false;

  std::size_t send(std::span<std::uint8_t const> data) override {
    auto space = requests_.writable(data.size());
    std::copy(data.begin(), data.end(), space.begin());
    requests_.commit(data.size());
    std::vector<Bytes> batch;
    while (auto packet = requests_.next()) handler_(parseRequest(*packet), batch);
    if (reverseBatches) std::reverse(batch.begin(), batch.end());
    for (auto const& reply : batch) output_.insert(output_.end(), reply.begin(), reply.end());
    return data.size();
  }

  std::size_t receive(std::span<std::uint8_t> buffer) override {
    auto const n = std::min(buffer.size(), output_.size() - delivered_);
    std::copy_n(output_.begin() + static_cast<long>(delivered_), n, buffer.begin());
    delivered_ += n;
    return n;
  }

  void wait(bool /*wantSend*/) override {
    throw foundation::sshclient::SSHError(foundation::sshclient::SSHError::Kind::ConnectionLost,
                                          "tester@local:0: the fake server has nothing more to say");
  }

 private:
  Handler handler_;
  PacketReader requests_;
  Bytes output_;
  std::size_t delivered_ = 0;
};

// Passes everything through to `inner` and records the requests sent and how
// many of each type were awaiting their reply at most.
class RecordingTransport : public Transport {
 public:
  explicit RecordingTransport(Transport& inner) : inner_(inner) {}

  std::vector<Request> requests;
  std::map<PacketType, std::size_t> maxInFlight;

  std::size_t send(std::span<std::uint8_t const> data) override {
    auto const n = inner_.send(data);
    feed(sent_, data.first(n));
    while (auto packet = sent_.next()) {
      auto request = parseRequest(*packet);
      if (request.type != PacketType::Init) {
        inFlight_[request.id] = request.type;
        auto const count = static_cast<std::size_t>(
            std::count_if(inFlight_.begin(), inFlight_.end(), [&](auto const& p) { return p.second == request.type; }));
        maxInFlight[request.type] = std::max(maxInFlight[request.type], count);
      }
      requests.push_back(std::move(request));
    }
    return n;
  }

  std::size_t receive(std::span<std::uint8_t> buffer) override {
    auto const n = inner_.receive(buffer);
    feed(received_, buffer.first(n));
    while (auto packet = received_.next()) {
      auto const reply = parseRequest(*packet);
      if (reply.type != PacketType::Version) inFlight_.erase(reply.id);
    }
    return n;
  }

  void wait(bool wantSend) override { inner_.wait(wantSend); }

  // Data lengths of READ or WRITE requests (both: handle, offset, length).
  [[nodiscard]] std::vector<std::uint32_t> lengthsOf(PacketType type) const {
    std::vector<std::uint32_t> lengths;
    for (auto const& r : requests) {
      if (r.type == type) lengths.push_back(r.offsetAndLength().second);
    }
    return lengths;
  }

  [[nodiscard]] std::size_t count(PacketType type) const {
    return static_cast<std::size_t>(
        std::count_if(requests.begin(), requests.end(), [&](auto const& r) { return r.type == type; }));
  }

 private:
  static void feed(PacketReader& reader, std::span<std::uint8_t const> bytes) {
    auto space = reader.writable(bytes.size());
    std::copy(bytes.begin(), bytes.end(), space.begin());
    reader.commit(bytes.size());
  }

  Transport& inner_;
  PacketReader sent_;
  PacketReader received_;
  std::map<std::uint32_t, PacketType> inFlight_;
};

}  // namespace sshfa::testing
