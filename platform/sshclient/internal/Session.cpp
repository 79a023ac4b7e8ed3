#include "sshfileaccess/platform/sshclient/internal/Session.hpp"

#include <fcntl.h>

#include <libssh/callbacks.h>
#include <libssh/server.h>  // ssh_send_keepalive
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
#include <type_traits>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/SshConfig.hpp"

namespace foundation::sshclient::internal {

namespace {

using Clock = std::chrono::steady_clock;

// Preferred when neither the caller nor the SSH configuration names ciphers:
// AES-GCM is the fastest choice with AES-NI and keeps large transfers cheap.
constexpr char const* kDefaultCiphers =
    "aes128-gcm@openssh.com,chacha20-poly1305@openssh.com,aes256-gcm@openssh.com,aes128-ctr,aes192-ctr,aes256-ctr";

// An unanswered keep-alive interval is one that ends with a keep-alive
// outstanding and nothing heard from the server.
constexpr int kMaxUnansweredIntervals = 3;

// Why a command cannot run: accounts limited to SFTP are by far the most
// common reason for a server to run no shell.
constexpr char const* kNoShell = "the server allows SFTP only: no shell to run commands";

struct SessionDeleter {
  void operator()(ssh_session session) const noexcept {
    if (ssh_is_connected(session) != 0) ssh_disconnect(session);
    ssh_free(session);
  }
};
using SessionPtr = std::unique_ptr<std::remove_pointer_t<ssh_session>, SessionDeleter>;

struct EventDeleter {
  void operator()(ssh_event event) const noexcept { ssh_event_free(event); }
};
using EventPtr = std::unique_ptr<std::remove_pointer_t<ssh_event>, EventDeleter>;

struct KeyDeleter {
  void operator()(ssh_key key) const noexcept { ssh_key_free(key); }
};
using KeyPtr = std::unique_ptr<std::remove_pointer_t<ssh_key>, KeyDeleter>;

std::vector<std::string> defaultKnownHostsFiles() {
  return {homeDirectory() + "/.ssh/known_hosts", "/etc/ssh/ssh_known_hosts"};
}

std::string userOf(AuthMethod const& method) {
  return std::visit([](auto const& m) { return m.user; }, method);
}

// "host" for port 22, "[host]:port" otherwise: the known_hosts spelling.
std::string knownHostsName(std::string const& host, unsigned port) {
  return port == 22 ? host : "[" + host + "]:" + std::to_string(port);
}

std::string joined(std::vector<std::string> const& parts, char const* separator) {
  std::string text;
  for (auto const& part : parts) {
    if (!text.empty()) text += separator;
    text += part;
  }
  return text;
}

std::string offeredMethods(int methods) {
  auto const mask = static_cast<unsigned>(methods);
  std::vector<std::string> names;
  if ((mask & SSH_AUTH_METHOD_PUBLICKEY) != 0) names.emplace_back("publickey");
  if ((mask & SSH_AUTH_METHOD_PASSWORD) != 0) names.emplace_back("password");
  if ((mask & SSH_AUTH_METHOD_INTERACTIVE) != 0) names.emplace_back("keyboard-interactive");
  if ((mask & SSH_AUTH_METHOD_HOSTBASED) != 0) names.emplace_back("hostbased");
  if ((mask & SSH_AUTH_METHOD_GSSAPI_MIC) != 0) names.emplace_back("gssapi-with-mic");
  return names.empty() ? std::string("none") : joined(names, ", ");
}

// Signal names as sshd reports them in exit-signal (without "SIG").
int signalNumber(char const* name) {
  static constexpr std::pair<char const*, int> kSignals[] = {
      {"ABRT", SIGABRT}, {"ALRM", SIGALRM}, {"FPE", SIGFPE},   {"HUP", SIGHUP},       {"ILL", SIGILL},
      {"INT", SIGINT},   {"KILL", SIGKILL}, {"PIPE", SIGPIPE}, {"QUIT", SIGQUIT},     {"SEGV", SIGSEGV},
      {"TERM", SIGTERM}, {"USR1", SIGUSR1}, {"USR2", SIGUSR2}, {"BUS", SIGBUS},       {"SYS", SIGSYS},
      {"TRAP", SIGTRAP}, {"XCPU", SIGXCPU}, {"XFSZ", SIGXFSZ}, {"VTALRM", SIGVTALRM}, {"PROF", SIGPROF},
  };
  for (auto const& [signalName, number] : kSignals) {
    if (name != nullptr && std::strcmp(name, signalName) == 0) return number;
  }
  return 0;
}

// libssh 0.10 names the compression it negotiated only in its log (at
// INFO: "Negotiated kex,hostkey,cipher-out,cipher-in,mac-out,mac-in,
// compression-out,compression-in,..."). Its log level and callback belong
// to the calling thread: while this object lives they catch that line, and
// what the thread had is put back afterwards. (A callback cannot be unset:
// where the thread had none, ours stays and writes to standard error, as
// libssh does without one.)
class NegotiationLog {
 public:
  explicit NegotiationLog(std::string& line)
      : line_(line), level_(ssh_get_log_level()), callback_(ssh_get_log_callback()), userdata_(ssh_get_log_userdata()) {
    ssh_set_log_callback(&NegotiationLog::take);
    ssh_set_log_userdata(this);
    ssh_set_log_level(std::max(level_, SSH_LOG_INFO));
  }
  ~NegotiationLog() {
    ssh_set_log_level(level_);
    if (callback_ != nullptr) ssh_set_log_callback(callback_);
    ssh_set_log_userdata(callback_ != nullptr ? userdata_ : nullptr);
  }
  NegotiationLog(NegotiationLog const&) = delete;
  NegotiationLog& operator=(NegotiationLog const&) = delete;

 private:
  static void toStderr(int priority, char const* text) { std::fprintf(stderr, "[%d] %s\n", priority, text); }

