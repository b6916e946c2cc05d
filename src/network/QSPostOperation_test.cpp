#include "network/QSPostOperation.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "FakePlatform.h"
#include "network/QSGetOperation.h"
#include "network/QSNetworkManager.h"
#include "quarrystone/Constants.h"

namespace qs {
namespace {

constexpr const char* kUrl = "https://app.collector.localhost/api/v1/collector/mobile";

struct Answer {
  std::optional<std::string> data;
  std::string activityType;
  std::optional<HttpResponse> response;
  std::optional<HttpError> error;
  int calls = 0;
};

class RecordingDelegate : public QSPostOperationDelegate, public QSGetOperationDelegate {
 public:
  void taskCompletedWith(const std::optional<std::string>& data, const std::string& activityType,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    answer = {data, activityType, response, error, answer.calls + 1};
  }
  void taskCompletedWith(const std::optional<std::string>& data,
                         const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) override {
    answer = {data, "", response, error, answer.calls + 1};
  }
  Answer answer;
};

// Header names are unique in what the operations send; a duplicate fails here.
std::map<std::string, std::string> headerMap(const HttpRequest& request) {
  std::map<std::string, std::string> map;
  for (const auto& [name, value] : request.headers) {
    EXPECT_TRUE(map.emplace(name, value).second) << "duplicate header " << name;
  }
  return map;
}

class QSPostOperationTest : public ::testing::Test {
 protected:
  fake::FakePlatform fake;
  Platform platform = fake.platform();
  QSNetworkManager manager{platform};
};

TEST_F(QSPostOperationTest, UserAgentNamesVersionSystemAndScale) {
  fake.device->systemVersionValue = "10.0";
  fake.device->screen = ScreenInfo{414, 736, 3};
  EXPECT_EQ(manager.userAgent(), std::string("Quarrystone iOS SDK/") + QS_SDK_VERSION +
                                     " (iPhone; iOS 10.0; Scale/3.00)");
  fake.device->screen.reset();
  EXPECT_EQ(manager.userAgent(), std::string("Quarrystone iOS SDK/") + QS_SDK_VERSION +
                                     " (iPhone; iOS 10.0; Scale/1.00)");
}

TEST_F(QSPostOperationTest, SendsFormHeadersWithOverridesAndUtf8Length) {
  auto op =
      std::make_shared<QSPostOperation>(*fake.http, "Lib/1", kUrl, "h\xC3\xA9llo1234", "QS315");
  op->setHttpHeaders(HeaderMap{{"user-agent", "Custom/2"}, {"X-Extra", "1"}});
  manager.addNetworkOperation(op);

  ASSERT_EQ(fake.http->requestCount(), 1u);
  const HttpRequest request = fake.http->requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, kUrl);
  EXPECT_EQ(request.timeoutSeconds, 5.0);
  EXPECT_EQ(request.body, "h\xC3\xA9llo1234");
  EXPECT_EQ(headerMap(request),
            (std::map<std::string, std::string>{{"user-agent", "Custom/2"},
                                                {"X-Extra", "1"},
                                                {"Content-Type", kFormSubmitContentType},
                                                {"Content-Length", "10"}}));

  // Forcing replaces every extra header; the last one wins. No body: length 0.
  auto forced = std::make_shared<QSPostOperation>(*fake.http, "Lib/1", kUrl, std::nullopt, "QS325");
  forced->setHttpHeaders(HeaderMap{{"X-Extra", "1"}});
  forced->forceBlockToken();
  forced->forceCaptchaToken();
  manager.addNetworkOperation(forced);
  const HttpRequest bare = fake.http->requests()[1];
  EXPECT_FALSE(bare.body.has_value());
  EXPECT_EQ(headerMap(bare),
            (std::map<std::string, std::string>{{"User-Agent", "Lib/1"},
                                                {"X-QS-SIMULATE", "captcha"},
                                                {"Content-Type", kFormSubmitContentType},
                                                {"Content-Length", "0"}}));
}

TEST_F(QSPostOperationTest, HandsTheAnswerBackUnchangedThenFinishes) {
  int startsBeforeSend = -1;
  int starts = 0;
  fake.http->setResponder([&](const HttpRequest&) -> std::optional<fake::FakeReply> {
    startsBeforeSend = starts;
    return std::nullopt;  // answered by the test below
  });
  auto delegate = std::make_shared<RecordingDelegate>();
  std::weak_ptr<RecordingDelegate> watch = delegate;
  auto op = std::make_shared<QSPostOperation>(*fake.http, "Lib/1", kUrl, "a=b", "QS329",
                                              [&] { ++starts; });
  op->setDelegate(std::move(delegate));
  manager.addNetworkOperation(op);
  EXPECT_EQ(startsBeforeSend, 1);
  EXPECT_TRUE(op->isExecuting());

  ASSERT_TRUE(fake.http->respondNext(fake::FakeReply::json(R"({"error":"x"})", 500)));
  const Answer& answer = watch.lock()->answer;
  EXPECT_EQ(answer.calls, 1);
  EXPECT_EQ(answer.activityType, "QS329");
  EXPECT_EQ(answer.data, R"({"error":"x"})");
  ASSERT_TRUE(answer.response.has_value());
  EXPECT_EQ(answer.response->statusCode, 500);
  EXPECT_FALSE(answer.error.has_value());
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());

  // Once the queue and the caller let go, the delegate goes with the operation.
  EXPECT_EQ(manager.requestsQueue().operationCount(), 0u);
  op.reset();
  EXPECT_TRUE(watch.expired());

  // A transport error passes through; with no delegate the operation still ends.
  auto silent = std::make_shared<QSPostOperation>(*fake.http, "Lib/1", kUrl, "a=b", "QS315");
  manager.addNetworkOperation(silent);
  ASSERT_TRUE(fake.http->respondNext(
      fake::FakeReply::failure(HttpError::Code::TimedOut, "The request timed out.")));
  EXPECT_TRUE(silent->isFinished());
  EXPECT_EQ(manager.requestsQueue().operationCount(), 0u);
}

TEST_F(QSPostOperationTest, GetSendsNoBodyAndContentTypeOnlyWhenGiven) {
  auto delegate = std::make_shared<RecordingDelegate>();
  auto plain = std::make_shared<QSGetOperation>(*fake.http, "Lib/1", "https://h/e?r=1",
                                                HeaderMap{{"X-A", "b"}}, std::nullopt);
  plain->setDelegate(delegate);
  manager.addNetworkOperation(plain);
  auto typed = std::make_shared<QSGetOperation>(*fake.http, "Lib/1", "https://h/e", std::nullopt,
                                                kJsonContentType);
  manager.addNetworkOperation(typed);

  ASSERT_EQ(fake.http->requestCount(), 2u);
  const auto requests = fake.http->requests();
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_FALSE(requests[0].body.has_value());
  EXPECT_EQ(requests[0].timeoutSeconds, 5.0);
  EXPECT_EQ(headerMap(requests[0]),
            (std::map<std::string, std::string>{{"User-Agent", "Lib/1"}, {"X-A", "b"}}));
  EXPECT_EQ(headerMap(requests[1]),
            (std::map<std::string, std::string>{{"User-Agent", "Lib/1"},
                                                {"Content-Type", kJsonContentType}}));

  ASSERT_TRUE(fake.http->respondNext(fake::FakeReply::json("ok")));
  EXPECT_EQ(delegate->answer.calls, 1);
  EXPECT_EQ(delegate->answer.data, "ok");
  EXPECT_TRUE(plain->isFinished());
  EXPECT_FALSE(typed->isFinished());
}

}  // namespace
}  // namespace qs
