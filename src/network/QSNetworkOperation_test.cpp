#include "network/QSNetworkOperation.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "network/QSOperationQueue.h"

namespace qs {
namespace {

// Starts no real work: main() only counts, and the test plays the completion.
class ProbeOperation : public QSNetworkOperation {
 public:
  ProbeOperation() {
    addObserver([this](std::string_view key, bool prior) {
      events.push_back(std::string(prior ? "will " : "did ") + std::string(key));
    });
  }
  void complete() { markCompleted(); }

  int mainCalls = 0;
  std::vector<std::string> events;

 protected:
  void main() override { ++mainCalls; }
};

using Events = std::vector<std::string>;

TEST(QSNetworkOperation, AnnouncesOnlyRealChangesThroughCancelAndLateCompletion) {
  auto op = std::make_shared<ProbeOperation>();
  EXPECT_FALSE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());

  op->start();  // finished is already false: only executing changes
  EXPECT_EQ(op->events, (Events{"will isExecuting", "did isExecuting"}));
  EXPECT_EQ(op->mainCalls, 1);
  op->setExecuting(true);
  EXPECT_EQ(op->events.size(), 2u);

  op->cancel();
  EXPECT_TRUE(op->isCancelled());
  EXPECT_FALSE(op->isExecuting());
  EXPECT_TRUE(op->isFinished());
  EXPECT_EQ(op->events, (Events{"will isExecuting", "did isExecuting", "will isExecuting",
                                "did isExecuting", "will isFinished", "did isFinished"}));

  op->complete();  // the network answer arriving after the cancel
  EXPECT_EQ(op->events.size(), 6u);
  EXPECT_TRUE(op->isFinished());
}

TEST(QSNetworkOperation, CancelledBeforeStartIsFinishedAndNeverRuns) {
  auto op = std::make_shared<ProbeOperation>();
  op->cancel();
  EXPECT_TRUE(op->isFinished());
  EXPECT_FALSE(op->isExecuting());
  op->start();
  EXPECT_EQ(op->mainCalls, 0);
  EXPECT_TRUE(op->events.empty());

  // Through the queue: dropped without running, not held.
  auto workers = std::make_shared<fake::FakeWorkerPool>();
  workers->setDeferred(true);
  auto queue = std::make_shared<QSOperationQueue>(workers);
  auto queued = std::make_shared<ProbeOperation>();
  std::weak_ptr<ProbeOperation> watch = queued;
  queue->addOperation(queued);
  queued->cancel();
  queued.reset();
  EXPECT_EQ(workers->runAll(), 1u);
  EXPECT_EQ(queue->operationCount(), 0u);
  EXPECT_TRUE(watch.expired());
}

TEST(QSOperationQueue, RunsSideBySideAndReleasesEachWhenItFinishes) {
  auto workers = std::make_shared<fake::FakeWorkerPool>();
  auto queue = std::make_shared<QSOperationQueue>(workers);
  auto first = std::make_shared<ProbeOperation>();
  auto second = std::make_shared<ProbeOperation>();
  std::weak_ptr<ProbeOperation> firstWatch = first, secondWatch = second;
  queue->addOperation(first);
  queue->addOperation(second);
  EXPECT_EQ(first->mainCalls, 1);
  EXPECT_EQ(second->mainCalls, 1);  // started while the first is still executing
  EXPECT_EQ(queue->operationCount(), 2u);

  auto finishing = std::move(second);
  finishing->complete();
  finishing.reset();
  EXPECT_EQ(queue->operationCount(), 1u);
  EXPECT_TRUE(secondWatch.expired());

  auto cancelling = std::move(first);
  cancelling->cancel();
  cancelling.reset();
  EXPECT_EQ(queue->operationCount(), 0u);
  EXPECT_TRUE(firstWatch.expired());
}

}  // namespace
}  // namespace qs
