// Relative names that look like options (-delete, -exec, -rf, --help, -)
// through every operation of the library and the tool, for an account whose
// login writes to both streams every time it starts; and twenty sessions of
// that account at once.
//
// Safety: the relative names resolve in the login folder of a dedicated
// unprivileged account, a fresh folder of this test; a canary folder beside
// it (which the account cannot write) must come through untouched. Needs
// root to create the account; otherwise the tests are skipped.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <thread>

#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

constexpr char const* kAccount = "sshfa-faults";

// Everything below `root`: folders as "name/", files as "name=content", or
// "name=N bytes" for files of more than 64 bytes (archives).
std::set<std::string> treeOf(fs::path const& root) {
  std::set<std::string> tree;
  for (auto const& entry : fs::recursive_directory_iterator(root)) {
    std::string const name = fs::relative(entry.path(), root).string();
    if (entry.is_directory()) {
      tree.insert(name + "/");
      continue;
    }
    std::string const content = readFile(entry.path());
    tree.insert(name + "=" + (content.size() > 64 ? std::to_string(content.size()) + " bytes" : content));
  }
  return tree;
}

std::string sizeOf(fs::path const& file) { return std::to_string(fs::file_size(file)) + " bytes"; }

// The server, the account and its folders, shared by every test here.
class TalkativeAccount {
 public:
  static TalkativeAccount* get() {
    static std::unique_ptr<TalkativeAccount> const instance(geteuid() == 0 ? new TalkativeAccount : nullptr);
    return instance.get();
  }

  [[nodiscard]] TestSshd& server() const { return *server_; }
  [[nodiscard]] fs::path const& home() const { return home_; }
  [[nodiscard]] fs::path const& canary() const { return canary_; }
  [[nodiscard]] std::set<std::string> const& canaryTree() const { return canaryTree_; }
  // How often the login has started so far.
  [[nodiscard]] std::size_t starts() const { return readFile(base_ / "starts").size(); }

  [[nodiscard]] std::unique_ptr<FileAccess> facade() const {
    return std::make_unique<FileAccess>(connect(*server_, server_->options(), kAccount));
  }
  [[nodiscard]] ToolResult tool(std::vector<std::string> const& args, fs::path const& workingDirectory) const {
    ToolOptions options;
    options.workingDirectory = workingDirectory.string();
    return runTool(joined(toolConnection(*server_, kAccount), args), options);
  }

 private:
  TalkativeAccount() {
    // The account's bash reads $BASH_ENV whenever it starts: a banner, a
    // warning, and a mark that shows it ran.
    writeFile(base_ / "login.sh",
              "echo 'Welcome to the fault host'\n"
              "echo 'pyenv: cannot rehash: /root/.pyenv/shims isn'\\''t writable' >&2\n"
              "printf x >>'" +
                  (base_ / "starts").string() + "'\n");
    writeFile(base_ / "starts", "");
    fs::permissions(base_ / "starts", fs::perms::all);
    fs::create_directories(home_);
    writeFile(canary_ / "keep", "canary\n");
    writeFile(canary_ / "-rf", "canary\n");
    canaryTree_ = treeOf(canary_);
    // At shell level 1 bash would read the start-up files of sshd's commands
    // (~/.bashrc) instead; level 2 makes it read $BASH_ENV.
    server_ = std::make_unique<TestSshd>("SetEnv BASH_ENV=" + (base_ / "login.sh").string() + " SHLVL=1\n");
    server_->accountWithHome(kAccount, "/bin/bash", home_);
  }

  fs::path base_ = TestSshd::makeTempDir();
  fs::path home_ = base_ / "home";
  fs::path canary_ = base_ / "canary";
  std::set<std::string> canaryTree_;
  std::unique_ptr<TestSshd> server_;
};