  static void take(int priority, char const* function, char const* text, void* userdata) {
    auto* const self = static_cast<NegotiationLog*>(userdata);
    if (self == nullptr) return toStderr(priority, text);
    std::string_view const record(text);
    static constexpr std::string_view kNegotiated = "Negotiated ";
    if (auto const at = record.find(kNegotiated); at != std::string_view::npos) {
      self->line_ = record.substr(at + kNegotiated.size());
    }
    // What the thread asked for still goes where it went.
    if (priority > self->level_) return;
    if (self->callback_ != nullptr) return self->callback_(priority, function, text, self->userdata_);
    toStderr(priority, text);
  }

  std::string& line_;
  int level_;
  ssh_logging_callback callback_;
  void* userdata_;
};

// The fields of libssh's "Negotiated ..." record; empty where it is missing.
NegotiatedAlgorithms negotiatedFrom(std::string const& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (std::size_t comma = line.find(','); start <= line.size(); comma = line.find(',', start)) {
    if (comma == std::string::npos) comma = line.size();
    fields.push_back(line.substr(start, comma - start));
    start = comma + 1;
  }
  fields.resize(8);
  return {fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], fields[6], fields[7]};
}

}  // namespace

// ---- Session ---------------------------------------------------------------------

class Session::Impl {
 public:
  SessionPtr session;
  // Processes whatever arrived: channel reads stop pulling packets off the
  // socket once a channel has seen end-of-file, so wait() does it.
  EventPtr event;
  std::string host;  // as the caller named it
  std::string user;
  unsigned port = 0;
  std::string description;
  std::chrono::seconds keepalive{30};
  std::chrono::seconds connectTimeout{30};
  // What the connection in hand was set up with (see configure()).
  std::vector<std::string> knownHosts;
  HostKeyPolicy hostKeyPolicy = HostKeyPolicy::Strict;
  // The configuration's identity files as ssh resolved them; nullopt when
  // libssh's parser chose them.
  std::optional<std::vector<std::string>> identityFiles;
  // " through the jump hosts 'j1'" when a proxy carries the connection.
  std::string route;
  // See Session::shellFound().
  std::optional<bool> shell;
  NegotiatedAlgorithms negotiated;

  // Keep-alive bookkeeping, see the header. libssh counts the bytes it takes
  // off the socket in received, in whichever call that happens.
  ssh_counter_struct received{};
  std::uint64_t acknowledged = UINT64_MAX;  // received.in_bytes at the last quick ACK
  Clock::time_point nextProbe;
  bool probeOutstanding = false;
  int unanswered = 0;
  std::uint64_t bytesAtProbe = 0;

  [[noreturn]] void fail(SSHError::Kind kind, std::string const& cause) const {
    throw SSHError(kind, description + ": " + cause);
  }

  [[nodiscard]] std::string libraryError() const {
    return session ? std::string(ssh_get_error(session.get())) : std::string();
  }

  void heard() {
    probeOutstanding = false;
    unanswered = 0;
    nextProbe = Clock::now() + keepalive;
  }

  void open(std::string const& requestedUser, int requestedPort, SSHClientOptions const& options);
  void configure(std::string const& requestedUser, int requestedPort, SSHClientOptions const& options);
  void applyResolved(ResolvedConfig const& resolved, std::string const& requestedUser, int requestedPort,
                     SSHClientOptions const& options);
  void parseWithLibssh(SSHClientOptions const& options);
  void verifyHostKey();
  std::string configuredKeysAttempt(IdentityFileAuth const& method, int& rc);
  bool authenticate(AuthMethod const& method, std::vector<std::string>& attempts);
  int authenticateKeyboardInteractive(KeyboardInteractiveAuth const& method);
  std::string publicKeyAttempt(IdentityFileAuth const& method, int& rc);
  std::string agentAttempt(AgentAuth const& method, int& rc);

  // An authentication step that got no answer in time, or lost the
  // connection, ends the attempt: no other method could fare better.
  void failIfStalled(int rc, std::string const& step) const {
    if (rc == SSH_AUTH_AGAIN) {
      fail(SSHError::Kind::Timeout, "the server did not answer the authentication (" + step + ") within " +
                                        std::to_string(connectTimeout.count()) + " s");
    }
    if (rc == SSH_AUTH_ERROR && ssh_is_connected(session.get()) == 0) {
      fail(SSHError::Kind::ConnectionLost, "connection lost during authentication: " + libraryError());
    }
  }

  void setOption(ssh_options_e option, void const* value, char const* what) const {
    if (ssh_options_set(session.get(), option, value) < 0) {
      fail(SSHError::Kind::Connect, std::string("invalid ") + what + ": " + libraryError());
    }
  }
};

void Session::Impl::open(std::string const& requestedUser, int requestedPort, SSHClientOptions const& options) {
  session.reset();
  user = requestedUser;
  port = requestedPort > 0 ? static_cast<unsigned>(requestedPort) : 22;
  description = (user.empty() ? localUserName() : user) + "@" + host + ":" + std::to_string(port);

  session.reset(ssh_new());
  if (!session) fail(SSHError::Kind::Connect, "out of memory");
  try {
    configure(requestedUser, requestedPort, options);
  } catch (ConfigError const& error) {
    fail(SSHError::Kind::Connect, error.what());
  }

  int const on = 1;
  long const timeout = static_cast<long>(std::max<std::chrono::seconds::rep>(connectTimeout.count(), 1));
  // Host key algorithms are negotiated from what these two files know.
  setOption(SSH_OPTIONS_KNOWNHOSTS, knownHosts.front().c_str(), "known_hosts file");
  setOption(SSH_OPTIONS_GLOBAL_KNOWNHOSTS, knownHosts.size() > 1 ? knownHosts[1].c_str() : knownHosts.front().c_str(),
            "known_hosts file");
  setOption(SSH_OPTIONS_TIMEOUT, &timeout, "timeout");
  // Without it every request/reply pair stalls on delayed ACKs (~40 ms).
  setOption(SSH_OPTIONS_NODELAY, &on, "option");

  ssh_set_blocking(session.get(), 1);
  auto const started = Clock::now();
  std::string negotiation;
  int connected = SSH_ERROR;
  {
    NegotiationLog const log(negotiation);
    connected = ssh_connect(session.get());
  }
  negotiated = negotiatedFrom(negotiation);
  if (negotiated.kex.empty()) {
    // Without the record, what libssh tells otherwise.
    auto const known = [](char const* name) { return name != nullptr ? std::string(name) : std::string(); };
    negotiated.kex = known(ssh_get_kex_algo(session.get()));
    negotiated.cipherOut = known(ssh_get_cipher_out(session.get()));
    negotiated.cipherIn = known(ssh_get_cipher_in(session.get()));
    negotiated.macOut = known(ssh_get_hmac_out(session.get()));
    negotiated.macIn = known(ssh_get_hmac_in(session.get()));
  }
  if (connected != SSH_OK) {
    std::string const cause = libraryError();
    bool const timedOut = Clock::now() - started >= connectTimeout || cause.find("Timeout") != std::string::npos ||
                          cause.find("timed out") != std::string::npos;
    if (timedOut) {
      fail(SSHError::Kind::Timeout,
           "cannot connect: no answer within " + std::to_string(connectTimeout.count()) + " s (" + cause + ")");
    }
    fail(SSHError::Kind::Connect, "cannot connect" + route + ": " + cause);
  }
  verifyHostKey();
}

