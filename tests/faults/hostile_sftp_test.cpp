// The hostile SFTP server of the tests, tested on its own: its rules file,
// its rewriting of packets, and the relay itself, spoken to by a client that
// checks nothing (over pipes) and by OpenSSH's sftp through a private sshd.
// Every added entry must arrive exactly as ruled, and everything else exactly
// as the real sftp-server sends it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"
#include "support/loopback_sshd/LoopbackSshd.hpp"
#include "tests/support/HostileSftpServer.hpp"
#include "tests/support/SftpPackets.hpp"
#include "tests/support/hostile_sftp/Rules.hpp"
#include "tests/support/hostile_sftp/Tracker.hpp"
#include "tests/unit/sftp/SftpServerProcess.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
namespace sftp = foundation::sshclient::internal::sftp;
namespace ssh = foundation::sshclient;
using hostile::CopiedFrom;
using hostile::EntryType;
using hostile::Placement;
using hostile::Rule;
using sftp::Attributes;
using sftp::Bytes;
using sftp::PacketType;
using sftp::PacketWriter;

constexpr std::uint32_t kOutsideTime = 1600000000;  // 2020-09-13 12:26:40 UTC
constexpr std::uint32_t kRuledTime = 1700000000;
constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;

std::string octal(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0%o", value);
  return text;
}

// ---- a client that checks nothing -------------------------------------------------

struct Entry {
  std::string name;
  std::string longname;
  Attributes attributes;
};

// One line per entry with every attribute, for readable comparisons.
std::string describe(std::string_view name, Attributes const& a) {
  auto const number = [](auto const& value) { return value ? std::to_string(*value) : std::string("-"); };
  return "'" + hostile::escape(name) + "' " + (a.permissions ? octal(*a.permissions) : "-") + " size " +
         number(a.size) + " mtime " + number(a.mtime) + " atime " + number(a.atime) + " owner " + number(a.uid) + ":" +
         number(a.gid);
}

std::vector<std::string> describe(std::vector<Entry> const& entries) {
  std::vector<std::string> lines;
  lines.reserve(entries.size());
  for (auto const& e : entries) lines.push_back(describe(e.name, e.attributes));
  return lines;
}

// Attributes as the relay sends an added entry: atime is mtime.
Attributes attributes(std::uint32_t mode, std::optional<std::uint64_t> size, std::uint32_t mtime,
                      std::uint32_t uid = ::getuid(), std::uint32_t gid = ::getgid()) {
  Attributes a;
  a.size = size;
  a.uid = uid;
  a.gid = gid;
  a.permissions = mode;
  a.atime = mtime;
  a.mtime = mtime;
  return a;
}

void setTimes(fs::path const& path, std::int64_t atime, std::int64_t mtime) {
  timespec const times[2] = {{atime, 0}, {mtime, 0}};
  if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
    throw std::runtime_error("cannot set the times of " + path.string());
  }
}

// Speaks SFTP over a server process one request at a time, keeping every
// byte it receives.
class RawClient {
 public:
  explicit RawClient(std::unique_ptr<SftpServerProcess> server) : server_(std::move(server)) {
    Bytes init;
    PacketWriter(init).init();
    sendAll(init);
    sftp::decodeVersion(nextPacket());
  }

  // Sends the request that `write` appends with the next id; returns the body of the reply.
  Bytes call(std::function<void(PacketWriter&, std::uint32_t id)> const& write) {
    Bytes request;
    PacketWriter writer(request);
    write(writer, ++lastId_);
    sendAll(request);
    return nextPacket();
  }

  // A whole listing, through OPENDIR, READDIR until EOF, CLOSE.
  std::vector<Entry> list(std::string const& path, std::size_t* nameReplies = nullptr) {
    auto const opened = call([&](PacketWriter& w, std::uint32_t id) { w.opendir(id, path); });
    std::string const handle(sftp::decodeReply(opened).handle);
    std::vector<Entry> entries;
    if (nameReplies != nullptr) *nameReplies = 0;
    for (;;) {
      auto const body = call([&](PacketWriter& w, std::uint32_t id) { w.readdir(id, handle); });
      auto const reply = sftp::decodeReply(body);
      if (reply.type == PacketType::Status) {
        EXPECT_EQ(reply.status, sftp::StatusCode::Eof);
        break;
      }
      if (nameReplies != nullptr) ++*nameReplies;
      for (auto const& n : reply.names)
        entries.push_back({std::string(n.filename), std::string(n.longname), n.attributes});
    }
    call([&](PacketWriter& w, std::uint32_t id) { w.close(id, handle); });
    return entries;
  }

  // The target that READLINK answers, or the status it fails with.
  std::string readlink(std::string const& path) {
    auto const body = call([&](PacketWriter& w, std::uint32_t id) { w.readlink(id, path); });
    auto const reply = sftp::decodeReply(body);
    return reply.type == PacketType::Name ? std::string(reply.names.at(0).filename) : sftp::statusText(reply.status);
  }