class OptionLikeName : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    account_ = TalkativeAccount::get();
    if (account_ == nullptr) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
    startsBefore_ = account_->starts();
  }
  void TearDown() override {
    if (account_ == nullptr) return;
    EXPECT_EQ(treeOf(account_->canary()), account_->canaryTree()) << "something outside the login folder changed";
    if (shellUsed_) {
      EXPECT_GT(account_->starts(), startsBefore_) << "the login did not talk";
    }
    // The next name starts from an empty login folder.
    for (auto const& entry : fs::directory_iterator(account_->home())) fs::remove_all(entry.path());
  }
  [[nodiscard]] fs::path home(std::string const& relative = {}) const {
    return relative.empty() ? account_->home() : account_->home() / relative;
  }

  TalkativeAccount* account_ = nullptr;
  std::size_t startsBefore_ = 0;
  // Off where everything goes over SFTP: no login runs then.
  bool shellUsed_ = true;
  fs::path local_ = TestSshd::makeTempDir();
};

TEST_P(OptionLikeName, EveryLibraryOperation) {
  std::string const name = GetParam();
  auto const n = str2ustr(name);
  auto const inside = str2ustr(name + "/" + name);
  auto access = account_->facade();
  auto& remote = *access->remote();

  remote.touch(n);
  EXPECT_THAT(treeOf(home()), ElementsAre(name + "="));
  EXPECT_TRUE(remote.exists(n));
  EXPECT_TRUE(remote.isFile(n));
  EXPECT_FALSE(remote.isDir(n));
  auto const info = remote.getFileInfo(n);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->path, n);
  EXPECT_EQ(info->size, 0U);
  EXPECT_THAT(remote.list(n), ElementsAre(inside));
  remote.remove(n);
  EXPECT_THAT(treeOf(home()), IsEmpty());
  EXPECT_FALSE(remote.exists(n));

  remote.makeDir(n);
  remote.touch(inside);
  EXPECT_TRUE(remote.isDir(n));
  EXPECT_THAT(remote.list(n), ElementsAre(inside));
  EXPECT_THAT(remote.listRecursively(n), ElementsAre(inside));
  // A destination without a folder part would make its parent '' first.
  remote.copy(n, u"copies/" + n);
  remote.move(u"copies/" + n, n + u".moved");
  EXPECT_TRUE(remote.isFile(n + u".moved/" + n));
  EXPECT_FALSE(remote.exists(u"copies/" + n));

  remote.tar(n, n + u".tar");
  remote.makeDir(u"untarred");
  // untar reads a relative archive path inside the destination.
  remote.move(n + u".tar", u"untarred/" + n + u".tar");
  remote.untar(n + u".tar", u"untarred");
  remote.zip(n, n + u".zip");
  remote.unzip(n + u".zip", u"unzipped");
  EXPECT_TRUE(fs::is_regular_file(home("untarred") / name / name));
  EXPECT_TRUE(fs::is_regular_file(home("unzipped") / name / name));

  writeFile(local_ / "payload", "payload\n");
  access->localToRemoteCopy(str2ustr((local_ / "payload").string()), n + u"/" + n + u".put");
  EXPECT_EQ(readFile(home(name) / (name + ".put")), "payload\n");
  access->remoteToLocalCopy(n, str2ustr((local_ / "got").string()));
  EXPECT_EQ(treeOf(local_ / "got"), (std::set<std::string>{name + "=", name + ".put=payload\n"}));
  auto const said = access->remoteExecute(u"echo ok");
  EXPECT_EQ(said.getStdout(), u"ok\n");
  EXPECT_EQ(said.getStderr(), u"");

  EXPECT_EQ(treeOf(home()),
            (std::set<std::string>{name + "/", name + "/" + name + "=", name + "/" + name + ".put=payload\n", "copies/",
                                   name + ".moved/", name + ".moved/" + name + "=",
                                   "untarred/" + name + ".tar=" + sizeOf(home("untarred") / (name + ".tar")),
                                   name + ".zip=" + sizeOf(home(name + ".zip")), "untarred/", "untarred/" + name + "/",
                                   "untarred/" + name + "/" + name + "=", "unzipped/", "unzipped/" + name + "/",
                                   "unzipped/" + name + "/" + name + "="}));
  remote.remove({n, u"copies", n + u".moved", n + u".zip", u"untarred", u"unzipped"});
  EXPECT_THAT(treeOf(home()), IsEmpty());
}