// Sets the session's options from the caller's and the SSH configuration's,
// the caller's winning, and settles user, port and description.
void Session::Impl::configure(std::string const& requestedUser, int requestedPort, SSHClientOptions const& options) {
  int const off = 0;
  unsigned const explicitPort = port;
  knownHosts = options.knownHostsFiles;
  hostKeyPolicy = options.hostKeyPolicy;
  connectTimeout = options.connectTimeout;
  keepalive = options.keepaliveInterval;
  identityFiles.reset();
  route.clear();

  setOption(SSH_OPTIONS_HOST, host.c_str(), "host name");
  if (requestedPort > 0) setOption(SSH_OPTIONS_PORT, &explicitPort, "port");
  if (!requestedUser.empty()) setOption(SSH_OPTIONS_USER, requestedUser.c_str(), "user name");
  setOption(SSH_OPTIONS_CIPHERS_C_S, kDefaultCiphers, "cipher list");
  setOption(SSH_OPTIONS_CIPHERS_S_C, kDefaultCiphers, "cipher list");
  setOption(SSH_OPTIONS_PROCESS_CONFIG, &off, "option");
  std::optional<ResolvedConfig> resolved;
  if (options.readSshConfig) {
    if (!options.sshConfigFile.empty()) requireReadableConfig(options.sshConfigFile);
    if (!options.sshProgram.empty()) {
      resolved = resolveSshConfig(
          {host, requestedUser, requestedPort, options.proxyJump, options.sshConfigFile, options.sshProgram});
    }
    if (resolved) {
      applyResolved(*resolved, requestedUser, requestedPort, options);
    } else {
      parseWithLibssh(options);
    }
  } else if (!options.proxyJump.empty()) {
    std::string const command = proxyCommandForJump(options.proxyJump, options.sshProgram, "/dev/null");
    setOption(SSH_OPTIONS_PROXYCOMMAND, command.c_str(), "jump hosts");
    route = " through the jump hosts '" + options.proxyJump + "' (see ssh's messages)";
  }
  // The caller's explicit values win over the configuration.
  if (requestedPort > 0) setOption(SSH_OPTIONS_PORT, &explicitPort, "port");
  if (!requestedUser.empty()) setOption(SSH_OPTIONS_USER, requestedUser.c_str(), "user name");
  if (!options.ciphers.empty()) {
    setOption(SSH_OPTIONS_CIPHERS_C_S, options.ciphers.c_str(), "cipher list");
    setOption(SSH_OPTIONS_CIPHERS_S_C, options.ciphers.c_str(), "cipher list");
  }
  // None stays on the list: a server that compresses nothing still answers.
  if (options.compression) setOption(SSH_OPTIONS_COMPRESSION, "zlib@openssh.com,zlib,none", "compression");
  if (knownHosts.empty()) knownHosts = defaultKnownHostsFiles();

  if (char* configured = nullptr; ssh_options_get(session.get(), SSH_OPTIONS_USER, &configured) == SSH_OK) {
    user = configured;
    ssh_string_free_char(configured);
  }
  // libssh leaves the user unset until it connects: it will be the login name.
  if (user.empty()) user = localUserName();
  ssh_options_get_port(session.get(), &port);
  description = user + "@" + host + ":" + std::to_string(port);
}

void Session::Impl::applyResolved(ResolvedConfig const& resolved, std::string const& requestedUser, int requestedPort,
                                  SSHClientOptions const& options) {
  SSHClientOptions const defaults;
  setOption(SSH_OPTIONS_HOST, resolved.hostName.c_str(), "host name");
  unsigned const configuredPort = static_cast<unsigned>(resolved.port);
  if (requestedPort <= 0) setOption(SSH_OPTIONS_PORT, &configuredPort, "port");
  if (requestedUser.empty() && !resolved.user.empty()) setOption(SSH_OPTIONS_USER, resolved.user.c_str(), "user name");
  if (!resolved.ciphers.empty()) {
    setOption(SSH_OPTIONS_CIPHERS_C_S, resolved.ciphers.c_str(), "cipher list");
    setOption(SSH_OPTIONS_CIPHERS_S_C, resolved.ciphers.c_str(), "cipher list");
  }
  if (!resolved.proxyJump.empty()) {
    std::string const command = proxyCommandForJump(resolved.proxyJump, options.sshProgram, options.sshConfigFile);
    setOption(SSH_OPTIONS_PROXYCOMMAND, command.c_str(), "jump hosts");
    route = " through the jump hosts '" + resolved.proxyJump + "' (see ssh's messages)";
  } else if (!resolved.proxyCommand.empty()) {
    setOption(SSH_OPTIONS_PROXYCOMMAND, resolved.proxyCommand.c_str(), "ProxyCommand");
    route = " through the ProxyCommand '" + resolved.proxyCommand + "'";
  }
  identityFiles = resolved.identityFiles;
  if (knownHosts.empty()) knownHosts = resolved.knownHostsFiles;
  if (hostKeyPolicy == defaults.hostKeyPolicy && resolved.hostKeyPolicy) hostKeyPolicy = *resolved.hostKeyPolicy;
  if (connectTimeout == defaults.connectTimeout && resolved.connectTimeout) connectTimeout = *resolved.connectTimeout;
  if (options.keepaliveInterval == defaults.keepaliveInterval && resolved.serverAliveInterval) {
    keepalive = *resolved.serverAliveInterval;
  }
}

