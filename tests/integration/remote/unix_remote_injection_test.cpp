// Names written to run a command if a shell ever read them as code: every
// operation must act on the literal name, and the marker file INJ must never
// appear, neither in the test folder nor in the login folder where the
// commands run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/integration/remote/RemoteHost.hpp"

namespace sshfa::testing {
namespace {

using ::testing::Contains;

struct Payload {
  const char* label;
  ustring name;
};

void PrintTo(Payload const& payload, std::ostream* out) { *out << payload.label; }

const Payload kPayloads[] = {
    {"Backticks", u"`touch INJ`"},
    {"DollarParen", u"$(touch INJ)"},
    {"Semicolon", u";touch INJ"},
    {"QuoteBreakout", u"x' ; touch INJ ; '"},
    {"EscapedQuoteBreakout", u"x\\' ; touch INJ ; \\'"},
    {"DoubleQuoteBreakout", u"x\" ; touch INJ ; \""},
    {"AndAnd", u"&& touch INJ"},
    {"Pipe", u"| touch INJ"},
    {"Background", u"& touch INJ &"},
    {"Redirect", u">INJ"},
    {"LineFeeds", u"a\ntouch INJ\n#"},
    {"CarriageReturn", u"a\rtouch INJ\rb"},
    {"OptionLike", u"--use-compress-program=touch INJ"},
};

class Injection : public RemoteHostTest, public ::testing::WithParamInterface<Payload> {
 protected:
  void TearDown() override {
    const ustring found = run(u"find " + hostWord(dir_) + u" -name INJ; find ~ -maxdepth 1 -name INJ");
    EXPECT_EQ(found, u"") << "a payload ran as a command";
    // Never leave a marker behind for the next payload.
    if (!found.empty()) run(u"find " + hostWord(dir_) + u" -name INJ -delete; rm -f ~/INJ");
  }
  [[nodiscard]] bool hasLineFeed() const { return GetParam().name.find(u'\n') != ustring::npos; }
};

TEST_P(Injection, QueriesAndListings) {
  const ustring name = GetParam().name;
  const ustring file = at(name);
  EXPECT_FALSE(remote_->exists(file));
  hostWrite(file, "abc");
  EXPECT_TRUE(remote_->exists(file));
  EXPECT_TRUE(remote_->isFile(file));
  EXPECT_FALSE(remote_->isDir(file));
  EXPECT_THAT(remote_->exists(Paths{file, file}), ::testing::ElementsAre(true, true));
  const auto listed = remote_->list(dir_);
  const auto found = remote_->listRecursively(Paths{dir_, file});
  if (hasLineFeed()) {
    EXPECT_EQ(listed.size(), 3U);
    EXPECT_EQ(found.size(), 6U);
    EXPECT_EQ(remoteErrorOf([&] { remote_->getFileInfo(file); }), "Failed to parse output of stat");
  } else {
    EXPECT_THAT(listed, ::testing::ElementsAre(file));
    EXPECT_THAT(found, ::testing::ElementsAre(file, file));
    const auto info = remote_->getFileInfo(file);
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->path, file);
    EXPECT_EQ(info->size, 3U);
  }
}

TEST_P(Injection, Mutations) {
  const ustring name = GetParam().name;
  const ustring file = at(name);
  const ustring folder = at(name + u".d/" + name);
  remote_->touch(file);
  EXPECT_TRUE(hostIsFile(file));
  remote_->makeDir(folder);
  EXPECT_TRUE(hostIsDir(folder));
  remote_->copy(file, folder + u"/" + name + u"/" + name);
  EXPECT_TRUE(hostIsFile(folder + u"/" + name + u"/" + name));
  remote_->copy(Pairs{{file, at(u"copy " + name)}});
  EXPECT_TRUE(hostIsFile(at(u"copy " + name)));
  remote_->move(at(u"copy " + name), folder + u"/moved " + name);
  EXPECT_TRUE(hostIsFile(folder + u"/moved " + name));
  EXPECT_FALSE(hostExists(at(u"copy " + name)));
  remote_->remove(Paths{file, at(name + u".d")});
  EXPECT_FALSE(hostExists(file));
  EXPECT_FALSE(hostExists(at(name + u".d")));
  EXPECT_EQ(hostCount(dir_), 0U);
}

TEST_P(Injection, Archives) {
  const ustring name = GetParam().name;
  const ustring folder = at(name + u" dir");
  hostMakeDir(folder);
  hostWrite(folder + u"/" + name, "abc");
  const ustring tarFile = at(name + u".tar");
  const ustring zipFile = at(name + u".zip");
  const ustring out = at(name + u" out");

  const auto attempt = [](auto&& action) {
    // An option-like final name is refused by the tool itself; that is fine
    // here, as long as nothing runs.
    try {
      action();
    } catch (FileAccessException const& e) {
      EXPECT_EQ(e.code(), FileAccessException::Code::RemoteError);
      return false;
    }
    return true;
  };
  remote_->makeDir(out);
  if (attempt([&] { remote_->tar(folder, tarFile); })) {
    remote_->untar(tarFile, out);
    EXPECT_EQ(hostRead(out + u"/" + name + u" dir/" + name), u"abc");
  }
  if (attempt([&] { remote_->zip(folder, zipFile); }) && hostExists(zipFile)) {
    attempt([&] { remote_->unzip(zipFile, out + u"/zip"); });
    EXPECT_TRUE(hostIsDir(out + u"/zip"));
  }
}

INSTANTIATE_TEST_SUITE_P(Payloads, Injection, ::testing::ValuesIn(kPayloads),
                         [](::testing::TestParamInfo<Payload> const& param) { return std::string(param.param.label); });

}  // namespace
}  // namespace sshfa::testing