TEST_P(OptionLikeName, EveryToolCommand) {
  std::string const name = GetParam();
  // Transfers say what they copied on standard error; nothing else may.
  auto const tool = [&](std::vector<std::string> const& args) {
    auto result = account_->tool(args, local_);
    EXPECT_EQ(result.status, 0) << result.err;
    if (args.front() == "put" || args.front() == "get") {
      EXPECT_THAT(result.err, ::testing::StartsWith(args.front() + ": copied "));
    } else {
      EXPECT_EQ(result.err, "");
    }
    return result;
  };
  tool({"touch", "--", name});
  EXPECT_THAT(treeOf(home()), ElementsAre(name + "="));
  EXPECT_EQ(tool({"exists", "--", name}).out, "true\n");
  EXPECT_EQ(tool({"isfile", "--", name}).out, "true\n");
  EXPECT_THAT(tool({"stat", "--", name}).out,
              ::testing::AllOf(::testing::StartsWith("0\t"), ::testing::EndsWith("\t" + name + "\n")));
  tool({"rm", "--", name});
  EXPECT_THAT(treeOf(home()), IsEmpty());

  tool({"mkdir", "--", name});
  tool({"touch", "--", name + "/" + name});
  EXPECT_EQ(tool({"ls", "-R", "--", name}).out, name + "/" + name + "\n");
  tool({"cp", "--", name, "copies/" + name});
  tool({"mv", "--", "copies/" + name, name + ".moved"});
  tool({"tar", "--", name, name + ".tar"});
  tool({"mkdir", "untarred"});
  tool({"mv", "--", name + ".tar", "untarred/" + name + ".tar"});
  tool({"untar", "--", name + ".tar", "untarred"});
  tool({"zip", "--", name, name + ".zip"});
  tool({"unzip", "--", name + ".zip", "unzipped"});
  EXPECT_TRUE(fs::is_regular_file(home(name + ".moved") / name));
  EXPECT_TRUE(fs::is_regular_file(home("untarred") / name / name));
  EXPECT_TRUE(fs::is_regular_file(home("unzipped") / name / name));
  writeFile(local_ / "payload", "payload\n");
  tool({"put", "--", (local_ / "payload").string(), name + "/" + name + ".put"});
  EXPECT_EQ(readFile(home(name) / (name + ".put")), "payload\n");
  tool({"get", "--", name, (local_ / "got").string()});
  EXPECT_EQ(treeOf(local_ / "got"), (std::set<std::string>{name + "=", name + ".put=payload\n"}));
  EXPECT_EQ(tool({"exec", "echo", "ok"}).out, "ok\n");

  tool({"rm", "--", name, "copies", name + ".moved", name + ".zip", "untarred", "unzipped"});
  EXPECT_THAT(treeOf(home()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Names, OptionLikeName, ::testing::Values("-delete", "-exec", "-rf", "--help", "-"),
                         [](::testing::TestParamInfo<std::string> const& param) {
                           std::string label;
                           for (char const c : param.param) label += c == '-' ? "Dash" : std::string(1, c);
                           return label;
                         });

// The command lines that once destroyed data or ran code.
using OptionLikeOperand = OptionLikeName;

TEST_F(OptionLikeOperand, GetOfDashDeleteDeletesNothing) {
  writeFile(home("keep"), "kept\n");
  writeFile(home("-delete/a"), "a\n");
  auto const result = account_->tool({"get", "--", "-delete", (local_ / "got").string()}, local_);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(treeOf(home()), UnorderedElementsAreArray(
                                  {std::string("keep=kept\n"), std::string("-delete/"), std::string("-delete/a=a\n")}));
  EXPECT_THAT(treeOf(local_ / "got"), ElementsAre("a=a\n"));
  // get lists over SFTP, without the login shell, and so does ls.
  shellUsed_ = false;
  auto const listed = account_->tool({"ls", "-R", "--", "-delete"}, local_);
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_EQ(listed.out, "-delete/a\n");
  EXPECT_THAT(treeOf(home()), UnorderedElementsAreArray(
                                  {std::string("keep=kept\n"), std::string("-delete/"), std::string("-delete/a=a\n")}));
}

TEST_F(OptionLikeOperand, ListingOfDashExecRunsNothing) {
  // ls asks over SFTP: no login runs.
  shellUsed_ = false;
  auto const result = account_->tool({"ls", "-R", "--", "-exec", "touch", "FILE", ";"}, local_);
  // Four names, none of which exists: each is reported, nothing is run.
  EXPECT_EQ(result.status, 1) << result.err;
  EXPECT_EQ(result.err,
            "sshfa: cannot access '-exec': No such file or directory\n"
            "sshfa: cannot access 'touch': No such file or directory\n"
            "sshfa: cannot access 'FILE': No such file or directory\n"
            "sshfa: cannot access ';': No such file or directory\n");
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(treeOf(home()), IsEmpty());
  EXPECT_FALSE(fs::exists(local_ / "FILE"));
}

TEST_F(OptionLikeOperand, RemoveOfDashRfRemovesThatFileOnly) {
  writeFile(home("-rf"), "x\n");
  writeFile(home("keep/a"), "a\n");
  auto const result = account_->tool({"rm", "--", "-rf"}, local_);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(treeOf(home()), UnorderedElementsAreArray({std::string("keep/"), std::string("keep/a=a\n")}));
}

// ---- many sessions at once ---------------------------------------------------------

TEST(TalkativeLogin, TwentySessionsAtOnceAllSucceed) {
  auto* account = TalkativeAccount::get();
  if (account == nullptr) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  auto const local = TestSshd::makeTempDir();
  for (int f = 0; f < 25; ++f)
    writeFile(local / "tree" / ("d" + std::to_string(f % 3)) / std::to_string(f),
              pattern(100 + 37 * static_cast<std::size_t>(f), static_cast<unsigned>(f)));
  auto const expected = filesBelow(local / "tree");
  constexpr std::size_t kSessions = 20;
  std::vector<std::string> failures(kSessions);
  std::vector<std::thread> sessions;
  for (std::size_t s = 0; s < kSessions; ++s) {
    sessions.emplace_back([&, s] {
      try {
        auto access = account->facade();
        auto const folder = str2ustr("session" + std::to_string(s));
        access->remote()->makeDir(folder);
        access->localToRemoteCopy(str2ustr((local / "tree").string()), folder + u"/tree");
        if (!access->remote()->isDir(folder + u"/tree/d0")) failures[s] = "no d0 after the upload";
        if (access->remote()->listRecursively(folder).size() != 25U) failures[s] = "not 25 files listed";
        access->remoteToLocalCopy(folder + u"/tree", str2ustr((local / ("back" + std::to_string(s))).string()));
        access->remote()->remove(folder);
        if (access->remote()->exists(folder)) failures[s] = "the folder is still there";
      } catch (std::exception const& error) {
        failures[s] = error.what();
      }
    });
  }
  for (auto& session : sessions) session.join();
  for (std::size_t s = 0; s < kSessions; ++s) {
    EXPECT_EQ(failures[s], "") << "session " << s;
    EXPECT_EQ(filesBelow(local / ("back" + std::to_string(s))), expected) << "session " << s;
  }
  EXPECT_THAT(treeOf(account->home()), IsEmpty());
}

}  // namespace
}  // namespace sshfa::testing
