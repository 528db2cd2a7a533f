#include <pthread.h>

#include <future>
#include <stdexcept>
#include <thread>

#include "lib_test.h"

using namespace lib_test;
using testing::ElementsAre;

namespace {

/// A task that keeps the worker busy until the test lets it go.
class Blocker {
 public:
  explicit Blocker(EventQueue& queue) {
    queue.post([this] {
      begun_.open();
      go_on_.wait();
    });
    EXPECT_TRUE(begun_.wait());
  }
  void release() { go_on_.open(); }

 private:
  Latch begun_;
  Latch go_on_;
};

TEST(EventQueue, StopRunsWhatIsQueuedInOrderAndReleasesWaiters) {
  EventQueue queue("q");
  queue.start();
  Blocker blocker(queue);
  std::vector<int> order;
  bool drained_post = true;
  for (int i = 0; i < 5; ++i) {
    queue.post([&, i] {
      order.push_back(i);
      if (i == 4) drained_post = queue.post([&] { order.push_back(99); });
    });
  }
  Latch waiting;
  auto waiter = std::async(std::launch::async, [&] {
    waiting.open();
    return queue.postAndWait<bool>([&] {
      order.push_back(5);
      return true;
    });
  });
  ASSERT_TRUE(waiting.wait());
  auto stopper = std::async(std::launch::async, [&] { queue.stop(); });
  while (queue.isRunning()) std::this_thread::yield();
  EXPECT_FALSE(queue.post([&] { order.push_back(100); }));
  blocker.release();
  ASSERT_EQ(stopper.wait_for(kDeadline), std::future_status::ready);
  ASSERT_EQ(waiter.wait_for(kDeadline), std::future_status::ready);
  EXPECT_FALSE(drained_post);
  // The waiter came in before the stop or was refused; either way it got an answer.
  if (!waiter.get()) order.push_back(5);
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST(EventQueue, EveryAcceptedTaskRunsOnceWhileThreadsPostIntoAStop) {
  for (int round = 0; round < 20; ++round) {
    EventQueue queue("q");
    queue.start();
    std::atomic<int> accepted{0};
    std::atomic<int> run{0};
    Counter posting;
    std::vector<std::thread> posters;
    posters.reserve(3);
    for (int i = 0; i < 3; ++i) {
      posters.emplace_back([&, i] {
        posting.add();
        while (queue.isRunning()) {
          if (i == 0) {
            queue.postAndWait([] {});
          } else if (queue.post([&] { ++run; })) {
            ++accepted;
          }
        }
      });
    }
    ASSERT_TRUE(posting.await(3));
    queue.stop();
    for (auto& poster : posters) poster.join();
    EXPECT_EQ(run, accepted);
  }
}

TEST(EventQueue, StoppedQueueTakesNothingAndGivesDefaults) {
  EventQueue queue("q");
  for (const bool was_started : {false, true}) {
    if (was_started) {
      queue.start();
      queue.stop();
    }
    bool ran = false;
    std::function<void()> task = [&] { ran = true; };
    EXPECT_FALSE(queue.post(std::move(task)));
    EXPECT_TRUE(task);  // NOLINT(bugprone-use-after-move): a refused callable stays the caller's
    EXPECT_FALSE(queue.postAndWait<bool>([&] { return ran = true; }));
    EXPECT_EQ(queue.postAndWait<std::string>([] { return std::string("x"); }), "");
    queue.flush();
    EXPECT_FALSE(ran);
  }
}

TEST(EventQueue, RunsNestedWaitsAtOnceAheadOfTheQueue) {
  EventQueue queue("q");
  queue.start();
  EXPECT_FALSE(queue.isOnWorkerThread());
  std::vector<std::string> order;
  queue.postAndWait([&] {
    EXPECT_TRUE(queue.isOnWorkerThread());
    queue.post([&] { order.emplace_back("queued"); });
    EXPECT_TRUE(queue.postAndWait<bool>([&] {
      order.emplace_back("nested");
      return true;
    }));
    queue.flush();
    EXPECT_THROW(queue.postAndWait([] { throw std::runtime_error("to the caller"); }),
                 std::runtime_error);
    EXPECT_THROW(queue.postAndWait(nullptr), std::bad_function_call);
  });
  queue.flush();
  EXPECT_THAT(order, ElementsAre("nested", "queued"));
}

TEST(EventQueue, ExceptionsEndNoWorker) {
  LogCapture logs(log4cxx::Level::getWarn());
  EventQueue queue("q");
  queue.start();
  EXPECT_FALSE(queue.postAndWait<bool>([]() -> bool { throw std::runtime_error("quiet"); }));
  EXPECT_FALSE(queue.postAndWait<bool>([]() -> bool { throw 7; }));
  EXPECT_THAT(logs.lines(), ElementsAre());
  queue.post([] { throw std::runtime_error("loud"); });
  queue.post([] { throw 7; });
  queue.post(nullptr);
  queue.flush();
  Blocker blocker(queue);
  queue.post([] { throw std::runtime_error("late"); });
  queue.post([] { throw 7; });
  bool ran = false;
  queue.post([&] { ran = true; });
  auto stopper = std::async(std::launch::async, [&] { queue.stop(); });
  while (queue.isRunning()) std::this_thread::yield();
  blocker.release();
  stopper.wait();
  EXPECT_TRUE(ran);
  EXPECT_EQ(logs.count("ERROR EventQueue::processLoop: "), 5);
}

TEST(EventQueue, ReleasesWhatATaskHoldsBeforeTheWaiterGoesOn) {
  EventQueue queue("q");
  queue.start();
  for (int i = 0; i < 200; ++i) {
    const auto held = std::make_shared<int>(i);
    queue.postAndWait([held] {});
    ASSERT_EQ(held.use_count(), 1);
  }
}

TEST(EventQueue, NobodyWaitsForAWorkerThatWasEnded) {
  EventQueue queue("q");
  queue.start();
  Blocker blocker(queue);
  queue.post([] { pthread_exit(nullptr); });
  auto waiter =
      std::async(std::launch::async, [&] { return queue.postAndWait<bool>([] { return true; }); });
  blocker.release();
  ASSERT_EQ(waiter.wait_for(kDeadline), std::future_status::ready);
  EXPECT_FALSE(waiter.get());
  EXPECT_FALSE(queue.postAndWait<bool>([] { return true; }));
}

}  // namespace
