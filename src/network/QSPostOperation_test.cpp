#include "network/QSPostOperation.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "network/QSGetOperation.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/Constants.h"

namespace qs {
namespace {

using Headers = std::map<std::string, std::string>;
constexpr const char* kUrl = "https://app.collector.localhost/api/v1/collector/mobile";

// Writes each answer as "type|status|body|error", "-" for what is absent.
struct RecordingDelegate : QSPostOperationDelegate, QSGetOperationDelegate {
  void taskCompletedWith(const std::optional<std::string>& body, const std::string& type,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    answers.push_back(type + "|" + (response ? std::to_string(response->statusCode) : "-") + "|" +
                      body.value_or("-") + "|" + (error ? error->localizedDescription : "-"));
  }
  void taskCompletedWith(const std::optional<std::string>& body,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    taskCompletedWith(body, "GET", response, error);
  }
  std::vector<std::string> answers;
};

// A name sent twice fails the test.
Headers headersOf(const HttpRequest& request) {
  Headers map;
  for (const auto& [name, value] : request.headers) {
    EXPECT_TRUE(map.emplace(name, value).second) << "duplicate header " << name;
  }
  return map;
}

class QSPostOperationTest : public ::testing::Test {
 protected:
  std::shared_ptr<QSPostOperation> post(std::optional<std::string> body, std::string type) {
    return std::make_shared<QSPostOperation>(*fake.http, "Lib/1", kUrl, std::move(body),
                                             std::move(type), [this] { ++starts; });
  }
  HttpRequest sent(std::size_t index) const { return fake.http->requests().at(index); }

  fake::FakePlatform fake;
  Platform platform = fake.platform();
  QSNetworkManager manager{platform};
  int starts = 0;
};

TEST_F(QSPostOperationTest, UserAgentNamesVersionSystemAndScale) {
  const std::string prefix = std::string("Quarrystone iOS SDK/") + QS_SDK_VERSION;
  fake.device->systemVersionValue = "10.0";
  fake.device->screen = ScreenInfo{414, 736, 3};
  EXPECT_EQ(manager.userAgent(), prefix + " (iPhone; iOS 10.0; Scale/3.00)");
  fake.device->screen.reset();
  EXPECT_EQ(manager.userAgent(), prefix + " (iPhone; iOS 10.0; Scale/1.00)");
}

TEST_F(QSPostOperationTest, SendsFormHeadersWithOverridesAndUtf8Length) {
  auto op = post("h\xC3\xA9llo1234", "QS315");  // 9 characters, 10 bytes
  op->setHttpHeaders(HeaderMap{{"user-agent", "Custom/2"}, {"X-Extra", "1"}});
  manager.addNetworkOperation(op);
  EXPECT_EQ(sent(0).method, "POST");
  EXPECT_EQ(sent(0).url, kUrl);
  EXPECT_EQ(sent(0).timeoutSeconds, 5.0);
  EXPECT_EQ(sent(0).body, "h\xC3\xA9llo1234");
  EXPECT_EQ(headersOf(sent(0)), (Headers{{"user-agent", "Custom/2"},
                                         {"X-Extra", "1"},
                                         {"Content-Type", kFormSubmitContentType},
                                         {"Content-Length", "10"}}));

  // Forcing replaces every extra header and the last call wins. No body: length 0.
  auto forced = post(std::nullopt, "QS325");
  forced->setHttpHeaders(HeaderMap{{"X-Extra", "1"}});
  forced->forceBlockToken();
  forced->forceCaptchaToken();
  manager.addNetworkOperation(forced);
  EXPECT_FALSE(sent(1).body.has_value());
  EXPECT_EQ(headersOf(sent(1)), (Headers{{"User-Agent", "Lib/1"},
                                         {"X-QS-SIMULATE", "captcha"},
                                         {"Content-Type", kFormSubmitContentType},
                                         {"Content-Length", "0"}}));
}

TEST_F(QSPostOperationTest, HandsTheAnswerBackUnchangedThenFinishesAndLetsGo) {
  int startsAtSend = -1;
  fake.http->setResponder([&](const HttpRequest&) -> std::optional<fake::FakeReply> {
    startsAtSend = starts;
    return std::nullopt;  // answered below
  });
  auto delegate = std::make_shared<RecordingDelegate>();
  std::weak_ptr<RecordingDelegate> watch = delegate;
  auto op = post("a=b", "QS329");
  op->setDelegate(std::move(delegate));
  manager.addNetworkOperation(op);
  EXPECT_EQ(startsAtSend, 1);  // the start hook ran right before sending
  EXPECT_TRUE(op->isExecuting());

  ASSERT_TRUE(fake.http->respondNext(fake::FakeReply::json(R"({"e":1})", 500)));
  EXPECT_EQ(watch.lock()->answers, std::vector<std::string>{R"(QS329|500|{"e":1}|-)"});
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
  op.reset();
  EXPECT_EQ(manager.requestsQueue().operationCount(), 0u);
  EXPECT_TRUE(watch.expired());  // released along with the operation

  // No delegate: the error goes nowhere, the operation still ends.
  auto silent = post("a=b", "QS315");
  manager.addNetworkOperation(silent);
  ASSERT_TRUE(fake.http->respondNext(fake::FakeReply::failure(HttpError::Code::TimedOut, "t")));
  EXPECT_TRUE(silent->isFinished());
}

TEST_F(QSPostOperationTest, GetSendsNoBodyAndContentTypeOnlyWhenGiven) {
  auto delegate = std::make_shared<RecordingDelegate>();
  auto plain = std::make_shared<QSGetOperation>(*fake.http, "Lib/1", "https://h/e?r=1",
                                                HeaderMap{{"X-A", "b"}}, std::nullopt);
  plain->setDelegate(delegate);
  manager.addNetworkOperation(plain);
  manager.addNetworkOperation(std::make_shared<QSGetOperation>(*fake.http, "Lib/1", "https://h/e",
                                                               std::nullopt, kJsonContentType));

  EXPECT_EQ(sent(0).method, "GET");
  EXPECT_FALSE(sent(0).body.has_value());
  EXPECT_EQ(sent(0).timeoutSeconds, 5.0);
  EXPECT_EQ(headersOf(sent(0)), (Headers{{"User-Agent", "Lib/1"}, {"X-A", "b"}}));
  EXPECT_EQ(headersOf(sent(1)),
            (Headers{{"User-Agent", "Lib/1"}, {"Content-Type", kJsonContentType}}));
  ASSERT_TRUE(
      fake.http->respondNext(fake::FakeReply::failure(HttpError::Code::CannotConnect, "c")));
  EXPECT_EQ(delegate->answers, std::vector<std::string>{"GET|-|-|c"});
  EXPECT_TRUE(plain->isFinished());
  EXPECT_EQ(manager.requestsQueue().operationCount(), 1u);
}

}  // namespace
}  // namespace qs
