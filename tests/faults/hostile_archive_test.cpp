// Archives built to write outside their destination: members named "../x"
// and "/absolute/x", and a member written through a symbolic link to ".."
// that the archive created first. Unpacked on the remote host by its tar and
// unzip, they write nothing outside the destination folder; the operation
// reports the tool's complaint. The same holds for the sshfa tool on both
// sides: its remote unzip (with -o, to replace existing files) and its local
// unpacking.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/faults/FaultSupport.hpp"
#include "tests/integration/remote/RemoteHost.hpp"

namespace sshfa::testing {
namespace {

class HostileArchive : public ::testing::Test {
 protected:
  void SetUp() override {
    // Python's tarfile and zipfile write what GNU tar and Info-ZIP zip refuse to.
    TestSshd::shell("cd '" + base_.string() +
                    "' && python3 - 2>&1 <<'EOF'\n"
                    "import io, tarfile, zipfile\n"
                    "def member(t, name, data=b'x'):\n"
                    "    info = tarfile.TarInfo(name); info.size = len(data); t.addfile(info, io.BytesIO(data))\n"
                    "with tarfile.open('evil.tar', 'w') as t:\n"
                    "    member(t, '../escaped-dotdot')\n"
                    "    member(t, '" +
                    (base_ / "escaped-absolute").string() +
                    "')\n"
                    "    link = tarfile.TarInfo('link'); link.type = tarfile.SYMTYPE; link.linkname = '..'\n"
                    "    t.addfile(link)\n"
                    "    member(t, 'link/escaped-via-link')\n"
                    "    member(t, 'inside')\n"
                    "with zipfile.ZipFile('evil.zip', 'w') as z:\n"
                    "    z.writestr('../escaped-zip-dotdot', 'x')\n"
                    "    z.writestr('" +
                    (base_ / "escaped-zip-absolute").string() +
                    "', 'x')\n"
                    "    link = zipfile.ZipInfo('zlink'); link.external_attr = 0o120777 << 16\n"
                    "    z.writestr(link, '..')\n"
                    "    z.writestr('zlink/escaped-zip-via-link', 'x')\n"
                    "    z.writestr('inside', 'x')\n"
                    "EOF\n");
    fs::create_directories(base_ / "out");
    remote_ = std::make_unique<FileAccess>(connect(TestSshd::instance(), TestSshd::instance().options()));
  }

  // What the unpacking left outside its destination: only the archives.
  void expectNothingOutside() const {
    EXPECT_THAT(namesIn(base_), ::testing::ElementsAre("evil.tar", "evil.zip", "out"));
    for (auto const& entry : fs::recursive_directory_iterator(base_ / "out")) {
      EXPECT_EQ(entry.path().filename().string().find("escaped-via"), std::string::npos) << entry.path();
    }
  }

  fs::path base_ = TestSshd::makeTempDir();
  std::unique_ptr<FileAccess> remote_;
};

TEST_F(HostileArchive, TarWritesNothingOutsideTheDestination) {
  auto const message = remoteErrorOf(
      [&] { remote_->remote()->untar(str2ustr((base_ / "evil.tar").string()), str2ustr((base_ / "out").string())); });
  EXPECT_THAT(message, ::testing::HasSubstr("tar: ../escaped-dotdot: Member name contains '..'"));
  expectNothingOutside();
  EXPECT_EQ(readFile(base_ / "out" / "inside"), "x");
}

TEST_F(HostileArchive, ZipWritesNothingOutsideTheDestination) {
  auto const message = remoteErrorOf(
      [&] { remote_->remote()->unzip(str2ustr((base_ / "evil.zip").string()), str2ustr((base_ / "out").string())); });
  EXPECT_THAT(message, ::testing::HasSubstr("unable to process zlink/escaped-zip-via-link."));
  expectNothingOutside();
  EXPECT_EQ(readFile(base_ / "out" / "inside"), "x");
}

TEST_F(HostileArchive, TheToolWritesNothingOutsideTheDestinationOnEitherSide) {
  for (bool const remote : {false, true}) {
    for (std::string const command : {"untar", "unzip"}) {
      auto const archive = (base_ / (command == "untar" ? "evil.tar" : "evil.zip")).string();
      auto const args = joined(remote ? toolConnection(TestSshd::instance()) : std::vector<std::string>{"--local"},
                               {command, archive, (base_ / "out").string()});
      auto const result = runTool(args);
      EXPECT_EQ(result.status, 1) << command << (remote ? " remote" : " local");
      EXPECT_THAT(result.err, ::testing::StartsWith("sshfa: " + command + ": ")) << result.err;
      expectNothingOutside();
    }
  }
}

}  // namespace
}  // namespace sshfa::testing
