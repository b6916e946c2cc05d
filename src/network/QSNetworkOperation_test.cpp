#include "network/QSNetworkOperation.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "network/QSGetOperation.h"
#include "network/QSOperationQueue.h"
#include "network/QSPostOperation.h"

namespace qs {
namespace {

using Events = std::vector<std::string>;

// main() only counts; the test plays the network completion.
class ProbeOperation : public QSNetworkOperation {
 public:
  ProbeOperation() {
    addObserver([this](std::string_view key, bool prior) {
      events.push_back(std::string(prior ? "will " : "did ") + std::string(key));
    });
  }
  void complete() { markCompleted(); }
  int mainCalls = 0;
  Events events;

 protected:
  void main() override { ++mainCalls; }
};

TEST(QSNetworkOperation, AnnouncesOnlyRealChangesThroughCancelAndLateCompletion) {
  auto op = std::make_shared<ProbeOperation>();
  op->start();  // finished is already false: only executing changes
  op->setExecuting(true);
  EXPECT_EQ(op->events, (Events{"will isExecuting", "did isExecuting"}));
  EXPECT_EQ(op->mainCalls, 1);

  op->cancel();
  EXPECT_FALSE(op->isExecuting());
  EXPECT_TRUE(op->isFinished());
  op->complete();  // the network answer arriving after the cancel
  EXPECT_EQ(op->events, (Events{"will isExecuting", "did isExecuting", "will isExecuting",
                                "did isExecuting", "will isFinished", "did isFinished"}));
}

TEST(QSNetworkOperation, CancelledBeforeStartIsFinishedNeverRunsAndIsDropped) {
  auto workers = std::make_shared<fake::FakeWorkerPool>();
  workers->setDeferred(true);
  auto queue = std::make_shared<QSOperationQueue>(workers, 10);
  auto op = std::make_shared<ProbeOperation>();
  queue->addOperation(op);
  op->cancel();
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
  EXPECT_EQ(workers->runAll(), 1u);
  EXPECT_EQ(op->mainCalls, 0);
  EXPECT_TRUE(op->events.empty());
  EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(QSOperationQueue, RefusesPastItsBoundUntilAnOperationFinishes) {
  auto queue = std::make_shared<QSOperationQueue>(std::make_shared<fake::FakeWorkerPool>(), 2);
  auto first = std::make_shared<ProbeOperation>();
  auto second = std::make_shared<ProbeOperation>();
  auto third = std::make_shared<ProbeOperation>();
  EXPECT_TRUE(queue->addOperation(first));
  EXPECT_TRUE(queue->addOperation(second));
  EXPECT_FALSE(queue->addOperation(third));
  EXPECT_EQ(third->mainCalls, 0);  // refused operations never start
  EXPECT_EQ(queue->operationCount(), 2u);

  first->complete();
  EXPECT_EQ(queue->operationCount(), 1u);
  EXPECT_TRUE(queue->addOperation(third));
  EXPECT_EQ(third->mainCalls, 1);
}

// A POST or GET only hands its request to the HTTP client, so the queue starts
// it on the adding thread: the request is with the client before addOperation
// returns, in the order added, while a worker that never runs holds only the
// operations that need one.
TEST(QSOperationQueue, RequestsReachTheClientWithoutAWorkerInTheOrderAdded) {
  fake::FakeHttpClient http;
  auto workers = std::make_shared<fake::FakeWorkerPool>();
  workers->setDeferred(true);
  auto queue = std::make_shared<QSOperationQueue>(workers, 10);
  auto probe = std::make_shared<ProbeOperation>();
  int stamps = 0;
  auto first = std::make_shared<QSPostOperation>(http, "Lib/1", "https://c.localhost/1", "a=1",
                                                 "QS315", [&] { ++stamps; });
  auto get = std::make_shared<QSGetOperation>(http, "Lib/1", "https://c.localhost/2", std::nullopt,
                                              std::nullopt);
  auto second =
      std::make_shared<QSPostOperation>(http, "Lib/1", "https://c.localhost/3", "a=3", "QS329");
  EXPECT_TRUE(queue->addOperation(probe));
  for (const auto& op : std::vector<std::shared_ptr<QSNetworkOperation>>{first, get, second}) {
    EXPECT_TRUE(queue->addOperation(op));
    EXPECT_TRUE(op->isExecuting());
  }
  ASSERT_EQ(http.requestCount(), 3u);
  EXPECT_EQ(http.requests()[0].url, "https://c.localhost/1");
  EXPECT_EQ(http.requests()[1].url, "https://c.localhost/2");
  EXPECT_EQ(http.requests()[2].url, "https://c.localhost/3");
  EXPECT_EQ(stamps, 1);
  EXPECT_EQ(probe->mainCalls, 0);
  EXPECT_EQ(queue->operationCount(), 4u);

  // The answers still release them one by one, and the bound still counts them.
  ASSERT_TRUE(http.respondNext(fake::FakeReply::json("{}")));
  EXPECT_TRUE(first->isFinished());
  EXPECT_EQ(queue->operationCount(), 3u);
  EXPECT_EQ(workers->runAll(), 1u);
  EXPECT_EQ(probe->mainCalls, 1);
}

}  // namespace
}  // namespace qs
