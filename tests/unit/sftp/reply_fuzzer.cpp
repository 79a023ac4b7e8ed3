// libFuzzer target: arbitrary server bytes through the reply framing and
// decoders. Malformed input may only ever raise ProtocolError; the sanitizers
// catch any read past the input.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"

using namespace foundation::sshclient::internal::sftp;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  ByteView const input(data, size);
  try {
    decodeVersion(input);
  } catch (ProtocolError const&) {
  }
  try {
    decodeLimits(input);
  } catch (ProtocolError const&) {
  }
  // The same bytes as a stream, fed in uneven pieces.
  PacketReader reader;
  try {
    for (std::size_t at = 0; at < size;) {
      auto const piece = std::min<std::size_t>(size - at, 1 + (data[at] % 97));
      auto space = reader.writable(piece);
      std::copy_n(data + at, piece, space.begin());
      reader.commit(piece);
      at += piece;
      while (auto packet = reader.next()) {
        try {
          auto const reply = decodeReply(*packet);
          if (reply.type == PacketType::ExtendedReply) decodeLimits(reply.data);
        } catch (ProtocolError const&) {
        }
      }
    }
  } catch (ProtocolError const&) {
  }
  return 0;
}