  // A whole file, through OPEN, READ until EOF, CLOSE.
  std::string fetch(std::string const& path) {
    auto const opened = call([&](PacketWriter& w, std::uint32_t id) { w.open(id, path, sftp::openflags::kRead, {}); });
    std::string const handle(sftp::decodeReply(opened).handle);
    std::string contents;
    for (;;) {
      auto const body = call([&](PacketWriter& w, std::uint32_t id) { w.read(id, handle, contents.size(), 32768); });
      auto const reply = sftp::decodeReply(body);
      if (reply.type == PacketType::Status) break;
      contents.append(reinterpret_cast<char const*>(reply.data.data()), reply.data.size());
    }
    call([&](PacketWriter& w, std::uint32_t id) { w.close(id, handle); });
    return contents;
  }

  [[nodiscard]] Bytes const& transcript() const noexcept { return transcript_; }

 private:
  void sendAll(Bytes const& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      auto const n = server_->send(sftp::ByteView(bytes).subspan(sent));
      if (n == 0) server_->wait(true);
      sent += n;
    }
  }

  Bytes nextPacket() {
    for (;;) {
      if (auto const packet = reader_.next()) {
        auto const framed = Body::framed(*packet);
        transcript_.insert(transcript_.end(), framed.begin(), framed.end());
        return Bytes(packet->begin(), packet->end());
      }
      auto space = reader_.writable(65536);
      auto const n = server_->receive(space);
      if (n == 0) {
        server_->wait(false);
        continue;
      }
      reader_.commit(n);
    }
  }

  std::unique_ptr<SftpServerProcess> server_;
  sftp::PacketReader reader_;
  Bytes transcript_;
  std::uint32_t lastId_ = 0;
};

// The relay over pipes, with its rules and log in `dir`.
std::unique_ptr<SftpServerProcess> startRelay(fs::path const& dir, std::string const& rulesText) {
  writeFile(dir / "rules", rulesText);
  return std::make_unique<SftpServerProcess>(
      HostileSftpServer::program().string(),
      std::vector<std::string>{"--rules", (dir / "rules").string(), "--log", (dir / "log").string()});
}

std::unique_ptr<SftpServerProcess> startRelay(fs::path const& dir, std::vector<Rule> const& rules) {
  return startRelay(dir, hostile::formatRules(rules));
}

// ---- the rules file ------------------------------------------------------------------

std::vector<std::string> hostileNames() {
  return {"../outside.txt",
          "a/b",
          "/abs",
          ".",
          "..",
          "",
          std::string("a\0b", 3),
          "evil",
          "evil/x",
          "line\nfeed\ttab\rcr\\back\xff",
          "-",
          "@x"};
}

TEST(HostileRules, ParseEveryField) {
  auto const rules = hostile::parseRules(
      "# a comment, then a blank line\n"
      "\n"
      "before\t/r/tree\t../outside.txt\tfile\t0644\t@/r/outside.txt\t@/r/out\\x73ide.txt\n"
      "after\tr/tree\tevil\tlink\t777\t4\t1700000000\t/tmp/else\\twhere\n"
      "replace\t/r/tree\tplain.txt\t-\t-\t-\t-\n"
      "before\t/r/tree\t\tdir\t0755\t4096\t0\n"
      "before\t/r/tree\ta\\0b\\n\\\\\\xFF\tfifo\t-\t-\t-");
  ASSERT_EQ(rules.size(), 5U);
  EXPECT_EQ(rules[0], (Rule{Placement::Before, "/r/tree", "../outside.txt", EntryType::File, 0644U,
                            CopiedFrom{"/r/outside.txt"}, CopiedFrom{"/r/outside.txt"}, std::nullopt}));
  EXPECT_EQ(rules[1],
            (Rule{Placement::After, "r/tree", "evil", EntryType::Symlink, 0777U, 4U, 1700000000U, "/tmp/else\twhere"}));
  EXPECT_EQ(rules[2], (Rule{Placement::Replace, "/r/tree", "plain.txt", EntryType::Unchanged, {}, {}, {}, {}}));
  EXPECT_EQ(rules[3], (Rule{Placement::Before, "/r/tree", "", EntryType::Directory, 0755U, 4096U, 0U, {}}));
  EXPECT_EQ(rules[4].name, std::string("a\0b\n\\\xff", 6));
  EXPECT_EQ(rules[4].type, EntryType::Fifo);
}

TEST(HostileRules, EveryHostileNameSurvivesTheFile) {
  std::vector<Rule> rules;
  for (auto const& name : hostileNames()) {
    rules.push_back(
        {Placement::After, "/r/" + name, name, EntryType::Symlink, 0777U, CopiedFrom{"/r/@" + name}, 7U, "/t/" + name});
  }
  auto const text = hostile::formatRules(rules);
  EXPECT_EQ(text.find('\0'), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<long>(rules.size()));
  EXPECT_EQ(hostile::parseRules(text), rules);
  EXPECT_EQ(hostile::escape(std::string("a\0\t\n\r\\\x01\x7f\xff", 9)), "a\\0\\t\\n\\r\\\\\\x01\\x7f\\xff");
}

