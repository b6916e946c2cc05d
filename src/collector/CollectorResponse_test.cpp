#include "collector/CollectorResponse.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace qs {
namespace {

constexpr double kNow = 1'700'000'000;

class CollectorResponseTest : public ::testing::Test {
 protected:
  // Parses a body whose "do" array holds `commands`; fails the test on error.
  CollectorResponse parse(std::initializer_list<const char*> commands) {
    Value body = {{"do", Value::array()}};
    for (const char* command : commands) body["do"].push_back(command);
    std::string error;
    auto response = CollectorResponse::initWithCollectorResponse(body, kNow, &error);
    EXPECT_TRUE(response) << error;
    return response.value_or(CollectorResponse());
  }

  // The reason a body stops the parse, or "" when it does not.
  std::string failure(const Value& body) {
    std::string error;
    auto response = CollectorResponse::initWithCollectorResponse(body, kNow, &error);
    return response ? "" : error;
  }
};

TEST_F(CollectorResponseTest, FourCommandsInEitherOrder) {
  for (bool reversed : {false, true}) {
    SCOPED_TRACE(reversed);
    CollectorResponse r =
        reversed ? parse({"bake|_qs3|x|T3|y|600", "bake|_qs2|x|T2|y|300", "vid|B", "sid|A"})
                 : parse({"sid|A", "vid|B", "bake|_qs2|x|T2|y|300", "bake|_qs3|x|T3|y|600"});
    EXPECT_EQ(r.sid(), "A");
    EXPECT_EQ(r.vid(), "B");
    ASSERT_TRUE(r.cookie());
    EXPECT_EQ(r.cookie()->name(), "_qs3");
    EXPECT_EQ(r.cookie()->token(), "T3");
    EXPECT_DOUBLE_EQ(r.cookie()->ttlFireDate(), kNow + 480);
    EXPECT_FALSE(r.challenge());
  }
}

TEST_F(CollectorResponseTest, CookieLevelRule) {
  // Equal levels keep the first.
  EXPECT_EQ(parse({"bake|_qs2|x|first|y|1", "bake|_qs2|x|second|y|1"}).cookie()->token(), "first");
  // An unknown name outranks every known one, in either order; among
  // unknown names the first stays.
  EXPECT_EQ(parse({"bake|_qs3|x|known|y|1", "bake|other|x|odd|y|1"}).cookie()->token(), "odd");
  EXPECT_EQ(parse({"bake|_QS3|x|odd|y|1", "bake|_qs3|x|known|y|1"}).cookie()->token(), "odd");
  EXPECT_EQ(parse({"bake||x|first|y|1", "bake|zz|x|second|y|1"}).cookie()->token(), "first");
  // Later sid and vid overwrite earlier ones; extra fields are ignored.
  CollectorResponse r = parse({"sid|1", "sid|2|extra", "vid|", "bake|_qs|a|t|b|c|d|e"});
  EXPECT_EQ(r.sid(), "2");
  EXPECT_EQ(r.vid(), "");
  EXPECT_EQ(r.cookie()->ttlFireDate(), kNow);  // "c" is no number: zero time to live
}

TEST_F(CollectorResponseTest, ChallengeCommands) {
  CollectorResponse r = parse({"appc|t0|1|h0|u0", "appc|t1|42|h|u"});
  ASSERT_TRUE(r.challenge());
  EXPECT_EQ(r.challenge()->type(), "t1");
  EXPECT_EQ(r.challenge()->timestamp(), Value(42));
  EXPECT_TRUE(r.challenge()->timestamp()->is_number_integer());  // sent as "42", not "42.0"
  EXPECT_EQ(r.challenge()->signedHash(), "h");
  EXPECT_EQ(r.challenge()->uuid(), "u");
  EXPECT_EQ(r.challenge()->description(), "QSChallenge: type=t1 timestamp=42 uuid=u");

  r = parse({"appc|t1|abc|h|u"});
  ASSERT_TRUE(r.challenge());
  EXPECT_EQ(r.challenge()->timestamp(), std::nullopt);
  EXPECT_EQ(r.challenge()->uuid(), "u");

  // Too short to be read: skipped, like unknown commands and non-strings.
  EXPECT_EQ(parse({"appc|t1|1|h", "bake|_qs|x", "SID|x", "", "|"}), CollectorResponse());
  Value mixed = {{"do", {7, nullptr, Value::object(), "sid|S"}}};
  EXPECT_EQ(CollectorResponse::initWithCollectorResponse(mixed, kNow, nullptr)->sid(), "S");
}

TEST_F(CollectorResponseTest, TimestampReadsLikeADecimalFormatter) {
  auto number = QSChallenge::numberFromDecimalText;
  EXPECT_EQ(number("1700000000123"), Value(1700000000123));
  EXPECT_EQ(number("-7"), Value(-7));
  EXPECT_EQ(number("1,234,567"), Value(1234567));
  EXPECT_EQ(number("2.0"), Value(2));
  EXPECT_EQ(number("2.5"), Value(2.5));
  EXPECT_EQ(number(".5"), Value(0.5));
  EXPECT_TRUE(number("99999999999999999999")->is_number_float());
  for (const char* bad : {"", "-", ".", "abc", "12a", "1 ", " 1", "1e5", "1,23", ",123", "0x10",
                          "nan", "inf", "1.2.3"}) {
    EXPECT_EQ(number(bad), std::nullopt) << bad;
  }
}

TEST_F(CollectorResponseTest, CommandsTooShortForTheirReadStopTheParse) {
  EXPECT_EQ(failure({{"do", {"sid|A", "sid"}}}),
            "collector command \"sid\" has 1 field, field 1 is read");
  EXPECT_EQ(failure({{"do", {"bake|_qs|x|T"}}}),
            "collector command \"bake\" has 4 fields, field 5 is read");
  EXPECT_NE(failure({{"do", {"bake|_qs|x|T|y"}}}), "");
  // A null error pointer is allowed.
  EXPECT_FALSE(CollectorResponse::initWithCollectorResponse(Value{{"do", {"sid"}}}, kNow, nullptr));
}

TEST_F(CollectorResponseTest, BodiesWithoutCommandsGiveAnEmptyRecord) {
  for (const Value& body :
       {Value(), Value(3), Value("do"), Value::array({"sid|A"}), Value{{"other", 1}},
        Value{{"do", "sid|A"}}, Value{{"do", {{"a", 1}}}}}) {
    EXPECT_EQ(CollectorResponse::initWithCollectorResponse(body, kNow, nullptr),
              CollectorResponse())
        << body.dump();
  }
  EXPECT_EQ(CollectorResponse::initWithCollectorResponse(std::nullopt, kNow, nullptr),
            CollectorResponse());
}

TEST_F(CollectorResponseTest, CoderAndDescription) {
  CollectorResponse r = parse({"sid|S", "bake|_qs2|x|T|y|100", "appc|t|1.5|h|u"});
  EXPECT_EQ(CollectorResponse::initWithCoder(r.encodeWithCoder()), r);
  EXPECT_EQ(r.encodeWithCoder()["challenge"]["timestamp"], Value(1.5));
  EXPECT_EQ(r.description(),
            "CollectorResponse: sid=S vid=(null) Cookie: Name=_qs2 ttlFireDate=2023-11-14 "
            "22:14:40 +0000 Token=T");
  EXPECT_EQ(CollectorResponse().description(), "CollectorResponse: sid=(null) vid=(null) (null)");
  EXPECT_EQ(CollectorResponse::initWithCoder(Value::object()), CollectorResponse());
  EXPECT_FALSE(CollectorResponse::initWithCoder(Value{{"sid", 3}}));
  EXPECT_FALSE(CollectorResponse::initWithCoder(Value{{"challenge", {{"type", "t"}}}}));
  EXPECT_FALSE(CollectorResponse::initWithCoder(Value{{"cookie", "x"}}));
}

}  // namespace
}  // namespace qs
