#pragma once

// A manager on the fake platform, a recording host delegate, and helpers
// that read what the library posted to the collector.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "crypto/SHA256_CBC.h"
#include "manager/QSManagerHelper.h"
#include "manager/QSManagerInternals.h"
#include "quarrystone/QSManager.h"

namespace qs::testing {

// Records every call the library makes on the host's delegate.
class RecordingDelegate final : public QSManagerDelegate {
 public:
  struct Call {
    std::string kind;  // "managerReady" or "newHeaders"
    HeaderMap headers;
  };
  void managerReady(const HeaderMap& headers) override { add("managerReady", headers); }
  void newHeaders(const HeaderMap& headers) override { add("newHeaders", headers); }
  std::vector<Call> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  void add(std::string kind, const HeaderMap& headers) {
    std::lock_guard lock(mutex_);
    calls_.push_back({std::move(kind), headers});
  }
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
};

// A collector request as the collector sees it.
struct PostedActivity {
  std::map<std::string, std::string> form;  // the body's pairs
  Value activity;                           // the decrypted record {"t","d"}
  std::string type() const { return activity.value("t", ""); }
  const Value& details() const { return activity.at("d"); }
};

// Splits a form body at "&" and each pair at its first "=" (values travel
// unescaped), then decrypts the payload under the body's app id.
inline PostedActivity decodePost(const HttpRequest& request) {
  PostedActivity posted;
  const std::string& body = request.body.value_or("");
  for (std::size_t from = 0, amp = 0; from <= body.size(); from = amp + 1) {
    amp = std::min(body.find('&', from), body.size());
    const std::string pair = body.substr(from, amp - from);
    const std::size_t eq = pair.find('=');
    if (eq != std::string::npos) posted.form[pair.substr(0, eq)] = pair.substr(eq + 1);
  }
  auto json = SHA256_CBC::decryptBase64StringToString(posted.form["payload"], posted.form["appId"]);
  if (!json) {
    ADD_FAILURE() << "payload does not decrypt under the app id";
    return posted;
  }
  Value batch = Value::parse(*json);
  EXPECT_TRUE(batch.is_array() && batch.size() == 1) << *json;
  posted.activity = batch.at(0);
  return posted;
}

// A fresh manager graph on the fake platform, with a delegate set.
class CoreTest : public ::testing::Test {
 protected:
  CoreTest() {
    settings.collectorHostPattern = "collector-{appId}.test";
    settings.webDomain = "service.test";
    manager = QSManager::create(fake.platform(), settings);
    manager->setDelegate(delegate);
  }
  ~CoreTest() override {
    // Requests still pending hold their operations (and those the exchange):
    // end them the way a closing HTTP client would.
    fake.http->setResponder(nullptr);
    while (
        fake.http->respondNext(fake::FakeReply::failure(HttpError::Code::Cancelled, "cancelled"))) {
    }
    fake.mainLoop->runUntilIdle();
  }

  // Requests whose URL is the collector's, decoded.
  std::vector<PostedActivity> collectorPosts() const {
    std::vector<PostedActivity> posts;
    for (const auto& r : fake.http->requests()) {
      if (r.method == "POST") posts.push_back(decodePost(r));
    }
    return posts;
  }
  PostedActivity lastPost() const {
    auto posts = collectorPosts();
    if (posts.empty()) {
      ADD_FAILURE() << "nothing was posted";
      return {};
    }
    return posts.back();
  }
  QSManagerHelper& helper() { return QSManagerInternals::managerHelper(*manager); }

  fake::FakePlatform fake;
  DeploymentSettings settings;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QSManager> manager;
};

}  // namespace qs::testing
