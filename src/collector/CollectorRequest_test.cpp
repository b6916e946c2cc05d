#include "collector/CollectorRequest.h"

#include <ranges>

#include "CoreFixture.h"
#include "base/PercentEncoding.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

using fake::FakeReply;

FakeReply commands(std::initializer_list<const char*> list, long status = 200) {
  Value body = Value::object();
  body["do"] = Value::array();
  for (const char* c : list) body["do"].push_back(c);
  return FakeReply::json(body.dump(), status);
}

const FakeReply kRefused =
    FakeReply::failure(HttpError::Code::CannotConnect, "Could not connect to the server.");

class CollectorExchangeTest : public CoreTest {
 protected:
  // Answers the one pending request and lets the main loop schedule timers.
  void answer(const FakeReply& reply) {
    ASSERT_EQ(fake.http->pendingCount(), 1u);
    fake.http->respondNext(reply);
    fake.mainLoop->runUntilIdle();
  }
  double now() const { return fake.clock->now(); }
};

TEST_F(CollectorExchangeTest, FailedFirstExchangeMakesTheManagerReadyAndRetriesSixtySecondsLater) {
  manager->startWith("app1");
  answer(kRefused);

  auto calls = delegate->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, "managerReady");
  EXPECT_EQ(calls[0].headers, (HeaderMap{{"X-QS-AUTHORIZATION", "1"}}));
  EXPECT_TRUE(
      fake.log->contains("CollectorRequest received error: Could not connect to the server."));
  // A failed exchange is a warning a host sees by default; the steps are trace.
  EXPECT_EQ(fake.log->levelOf("CollectorRequest received error"), LogLevel::Warning);
  EXPECT_EQ(fake.log->levelOf("setTimerForAppInitActivity"), LogLevel::Debug);
  EXPECT_DOUBLE_EQ(fake.mainLoop->nextFireTime(), now() + 60);

  fake.mainLoop->advance(59.5);
  EXPECT_EQ(fake.http->requestCount(), 1u);
  fake.mainLoop->advance(0.5);
  ASSERT_EQ(fake.http->requestCount(), 2u);
  auto retry = lastPost();
  EXPECT_EQ(retry.type(), QSFM_APP_INIT);
  EXPECT_EQ(retry.details()[QSFM_APP_STATE], "new_session");

  // Later failures are not told to the host.
  answer(kRefused);
  EXPECT_EQ(delegate->calls().size(), 1u);
}

TEST_F(CollectorExchangeTest, SidAndVidOnlyAreStoredAndArmTheNewSessionTimer) {
  manager->startWith("app1");
  EXPECT_EQ(lastPost().form.count("sid"), 0u);
  answer(commands({"sid|S1", "vid|V1"}, 500));  // the status code is not looked at

  EXPECT_EQ(QSManagerInternals::storage(*manager)->getSid(), "S1");
  EXPECT_EQ(QSManagerInternals::storage(*manager)->getVid(), "V1");
  ASSERT_EQ(delegate->calls().size(), 1u);
  EXPECT_EQ(delegate->calls()[0].kind, "managerReady");
  EXPECT_DOUBLE_EQ(fake.mainLoop->nextFireTime(), now() + 60);

  fake.mainLoop->advance(60);
  auto next = lastPost();
  EXPECT_EQ(next.form["sid"], "S1");
  EXPECT_EQ(next.form["vid"], "V1");
  EXPECT_EQ(next.form.size(), 7u);
}

