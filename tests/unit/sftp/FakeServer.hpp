#pragma once
// Test doubles at the packet level: a builder of server replies, an in-memory
// server that answers requests through a handler (to send malformed,
// reordered or short replies), and a transport decorator that records the
// requests a client sends.

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Transport.hpp"

namespace sshfa::testing {

using namespace foundation::sshclient::internal::sftp;

// Builds a packet body (type byte onwards) field by field.
class Body {
 public:
  explicit Body(PacketType type) { u8(static_cast<std::uint8_t>(type)); }
  Body& u8(std::uint8_t v) {
    bytes_.push_back(v);
    return *this;
  }
  Body& u32(std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes_.push_back(static_cast<std::uint8_t>(v >> shift));
    return *this;
  }
  Body& u64(std::uint64_t v) {
    u32(static_cast<std::uint32_t>(v >> 32U));
    return u32(static_cast<std::uint32_t>(v));
  }
  Body& str(std::string const& s) {
    u32(static_cast<std::uint32_t>(s.size()));
    bytes_.insert(bytes_.end(), s.begin(), s.end());
    return *this;
  }
  [[nodiscard]] Bytes const& bytes() const { return bytes_; }
  // The body without its last `n` bytes.
  [[nodiscard]] Bytes cut(std::size_t n) const { return Bytes(bytes_.begin(), bytes_.end() - static_cast<long>(n)); }
  // The body with its length field in front, as on the wire.
  [[nodiscard]] Bytes framed() const {
    Bytes out;
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(bytes_.size() >> shift));
    out.insert(out.end(), bytes_.begin(), bytes_.end());
    return out;
  }

 private:
  Bytes bytes_;
};

inline Body status(std::uint32_t id, StatusCode code) {
  return std::move(Body(PacketType::Status).u32(id).u32(static_cast<std::uint32_t>(code)).str("").str(""));
}

// One request as the server sees it.
struct Request {
  PacketType type{};
  std::uint32_t id = 0;
  Bytes body;  // after the id

  // Reads the string field at the front of the body (paths, handles).
  [[nodiscard]] std::string firstString() const {
    auto const length =
        (std::uint32_t{body[0]} << 24U) | (std::uint32_t{body[1]} << 16U) | (std::uint32_t{body[2]} << 8U) | body[3];
    return std::string(body.begin() + 4, body.begin() + 4 + length);
  }
  // The 64-bit and 32-bit fields after the first string (READ's offset, length).
  [[nodiscard]] std::pair<std::uint64_t, std::uint32_t> offsetAndLength() const {
    std::size_t at = 4 + firstString().size();
    std::uint64_t offset = 0;
    for (int i = 0; i < 8; ++i) offset = (offset << 8U) | body[at++];
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i) length = (length << 8U) | body[at++];
    return {offset, length};
  }
};

inline Request parseRequest(ByteView packet) {
  Request request;
  request.type = static_cast<PacketType>(packet[0]);
  if (request.type == PacketType::Init) return request;
  request.id = (std::uint32_t{packet[1]} << 24U) | (std::uint32_t{packet[2]} << 16U) |
               (std::uint32_t{packet[3]} << 8U) | packet[4];
  request.body.assign(packet.begin() + 5, packet.end());
  return request;
}

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
