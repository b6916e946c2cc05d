// Every input of the collector-answer fuzz corpus, given to the collector
// exchange as the answer to a first new-session request. Whatever the bytes,
// the exchange ends in one of its defined outcomes, and the one the parser's
// reading of the same bytes calls for.
#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "CoreFixture.h"
#include "SandboxProcess.h"
#include "activity/QSUtils.h"
#include "collector/CollectorResponse.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::testing {
namespace {

// One fresh manager per input, so that no outcome leaks into the next.
struct Exchange : CoreTest {
  using CoreTest::collectorPosts;
  using CoreTest::delegate;
  using CoreTest::fake;
  using CoreTest::manager;
  void TestBody() override {}
};

TEST(CollectorCorpus, EveryInputEndsInADefinedOutcome) {
  const std::filesystem::path corpus = envOr("QS_FUZZ_CORPUS");
  if (corpus.empty()) GTEST_SKIP() << "QS_FUZZ_CORPUS is not set";
  // The kept corpus, and the regression inputs kept beside it
  // (fuzz/corpus/response and fuzz/regressions/response).
  std::vector<std::filesystem::path> paths;
  const auto regressions = corpus.parent_path().parent_path() / "regressions" / corpus.filename();
  for (const auto& dir : {corpus, regressions}) {
    if (!std::filesystem::is_directory(dir)) continue;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) paths.push_back(entry);
  }
  std::size_t inputs = 0;
  for (const auto& path : paths) {
    const std::string body = readFile(path);
    SCOPED_TRACE(path.filename().string() + ": " + body);
    ++inputs;
    Exchange x;
    x.manager->startWith("corpus-app");
    ASSERT_EQ(x.fake.http->pendingCount(), 1u);
    x.fake.http->respondNext(fake::FakeReply::json(body));
    x.fake.mainLoop->runUntilIdle();

    const auto parsed = CollectorResponse::initWithCollectorResponse(
        QSUtils::dictionaryFromData(body), x.fake.clock->now(), nullptr);
    const auto calls = x.delegate->calls();
    const auto posts = x.collectorPosts();
    if (parsed && parsed->challenge()) {
      // Answered at once, the host not told yet.
      ASSERT_EQ(posts.size(), 2u);
      EXPECT_EQ(posts[1].type(), QSFM_APP_CHALLENGE);
      EXPECT_TRUE(calls.empty());
      continue;
    }
    // A token whose renewal date has already come (a time to live of 0 or
    // less, or text that reads as 0) is renewed at once.
    const bool renewsAtOnce =
        parsed && parsed->cookie() && parsed->cookie()->ttlFireDate() <= x.fake.clock->now();
    ASSERT_EQ(posts.size(), renewsAtOnce ? 2u : 1u);
    if (renewsAtOnce) {
      EXPECT_EQ(posts[1].type(), QSFM_APP_IDLE);
      EXPECT_EQ(posts[1].details()[QSFM_APP_STATE], "idle");
    }
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, "managerReady");
    if (parsed && parsed->cookie()) {
      // A new token: the host gets its header, renewal at 80% of its life;
      // one whose renewal date has passed already is never handed out.
      const auto& cookie = *parsed->cookie();
      EXPECT_EQ(
          calls[0].headers.at("X-QS-AUTHORIZATION"),
          cookie.ttlExpired(x.fake.clock->now())
              ? std::string("1")
              : std::to_string(QSCookie::cookieLevelFrom(cookie.name())) + ":" + cookie.token());
      EXPECT_EQ(x.fake.mainLoop->pendingTimerCount(), renewsAtOnce ? 0u : 1u);
    } else {
      // Nothing new, or a command too short to read (a failed exchange):
      // the no-token header and a new session a minute later.
      EXPECT_EQ(calls[0].headers, (HeaderMap{{"X-QS-AUTHORIZATION", "1"}}));
      EXPECT_DOUBLE_EQ(x.fake.mainLoop->nextFireTime(), x.fake.clock->now() + 60);
      EXPECT_EQ(x.fake.log->contains("CollectorRequest received error"), !parsed);
    }
    if (parsed && parsed->sid()) {
      EXPECT_EQ(QSManagerInternals::storage(*x.manager)->getSid(), parsed->sid());
    }
  }
  EXPECT_GE(inputs, 5u);
}

}  // namespace
}  // namespace qs::testing