TEST_F(CollectorExchangeTest, ChallengeIsAnsweredAndItsAnswerBringsTheTokenAndRenewal) {
  // A further headers listener hears what the delegate hears, after it.
  std::vector<std::pair<std::size_t, HeaderMap>> heard;  // delegate calls before, headers
  const auto listener = manager->addHeadersListener(
      [&](const HeaderMap& headers) { heard.emplace_back(delegate->calls().size(), headers); });
  manager->startWith("app1");
  answer(commands({"sid|S1", "vid|V1", "appc|t1|42|hash|0a1b-2c", "bake|_qs3|x|T0|y|600"}));

  // The challenge is answered at once; the cookie beside it is dropped and
  // the host hears nothing yet.
  EXPECT_TRUE(delegate->calls().empty());
  EXPECT_FALSE(QSManagerInternals::storage(*manager)->getCookie().has_value());
  EXPECT_EQ(QSManagerInternals::storage(*manager)->getVid(), "V1");
  auto answerPost = lastPost();
  EXPECT_EQ(answerPost.type(), QSFM_APP_CHALLENGE);
  EXPECT_EQ(answerPost.details(), (Value{{QSFM_CHALLENGE_TS, 42},
                                         {QSFM_DEVICE_MODEL, "Simulator"},
                                         {QSFM_CHALLENGE_SIGNED, "hash"},
                                         {QSFM_CHALLENGE_RESULT, "c2-b1a0"}}));

  answer(commands({"bake|_qs3|x|T3|y|300"}));
  auto calls = delegate->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].kind, "managerReady");
  EXPECT_EQ(calls[0].headers, (HeaderMap{{"X-QS-AUTHORIZATION", "3:T3"}}));
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), 1u);
  EXPECT_DOUBLE_EQ(fake.mainLoop->nextFireTime(), now() + 240);  // 80% of 300 s

  fake.mainLoop->advance(240);
  EXPECT_EQ(lastPost().type(), QSFM_APP_IDLE);

  // The same token again: nothing is saved, armed or told.
  answer(commands({"bake|_qs3|x|T3|y|300"}));
  EXPECT_TRUE(fake.log->contains("cookies are the same, there is no point in saving"));
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), 0u);
  EXPECT_EQ(delegate->calls().size(), 1u);

  // A new token later is announced with newHeaders.
  manager->wakeup();
  answer(commands({"bake|_qs3|x|T4|y|100"}));
  calls = delegate->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1].kind, "newHeaders");
  EXPECT_EQ(calls[1].headers, (HeaderMap{{"X-QS-AUTHORIZATION", "3:T4"}}));
  using Heard = std::vector<std::pair<std::size_t, HeaderMap>>;
  EXPECT_EQ(heard, (Heard{{1, calls[0].headers}, {2, calls[1].headers}}));

  manager->removeHeadersListener(listener);
  manager->wakeup();
  answer(commands({"bake|_qs3|x|T5|y|100"}));
  EXPECT_EQ(delegate->calls().size(), 3u);
  EXPECT_EQ(heard.size(), 2u);
}

TEST_F(CollectorExchangeTest, FailedRetriesFollowTheActivityType) {
  manager->startWith("app1");
  answer(commands({"bake|_qs3|x|T1|y|100"}));
  fake.mainLoop->advance(80);
  ASSERT_EQ(lastPost().type(), QSFM_APP_IDLE);

  // A failed idle renewal is retried as an idle activity after 60 s.
  answer(kRefused);
  fake.mainLoop->advance(60);
  EXPECT_EQ(lastPost().type(), QSFM_APP_IDLE);

  // A failed challenge answer leads to a new session after 60 s, not a resend.
  answer(commands({"appc|t|1|h|u"}));
  ASSERT_EQ(lastPost().type(), QSFM_APP_CHALLENGE);
  answer(kRefused);
  fake.mainLoop->advance(60);
  auto retry = lastPost();
  EXPECT_EQ(retry.type(), QSFM_APP_INIT);
  EXPECT_EQ(retry.details()[QSFM_APP_STATE], "new_session");
}

TEST_F(CollectorExchangeTest, MalformedAnswersAreFailuresOrEmptyButNeverCrash) {
  manager->startWith("app1");
  // A command too short for the field it reads stops the parse: nothing of
  // it is used and the exchange counts as failed.
  answer(commands({"sid|S1", "vid"}));
  EXPECT_FALSE(QSManagerInternals::storage(*manager)->getSid().has_value());
  EXPECT_TRUE(fake.log->contains("CollectorRequest received error:"));
  ASSERT_EQ(delegate->calls().size(), 1u);
  EXPECT_DOUBLE_EQ(fake.mainLoop->nextFireTime(), now() + 60);

  // Bodies that are not commands are answers with nothing new.
  for (const char* body : {"", "not json", "[1,2]", "{\"do\":5}", "{\"do\":[1,null,{}]}",
                           "{\"do\":[\"bake|_qs3\"]}"}) {
    manager->wakeup();
    answer(FakeReply::json(body));
  }
  EXPECT_EQ(delegate->calls().size(), 1u);
  EXPECT_FALSE(QSManagerInternals::storage(*manager)->getCookie().has_value());
}