TEST(HostileRules, BadLinesAreRefusedWithTheirCause) {
  auto const refusal = [](std::string const& text) {
    try {
      hostile::parseRules(text);
    } catch (std::invalid_argument const& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  std::string const ok = "before\t/r\tx\tfile\t0644\t1\t2\n";
  EXPECT_EQ(refusal(ok), "accepted");
  EXPECT_EQ(refusal(ok + "before /r x file 0644 1 2\n"), "rules line 2: has 1 fields, not 7 or 8 separated by tabs");
  EXPECT_EQ(refusal("first\t/r\tx\tfile\t0644\t1\t2"),
            "rules line 1: unknown placement 'first' (before, after or replace)");
  EXPECT_EQ(refusal("before\t/r\tx\tdevice\t0644\t1\t2"),
            "rules line 1: unknown type 'device' (file, dir, link, fifo, socket, char, block or -)");
  EXPECT_EQ(refusal("before\t/r\tx\tfile\t0648\t1\t2"),
            "rules line 1: mode '0648' is not octal permission bits, '@PATH' or '-'");
  EXPECT_EQ(refusal("before\t/r\tx\tfile\t10000\t1\t2"), "rules line 1: mode 010000 has more than permission bits");
  EXPECT_EQ(refusal("before\t/r\tx\tfile\t0644\t-1\t2"), "rules line 1: size '-1' is not a number, '@PATH' or '-'");
  EXPECT_EQ(refusal("before\t/r\tx\tfile\t0644\t1\t4294967296"),
            "rules line 1: mtime 4294967296 does not fit in 32 bits");
  EXPECT_EQ(refusal("before\t/r\tx\\q\tfile\t0644\t1\t2"), "rules line 1: 'x\\q': unknown escape \\q");
  EXPECT_EQ(refusal("before\t/r\tx\\\tfile\t0644\t1\t2"), "rules line 1: 'x\\' ends in a lone backslash");
  EXPECT_EQ(refusal("before\t/r\tx\\x4\tfile\t0644\t1\t2"), "rules line 1: 'x\\x4': \\x needs two hexadecimal digits");
  EXPECT_EQ(refusal("before\t/r\tx\tfile\t0644\t1\t2\t/t"), "rules line 1: a link target is only for a link");
  EXPECT_EQ(refusal("replace\t/r\tx\t-\t-\t-\t-\t/t"), "rules line 1: a link target is only for a link");
  EXPECT_EQ(refusal("replace\t/r\tx\tlink\t-\t-\t-\t/t"), "accepted");
  Rule tooWide;
  tooWide.mode = 010000U;
  EXPECT_THROW(hostile::formatRules({tooWide}), std::invalid_argument);
}

TEST(HostileRules, ACallersSubsystemLineReplacesTheGeneratedOne) {
  EXPECT_TRUE(loopback::definesSubsystem("Port 1\nSubsystem sftp /x --rules y\n", "sftp"));
  EXPECT_TRUE(loopback::definesSubsystem("  subsystem   sftp /x", "sftp"));
  EXPECT_FALSE(loopback::definesSubsystem("Subsystem other /x\n# Subsystem sftp /x\n", "sftp"));
  EXPECT_FALSE(loopback::definesSubsystem("Subsystem sftpx /x", "sftp"));
  EXPECT_FALSE(loopback::definesSubsystem("", "sftp"));
  EXPECT_EQ(HostileSftpServer::subsystemLine("/d/rules", "/d/log", {"-u", "022"}),
            "Subsystem sftp " + HostileSftpServer::program().string() + " --rules /d/rules --log /d/log -- -u 022");
  EXPECT_THROW((void)HostileSftpServer::subsystemLine("/d/my rules", "/d/log", {}), std::invalid_argument);
}

// ---- rewriting, packet by packet ------------------------------------------------------

TEST(HostileTracker, LongNameHasTheShapeOfTheServers) {
  EXPECT_EQ(hostile::longName("../x", attributes(S_IFREG | 0644U, 17, kOutsideTime, 1000, 100)),
            "-rw-r--r--   1 1000     100            17 Sep 13  2020 ../x");
  Attributes link;
  link.permissions = S_IFLNK | 0777U;
  link.mtime = kOutsideTime;
  EXPECT_EQ(hostile::longName("evil", link), "lrwxrwxrwx   1 0        0               0 Sep 13  2020 evil");
}

class HostileTrackerTest : public ::testing::Test {
 protected:
  // "/r/tree" and "/r/link-to-tree" are the same real folder; /r/outside.txt has size 17.
  static std::optional<std::string> resolve(std::string const& path) {
    if (path == "/r/tree" || path == "/r/tree/" || path == "/r/link-to-tree") return "/r/tree";
    if (path == "/r/other") return "/r/other";
    return std::nullopt;
  }
  static Attributes lookup(std::string const& path) {
    if (path != "/r/outside.txt") throw std::runtime_error("cannot read the attributes of '" + path + "'");
    Attributes a;
    a.size = 17;
    a.permissions = S_IFREG | 0640U;
    a.mtime = kOutsideTime;
    a.atime = 1;
    return a;
  }
  static Attributes owner() {
    Attributes a;
    a.uid = 1000;
    a.gid = 100;
    return a;
  }

  hostile::Tracker tracker(std::vector<Rule> rules) {
    return {std::move(rules), owner(), resolve, lookup, [this](std::string const& line) { log_.push_back(line); }};
  }

  static Bytes request(std::function<void(PacketWriter&)> const& write) {
    Bytes framed;
    PacketWriter writer(framed);
    write(writer);
    return Bytes(framed.begin() + 4, framed.end());
  }

  static Attributes realFile(std::uint64_t size) { return attributes(S_IFREG | 0644U, size, 6, 0, 0); }

  std::vector<std::string> log_;
};

TEST_F(HostileTrackerTest, AddsToTheFirstReplyOfEachHandleAndReplacesInEvery) {
  std::vector<Rule> const rules{
      {Placement::Before,
       "/r/link-to-tree",
       "../x",
       EntryType::File,
       0644U,
       CopiedFrom{"/r/outside.txt"},
       CopiedFrom{"/r/outside.txt"},
       {}},
      {Placement::After, "/r/tree", "evil", EntryType::Symlink, 0777U, 4U, kRuledTime, "/tmp/elsewhere"},
      {Placement::Replace, "/r/tree", "b.txt", EntryType::Directory, {}, 99U, {}, {}},
  };
  auto t = tracker(rules);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.opendir(1, "/r/tree/"); })), std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Handle).u32(1).str("h0").bytes()), std::nullopt);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readdir(2, "h0"); })), std::nullopt);

  auto const realA = Body(PacketType::Name).str("a.txt").str("-rw-r--r-- a.txt").attributes(realFile(1)).bytes();
  Bytes const entryA(realA.begin() + 1, realA.end());
  auto const firstReply = Body(PacketType::Name).u32(2).u32(1).raw(entryA).bytes();
  // Mode as ruled, size and time copied, the server's owner.
  auto const outside = attributes(S_IFREG | 0644U, 17, kOutsideTime, 1000, 100);
  auto const link = attributes(S_IFLNK | 0777U, 4, kRuledTime, 1000, 100);
  // The count grows by two, the real entry's bytes stay as they were.
  EXPECT_EQ(t.reply(firstReply), Body(PacketType::Name)
                                     .u32(2)
                                     .u32(3)
                                     .str("../x")
                                     .str(hostile::longName("../x", outside))
                                     .attributes(outside)
                                     .raw(entryA)
                                     .str("evil")
                                     .str(hostile::longName("evil", link))
                                     .attributes(link)
                                     .bytes());

  // Later replies: nothing added again, the replaced entry changed.
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readdir(3, "h0"); })), std::nullopt);
  auto replaced = realFile(3);
  replaced.permissions = S_IFDIR | 0644U;
  replaced.size = 99;
  EXPECT_EQ(
      t.reply(
          Body(PacketType::Name).u32(3).u32(2).raw(entryA).str("b.txt").str("long b").attributes(realFile(3)).bytes()),
      Body(PacketType::Name).u32(3).u32(2).raw(entryA).str("b.txt").str("long b").attributes(replaced).bytes());
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readdir(4, "h0"); })), std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Name).u32(4).u32(1).raw(entryA).bytes()), std::nullopt);
  EXPECT_EQ(t.reply(status(4, sftp::StatusCode::Eof).bytes()), std::nullopt);

  // A handle that sftp-server gives out again, to a file, is not a folder any more.
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.close(5, "h0"); })), std::nullopt);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.open(6, "/r/tree/a.txt", sftp::openflags::kRead, {}); })),
            std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Handle).u32(6).str("h0").bytes()), std::nullopt);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readdir(7, "h0"); })), std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Name).u32(7).u32(1).raw(entryA).bytes()), std::nullopt);

  // A new handle of the same folder gets the additions again.
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.opendir(8, "/r/tree"); })), std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Handle).u32(8).str("h1").bytes()), std::nullopt);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readdir(9, "h1"); })), std::nullopt);
  auto const again = t.reply(Body(PacketType::Name).u32(9).u32(0).bytes());
  ASSERT_TRUE(again);
  EXPECT_EQ(sftp::decodeReply(*again).names.size(), 2U);

  EXPECT_EQ(log_, (std::vector<std::string>{"listing of '/r/tree/' rewritten: 2 entries added",
                                            "listing of '/r/tree/' rewritten: 0 entries added",
                                            "listing of '/r/tree' rewritten: 2 entries added"}));
}

