#include "activity/QSUtils.h"

#include <gtest/gtest.h>

#include "FakePlatform.h"

namespace qs {
namespace {

TEST(QSUtilsTest, DeviceModelTableThenFallbacksInOrder) {
  for (auto [machine, model] : {std::pair{"iPhone9,3", "iPhone 7"},
                                {"x86_64", "Simulator"},
                                {"iPhone10,1", "iPhone"},
                                {"iPad7,3", "iPad"},
                                {"iPod9,1", "iPod Touch"},
                                {"iPadiPod", "iPod Touch"},
                                {"AppleTV5,3", "Unknown"},
                                {"aarch64", "Unknown"}}) {
    EXPECT_EQ(QSUtils::deviceModelFor(machine), model) << machine;
  }
}

TEST(QSUtilsTest, Sha1HexJsonReadingAndTimers) {
  fake::FakePlatform fake;
  QSUtils utils(fake.platform(), std::make_shared<QSStorage>(fake.store, fake.archiver, fake.log));
  EXPECT_EQ(utils.sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_FALSE(QSUtils::dictionaryFromData(std::nullopt));
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
