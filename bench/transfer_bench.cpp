// Throughput of SSHClient::copyFiles against OpenSSH's own tools, on a
// private sshd on 127.0.0.1, files on tmpfs, every tool with the cipher
// aes128-gcm@openssh.com:
//  - one big file (default 1 GiB) up and down, against `sftp`;
//  - many small files (default 10,000 of 1-4 KiB) up and down, against
//    `scp -r` (SFTP mode, the default), `scp -O -r` (the old protocol),
//    `sftp -r`, `rsync -a` and a `tar | ssh tar` pipe.
// Each tool's time includes its connection set-up; runs are interleaved and
// the median of them is reported, with each tool's time divided by ours.
//
// Usage: transfer_bench [--runs N] [--big-mib N] [--files N] [--only big|small]
//                       [--tools ours,sftp,...]   (names as printed; ours is always run)

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "support/loopback_sshd/LoopbackSshd.hpp"

extern char** environ;

namespace {

namespace ssh = foundation::sshclient;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char const* kCipher = "aes128-gcm@openssh.com";

std::string shellQuoted(std::string const& text) {
  std::string quoted = "'";
  for (char const c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Runs a /bin/sh command line with its output discarded; throws when it fails.
void sh(std::string const& commandLine) {
  std::string shell = "/bin/sh";
  std::string dashC = "-c";
  std::string line = commandLine;
  char* argv[] = {shell.data(), dashC.data(), line.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  int const rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot run /bin/sh");
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("failed: " + commandLine);
}

void writeRandomFile(fs::path const& path, std::size_t size, std::mt19937_64& random) {
  std::vector<std::uint64_t> words(std::min<std::size_t>(size, std::size_t{1} << 20) / 8 + 1);
  FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) throw std::runtime_error("cannot create " + path.string());
  for (std::size_t left = size; left > 0;) {
    for (auto& w : words) w = random();
    auto const n = std::min(left, words.size() * 8);
    std::fwrite(words.data(), 1, n, out);
    left -= n;
  }
  std::fclose(out);
}

struct Options {
  int runs = 5;
  std::size_t bigMiB = 1024;
  int files = 10000;
  std::string only;
  std::string tools;  // comma-separated names; empty: all
};

class Bench {
 public:
  explicit Bench(Options options) : options_(std::move(options)) {
    char pattern[] = "/dev/shm/sshfa-transfer-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    base_ = pattern;
    fs::create_directories(base_ / "sshd");
    fs::create_directories(base_ / "src");
    fs::create_directories(base_ / "dst");
    sshfa::loopback::LoopbackSshd::Settings settings;
    settings.directory = base_ / "sshd";
    // A production server's default, rather than the test server's chatty log.
    settings.extraConfig = "LogLevel INFO\n";
    sshd_ = std::make_unique<sshfa::loopback::LoopbackSshd>(settings);
    auto const common = std::string(" -F /dev/null -o BatchMode=yes -o Compression=no -o Ciphers=") + kCipher +
                        " -o UserKnownHostsFile=" + shellQuoted(sshd_->knownHostsFile()) +
                        " -o StrictHostKeyChecking=yes -o IdentitiesOnly=yes -i " + shellQuoted(sshd_->identityFile());
    ssh_ = "ssh" + common + " -p " + std::to_string(sshd_->port()) + " " + sshd_->user() + "@" + sshd_->host();
    scpLike_ = common + " -P " + std::to_string(sshd_->port());
    target_ = sshd_->user() + "@" + sshd_->host();
  }

  ~Bench() {
    sshd_.reset();
    std::error_code ignored;
    fs::remove_all(base_, ignored);
  }

  Bench(Bench const&) = delete;
  Bench& operator=(Bench const&) = delete;

  void bigFile() {
    auto const src = base_ / "src" / "big";
    auto const dst = base_ / "dst" / "big";
    std::mt19937_64 random(1);
    writeRandomFile(src, options_.bigMiB << 20U, random);
    auto const megabytes = static_cast<double>(options_.bigMiB << 20U) / 1e6;
    for (bool const upload : {true, false}) {
      std::map<std::string, std::function<void()>> tools;
      tools["ours"] = [&] { ours({{src, dst}}, upload); };
      tools["sftp"] = [&] { sftpBatch((upload ? "put " : "get ") + shellQuoted(src) + " " + shellQuoted(dst)); };
      auto const medians = measure(
          tools, [&] { fs::remove(dst); }, [&] { sh("cmp " + src.string() + " " + dst.string()); });
      std::printf("\n%s of one file of %zu MiB\n", upload ? "Upload" : "Download", options_.bigMiB);
      for (auto const& [tool, seconds] : medians) {
        std::printf("  %-10s %8.3f s  %8.1f MB/s  %6.2fx ours\n", tool.c_str(), seconds, megabytes / seconds,
                    seconds / medians.at("ours"));
      }
    }
    fs::remove(src);
  }

  void smallFiles() {
    auto const src = base_ / "src" / "small";
    auto const dst = base_ / "dst" / "small";
    fs::create_directories(src);
    std::mt19937_64 random(2);
    std::vector<std::pair<fs::path, fs::path>> pairs;
    for (int i = 0; i < options_.files; ++i) {
      auto const name = "file" + std::to_string(i);
      writeRandomFile(src / name, 1024 + random() % 3073, random);
      pairs.emplace_back(src / name, dst / name);
    }
    for (bool const upload : {true, false}) {
      auto const from = shellQuoted(src);
      auto const to = shellQuoted(dst);
      std::map<std::string, std::function<void()>> tools;
      tools["ours"] = [&] { ours(pairs, upload, dst); };
      tools["scp -r"] = [&] {
        sh("scp -q -r" + scpLike_ + " " + (upload ? from + " " + target_ + ":" + to : target_ + ":" + from + " " + to));
      };
      tools["scp -O -r"] = [&] {
        sh("scp -O -q -r" + scpLike_ + " " +
           (upload ? from + " " + target_ + ":" + to : target_ + ":" + from + " " + to));
      };
      tools["sftp -r"] = [&] { sftpBatch((upload ? "put -r " : "get -r ") + from + " " + to); };
      tools["rsync -a"] = [&] {
        auto const remoteShell = shellQuoted(ssh_.substr(0, ssh_.rfind(' ')));
        sh("rsync -a -e " + remoteShell + " " +
           (upload ? from + "/ " + target_ + ":" + to + "/" : target_ + ":" + from + "/ " + to + "/"));
      };
      tools["tar pipe"] = [&] {
        if (upload) {
          sh("tar -cf - -C " + from + " . | " + ssh_ + " " + shellQuoted("mkdir -p " + to + " && tar -xf - -C " + to));
        } else {
          sh(ssh_ + " " + shellQuoted("tar -cf - -C " + from + " .") + " | (mkdir -p " + to + " && tar -xf - -C " + to +
             ")");
        }
      };
      auto const medians = measure(
          tools, [&] { fs::remove_all(dst); }, [&] { sh("diff -r " + from + " " + to); });
      std::printf("\n%s of %d files of 1-4 KiB\n", upload ? "Upload" : "Download", options_.files);
      for (auto const& [tool, seconds] : medians) {
        std::printf("  %-10s %8.3f s  %8.0f files/s  %6.2fx ours\n", tool.c_str(), seconds, options_.files / seconds,
                    seconds / medians.at("ours"));
      }
    }
    fs::remove_all(src);
  }

 private:
  // Interleaved runs; `clean` before each, `check` after each tool's first.
  std::map<std::string, double> measure(std::map<std::string, std::function<void()>> const& tools,
                                        std::function<void()> const& clean, std::function<void()> const& check) {
    std::map<std::string, std::vector<double>> samples;
    for (int run = 0; run < options_.runs; ++run) {
      for (auto const& [name, action] : tools) {
        if (name != "ours" && !options_.tools.empty() && options_.tools.find("," + name + ",") == std::string::npos) {
          continue;
        }
        clean();
        auto const start = Clock::now();
        action();
        samples[name].push_back(std::chrono::duration<double>(Clock::now() - start).count());
        if (run == 0) check();
      }
    }
    clean();
    std::map<std::string, double> medians;
    for (auto& [name, values] : samples) {
      std::sort(values.begin(), values.end());
      medians[name] = values[values.size() / 2];
    }
    return medians;
  }

  void ours(std::vector<std::pair<fs::path, fs::path>> const& pairs, bool upload, fs::path const& folder = {}) {
    ssh::SSHClientOptions options;
    options.knownHostsFiles = {sshd_->knownHostsFile()};
    options.readSshConfig = false;
    options.ciphers = kCipher;
    // One exec channel for the mkdir, as a fresh ssh would use.
    options.commandMode = ssh::CommandMode::ExecChannel;
    ssh::SSHClient client(fl::i18n::utf8_to_ustring(sshd_->host()), sshd_->port(),
                          {ssh::IdentityFileAuth{sshd_->user(), sshd_->identityFile(), std::nullopt}}, options);
    if (!folder.empty()) {
      if (upload) {
        client.executeCommand(ssh::ExecuteCommand(fl::i18n::utf8_to_ustring("mkdir -p " + shellQuoted(folder))));
      } else {
        fs::create_directories(folder);
      }
    }
    std::vector<ssh::FileLocations> items;
    items.reserve(pairs.size());
    for (auto const& [src, dst] : pairs) {
      auto const source = fl::i18n::utf8_to_ustring(src.string());
      auto const destination = fl::i18n::utf8_to_ustring(dst.string());
      items.push_back(upload ? ssh::FileLocations{source, destination} : ssh::FileLocations{destination, source});
    }
    client.copyFiles(ssh::CopyFilesCommand(
        std::move(items), upload ? ssh::TransferDirection::LocalToRemote : ssh::TransferDirection::RemoteToLocal,
        ssh::TransferProtocol::SFTP, 0744));
  }

  void sftpBatch(std::string const& command) {
    auto const batch = base_ / "batch";
    FILE* out = std::fopen(batch.c_str(), "w");
    std::fprintf(out, "%s\n", command.c_str());
    std::fclose(out);
    sh("sftp -q -b " + shellQuoted(batch) + scpLike_ + " " + target_);
  }

  Options options_;
  fs::path base_;
  std::unique_ptr<sshfa::loopback::LoopbackSshd> sshd_;
  std::string ssh_;
  std::string scpLike_;
  std::string target_;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string const flag = argv[i];
    std::string const value = argv[i + 1];
    if (flag == "--runs") {
      options.runs = std::stoi(value);
    } else if (flag == "--big-mib") {
      options.bigMiB = std::stoul(value);
    } else if (flag == "--files") {
      options.files = std::stoi(value);
    } else if (flag == "--only") {
      options.only = value;
    } else if (flag == "--tools") {
      options.tools = "," + value + ",";
    } else {
      std::fprintf(stderr,
                   "usage: %s [--runs N] [--big-mib N] [--files N] [--only big|small] [--tools ours,sftp,...]\n",
                   argv[0]);
      return 2;
    }
  }
  try {
    Bench bench(options);
    std::printf("median of %d interleaved runs, cipher %s, files on tmpfs\n", options.runs, kCipher);
    if (options.only != "small") bench.bigFile();
    if (options.only != "big") bench.smallFiles();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "transfer_bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
