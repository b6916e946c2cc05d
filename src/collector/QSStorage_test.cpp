#include "collector/QSStorage.h"

#include <gtest/gtest.h>

#include "FakePlatform.h"
#include "activity/QSUtils.h"

namespace qs {
namespace {

class QSStorageTest : public ::testing::Test {
 protected:
  fake::FakePlatform fake;
  std::shared_ptr<QSStorage> storage =
      std::make_shared<QSStorage>(fake.store, fake.archiver, fake.log);
};

TEST_F(QSStorageTest, CookieRoundTripsThroughTheOneElementArchive) {
  QSCookie cookie("_qs3", "T", Value("300"), 1000);
  storage->saveCookie(cookie);
  auto stored = fake.store->objectForKey(QSStorage::kCookieKey);
  ASSERT_TRUE(stored && stored->is_array() && stored->size() == 1 && (*stored)[0].is_binary());

  // Read back by a second storage object, so the value comes from the store.
  QSStorage other(fake.store, fake.archiver, fake.log);
  auto back = other.getCookie();
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(*back, cookie);
  EXPECT_EQ(back->ttlFireDate(), 1240);
  EXPECT_FALSE(back->ttl().has_value());

  storage->saveCookie(std::nullopt);
  EXPECT_TRUE(fake.store->hasPersisted(QSStorage::kCookieKey));
  EXPECT_FALSE(other.getCookie().has_value());
}

TEST_F(QSStorageTest, ValuesOfTheWrongKindReadAsAbsentAndAreLogged) {
  fake.store->setObject(QSStorage::kCookieKey, Value("not an archive"));
  fake.store->setObject(QSStorage::kSidKey, Value(42));
  fake.store->setObject(QSStorage::kResumeCounterKey, Value("three"));
  fake.store->setObject(QSStorage::kCustomParamsKey, Value::array({1}));
  EXPECT_FALSE(storage->getCookie().has_value());
  EXPECT_FALSE(storage->getSid().has_value());
  EXPECT_FALSE(storage->getAppResumeCounter().has_value());
  EXPECT_FALSE(storage->getCustomParams().has_value());
  EXPECT_EQ(fake.log->count("wrong kind"), 4u);

  Value garbage = Value::array();
  garbage.push_back(Value::binary({0xde, 0xad, 0xbe, 0xef}));
  fake.store->setObject(QSStorage::kCookieKey, garbage);
  EXPECT_FALSE(storage->getCookie().has_value());
  EXPECT_TRUE(fake.log->contains("not a readable archive"));
}

TEST_F(QSStorageTest, ResetClearsIdentityButKeepsCustomParameters) {
  QSUtils utils(fake.platform(), storage);
  storage->saveSid("S");
  storage->saveVid("V");
  storage->saveCookie(QSCookie("_qs", "T", Value(10), 0));
  storage->saveAppResumeCounter(Value(4));
  storage->saveCustomParams(Value{{"k", "v"}});
  utils.resetQSStorage();
  EXPECT_FALSE(storage->getSid() || storage->getVid() || storage->getCookie() ||
               storage->getAppResumeCounter());
  EXPECT_EQ(storage->getCustomParams(), (Value{{"k", "v"}}));
  EXPECT_EQ(fake.store->synchronizeCount(), 1u);
}

TEST_F(QSStorageTest, ReplacementRuleComparesTokensOnly) {
  QSUtils utils(fake.platform(), storage);
  EXPECT_TRUE(utils.shouldSaveNewCookie(QSCookie("_qs", "T", Value(10), 0)));
  storage->saveCookie(QSCookie("_qs", "T", Value(10), 0));
  EXPECT_FALSE(utils.shouldSaveNewCookie(QSCookie("_qs3", "T", Value(999), 50)));
  EXPECT_TRUE(fake.log->contains("cookies are the same, there is no point in saving"));
  EXPECT_TRUE(utils.shouldSaveNewCookie(QSCookie("_qs", "U", Value(10), 0)));
}

}  // namespace
}  // namespace qs
