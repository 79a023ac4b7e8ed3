#include "sshfileaccess/FileAccessException.hpp"

#include <gtest/gtest.h>

#include <boost/exception/get_error_info.hpp>
#include <memory>

namespace {

using nimbal::remoteaccess::sshfileaccess::FileAccessException;
using Code = FileAccessException::Code;

TEST(FileAccessException, UstringMessageComesBackUnchangedAndAsUtf8) {
  const FileAccessException e(std::u16string(u"caf\u00E9 \u20AC \U0001F600"), Code::RemoteError);
  EXPECT_EQ(e.ToUstringImpl(), u"caf\u00E9 \u20AC \U0001F600");
  EXPECT_EQ(e.ToUstring(), u"caf\u00E9 \u20AC \U0001F600");
  EXPECT_STREQ(e.what(), "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(e.code(), Code::RemoteError);
}

TEST(FileAccessException, EightBitMessageIsKeptByteForByte) {
  const std::string bytes = "bad \xFF\xFE utf8 \xC3";
  const FileAccessException e(bytes, Code::LocalError);
  EXPECT_EQ(std::string(e.what()), bytes);
  EXPECT_EQ(e.code(), Code::LocalError);
}

TEST(FileAccessException, CaughtAsStdExceptionReportsTheSameText) {
  try {
    throw FileAccessException(std::u16string(u"gr\u00FC\u00DF"), Code::LocalError);
  } catch (std::exception const& e) {
    EXPECT_STREQ(e.what(), "gr\xC3\xBC\xC3\x9F");
    return;
  }
  FAIL() << "not caught";
}

TEST(FileAccessException, CaughtAsFrameworkInterfaceReportsTheSameText) {
  try {
    throw FileAccessException(std::string("x"), Code::RemoteError);
  } catch (foundation::core::except::IException const& e) {
    EXPECT_STREQ(e.what(), "x");
    EXPECT_EQ(e.ToUstring(), u"x");
    return;
  }
  FAIL() << "not caught";
}

TEST(FileAccessException, HeapCopyPreservesMessageAndCode) {
  const FileAccessException e(std::string("m\xC3\xA9"), Code::RemoteError);
  std::unique_ptr<foundation::core::except::IException> copy(e.clone());
  auto const* typed = dynamic_cast<FileAccessException const*>(copy.get());
  ASSERT_NE(typed, nullptr);
  EXPECT_STREQ(typed->what(), "m\xC3\xA9");
  EXPECT_EQ(typed->code(), Code::RemoteError);
}

TEST(FileAccessException, RethrowPreservesMessageAndCode) {
  const FileAccessException e(std::u16string(u"again"), Code::LocalError);
  try {
    e.rethrow();
  } catch (FileAccessException const& r) {
    EXPECT_STREQ(r.what(), "again");
    EXPECT_EQ(r.code(), Code::LocalError);
    EXPECT_NE(&r, &e);
    return;
  }
  FAIL() << "not rethrown";
}

TEST(FileAccessException, CopyConstructionAndConvertStr) {
  const FileAccessException e(std::string("t"), Code::RemoteError);
  const FileAccessException c = e;  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_STREQ(c.what(), "t");
  EXPECT_EQ(c.code(), Code::RemoteError);
  EXPECT_EQ(c.convert_str(std::string("\xC3\xA9")), u"\u00E9");
  EXPECT_EQ(c.convert_str(std::u16string(u"\u00E9")), u"\u00E9");
}

TEST(FileAccessException, StartsWithoutErrorInformation) {
  const FileAccessException e(std::string("t"), Code::LocalError);
  EXPECT_EQ(boost::get_error_info<boost::throw_line>(e), nullptr);
  EXPECT_EQ(boost::get_error_info<boost::throw_file>(e), nullptr);
  EXPECT_EQ(boost::get_error_info<boost::throw_function>(e), nullptr);
}

TEST(FileAccessException, EmptyMessageIsAllowed) {
  const FileAccessException e(std::string(), Code::LocalError);
  EXPECT_STREQ(e.what(), "");
}

}  // namespace
