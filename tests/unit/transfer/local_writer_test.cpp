// Small downloads made on this side by the writer's thread: bytes, mode and
// times as asked, an old file replaced whole, a failure named with its path
// and cause and no temporary left, nothing posted lost when the writer goes.

#include "sshfileaccess/platform/sshclient/internal/transfer/LocalWriter.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/unit/sftp/TransferFiles.hpp"

namespace foundation::sshclient::internal::transfer {
namespace {

namespace fs = std::filesystem;

class LocalWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "sshfa-writer-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    int error = 0;
    folder_ = LocalDir::open(dir_.string(), error);
    ASSERT_TRUE(folder_) << error;
  }
  void TearDown() override { fs::remove_all(dir_); }

  LocalWriter::File file(std::string const& name, std::string const& bytes, int key) {
    LocalWriter::File file;
    file.folder = folder_;
    file.name = name;
    file.destination = (dir_ / name).string();
    file.bytes = std::make_unique<std::uint8_t[]>(bytes.size());
    std::memcpy(file.bytes.get(), bytes.data(), bytes.size());
    file.length = bytes.size();
    file.kept = {0640U, 999999999U, 1000000000U};
    file.owner = this;
    file.key = reinterpret_cast<void*>(static_cast<std::uintptr_t>(key));
    return file;
  }

  // Every outcome of `count` files posted, by key.
  static std::vector<std::string> outcomes(LocalWriter& writer, std::size_t count) {
    std::vector<std::string> failures(count);
    while (writer.inHand() > 0) {
      writer.await();
      for (auto const& outcome : writer.take()) {
        failures.at(reinterpret_cast<std::uintptr_t>(outcome.key)) = outcome.failure;
      }
    }
    return failures;
  }

  std::set<std::string> names() const {
    std::set<std::string> names;
    for (auto const& entry : fs::directory_iterator(dir_)) names.insert(entry.path().filename().string());
    return names;
  }

  std::string content(std::string const& name) const { return sshfa::testing::readFile(dir_ / name); }

  fs::path dir_;
  std::shared_ptr<LocalDir> folder_;
};

TEST_F(LocalWriterTest, MakesEachFileWithItsBytesModeAndTimes) {
  std::string const big(LocalWriter::kLargest, 'b');
  LocalWriter writer(1);
  writer.post(file("a", std::string(100, 'a'), 0));
  writer.post(file("empty", "", 1));
  writer.post(file("big", big, 2));
  EXPECT_EQ(writer.inHand(), 3U);
  EXPECT_EQ(outcomes(writer, 3), (std::vector<std::string>{"", "", ""}));
  EXPECT_EQ(names(), (std::set<std::string>{"a", "big", "empty"}));
  // Before the reads, which may set the access time.
  struct stat st {};
  ASSERT_EQ(::stat((dir_ / "a").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777U, 0640U);
  EXPECT_EQ(st.st_mtim.tv_sec, 1000000000);
  EXPECT_EQ(st.st_mtim.tv_nsec, 0);
  EXPECT_EQ(st.st_atim.tv_sec, 999999999);
  EXPECT_EQ(content("a"), std::string(100, 'a'));
  EXPECT_EQ(content("empty"), "");
  EXPECT_EQ(content("big"), big);
}

TEST_F(LocalWriterTest, ReplacesAnOldFileWhole) {
  sshfa::testing::writeFile(dir_ / "a", "an old and longer version");
  LocalWriter writer(1);
  writer.post(file("a", "new", 0));
  EXPECT_EQ(outcomes(writer, 1), std::vector<std::string>{""});
  EXPECT_EQ(content("a"), "new");
  EXPECT_EQ(names(), std::set<std::string>{"a"});
}

TEST_F(LocalWriterTest, AFileThatCannotReplaceItsDestinationFailsAndLeavesNoTemporary) {
  fs::create_directories(dir_ / "a" / "inside");
  LocalWriter writer(1);
  writer.post(file("a", "data", 0));
  writer.post(file("b", "fine", 1));
  EXPECT_EQ(outcomes(writer, 2),
            (std::vector<std::string>{"cannot replace '" + (dir_ / "a").string() + "': Is a directory", ""}));
  EXPECT_EQ(names(), (std::set<std::string>{"a", "b"}));
  EXPECT_TRUE(fs::is_directory(dir_ / "a" / "inside"));
  EXPECT_EQ(content("b"), "fine");
}

TEST_F(LocalWriterTest, AFolderThatIsGoneFailsTheFileWithItsPath) {
  auto const gone = dir_ / "gone";
  fs::create_directory(gone);
  int error = 0;
  auto folder = LocalDir::open(gone.string(), error);
  ASSERT_TRUE(folder);
  fs::remove(gone);
  auto lost = file("x", "data", 0);
  lost.folder = folder;
  LocalWriter writer(1);
  writer.post(std::move(lost));
  auto const failures = outcomes(writer, 1);
  EXPECT_TRUE(failures[0].starts_with("cannot create '" + gone.string() + "/.x.sshfa-")) << failures[0];
  EXPECT_TRUE(failures[0].ends_with("': No such file or directory")) << failures[0];
}

TEST_F(LocalWriterTest, NothingPostedIsLostWhenTheWriterGoes) {
  {
    LocalWriter writer(1);
    for (int i = 0; i < 50; ++i) writer.post(file("f" + std::to_string(i), std::to_string(i), i));
  }
  EXPECT_EQ(names().size(), 50U);
  EXPECT_EQ(content("f49"), "49");
}

TEST_F(LocalWriterTest, AwaitingWithNothingInHandReturnsAtOnce) {
  LocalWriter writer(1);
  writer.await();
  EXPECT_TRUE(writer.take().empty());
}

}  // namespace
}  // namespace foundation::sshclient::internal::transfer