TEST_F(HostileTrackerTest, AnswersReadlinkOfALinkRuleWithATarget) {
  auto t = tracker({{Placement::After, "/r/tree", "evil", EntryType::Symlink, 0777U, 4U, kRuledTime, "/tmp/x\ny"},
                    {Placement::After, "/r/tree", "ghost", EntryType::Symlink, 0777U, 4U, kRuledTime, {}}});
  auto const target = Body(PacketType::Name).u32(1).u32(1).str("/tmp/x\ny").str("/tmp/x\ny").u32(0).bytes();
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readlink(1, "/r/tree/evil"); })), target);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readlink(1, "/r/link-to-tree/evil"); })), target);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readlink(2, "/r/tree/ghost"); })), std::nullopt);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readlink(3, "/r/other/evil"); })), std::nullopt);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readlink(4, "/r/treeevil"); })), std::nullopt);
  EXPECT_EQ(log_.front(), "READLINK of '/r/tree/evil' answered '/tmp/x\\ny'");
}

TEST_F(HostileTrackerTest, LeavesFoldersWithoutRulesAndOtherPacketsAlone) {
  auto t = tracker({{Placement::Before, "/r/tree", "x", EntryType::File, 0644U, 1U, 2U, {}}});
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.opendir(1, "/r/other"); })), std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Handle).u32(1).str("h0").bytes()), std::nullopt);
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.readdir(2, "h0"); })), std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Name).u32(2).u32(0).bytes()), std::nullopt);
  // A folder that failed to open leaves nothing behind.
  EXPECT_EQ(t.request(request([](PacketWriter& w) { w.opendir(3, "/r/tree"); })), std::nullopt);
  EXPECT_EQ(t.reply(status(3, sftp::StatusCode::PermissionDenied).bytes()), std::nullopt);
  EXPECT_EQ(t.reply(Body(PacketType::Version).u32(3).bytes()), std::nullopt);
  EXPECT_EQ(t.request(Bytes{static_cast<std::uint8_t>(PacketType::Opendir), 0, 0}), std::nullopt);
  EXPECT_TRUE(log_.empty());
}

