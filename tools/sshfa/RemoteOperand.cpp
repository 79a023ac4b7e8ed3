#include "tools/sshfa/RemoteOperand.hpp"

#include "tools/sshfa/Commands.hpp"

namespace sshfa::cli {
namespace {

// The host and user that -H and -u name ("alice@box" in -H counts as -u).
struct Named {
  std::string user;
  std::string host;
};

Named namedBy(ConnectionSettings const& connection) {
  Named named{connection.user, connection.host};
  if (auto const at = named.host.rfind('@'); at != std::string::npos) {
    if (named.user.empty()) named.user = named.host.substr(0, at);
    named.host.erase(0, at + 1);
  }
  return named;
}

std::string localHint(std::string const& operand) { return "write './" + operand + "' for a local name with a colon"; }

}  // namespace

std::optional<RemoteOperand> parseRemoteOperand(std::string const& operand) {
  // scp's rule: a leading colon or a slash before the first colon makes a
  // local name; brackets protect the colons of an address.
  if (operand.empty() || operand.front() == ':') return std::nullopt;
  bool bracketed = operand.front() == '[';
  std::size_t colon = std::string::npos;
  for (std::size_t i = 0; i < operand.size(); ++i) {
    char const c = operand[i];
    if (c == '@' && i + 1 < operand.size() && operand[i + 1] == '[') bracketed = true;
    if (c == ']' && bracketed && i + 1 < operand.size() && operand[i + 1] == ':') {
      colon = i + 1;
      break;
    }
    if (c == ':' && !bracketed) {
      colon = i;
      break;
    }
    if (c == '/') return std::nullopt;
  }
  if (colon == std::string::npos) return std::nullopt;
  RemoteOperand remote;
  std::string host = operand.substr(0, colon);
  if (auto const at = host.rfind('@', host.empty() || host.back() != ']' ? std::string::npos : host.rfind('['));
      at != std::string::npos) {
    remote.user = host.substr(0, at);
    host.erase(0, at + 1);
  }
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  if (host.empty()) return std::nullopt;
  remote.host = host;
  remote.path = operand.substr(colon + 1);
  if (remote.path.empty()) remote.path = ".";
  return remote;
}

std::vector<std::string> takeRemoteOperands(std::string const& command, bool upload,
                                            std::vector<std::string> const& operands, ConnectionSettings& connection) {
  Named const named = namedBy(connection);
  std::vector<std::string> plain;
  plain.reserve(operands.size());
  std::optional<RemoteOperand> first;
  std::string firstOperand;
  for (std::size_t i = 0; i < operands.size(); ++i) {
    auto remote = parseRemoteOperand(operands[i]);
    if (!remote) {
      plain.push_back(operands[i]);
      continue;
    }
    bool const last = i + 1 == operands.size();
    if (upload && !last) {
      throw UsageError(command + ": '" + operands[i] + "' is on the remote host, but put copies from this machine; " +
                       "use get to copy from the remote host, or " + localHint(operands[i]));
    }
    if (!upload && last) {
      throw UsageError(command + ": '" + operands[i] + "' is on the remote host, but get copies to this machine; " +
                       "use put to copy to the remote host, or " + localHint(operands[i]));
    }
    if (!named.host.empty() && named.host != remote->host) {
      throw UsageError(command + ": '" + operands[i] + "' names the host '" + remote->host + "', but -H names '" +
                       named.host + "'; leave out -H, or name the same host");
    }
    if (!remote->user.empty() && !named.user.empty() && named.user != remote->user) {
      throw UsageError(command + ": '" + operands[i] + "' names the user '" + remote->user + "', but -u names '" +
                       named.user + "'; leave out -u, or name the same user");
    }
    // A user left out is the one -u (or -H) names.
    if (remote->user.empty()) remote->user = named.user;
    if (first && (remote->host != first->host || remote->user != first->user)) {
      throw UsageError(command + ": '" + firstOperand + "' and '" + operands[i] +
                       "' name different remote hosts; one command reaches one host");
    }
    if (!first) {
      first = remote;
      firstOperand = operands[i];
    }
    plain.push_back(remote->path);
  }
  if (first) {
    connection.host = first->host;
    connection.user = first->user;
  }
  return plain;
}

void refuseRemoteOperands(std::string const& command, std::vector<std::string> const& operands) {
  for (auto const& operand : operands) {
    if (parseRemoteOperand(operand)) {
      throw UsageError(command + ": '" + operand + "' names a remote host, but " + command +
                       " works on one side; use put or get to copy between this machine and the remote host, or " +
                       localHint(operand));
    }
  }
}

}  // namespace sshfa::cli
