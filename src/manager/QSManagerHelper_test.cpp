#include "manager/QSManagerHelper.h"

#include "base/PercentEncoding.h"

#include "CoreFixture.h"
#include "quarrystone/Constants.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

class QSManagerHelperTest : public CoreTest {
 protected:
  void SetUp() override {
    manager->startWith("app1");
    fake.http->setResponder([](const HttpRequest&) {
      return fake::FakeReply::json("{}");  // nothing new: the manager becomes ready
    });
    fake.http->respondNext(fake::FakeReply::json("{}"));
    fake.mainLoop->runUntilIdle();
    fake.log->clear();
  }
  std::size_t posts() const { return collectorPosts().size(); }
};

// Token renewal arms the app-idle timer (an idle activity at the cookie's fire
// date); the app-init timer sends a new session after 60 s. They share one
// slot: arming either cancels the pending other, which then never fires.
TEST_F(QSManagerHelperTest, EachTriggerArmsItsTimerAndCancelsThePendingOne) {
  const double t0 = fake.clock->now();
  ASSERT_DOUBLE_EQ(fake.mainLoop->nextFireTime(), t0 + 60);  // app-init after the first answer
  const std::size_t before = posts();
  helper().setTimerForTokenRenew(QSCookie("_qs3", "T", Value("100"), t0));  // fires at 80 s
  fake.mainLoop->runUntilIdle();
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), 1u);
  fake.mainLoop->advance(79.9);
  EXPECT_EQ(posts(), before) << "the app-init timer armed by the first answer was cancelled";
  fake.mainLoop->advance(0.1);
  ASSERT_EQ(posts(), before + 1);
  EXPECT_EQ(lastPost().type(), QSFM_APP_IDLE);
  EXPECT_EQ(lastPost().details()[QSFM_APP_STATE], "idle");
  EXPECT_TRUE(fake.log->contains(
      "set a new timer, it will send app_idle activity in 80.000000 seconds, 1.33 minutes"));

  helper().setTimerForAppIdleActivity(30);
  fake.mainLoop->runUntilIdle();
  helper().setTimerForAppInitActivity();
  fake.mainLoop->runUntilIdle();
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), 1u);
  EXPECT_DOUBLE_EQ(fake.mainLoop->nextFireTime(), fake.clock->now() + 60);
  fake.mainLoop->advance(59.9);
  EXPECT_EQ(posts(), before + 1) << "the idle timer was cancelled";
  fake.mainLoop->advance(0.1);
  ASSERT_EQ(posts(), before + 2);
  EXPECT_EQ(lastPost().type(), QSFM_APP_INIT);
  EXPECT_EQ(lastPost().details()[QSFM_APP_STATE], "new_session");

  // Two requests within one turn of the main loop both find no valid timer:
  // both get scheduled and fire, only the later one is referenced.
  helper().setTimerForAppIdleActivity(10);
  helper().setTimerForAppIdleActivity(20);
  fake.mainLoop->runUntilIdle();
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), 2u);
  fake.mainLoop->advance(20);
  EXPECT_EQ(posts(), before + 4);

  // A renewal whose fire date has passed sends the idle activity at once.
  helper().setTimerForTokenRenew(QSCookie("_qs3", "T", Value("0"), fake.clock->now() - 5));
  fake.mainLoop->runUntilIdle();
  EXPECT_EQ(posts(), before + 5);
  EXPECT_EQ(lastPost().type(), QSFM_APP_IDLE);
}

TEST_F(QSManagerHelperTest, ForegroundAndNetworkNotifications) {
  const std::size_t before = posts();
  for (int i = 0; i < 2; ++i) {
    fake.platform().notifications->post(kApplicationWillEnterForegroundNotification, nullptr);
  }
  EXPECT_EQ(posts(), before + 2);
  EXPECT_EQ(lastPost().details()[QSFM_APP_STATE], "bg_to_fg");
  EXPECT_EQ(fake.log->count("handle background to foreground"), 2u);

  // A network change only flips the status and logs.
  EXPECT_TRUE(helper().hasNetwork());
  const std::size_t timers = fake.mainLoop->pendingTimerCount();
  fake.reachability->setFlags(0);
  EXPECT_FALSE(helper().hasNetwork());
  EXPECT_TRUE(fake.log->contains("handleNetworkChange - hasNetwork: false"));
  fake.reachability->setFlags(kReachabilityFlagsReachable | kReachabilityFlagsIsWWAN);
  EXPECT_TRUE(helper().hasNetwork());
  EXPECT_EQ(posts(), before + 2);
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), timers);

  manager->wakeup();
  EXPECT_EQ(lastPost().details()[QSFM_CONNECTION_TYPE], "Mobile");
}

TEST_F(QSManagerHelperTest, ErrorRecordsAreCompactAndHostEncoded) {
  auto json = helper().prepareErrorData("hello");
  ASSERT_TRUE(json.has_value());
  Value record = Value::parse(*json);
  EXPECT_EQ(*json, record.dump()) << "compact output";
  EXPECT_EQ(record["message"], "hello");

  EXPECT_EQ(percentEncodeHostAllowed("{\"a\":\"b c/d,é\"}!$&'()*+-.;=[]_~"),
            "%7B%22a%22:%22b%20c%2Fd,%C3%A9%22%7D!$&'()*+-.;=[]_~");

  // A message that cannot be serialised is logged; the report still goes out.
  const std::size_t before = fake.http->requestCount();
  helper().reportError(std::string("bad \xff byte"));
  EXPECT_TRUE(fake.log->contains("prepareErrorData - Got an error:"));
  auto request = fake.http->requests().back();
  EXPECT_EQ(fake.http->requestCount(), before + 1);
  EXPECT_NE(request.url.find("clientError?r=(null)"), std::string::npos) << request.url;
}

}  // namespace
}  // namespace qs::testing