// ---- the relay over pipes ---------------------------------------------------------------

class HostileRelay : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(tree() / "sub");
    writeFile(tree() / "a.txt", "alpha\n");
    writeFile(root() / "outside.txt", "outside, 17 bytes");
    setTimes(root() / "outside.txt", kOutsideTime, kOutsideTime);
    fs::create_directory(scratch_ / "relay");
  }

  [[nodiscard]] fs::path root() const { return scratch_.path(); }
  [[nodiscard]] fs::path tree() const { return scratch_ / "tree"; }
  [[nodiscard]] std::string relayLog() const { return readFile(scratch_ / "relay" / "log"); }

  RawClient relay(std::vector<Rule> const& rules) { return RawClient(startRelay(scratch_ / "relay", rules)); }

  // The real entries of tree/ as sftp-server reports them, sorted.
  [[nodiscard]] std::vector<std::string> realEntries(std::vector<std::string> const& names) const {
    std::vector<std::string> lines;
    lines.reserve(names.size());
    for (auto const& name : names) lines.push_back(describe(name, localAttributes(tree() / name)));
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  ScratchDir scratch_;
};

TEST_F(HostileRelay, EachHostileEntryArrivesExactlyAsRuled) {
  auto const outside = CopiedFrom{(root() / "outside.txt").string()};
  auto const file = [](Placement where, std::string const& name) {
    return Rule{where, "", name, EntryType::File, 0600U, 3U, kRuledTime, {}};
  };
  std::vector<Rule> rules{
      {Placement::Before, "", "../outside.txt", EntryType::File, 0644U, outside, outside, {}},
      file(Placement::Before, "a/b"),
      file(Placement::Before, "/abs"),
      {Placement::Before, "", ".", EntryType::Directory, 0755U, 4096U, kRuledTime, {}},
      {Placement::Before, "", "..", EntryType::Directory, 0700U, 4096U, kRuledTime, {}},
      file(Placement::Before, ""),
      file(Placement::Before, std::string("a\0b", 3)),
      file(Placement::Before, "line\nfeed\xff"),
      file(Placement::After, "a.txt"),
      {Placement::After, "", "evil", EntryType::Symlink, 0777U, 11U, kRuledTime, "/tmp/sshfa-elsewhere"},
      {Placement::After, "", "evil", EntryType::Directory, 0755U, 4096U, kRuledTime, {}},
      file(Placement::After, "evil/x"),
  };
  for (auto& rule : rules) rule.folder = tree().string();

  auto client = relay(rules);
  auto const entries = client.list(tree().string());

  std::vector<std::string> const before{
      describe("../outside.txt", attributes(S_IFREG | 0644U, 17, kOutsideTime)),
      describe("a/b", attributes(S_IFREG | 0600U, 3, kRuledTime)),
      describe("/abs", attributes(S_IFREG | 0600U, 3, kRuledTime)),
      describe(".", attributes(S_IFDIR | 0755U, 4096, kRuledTime)),
      describe("..", attributes(S_IFDIR | 0700U, 4096, kRuledTime)),
      describe("", attributes(S_IFREG | 0600U, 3, kRuledTime)),
      describe(std::string("a\0b", 3), attributes(S_IFREG | 0600U, 3, kRuledTime)),
      describe("line\nfeed\xff", attributes(S_IFREG | 0600U, 3, kRuledTime)),
  };
  std::vector<std::string> const after{
      describe("a.txt", attributes(S_IFREG | 0600U, 3, kRuledTime)),
      describe("evil", attributes(S_IFLNK | 0777U, 11, kRuledTime)),
      describe("evil", attributes(S_IFDIR | 0755U, 4096, kRuledTime)),
      describe("evil/x", attributes(S_IFREG | 0600U, 3, kRuledTime)),
  };
  auto const lines = describe(entries);
  ASSERT_EQ(lines.size(), before.size() + 4 + after.size()) << ::testing::PrintToString(lines);
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 8), before);
  EXPECT_EQ(std::vector<std::string>(lines.end() - 4, lines.end()), after);
  std::vector<std::string> real(lines.begin() + 8, lines.end() - 4);
  std::sort(real.begin(), real.end());
  EXPECT_EQ(real, realEntries({".", "..", "a.txt", "sub"}));
  EXPECT_EQ(entries.front().longname, hostile::longName("../outside.txt", entries.front().attributes));
  EXPECT_NE(relayLog().find("listing of '" + tree().string() + "' rewritten: 12 entries added\n"), std::string::npos)
      << relayLog();
}

