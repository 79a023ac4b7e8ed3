#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"

namespace foundation::sshclient::internal {
namespace {

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};

class Digest {
 public:
  explicit Digest(EVP_MD const* kind = EVP_sha256()) : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), kind, nullptr) != 1) {
      throw std::runtime_error(std::string("cannot start a digest: ") + EVP_MD_get0_name(kind));
    }
  }
  void update(void const* data, std::size_t size) { EVP_DigestUpdate(context_.get(), data, size); }
  std::string hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    EVP_DigestFinal_ex(context_.get(), digest.data(), &size);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2U * size);
    for (unsigned int i = 0; i < size; ++i) {
      text += kDigits[digest[i] >> 4U];
      text += kDigits[digest[i] & 0xFU];
    }
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, ContextDeleter> context_;
};

[[noreturn]] void failLocal(std::string const& what, std::string const& path, int error) {
  throw SSHError(SSHError::Kind::Transfer,
                 "cannot " + what + " " + shellQuoted(path) + ": " + std::generic_category().message(error));
}

bool isHex(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string unescaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    char const next = text[++i];
    out += next == 'n' ? '\n' : next == 'r' ? '\r' : next;
  }
  return out;
}

EVP_MD const* algorithmOf(HashKind kind) { return kind == HashKind::Blake2b512 ? EVP_blake2b512() : EVP_sha256(); }

// The first line of `output` and what follows it; nullopt while it is not whole.
std::optional<std::pair<std::string_view, std::string_view>> firstLine(std::string_view output) {
  auto const end = output.find('\n');
  if (end == std::string_view::npos) return std::nullopt;
  return std::pair{output.substr(0, end), output.substr(end + 1)};
}

// The tool's line first: the kind, and the rest of the output.
std::pair<HashKind, std::string_view> toolAndRest(std::string_view output) {
  auto const line = firstLine(output);
  auto const kind = line ? hashToolNamed(line->first) : std::nullopt;
  if (!kind) throw std::runtime_error("no hash tool named by the remote host: " + std::string(output.substr(0, 80)));
  return {*kind, line->second};
}

}  // namespace

std::string hashOf(HashKind kind, std::string_view bytes) {
  Digest digest(algorithmOf(kind));
  digest.update(bytes.data(), bytes.size());
  return digest.hex();
}

std::optional<HashKind> hashToolNamed(std::string_view name) {
  if (name == "b2sum") return HashKind::Blake2b512;
  if (name == "sha256sum") return HashKind::Sha256;
  return std::nullopt;
}

std::size_t hexLengthOf(HashKind kind) { return kind == HashKind::Blake2b512 ? 128 : 64; }

std::optional<HashKind> announcedHash(std::string_view output) {
  auto const line = firstLine(output);
  return line ? hashToolNamed(line->first) : std::nullopt;
}

std::string hashOfLocalFile(HashKind kind, std::string const& path, std::optional<std::uint64_t> length) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) failLocal("open", path, errno);
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } const closer{fd};
  Digest digest(algorithmOf(kind));
  std::array<char, 1U << 16U> buffer{};
  std::uint64_t left = length.value_or(UINT64_MAX);
  while (left > 0) {
    auto const want = static_cast<std::size_t>(std::min<std::uint64_t>(left, buffer.size()));
    ssize_t const got = ::read(fd, buffer.data(), want);
    if (got < 0) {
      if (errno == EINTR) continue;
      failLocal("read", path, errno);
    }
    if (got == 0) break;
    digest.update(buffer.data(), static_cast<std::size_t>(got));
    left -= static_cast<std::uint64_t>(got);
  }
  return digest.hex();
}

std::vector<RemoteHashBatch> remoteHashCommands(std::vector<std::string> const& paths, std::size_t maxLength) {
  // A file that cannot be read only complains on standard error and has no
  // line: the answer is matched to the paths by name.
  std::string const head = std::string(kChooseHashTool) + "$h --";
  static constexpr std::string_view kTail = " 2>/dev/null";
  std::vector<RemoteHashBatch> batches;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    std::string const word = shellQuoted(paths[i]);
    if (batches.empty() || batches.back().command.size() + 1 + word.size() + kTail.size() > maxLength) {
      if (!batches.empty()) batches.back().command.append(kTail);
      batches.push_back({head, i, 0});
    }
    batches.back().command.append(" ").append(word);
    ++batches.back().count;
  }
  if (!batches.empty()) batches.back().command.append(kTail);
  return batches;
}

RemoteHashes parseRemoteHashes(std::string_view output, std::span<std::string const> paths) {
  RemoteHashes answer;
  std::tie(answer.kind, output) = toolAndRest(output);
  auto const length = hexLengthOf(answer.kind);
  auto& hashes = answer.hashes;
  hashes.resize(paths.size());
  std::size_t next = 0;
  while (!output.empty()) {
    std::size_t const end = output.find('\n');
    if (end == std::string_view::npos) throw std::runtime_error("unfinished line in the hashes of the remote host");
    std::string_view line = output.substr(0, end);
    output.remove_prefix(end + 1);
    // "HASH  NAME"; a leading backslash says NAME has \\, \n or \r escapes.
    bool const escaped = !line.empty() && line.front() == '\\';
    if (escaped) line.remove_prefix(1);
    std::string_view const hash = line.substr(0, length);
    if (hash.size() != length || !isHex(hash) || line.substr(length, 2) != "  ") {
      throw std::runtime_error("unexpected line in the hashes of the remote host: " + std::string(line));
    }
    std::string const name = escaped ? unescaped(line.substr(length + 2)) : std::string(line.substr(length + 2));
    while (next < paths.size() && paths[next] != name) ++next;
    if (next == paths.size()) throw std::runtime_error("the remote host hashed a file it was not asked for: " + name);
    hashes[next++] = std::string(hash);
  }
  return answer;
}

std::string remotePrefixHashCommand(std::string const& path, std::uint64_t length) {
  // Only a regular file that opens is hashed: a missing one or a folder must
  // not hash as empty (head's failure does not reach the pipeline's status).
  std::string const word = shellQuoted(path);
  return std::string(kChooseHashTool) + "test -f " + word + " && { head -c " + std::to_string(length) +
         " | $h; } 2>/dev/null <" + word + " || echo -";
}

RemotePrefixHash parseRemotePrefixHash(std::string_view output) {
  RemotePrefixHash answer;
  std::tie(answer.kind, output) = toolAndRest(output);
  if (output == "-\n") return answer;
  // "HASH  -": standard input's name after the hash.
  auto const length = hexLengthOf(answer.kind);
  std::string_view const hash = output.substr(0, length);
  if (hash.size() != length || !isHex(hash) || output.substr(length) != "  -\n") {
    throw std::runtime_error("unexpected answer for a hash of the remote host: " + std::string(output));
  }
  answer.hash = std::string(hash);
  return answer;
}

}  // namespace foundation::sshclient::internal
