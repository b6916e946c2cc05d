#include "activity/QSUtils.h"

#include <gtest/gtest.h>

#include "FakePlatform.h"

namespace qs {
namespace {

TEST(QSUtilsTest, DeviceModelTableAndFallbacks) {
  const std::pair<const char*, const char*> cases[] = {
      {"iPhone9,3", "iPhone 7"}, {"iPad6,8", "iPad Pro (12.9\")"}, {"iPhone10,1", "iPhone"},
      {"iPad7,3", "iPad"},       {"iPod9,1", "iPod Touch"},        {"AppleTV5,3", "Unknown"},
      {"i386", "Simulator"},     {"x86_64", "Simulator"},          {"iPadiPod", "iPod Touch"},
      {"iPad3,1", "iPad"},       {"iPhone8,1", "iPhone 6S"},       {"aarch64", "Unknown"},
  };
  for (const auto& [machine, model] : cases) {
    EXPECT_EQ(QSUtils::deviceModelFor(machine), model) << machine;
  }
  EXPECT_EQ(QSUtils::deviceModelFor("iPad6,3").size(), 15u);
}

TEST(QSUtilsTest, Sha1HexAndJsonReading) {
  fake::FakePlatform fake;
  auto storage = std::make_shared<QSStorage>(fake.store, fake.archiver, fake.log);
  QSUtils utils(fake.platform(), storage);
  EXPECT_EQ(utils.sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(utils.sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_FALSE(QSUtils::dictionaryFromData(std::nullopt));
  EXPECT_FALSE(QSUtils::dictionaryFromData(""));
  EXPECT_FALSE(QSUtils::dictionaryFromData("{nope"));
  EXPECT_EQ(QSUtils::dictionaryFromData("{\"do\":[]}"), (Value{{"do", Value::array()}}));

  // Readings before any start stay 0; tiny readings truncate to 0.
  utils.stopTimerForManagerStart();
  EXPECT_EQ(utils.managerExecutionTime(), 0);
  utils.startTimerForManagerStart();
  fake.clock->advance(0.0004);
  utils.stopTimerForManagerStart();
  EXPECT_EQ(utils.managerExecutionTime(), 0);
}

}  // namespace
}  // namespace qs