void Session::Impl::parseWithLibssh(SSHClientOptions const& options) {
  char const* file = options.sshConfigFile.empty() ? nullptr : options.sshConfigFile.c_str();
  if (ssh_options_parse_config(session.get(), file) < 0) {
    fail(SSHError::Kind::Connect, "cannot read the SSH configuration: " + libraryError());
  }
  if (!options.knownHostsFiles.empty()) return;
  // The configuration's known_hosts files, as libssh keeps them: unexpanded.
  ResolvedConfig names;
  names.hostName = host;
  auto configured = [&](ssh_options_e option, std::string const& otherwise) {
    char* value = nullptr;
    if (ssh_options_get(session.get(), option, &value) != SSH_OK) return otherwise;
    std::string const unexpanded = value;
    ssh_string_free_char(value);
    return expandConfigPath(unexpanded, names, host);
  };
  std::vector<std::string> const defaults = defaultKnownHostsFiles();
  knownHosts = {configured(SSH_OPTIONS_KNOWNHOSTS, defaults[0]),
                configured(SSH_OPTIONS_GLOBAL_KNOWNHOSTS, defaults[1])};
}

void Session::Impl::verifyHostKey() {
  std::vector<std::string> const& files = knownHosts;
  ssh_key rawKey = nullptr;
  if (ssh_get_server_publickey(session.get(), &rawKey) != SSH_OK) {
    fail(SSHError::Kind::Connect, "the server sent no host key: " + libraryError());
  }
  KeyPtr const key(rawKey);
  std::string const keyType = ssh_key_type_to_char(ssh_key_type(key.get()));
  std::string fingerprint;
  unsigned char* hash = nullptr;
  std::size_t hashLength = 0;
  if (ssh_get_publickey_hash(key.get(), SSH_PUBLICKEY_HASH_SHA256, &hash, &hashLength) == SSH_OK) {
    char* text = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, hashLength);
    if (text != nullptr) fingerprint = text;
    ssh_string_free_char(text);
    ssh_clean_pubkey_hash(&hash);
  }

  char* resolved = nullptr;
  std::string hostName = host;
  if (ssh_options_get(session.get(), SSH_OPTIONS_HOST, &resolved) == SSH_OK) {
    hostName = resolved;
    ssh_string_free_char(resolved);
  }
  std::string const entryName = knownHostsName(hostName, port);

  // Like ssh: a matching entry in any file accepts; otherwise an entry with
  // another key (of any type) in any file means the key changed.
  std::string changedIn;
  for (auto const& file : files) {
    setOption(SSH_OPTIONS_KNOWNHOSTS, file.c_str(), "known_hosts file");
    setOption(SSH_OPTIONS_GLOBAL_KNOWNHOSTS, file.c_str(), "known_hosts file");
    switch (ssh_session_is_known_server(session.get())) {
      case SSH_KNOWN_HOSTS_OK:
        return;
      case SSH_KNOWN_HOSTS_CHANGED:
      case SSH_KNOWN_HOSTS_OTHER:
        if (changedIn.empty()) changedIn = file;
        break;
      case SSH_KNOWN_HOSTS_ERROR:
        fail(SSHError::Kind::HostKeyUnknown, "cannot check the host key against '" + file + "': " + libraryError());
      case SSH_KNOWN_HOSTS_UNKNOWN:
      case SSH_KNOWN_HOSTS_NOT_FOUND:
        break;
    }
  }
  std::string const offered = keyType + " key " + fingerprint;
  if (!changedIn.empty()) {
    fail(SSHError::Kind::HostKeyChanged,
         "the host key of " + entryName + " has CHANGED: the server offers the " + offered +
             ", which does not match the entry in '" + changedIn +
             "'. Someone could be intercepting the connection; if the change is expected, remove the old entry "
             "with \"ssh-keygen -R '" +
             entryName + "' -f '" + changedIn + "'\" and connect again");
  }
  if (hostKeyPolicy == HostKeyPolicy::AcceptNew) {
    setOption(SSH_OPTIONS_KNOWNHOSTS, files.front().c_str(), "known_hosts file");
    if (ssh_session_update_known_hosts(session.get()) != SSH_OK) {
      fail(SSHError::Kind::HostKeyUnknown,
           "cannot add the host key of " + entryName + " to '" + files.front() + "': " + libraryError());
    }
    return;
  }
  std::string const keyscan =
      port == 22 ? "ssh-keyscan " + hostName : "ssh-keyscan -p " + std::to_string(port) + " " + hostName;
  fail(SSHError::Kind::HostKeyUnknown, "the host key of " + entryName + " (" + offered +
                                           ") is unknown: it is in none of " + joined(files, ", ") +
                                           ". After checking the fingerprint, add it with \"" + keyscan + " >> " +
                                           files.front() + "\", or connect once with the host key policy AcceptNew");
}