TEST_F(HostileRelay, FolderIsMatchedByItsRealPathAndLinksAnswerTheirTarget) {
  fs::create_symlink("tree", root() / "link-to-tree");
  fs::create_symlink("a.txt", tree() / "real-link");
  std::vector<Rule> const rules{
      {Placement::After, "tree", "evil", EntryType::Symlink, 0777U, 11U, kRuledTime, "/tmp/sshfa-elsewhere"},
      {Placement::After, "tree", "ghost", EntryType::Symlink, 0777U, 11U, kRuledTime, {}},
  };
  // The rule names tree/ relative to the relay's working folder.
  fs::path const previous = fs::current_path();
  fs::current_path(root());
  auto client = relay(rules);
  fs::current_path(previous);

  for (auto const& spelling : {tree().string() + "/", (root() / "link-to-tree").string(), tree().string() + "/./"}) {
    auto const entries = client.list(spelling);
    ASSERT_GE(entries.size(), 2U);
    EXPECT_EQ(entries[entries.size() - 2].name, "evil") << spelling;
    EXPECT_EQ(entries.back().name, "ghost") << spelling;
  }
  EXPECT_EQ(client.readlink(tree() / "evil"), "/tmp/sshfa-elsewhere");
  EXPECT_EQ(client.readlink(root() / "link-to-tree" / "evil"), "/tmp/sshfa-elsewhere");
  EXPECT_EQ(client.readlink(tree() / "real-link"), "a.txt");
  EXPECT_EQ(client.readlink(tree() / "ghost"), "No such file");
}

TEST_F(HostileRelay, ARealFolderCanPoseAsALinkAndStillBeOpened) {
  fs::create_directory(tree() / "evil");
  writeFile(tree() / "evil" / "x", "inside evil\n");
  auto const x = CopiedFrom{(tree() / "evil" / "x").string()};
  auto client = relay({
      {Placement::Replace, tree().string(), "evil", EntryType::Symlink, 0777U, 20U, {}, "/tmp/sshfa-elsewhere"},
      {Placement::After, tree().string(), "evil", EntryType::Directory, 0755U, 4096U, kRuledTime, {}},
      {Placement::After, tree().string(), "evil/x", EntryType::File, 0644U, x, x, {}},
  });
  auto const entries = client.list(tree().string());
  std::vector<std::string> evil;
  for (auto const& e : entries) {
    if (e.name.starts_with("evil")) evil.push_back(describe(e.name, e.attributes));
  }
  auto real = localAttributes(tree() / "evil");
  real.permissions = S_IFLNK | 0777U;
  real.size = 20;
  auto const file = localAttributes(tree() / "evil" / "x");
  EXPECT_EQ(evil, (std::vector<std::string>{
                      describe("evil", real),
                      describe("evil", attributes(S_IFDIR | 0755U, 4096, kRuledTime)),
                      describe("evil/x", attributes(S_IFREG | 0644U, file.size, *file.mtime)),
                  }));
  EXPECT_EQ(client.readlink(tree() / "evil"), "/tmp/sshfa-elsewhere");
  EXPECT_EQ(client.fetch(tree() / "evil" / "x"), "inside evil\n");
  auto const inside = client.list(tree() / "evil");
  EXPECT_EQ(std::count_if(inside.begin(), inside.end(), [](Entry const& e) { return e.name == "x"; }), 1);
}

