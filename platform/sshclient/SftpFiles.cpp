#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"

namespace foundation::sshclient {

namespace {

std::string joinedLines(std::vector<std::string> const& lines) {
  std::string text;
  for (auto const& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

}  // namespace

SftpError::SftpError(std::vector<std::string> failures)
    : SSHError(Kind::Transfer, joinedLines(failures)), failures_(std::move(failures)) {}

SftpFiles::~SftpFiles() = default;

}  // namespace foundation::sshclient