std::string Session::Impl::publicKeyAttempt(IdentityFileAuth const& method, int& rc) {
  char const* passphrase = method.passphrase ? method.passphrase->c_str() : nullptr;
  if (method.privateKeyFile.empty()) {
    if (identityFiles) return configuredKeysAttempt(method, rc);
    rc = ssh_userauth_publickey_auto(session.get(), nullptr, passphrase);
    return "publickey with the configured identity files";
  }
  std::string const name = "publickey with '" + method.privateKeyFile + "'";
  ssh_key rawKey = nullptr;
  int const imported =
      ssh_pki_import_privkey_file(method.privateKeyFile.c_str(), passphrase, nullptr, nullptr, &rawKey);
  if (imported == SSH_EOF) {
    rc = SSH_AUTH_DENIED;
    return name + " (cannot read the file: " + std::strerror(errno) + ")";
  }
  if (imported != SSH_OK) {
    rc = SSH_AUTH_DENIED;
    return name + (method.passphrase ? " (wrong passphrase, or not a private key)"
                                     : " (no passphrase given for an encrypted key, or not a private key)");
  }
  KeyPtr const key(rawKey);
  rc = ssh_userauth_publickey(session.get(), nullptr, key.get());
  return name;
}

// Like ssh: the agent's keys, then each configured identity file that
// exists, in order.
std::string Session::Impl::configuredKeysAttempt(IdentityFileAuth const& method, int& rc) {
  rc = SSH_AUTH_DENIED;
  if (char const* socket = std::getenv("SSH_AUTH_SOCK"); socket != nullptr && *socket != '\0') {
    rc = ssh_userauth_agent(session.get(), nullptr);
    if (rc != SSH_AUTH_DENIED) return "publickey with the agent's keys";
  }
  char const* passphrase = method.passphrase ? method.passphrase->c_str() : nullptr;
  std::vector<std::string> tried;
  for (auto const& file : *identityFiles) {
    if (::access(file.c_str(), R_OK) != 0) continue;
    ssh_key rawKey = nullptr;
    if (ssh_pki_import_privkey_file(file.c_str(), passphrase, nullptr, nullptr, &rawKey) != SSH_OK) {
      tried.push_back("'" + file + "' (encrypted and no passphrase given, or not a private key)");
      continue;
    }
    KeyPtr const key(rawKey);
    tried.push_back("'" + file + "'");
    rc = ssh_userauth_publickey(session.get(), nullptr, key.get());
    if (rc != SSH_AUTH_DENIED) break;
  }
  if (tried.empty()) {
    return "publickey (none of the configured identity files exists: " + joined(*identityFiles, ", ") + ")";
  }
  return "publickey with " + joined(tried, ", ");
}

std::string Session::Impl::agentAttempt(AgentAuth const& method, int& rc) {
  std::string socket;
  if (method.agentSocket) {
    socket = *method.agentSocket;
  } else if (char const* fromEnvironment = std::getenv("SSH_AUTH_SOCK"); fromEnvironment != nullptr) {
    socket = fromEnvironment;
  }
  if (socket.empty()) {
    rc = SSH_AUTH_DENIED;
    return "agent (no agent: SSH_AUTH_SOCK is not set)";
  }
  setOption(SSH_OPTIONS_IDENTITY_AGENT, socket.c_str(), "agent socket");
  rc = ssh_userauth_agent(session.get(), nullptr);
  return "agent at '" + socket + "'";
}

int Session::Impl::authenticateKeyboardInteractive(KeyboardInteractiveAuth const& method) {
  // A server asks a bounded number of rounds; more means a loop we must end.
  constexpr int kMaxRounds = 32;
  int rc = ssh_userauth_kbdint(session.get(), nullptr, nullptr);
  for (int round = 0; rc == SSH_AUTH_INFO && round < kMaxRounds; ++round) {
    ssh_session const s = session.get();
    int const count = ssh_userauth_kbdint_getnprompts(s);
    std::vector<KeyboardInteractivePrompt> prompts;
    for (int i = 0; i < count; ++i) {
      char echo = 0;
      char const* text = ssh_userauth_kbdint_getprompt(s, static_cast<unsigned>(i), &echo);
      prompts.push_back({text != nullptr ? text : "", echo != 0});
    }
    char const* name = ssh_userauth_kbdint_getname(s);
    char const* instruction = ssh_userauth_kbdint_getinstruction(s);
    std::vector<std::string> answers;
    if (method.respond)
      answers = method.respond(name != nullptr ? name : "", instruction != nullptr ? instruction : "", prompts);
    if (answers.size() != prompts.size()) return SSH_AUTH_DENIED;
    for (std::size_t i = 0; i < answers.size(); ++i) {
      if (ssh_userauth_kbdint_setanswer(s, static_cast<unsigned>(i), answers[i].c_str()) < 0) return SSH_AUTH_ERROR;
    }
    rc = ssh_userauth_kbdint(s, nullptr, nullptr);
  }
  return rc == SSH_AUTH_INFO ? SSH_AUTH_DENIED : rc;
}

bool Session::Impl::authenticate(AuthMethod const& method, std::vector<std::string>& attempts) {
  int rc = SSH_AUTH_DENIED;
  std::string name;
  if (auto const* password = std::get_if<PasswordAuth>(&method)) {
    name = "password";
    rc = ssh_userauth_password(session.get(), nullptr, password->password.c_str());
  } else if (auto const* identity = std::get_if<IdentityFileAuth>(&method)) {
    name = publicKeyAttempt(*identity, rc);
  } else if (auto const* agent = std::get_if<AgentAuth>(&method)) {
    name = agentAttempt(*agent, rc);
  } else if (auto const* interactive = std::get_if<KeyboardInteractiveAuth>(&method)) {
    name = "keyboard-interactive";
    rc = authenticateKeyboardInteractive(*interactive);
  }
  switch (rc) {
    case SSH_AUTH_SUCCESS:
      return true;
    case SSH_AUTH_PARTIAL:
      attempts.push_back(name + " (accepted, but the server asks for more)");
      return false;
    case SSH_AUTH_AGAIN:
    case SSH_AUTH_ERROR:
      failIfStalled(rc, name);
      attempts.push_back(name + " (" + libraryError() + ")");
      return false;
    default:
      attempts.push_back(name.back() == ')' ? name : name + " (refused)");
      return false;
  }
}