TEST_F(HostileRelay, ALargeFolderGetsTheAdditionsOncePerHandle) {
  std::set<std::string> names{".", "..", "a.txt", "sub"};
  for (int i = 0; i < 250; ++i) {
    auto const name = "file-" + std::to_string(i);
    writeFile(tree() / name, std::string(static_cast<std::size_t>(i), 'x'));
    names.insert(name);
  }
  std::vector<Rule> const rules{
      {Placement::Before, tree().string(), "../first", EntryType::File, 0644U, 1U, kRuledTime, {}},
      {Placement::After, tree().string(), "file-7", EntryType::File, 0644U, 1U, kRuledTime, {}},
      {Placement::Replace, tree().string(), "file-200", EntryType::Fifo, 0600U, {}, kRuledTime, {}},
  };
  auto client = relay(rules);
  for (int pass = 0; pass < 2; ++pass) {
    std::size_t replies = 0;
    auto const entries = client.list(tree().string(), &replies);
    EXPECT_GE(replies, 3U);
    ASSERT_EQ(entries.size(), names.size() + 2);
    EXPECT_EQ(entries.front().name, "../first");
    std::multiset<std::string> seen;
    for (auto const& e : entries) seen.insert(e.name);
    EXPECT_EQ(seen.count("../first"), 1U);
    EXPECT_EQ(seen.count("file-7"), 2U);
    seen.erase(seen.find("../first"));
    seen.erase(seen.find("file-7"));
    EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()), names);
    // The duplicate closes the first reply, before the real file-7 wherever that comes.
    auto const duplicate = std::find_if(entries.begin(), entries.end(), [](Entry const& e) {
      return e.name == "file-7" && e.attributes.mtime == kRuledTime;
    });
    ASSERT_NE(duplicate, entries.end());
    EXPECT_LE(duplicate - entries.begin(), 101);
    auto const replaced =
        std::find_if(entries.begin(), entries.end(), [](Entry const& e) { return e.name == "file-200"; });
    ASSERT_NE(replaced, entries.end());
    auto expected = localAttributes(tree() / "file-200");
    expected.permissions = S_IFIFO | 0600U;
    expected.mtime = kRuledTime;
    EXPECT_EQ(describe("file-200", replaced->attributes), describe("file-200", expected));
  }
}

TEST_F(HostileRelay, EverythingElsePassesByteForByte) {
  fs::path const plain = root() / "plain";
  fs::create_directory(plain);
  writeFile(plain / "data.bin", randomBytes(100000, 7));
  writeFile(plain / "name\nwith\xff", "x");
  fs::create_symlink("data.bin", plain / "link");
  // Times in the future: reading must not change them between the two runs.
  auto const later = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch() + std::chrono::hours(1))
                         .count();
  for (auto const& path : {root(), plain, plain / "data.bin", plain / "name\nwith\xff", plain / "link"}) {
    setTimes(path, later, kOutsideTime);
  }

  auto const script = [&](RawClient& client) {
    client.call([&](PacketWriter& w, std::uint32_t id) { w.realpath(id, plain.string() + "/../plain"); });
    client.list(plain.string());
    client.call([&](PacketWriter& w, std::uint32_t id) { w.stat(id, (plain / "data.bin").string()); });
    client.call([&](PacketWriter& w, std::uint32_t id) { w.lstat(id, (plain / "link").string()); });
    client.call([&](PacketWriter& w, std::uint32_t id) { w.readlink(id, (plain / "link").string()); });
    client.call([&](PacketWriter& w, std::uint32_t id) { w.stat(id, (plain / "missing").string()); });
    client.call([&](PacketWriter& w, std::uint32_t id) { w.limits(id); });
    auto const opened = client.call([&](PacketWriter& w, std::uint32_t id) {
      w.open(id, (plain / "data.bin").string(), sftp::openflags::kRead, {});
    });
    std::string const handle(sftp::decodeReply(opened).handle);
    for (std::uint64_t offset = 0; offset < 120000; offset += 32768) {
      client.call([&](PacketWriter& w, std::uint32_t id) { w.read(id, handle, offset, 32768); });
    }
    client.call([&](PacketWriter& w, std::uint32_t id) { w.fstat(id, handle); });
    client.call([&](PacketWriter& w, std::uint32_t id) { w.close(id, handle); });
    return client.transcript();
  };
  RawClient direct(std::make_unique<SftpServerProcess>());
  auto const expected = script(direct);
  // The relay has rules, for another folder, and so is watching.
  auto relayed = relay({{Placement::Before, tree().string(), "x", EntryType::File, 0644U, 1U, 2U, {}}});
  EXPECT_EQ(script(relayed), expected);
  EXPECT_GT(expected.size(), 100000U);
}

TEST_F(HostileRelay, AMebibyteGoesUpAndDownUnchanged) {
  auto const contents = randomBytes(kMebibyte, 11);
  writeFile(root() / "up.bin", contents);
  fs::create_directory(root() / "remote");
  fs::create_directory(root() / "local");
  auto const copy = [&](fs::path const& local, fs::path const& remote, ssh::TransferDirection direction) {
    auto server =
        startRelay(scratch_ / "relay", {{Placement::Before, tree().string(), "x", EntryType::File, 0644U, 1U, 2U, {}}});
    std::vector<ssh::FileLocations> items{
        {fl::i18n::utf8_to_ustring(local.string()), fl::i18n::utf8_to_ustring(remote.string())}};
    sftp::transfer(*server, "tester@local:0",
                   ssh::CopyFilesCommand(std::move(items), direction, ssh::TransferProtocol::SFTP, 0644), {});
  };
  copy(root() / "up.bin", root() / "remote" / "up.bin", ssh::TransferDirection::LocalToRemote);
  EXPECT_EQ(readFile(root() / "remote" / "up.bin"), contents);
  copy(root() / "local" / "down.bin", root() / "remote" / "up.bin", ssh::TransferDirection::RemoteToLocal);
  EXPECT_EQ(readFile(root() / "local" / "down.bin"), contents);
}

