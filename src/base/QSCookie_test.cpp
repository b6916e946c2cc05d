#include "base/QSCookie.h"

#include <gtest/gtest.h>

namespace qs {
namespace {

TEST(QSCookieTest, FireDateLiesAtEightyPercentOfTheTimeToLive) {
  EXPECT_EQ(QSCookie("_qs", "T", Value("300"), 1000).ttlFireDate(), 1240);
  EXPECT_EQ(QSCookie("_qs", "T", Value(300), 1000).ttlFireDate(), 1240);
  EXPECT_EQ(QSCookie("_qs", "T", Value(" 300abc"), 1000).ttlFireDate(), 1240);
  for (const Value& nothing : {Value("0"), Value("abc"), Value(), Value("nan"), Value("1e999")}) {
    QSCookie c("_qs", "T", nothing, 1000);
    EXPECT_EQ(c.ttlFireDate(), 1000) << nothing.dump();
    EXPECT_FALSE(c.ttlExpired(1000));
    EXPECT_TRUE(c.ttlExpired(1000.001));
  }
}

TEST(QSCookieTest, LevelsDescriptionAndCoder) {
  EXPECT_EQ(QSCookie::cookieLevelFrom("_qs"), 1u);
  EXPECT_EQ(QSCookie::cookieLevelFrom("_qs3"), 3u);
  for (const auto& name : {std::optional<std::string>("_QS3"), std::optional<std::string>()}) {
    EXPECT_EQ(QSCookie::cookieLevelFrom(name), 18446744073709551615ull);
  }
  QSCookie c("_qs2", "TOK", 0.0);
  EXPECT_EQ(c.description(), "Cookie: Name=_qs2 ttlFireDate=1970-01-01 00:00:00 +0000 Token=TOK");
  EXPECT_EQ(QSCookie::initWithCoder(c.encodeWithCoder()), c);
  EXPECT_FALSE(QSCookie::initWithCoder(Value{{"name", "_qs"}, {"token", 5}}).has_value());
  EXPECT_FALSE(QSCookie::initWithCoder(Value("x")).has_value());
}

TEST(QSCookieTest, LenientNumbers) {
  EXPECT_EQ(integerValue(" -12abc"), -12);
  EXPECT_EQ(integerValue("+7"), 7);
  EXPECT_EQ(integerValue("word"), 0);
  EXPECT_EQ(integerValue(""), 0);
  EXPECT_EQ(integerValue("99999999999999999999999"), std::numeric_limits<long long>::max());
  EXPECT_EQ(integerValue("-99999999999999999999999"), std::numeric_limits<long long>::min());
  EXPECT_DOUBLE_EQ(doubleValue("2.5e2x"), 250);
  EXPECT_DOUBLE_EQ(doubleValue(".5"), 0.5);
  EXPECT_DOUBLE_EQ(doubleValue("-"), 0);
}

}  // namespace
}  // namespace qs