Session::Session(std::string host, int port, AuthMethods const& authMethods, SSHClientOptions const& options)
    : impl_(std::make_unique<Impl>()) {
  Impl& impl = *impl_;
  impl.host = std::move(host);
  impl.keepalive = options.keepaliveInterval;
  impl.connectTimeout = options.connectTimeout;

  std::vector<std::string> attempts;
  bool authenticated = false;
  std::string connectedAs;
  int offered = 0;
  auto connectAs = [&](std::string const& user) {
    impl.open(user, port, options);
    connectedAs = user;
  };
  // The caller's methods go first, without asking the server for its list
  // ("none"): that costs a round trip, and every refusal lists the methods.
  for (auto const& method : authMethods) {
    std::string const user = userOf(method);
    if (!impl.session || user != connectedAs) connectAs(user);
    authenticated = impl.authenticate(method, attempts);
    if (authenticated) break;
    offered = ssh_userauth_list(impl.session.get(), nullptr);
  }
  if (!impl.session) connectAs("");
  if (!authenticated && ssh_is_connected(impl.session.get()) != 0) {
    // Last, "none": it logs in where the server needs no authentication.
    int const rc = ssh_userauth_none(impl.session.get(), nullptr);
    if (attempts.empty()) impl.failIfStalled(rc, "none");
    authenticated = rc == SSH_AUTH_SUCCESS;
    if (rc == SSH_AUTH_DENIED || rc == SSH_AUTH_PARTIAL) offered = ssh_userauth_list(impl.session.get(), nullptr);
  }
  if (!authenticated) {
    fail(SSHError::Kind::Authentication,
         "authentication failed; tried: " + (attempts.empty() ? std::string("no method") : joined(attempts, ", ")) +
             "; the server offers: " + offeredMethods(offered));
  }
  ssh_set_counters(impl.session.get(), &impl.received, nullptr);
  ssh_set_blocking(impl.session.get(), 0);
  impl.event.reset(ssh_event_new());
  if (!impl.event || ssh_event_add_session(impl.event.get(), impl.session.get()) != SSH_OK) {
    fail(SSHError::Kind::Connect, "cannot set up the event loop: " + libraryError());
  }
  impl.heard();
}

Session::~Session() = default;

ssh_session Session::raw() const noexcept { return impl_->session.get(); }
std::string const& Session::describe() const noexcept { return impl_->description; }
void Session::fail(SSHError::Kind kind, std::string const& cause) const { impl_->fail(kind, cause); }
std::string Session::libraryError() const { return impl_->libraryError(); }
std::chrono::seconds Session::keepaliveInterval() const noexcept { return impl_->keepalive; }
NegotiatedAlgorithms const& Session::negotiated() const noexcept { return impl_->negotiated; }

void Session::setKeepaliveInterval(std::chrono::seconds interval) noexcept {
  impl_->keepalive = interval;
  impl_->heard();
}

void Session::noteServerActivity() noexcept { impl_->heard(); }

std::optional<bool> Session::shellFound() const noexcept { return impl_->shell; }
void Session::noteShellFound() noexcept { impl_->shell = true; }

void Session::failNoShell() {
  impl_->shell = false;
  impl_->fail(SSHError::Kind::NoShell, kNoShell);
}

void Session::requireShell() const {
  if (impl_->shell.has_value() && !*impl_->shell) impl_->fail(SSHError::Kind::NoShell, kNoShell);
}

