#include "sshfileaccess/platform/log/Logger.hpp"

#include <gtest/gtest.h>

#include "sshfileaccess/Utils.hpp"
#include "tests/support/LogCapture.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)

TEST(GetLogger, ReturnsOneObjectOnTheLibraryChannel) {
  Logger& a = getLogger();
  Logger& b = getLogger();
  EXPECT_EQ(&a, &b);
  EXPECT_EQ(a.channel(), "nimbal::remoteaccess::sshfileaccess");
}

TEST(Logger, NothingIsEnabledByDefault) {
  auto fresh = nimbal::logging::createChannelLogger("test::fresh");
  EXPECT_EQ(fresh->enabledSeverities(), 0U);
  EXPECT_FALSE(fresh->isEnabled(4));
  EXPECT_FALSE(fresh->isEnabled(16));
}

TEST(Logger, MaskTestsSingleBits) {
  auto l = nimbal::logging::createChannelLogger("test::mask");
  l->setEnabledSeverities(4 | 16);
  EXPECT_TRUE(l->isEnabled(4));
  EXPECT_TRUE(l->isEnabled(16));
  EXPECT_FALSE(l->isEnabled(8));
}

TEST(LogRecord, DisabledSeverityBuildsNoText) {
  sshfa::testing::LogCapture capture(16);
  int built = 0;
  logRecord(kTraceSeverity, [&] {
    ++built;
    return std::string("never");
  });
  EXPECT_EQ(built, 0);
  EXPECT_TRUE(capture.records().empty());
}

TEST(LogRecord, EnabledSeverityWritesOneRecordOnTheChannel) {
  sshfa::testing::LogCapture capture(4);
  logRecord(kTraceSeverity, [] { return std::string("hello \xC3\xA9"); });
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].severity, 4U);
  EXPECT_EQ(records[0].channel, "nimbal::remoteaccess::sshfileaccess");
  EXPECT_EQ(records[0].text, "hello \xC3\xA9");
}

}  // namespace