// Values travel unescaped: decodePost() splits the body without unescaping
// and the payload must still decrypt.
TEST_F(CollectorExchangeTest, FirstPostCarriesTheFormFieldsToTheCollectorUrl) {
  manager->startWith("app1");
  auto post = lastPost();
  EXPECT_EQ(post.form["uuid"], QSManagerInternals::uuid(*manager)->UUID());
  EXPECT_EQ(post.form["tag"], "v2.51");
  EXPECT_EQ(post.form["en"], "1");
  EXPECT_EQ(post.form["appId"], "app1");
  EXPECT_EQ(post.form.size(), 5u);
  auto request = fake.http->requests().back();
  EXPECT_EQ(request.url, "https://collector-app1.test/api/v1/collector/mobile");
}

TEST_F(CollectorExchangeTest, AnAnswerAfterTheManagerIsGoneChangesNothing) {
  manager->startWith("app1");
  auto storage = QSManagerInternals::storage(*manager);
  manager.reset();
  // The pending request keeps the exchange alive, not the manager.
  answer(commands({"bake|_qs3|x|T1|y|100"}));
  EXPECT_FALSE(storage->getCookie().has_value());
  EXPECT_TRUE(delegate->calls().empty());
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), 0u);
}

// The record of the latest client error report, decoded from its URL.
Value lastErrorRecord(const fake::FakeHttpClient& http) {
  for (const auto& requests = http.requests(); const auto& r : std::views::reverse(requests)) {
    if (r.method != "GET") continue;
    auto decoded = percentDecode(r.url.substr(r.url.find("?r=") + 3));
    return decoded ? Value::parse(*decoded, nullptr, false) : Value();
  }
  return Value();
}

TEST_F(CollectorExchangeTest, AFullBacklogDropsCountsAndReportsNewActivities) {
  struct Host : ViewController {
  } host;
  const std::size_t bound = QSNetworkManager::kMaxPendingOperations;
  const std::string droppedLine = "requests pending, activity QS315 dropped";
  // No answers: the start and the wake-ups pile up until the bound.
  manager->startWith("app1");
  for (std::size_t i = 0; i < bound + 2; ++i) manager->wakeup();
  EXPECT_EQ(fake.http->pendingCount(), bound);
  EXPECT_EQ(QSManagerInternals::networkManager(*manager)->requestsQueue().operationCount(), bound);
  EXPECT_EQ(fake.log->count(droppedLine), 3u);
  EXPECT_TRUE(fake.log->contains("(3 dropped since the last error report)"));
  // A drop is not a failed exchange: no retry armed, the host not yet told.
  fake.mainLoop->runUntilIdle();
  EXPECT_EQ(fake.mainLoop->pendingTimerCount(), 0u);
  EXPECT_TRUE(delegate->calls().empty());

  // A report meets the full queue too: dropped, and the count kept for later.
  manager->handleBlockResponse(nullptr, host);
  EXPECT_TRUE(fake.log->contains("LogEntries - 1000 requests pending, report dropped"));
  EXPECT_EQ(fake.http->requestCount(), bound);

  // An answer makes room: the next activity goes out, the next report
  // carries the count, and the one after it starts again from nothing.
  fake.http->respondNext(commands({}));
  EXPECT_EQ(delegate->calls().size(), 1u);  // the answer told the host as usual
  manager->wakeup();
  EXPECT_EQ(fake.http->requestCount(), bound + 1);
  EXPECT_EQ(fake.log->count(droppedLine), 3u);
  fake.http->respondNext(commands({}));
  manager->handleBlockResponse(nullptr, host);
  Value record = lastErrorRecord(*fake.http);
  EXPECT_EQ(record.value("dropped_activities", 0), 3) << record.dump();
  EXPECT_EQ(record.value("appId", ""), "app1");
  fake.http->respondNext(commands({}));
  manager->handleBlockResponse(nullptr, host);
  record = lastErrorRecord(*fake.http);
  EXPECT_EQ(record.size(), 4u) << record.dump();
  EXPECT_FALSE(record.contains("dropped_activities"));
}

}  // namespace
}  // namespace qs::testing