TEST_F(HostileRelay, BadRulesEndTheSessionWithTheirCauseInTheLog) {
  EXPECT_THROW(RawClient(startRelay(scratch_ / "relay", "before\t/r\tx\n")), ssh::SSHError);
  EXPECT_NE(relayLog().find(": rules line 1: has 3 fields, not 7 or 8 separated by tabs\n"), std::string::npos)
      << relayLog();

  auto const missing = (root() / "missing.txt").string();
  auto client = relay({{Placement::After, tree().string(), "x", EntryType::File, 0644U, CopiedFrom{missing}, 1U, {}}});
  EXPECT_THROW(client.list(tree().string()), ssh::SSHError);
  EXPECT_NE(relayLog().find(": cannot read the attributes of '" + missing + "': No such file or directory\n"),
            std::string::npos)
      << relayLog();
}

// ---- through a private sshd ----------------------------------------------------------------

class HostileSshd : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    base_ = new fs::path(TestSshd::makeTempDir());
    fs::create_directories(*base_ / "tree" / "sub");
    writeFile(*base_ / "tree" / "a.txt", "alpha\n");
    writeFile(*base_ / "outside.txt", "outside, 17 bytes");
    server_ = new HostileSftpServer(rules("../outside.txt"));
  }
  static void TearDownTestSuite() {
    delete server_;
    delete base_;
  }

  static std::vector<Rule> rules(std::string const& name) {
    auto const outside = CopiedFrom{(*base_ / "outside.txt").string()};
    return {{Placement::Before, (*base_ / "tree").string(), name, EntryType::File, 0644U, outside, outside, {}},
            {Placement::After, (*base_ / "tree").string(), "evil", EntryType::Symlink, 0777U, 4U, kRuledTime,
             "/tmp/sshfa-elsewhere"}};
  }

  // OpenSSH's sftp with `batch` against the server; standard output and error together.
  static std::string sftpClient(std::string const& batch) {
    auto const& sshd = server_->sshd();
    writeFile(*base_ / "batch", batch);
    return TestSshd::shell("sftp -F /dev/null -b " + (*base_ / "batch").string() + " -i " + sshd.identityFile() +
                           " -o UserKnownHostsFile=" + sshd.knownHostsFile() +
                           " -o StrictHostKeyChecking=yes -o BatchMode=yes -o IdentitiesOnly=yes -P " +
                           std::to_string(sshd.port()) + " " + sshd.user() + "@" + sshd.host() + " 2>&1");
  }

  static fs::path* base_;
  static HostileSftpServer* server_;
};

fs::path* HostileSshd::base_ = nullptr;
HostileSftpServer* HostileSshd::server_ = nullptr;

TEST_F(HostileSshd, OpenSshsClientRefusesTheSuspectPath) {
  auto const tree = (*base_ / "tree").string();
  auto const output = sftpClient("ls -1 " + tree + "\n");
  EXPECT_NE(output.find("Server sent suspect path \"../outside.txt\" during readdir of \"" + tree + "/\""),
            std::string::npos)
      << output;
  EXPECT_NE(output.find(tree + "/a.txt\n"), std::string::npos) << output;
  EXPECT_NE(output.find(tree + "/evil\n"), std::string::npos) << output;
  EXPECT_EQ(output.find(tree + "/../outside.txt"), std::string::npos) << output;
  EXPECT_NE(server_->log().find("listing of '" + tree + "/' rewritten: 2 entries added\n"), std::string::npos)
      << server_->log();
}

TEST_F(HostileSshd, NewRulesHoldForSessionsOpenedAfterwards) {
  auto const tree = (*base_ / "tree").string();
  server_->setRules(rules("sub/x"));
  auto const output = sftpClient("ls -1 " + tree + "\n");
  server_->setRules(rules("../outside.txt"));
  EXPECT_NE(output.find("Server sent suspect path \"sub/x\""), std::string::npos) << output;
  EXPECT_EQ(output.find("outside.txt"), std::string::npos) << output;
}

TEST_F(HostileSshd, FilesGoUpAndDownUnchanged) {
  auto const contents = randomBytes(kMebibyte, 13);
  writeFile(*base_ / "up.bin", contents);
  auto client = server_->sshd().connect();
  auto const u = [](fs::path const& p) { return fl::i18n::utf8_to_ustring(p.string()); };
  client->copyFiles(ssh::CopyFilesCommand({{u(*base_ / "up.bin"), u(*base_ / "tree" / "sub" / "remote.bin")}},
                                          ssh::TransferDirection::LocalToRemote, ssh::TransferProtocol::SFTP, 0644));
  EXPECT_EQ(readFile(*base_ / "tree" / "sub" / "remote.bin"), contents);
  client->copyFiles(ssh::CopyFilesCommand({{u(*base_ / "down.bin"), u(*base_ / "tree" / "sub" / "remote.bin")}},
                                          ssh::TransferDirection::RemoteToLocal, ssh::TransferProtocol::SFTP, 0644));
  EXPECT_EQ(readFile(*base_ / "down.bin"), contents);
}

}  // namespace
}  // namespace sshfa::testing