namespace {

void quickAck(ssh_session session) noexcept {
  int const on = 1;
  // Best effort: not a TCP socket (a proxy command's pipe), nothing to do.
  (void)::setsockopt(ssh_get_fd(session), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

}  // namespace

bool Session::wait(std::chrono::milliseconds timeout) {
  Impl& impl = *impl_;
  ssh_session const session = impl.session.get();
  if (ssh_is_connected(session) == 0) impl.fail(SSHError::Kind::ConnectionLost, "connection lost: " + libraryError());
  bool const keepalives = impl.keepalive.count() > 0;
  auto const deadline = timeout.count() < 0 ? Clock::time_point::max() : Clock::now() + timeout;
  for (;;) {
    auto const now = Clock::now();
    if (keepalives && now >= impl.nextProbe) {
      bool const answered = impl.received.in_bytes != impl.bytesAtProbe;
      if (impl.probeOutstanding && !answered && ++impl.unanswered >= kMaxUnansweredIntervals) {
        impl.fail(SSHError::Kind::ConnectionLost,
                  "connection lost: the server did not answer " + std::to_string(kMaxUnansweredIntervals) +
                      " keep-alive messages sent " + std::to_string(impl.keepalive.count()) + " s apart");
      }
      if (answered) impl.unanswered = 0;
      // libssh keeps one global request in flight: a call whose earlier
      // request was answered only collects that answer, so the second call
      // makes sure a new keep-alive goes out.
      impl.bytesAtProbe = impl.received.in_bytes;
      ssh_send_keepalive(session);
      ssh_send_keepalive(session);
      impl.probeOutstanding = true;
      impl.nextProbe = now + impl.keepalive;
    }
    auto const wakeUp = std::min(deadline, keepalives ? impl.nextProbe : Clock::time_point::max());
    int pollTimeout = -1;
    if (wakeUp != Clock::time_point::max()) {
      auto const left = std::chrono::ceil<std::chrono::milliseconds>(wakeUp - now).count();
      pollTimeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
    }
    // What arrived is acknowledged before we sleep: an ACK held back (for
    // up to 40 ms) holds the server's next small message back too, since
    // sshd leaves Nagle on for a session without a terminal. Seen here as a
    // channel open answered 42 ms late on loopback. Only after news: one
    // syscall per wake-up that brought bytes.
    if (std::exchange(impl.acknowledged, impl.received.in_bytes) != impl.received.in_bytes) quickAck(session);
    // One poll() per wake-up: libssh's own, which also asks for
    // writability while output is pending and takes in what arrived.
    std::uint64_t const before = impl.received.in_bytes;
    errno = 0;
    int const rc = ssh_event_dopoll(impl.event.get(), pollTimeout);
    int const pollError = errno;
    if (impl.received.in_bytes != before) impl.heard();
    if (ssh_is_connected(session) == 0) impl.fail(SSHError::Kind::ConnectionLost, "connection lost: " + libraryError());
    if (rc == SSH_ERROR) {
      // A signal: the caller's loop gets to look at it.
      if (pollError == EINTR) return true;
      impl.fail(SSHError::Kind::ConnectionLost, std::string("cannot wait for the server: ") + std::strerror(pollError));
    }
    if (rc != SSH_AGAIN) return true;
    if (Clock::now() >= deadline) return false;
  }
}

bool Session::wait(std::chrono::milliseconds timeout, int fd, bool& readable) {
  if (fd < 0) return wait(timeout);
  ssh_event const event = impl_->event.get();
  auto const onReadable = [](socket_t, int, void* flag) {
    *static_cast<bool*>(flag) = true;
    return 0;
  };
  if (ssh_event_add_fd(event, fd, POLLIN, onReadable, &readable) != SSH_OK) {
    impl_->fail(SSHError::Kind::Channel, "cannot watch descriptor " + std::to_string(fd));
  }
  struct Unwatch {
    ssh_event event;
    int fd;
    ~Unwatch() { ssh_event_remove_fd(event, fd); }
  } const unwatch{event, fd};
  return wait(timeout);
}

bool Session::takeIn() {
  Impl& impl = *impl_;
  std::uint64_t const before = impl.received.in_bytes;
  ssh_event_dopoll(impl.event.get(), 0);
  if (ssh_is_connected(impl.session.get()) == 0) {
    impl.fail(SSHError::Kind::ConnectionLost, "connection lost: " + libraryError());
  }
  if (impl.received.in_bytes == before) return false;
  impl.heard();
  return true;
}

// ---- Channel -----------------------------------------------------------------------

struct Channel::State {
  Session* session = nullptr;
  ssh_channel channel = nullptr;
  ssh_channel_callbacks_struct callbacks{};
  std::optional<int> exitStatus;
  bool eofSent = false;
  bool closedByServer = false;
  // Data may wait in libssh's buffer of that stream: set whenever data
  // arrives, cleared by a read that empties the buffer. A read of a stream
  // known empty costs nothing, where libssh would poll the socket.
  std::array<bool, 2> buffered{};

  [[noreturn]] void fail(std::string const& what) const {
    if (ssh_is_connected(session->raw()) == 0) {
      session->fail(SSHError::Kind::ConnectionLost, "connection lost: " + session->libraryError());
    }
    session->fail(SSHError::Kind::Channel, what + ": " + session->libraryError());
  }

  // Standard output read since the receive window was last offered room.
  std::size_t readSinceOffer = std::numeric_limits<std::size_t>::max() / 2;

  // The request sent last, repeated until the server answers it.
  std::function<int()> pending;
  std::string pendingWhat;
  // A refusal of this request means that the server runs no commands.
  bool pendingRunsCommands = false;

  void start(std::function<int()> request, std::string what, bool runsCommands) {
    pending = std::move(request);
    pendingWhat = std::move(what);
    pendingRunsCommands = runsCommands;
    answered();
  }

  // A refusal of an open asked with Answer::Later that came in at once,
  // kept for requestAnswered().
  std::exception_ptr refusal;

  bool answered() {
    if (refusal) std::rethrow_exception(refusal);
    if (!pending) return true;
    int const rc = pending();
    if (rc == SSH_AGAIN) return false;
    pending = nullptr;
    if (rc != SSH_OK) {
      if (pendingRunsCommands && ssh_is_connected(session->raw()) != 0) session->failNoShell();
      fail(pendingWhat);
    }
    return true;
  }

  // Channel::write, or Channel::offer with `dropWhenClosed`.
  std::size_t send(std::string_view data, bool dropWhenClosed) {
    // One call queues at most this much, so the output buffer stays bounded.
    constexpr std::size_t kMaxChunk = std::size_t{1} << 20;
    if (data.empty() || (dropWhenClosed && closedByServer)) return data.size();
    int const written =
        ssh_channel_write(channel, data.data(), static_cast<std::uint32_t>(std::min(data.size(), kMaxChunk)));
    // The close may have arrived during the call.
    if (dropWhenClosed && closedByServer) return data.size();
    if (written < 0) fail("cannot send data to the server");
    if (written == 0 && ssh_channel_is_closed(channel) != 0) fail("the server closed the channel");
    return static_cast<std::size_t>(written);
  }

  void request(std::function<int()> request, std::string what, Channel::Answer answer, bool runsCommands = false) {
    start(std::move(request), std::move(what), runsCommands);
    if (answer == Channel::Answer::Wait) {
      while (!answered()) session->wait();
    }
  }
};

Channel::Channel(Session& session, Answer answer) : state_(std::make_unique<State>()) {
  State& state = *state_;
  state.session = &session;
  state.channel = ssh_channel_new(session.raw());
  if (state.channel == nullptr) state.fail("cannot create a channel");
  ssh_callbacks_init(&state.callbacks);
  state.callbacks.userdata = &state;
  state.callbacks.channel_exit_status_function = [](ssh_session, ssh_channel, int status, void* userdata) {
    static_cast<State*>(userdata)->exitStatus.emplace(status);
  };
  state.callbacks.channel_exit_signal_function = [](ssh_session, ssh_channel, char const* signal, int, char const*,
                                                    char const*, void* userdata) {
    // A shell reports a command killed by signal N as 128 + N; so do we.
    static_cast<State*>(userdata)->exitStatus.emplace(128 + signalNumber(signal));
  };
  state.callbacks.channel_data_function = [](ssh_session, ssh_channel, void*, std::uint32_t, int isStderr,
                                             void* userdata) {
    static_cast<State*>(userdata)->buffered[isStderr != 0 ? 1 : 0] = true;
    return 0;  // consume nothing: the data stays for Channel::read
  };
  state.callbacks.channel_close_function = [](ssh_session, ssh_channel, void* userdata) {
    static_cast<State*>(userdata)->closedByServer = true;
  };
  ssh_set_channel_callbacks(state.channel, &state.callbacks);
  try {
    state.request([channel = state.channel] { return ssh_channel_open_session(channel); },
                  "cannot open a session channel", answer);
  } catch (SSHError const& e) {
    // The open's own send also takes in what arrived, the refusal of one
    // asked for just before included: told by requestAnswered(), as promised.
    if (answer == Answer::Wait || e.kind() != SSHError::Kind::Channel) throw;
    state.refusal = std::current_exception();
  }
}

Channel::~Channel() {
  if (!state_) return;
  ssh_remove_channel_callbacks(state_->channel, &state_->callbacks);
  if (ssh_is_connected(state_->session->raw()) != 0 && ssh_channel_is_open(state_->channel) != 0) {
    ssh_channel_close(state_->channel);
  }
  ssh_channel_free(state_->channel);
}

Channel::Channel(Channel&& other) noexcept = default;

ssh_channel Channel::raw() const noexcept { return state_->channel; }
Session& Channel::session() const noexcept { return *state_->session; }

void Channel::requestExec(std::string const& command, Answer answer) {
  state_->request([channel = state_->channel, command] { return ssh_channel_request_exec(channel, command.c_str()); },
                  "the server refused to run a command", answer, true);
}

void Channel::requestShell(Answer answer) {
  state_->request([channel = state_->channel] { return ssh_channel_request_shell(channel); },
                  "the server refused to start a shell", answer, true);
}

void Channel::requestSubsystem(std::string const& subsystem, Answer answer) {
  state_->request(
      [channel = state_->channel, subsystem] { return ssh_channel_request_subsystem(channel, subsystem.c_str()); },
      "the server refused the subsystem '" + subsystem + "'", answer);
}

bool Channel::requestAnswered() { return state_->answered(); }

std::size_t Channel::write(std::string_view data) { return state_->send(data, false); }

std::size_t Channel::offer(std::string_view data) { return state_->send(data, true); }

void Channel::writeAll(std::string_view data) {
  while (!data.empty()) {
    std::size_t const written = write(data);
    data.remove_prefix(written);
    if (written == 0) state_->session->wait();
  }
  while ((ssh_get_poll_flags(state_->session->raw()) & SSH_WRITE_PENDING) != 0) state_->session->wait();
}

void Channel::sendEof() {
  if (state_->eofSent) return;
  if (ssh_channel_send_eof(state_->channel) == SSH_ERROR) state_->fail("cannot send end-of-file");
  state_->eofSent = true;
}

std::size_t Channel::read(void* buffer, std::size_t size, Stream stream) {
  ssh_channel const channel = state_->channel;
  auto const count = static_cast<std::uint32_t>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
  // libssh grows the receive window to the count of this read (timeout 0:
  // it does not wait); past end-of-file or a close it would fail instead
  // of saying so. Offered again once a quarter of it was read, so that the
  // window is not topped up by a small adjust after every read.
  std::size_t& readSinceOffer = state_->readSinceOffer;
  bool const offered = size > kBaseWindow && stream == Stream::Stdout && readSinceOffer >= size / 4 &&
                       ssh_channel_is_eof(channel) == 0 && ssh_channel_is_closed(channel) == 0;
  int const n = offered ? ssh_channel_read_timeout(channel, buffer, count, 0, 0)
                        : ssh_channel_read_nonblocking(channel, buffer, count, stream == Stream::Stderr ? 1 : 0);
  if (n == SSH_EOF) return 0;
  if (n < 0) state_->fail("cannot read from the server");
  if (offered) readSinceOffer = 0;
  if (stream == Stream::Stdout) readSinceOffer += static_cast<std::size_t>(n);
  if (n > 0) state_->session->noteServerActivity();
  return static_cast<std::size_t>(n);
}

std::size_t Channel::read(std::string& out, Stream stream) {
  bool const isStderr = stream == Stream::Stderr;
  bool& buffered = state_->buffered[isStderr ? 1 : 0];
  if (!buffered) return 0;
  buffered = false;
  // Exactly what is there: no room made (and zeroed) in advance.
  int const available = ssh_channel_poll(state_->channel, isStderr ? 1 : 0);
  if (available == SSH_ERROR) state_->fail("cannot read from the server");
  if (available <= 0) return 0;
  std::size_t const before = out.size();
  out.resize(before + static_cast<std::size_t>(available));
  std::size_t const n = read(out.data() + before, static_cast<std::size_t>(available), stream);
  out.resize(before + n);
  return n;
}

bool Channel::finished() const {
  ssh_channel const channel = state_->channel;
  if (ssh_is_connected(state_->session->raw()) == 0) state_->fail("connection lost");
  return ssh_channel_is_closed(channel) != 0 && ssh_channel_poll(channel, 0) <= 0 && ssh_channel_poll(channel, 1) <= 0;
}

bool Channel::remoteEof() const { return ssh_channel_is_eof(state_->channel) != 0; }

std::optional<int> Channel::exitStatus() const noexcept { return state_->exitStatus; }

ArrivalWatch::ArrivalWatch(ssh_channel channel, bool& arrived) : channel_(channel) {
  ssh_callbacks_init(&callbacks_);
  callbacks_.userdata = &arrived;
  callbacks_.channel_data_function = [](ssh_session, ssh_channel, void*, std::uint32_t, int, void* flag) {
    *static_cast<bool*>(flag) = true;
    return 0;  // consume nothing: the data stays for Channel::read
  };
  callbacks_.channel_eof_function = [](ssh_session, ssh_channel, void* flag) { *static_cast<bool*>(flag) = true; };
  callbacks_.channel_close_function = [](ssh_session, ssh_channel, void* flag) { *static_cast<bool*>(flag) = true; };
  // Queued output may go out now: a writer must try again before sleeping.
  callbacks_.channel_write_wontblock_function = [](ssh_session, ssh_channel, std::uint32_t, void* flag) {
    *static_cast<bool*>(flag) = true;
    return 0;
  };
  ssh_add_channel_callbacks(channel_, &callbacks_);
}

ArrivalWatch::~ArrivalWatch() { ssh_remove_channel_callbacks(channel_, &callbacks_); }

}  // namespace foundation::sshclient::internal
