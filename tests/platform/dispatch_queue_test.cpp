#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "tests/support/ManualQueue.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;

template <class T>
T valueOf(std::future<T> future) {
  if (future.wait_for(kDeadline) != std::future_status::ready) throw std::runtime_error("deadline");
  return future.get();
}

void drain(DispatchQueue& queue) {
  std::promise<void> done;
  queue.async([&done] { done.set_value(); });
  valueOf(done.get_future());
}

TEST(DispatchQueue, RunsBlocksOneAtATimeInTheOrderOfTheCalls) {
  const auto queue = DispatchQueue::serialQueue("a name that is longer than a thread's may be");
  constexpr int kThreads = 4;
  constexpr int kBlocks = 200;
  std::vector<std::vector<int>> seen(kThreads);
  int inside = 0;  // unguarded on purpose: the queue is the guard
  bool overlapped = false;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kBlocks; ++i) {
        queue->async([&, t, i] {
          overlapped = overlapped || inside++ != 0;
          seen[t].push_back(i);
          --inside;
        });
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  drain(*queue);
  EXPECT_FALSE(overlapped);
  for (const auto& order : seen) {
    EXPECT_EQ(order.size(), size_t{kBlocks});
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  }
}

TEST(DispatchQueue, DelayedBlocksRunByTheirTime) {
  const auto queue = DispatchQueue::serialQueue("delays");
  std::promise<std::string> done;
  std::string order;
  const auto begin = std::chrono::steady_clock::now();
  queue->async([&] {  // from inside, so that none can be due before all are queued
    queue->after(30ms, [&] { done.set_value(order + "d"); });
    queue->after(10ms, [&] { order += "c"; });
    queue->after(std::chrono::nanoseconds::max(), [&] { order += "never"; });
    queue->after(0ns, [&] { order += "a"; });
    queue->after(-1s, [&] { order += "b"; });
  });
  EXPECT_EQ(valueOf(done.get_future()), "abcd");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
}

TEST(DispatchQueue, ExceptionsEndWithTheirBlockAndAreTold) {
  std::vector<std::string> told;
  setErrorLog([&](const std::string& message) { told.push_back(message); });
  const auto queue = DispatchQueue::serialQueue("q");
  queue->async([] { throw std::runtime_error("first"); });
  queue->async([] { throw 7; });
  queue->async(nullptr);
  drain(*queue);
  setErrorLog(nullptr);
  EXPECT_EQ(told, (std::vector<std::string>{"Block on queue q: first",
                                            "Block on queue q: unknown exception"}));
}

TEST(DispatchQueue, ItsOwnBlockMayDropTheLastReference) {
  auto queue = DispatchQueue::serialQueue("dropped inside");
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = held;
  std::promise<bool> done;
  std::promise<void> ready;
  auto mayDrop = ready.get_future().share();
  queue->async([&] {
    mayDrop.wait();
    queue.reset();
    done.set_value(watched.expired());
  });
  queue->async([held] { FAIL() << "a block that was not started ran"; });
  queue->after(1ns, [held] { FAIL() << "a delayed block that was not started ran"; });
  held.reset();
  ready.set_value();
  EXPECT_TRUE(valueOf(done.get_future())) << "blocks outlived their queue";
}

TEST(DispatchQueue, DroppingItWaitsForNobody) {
  std::promise<void> started;
  std::promise<void> release;
  std::promise<void> finished;
  auto mayGo = release.get_future().share();
  {
    const auto queue = DispatchQueue::serialQueue("busy");
    queue->async([&, mayGo] {
      started.set_value();
      mayGo.wait();
      finished.set_value();
    });
    valueOf(started.get_future());
  }  // would wait for ever here
  release.set_value();
  valueOf(finished.get_future());
}

// A block whose captured object holds the queue: the queue dies on its own thread, between two
// blocks.
TEST(DispatchQueue, ABlockMayOwnItsQueue) {
  auto queue = DispatchQueue::serialQueue("owned");
  const std::weak_ptr<DispatchQueue> watched = queue;
  std::promise<void> gone;
  struct Announcer {
    std::promise<void>& gone;
    std::shared_ptr<DispatchQueue> queue;
    Announcer(std::promise<void>& g, std::shared_ptr<DispatchQueue> q)
        : gone(g), queue(std::move(q)) {}
    ~Announcer() {
      queue.reset();
      gone.set_value();
    }
  };
  auto announcer = std::make_shared<Announcer>(gone, queue);
  auto* const raw = queue.get();
  queue.reset();
  raw->async([announcer = std::move(announcer)] {});
  valueOf(gone.get_future());
  EXPECT_TRUE(watched.expired());
}

class DrivenMainQueue : public testing::Test {
 protected:
  void SetUp() override {
    DispatchQueue::driveMainQueueFromApplication([this] { ++wakes; });
  }
  void TearDown() override { DispatchQueue::driveMainQueueFromApplication(nullptr); }

  std::atomic<int> wakes{0};
};

TEST_F(DrivenMainQueue, RunsOnlyInsideTheApplicationsLoop) {
  EXPECT_LT(DispatchQueue::runMainQueue(), 0ns);
  std::string order;
  const auto queue = DispatchQueue::mainQueue();
  std::thread([&] { queue->async([&] { order += "a"; }); }).join();
  EXPECT_EQ(wakes, 1);
  queue->async([&] {
    order += "b";
    queue->async([&] { order += "c"; });  // the next round's: the loop gets its turn
    EXPECT_EQ(DispatchQueue::runMainQueue(), 0ns);
  });
  EXPECT_EQ(order, "");
  EXPECT_EQ(DispatchQueue::runMainQueue(), 0ns);
  EXPECT_EQ(order, "ab");
  EXPECT_LT(DispatchQueue::runMainQueue(), 0ns);
  EXPECT_EQ(order, "abc");
}

TEST_F(DrivenMainQueue, TellsWhenTheNextDelayedBlockIsDue) {
  const auto queue = DispatchQueue::mainQueue();
  std::string order;
  queue->after(30ms, [&] { order += "c"; });
  queue->after(40ms, [&] { order += "d"; });
  EXPECT_EQ(wakes, 1) << "only the earlier one changes the time";
  queue->after(20ms, [&] { order += "b"; });
  EXPECT_EQ(wakes, 2);
  queue->async([&] { order += "a"; });
  const auto next = DispatchQueue::runMainQueue();
  EXPECT_GE(next, 0ns);
  EXPECT_LE(next, 20ms);

  // An application's loop: it runs what is due and waits for as long as it was told.
  std::mutex mutex;
  std::condition_variable never;
  std::unique_lock lock(mutex);
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  for (auto wait = next; wait >= 0ns && std::chrono::steady_clock::now() < deadline;
       wait = DispatchQueue::runMainQueue()) {
    never.wait_for(lock, wait);
  }
  EXPECT_EQ(order, "abcd");
}

TEST(DispatchQueueShared, TheMainQueueChangesHandsAndComesBack) {
  const auto queue = DispatchQueue::mainQueue();
  const auto threadOfABlock = [&] {
    std::promise<std::thread::id> id;
    queue->async([&] { id.set_value(std::this_thread::get_id()); });
    return valueOf(id.get_future());
  };
  const auto first = threadOfABlock();
  EXPECT_NE(first, std::this_thread::get_id());
  // Taken over by one of its own blocks: that block ends on the old thread, the rest is the
  // application's.
  std::promise<void> taken;
  queue->async([&] {
    DispatchQueue::driveMainQueueFromApplication([] {});
    taken.set_value();
  });
  valueOf(taken.get_future());
  std::thread::id second;
  queue->async([&] { second = std::this_thread::get_id(); });
  while (DispatchQueue::runMainQueue() == 0ns) {
  }
  EXPECT_EQ(second, std::this_thread::get_id());
  DispatchQueue::driveMainQueueFromApplication(nullptr);
  EXPECT_NE(threadOfABlock(), std::this_thread::get_id());
}

TEST(DispatchQueueShared, TestsPutTheirOwnInPlace) {
  qntest::ManualMainQueue manual;
  std::string order;
  const auto queue = DispatchQueue::mainQueue();
  queue->after(1s, [&] {
    order += "c";
    DispatchQueue::mainQueue()->after(500ms, [&] { order += "d"; });
  });
  queue->async([&] { order += "a"; });
  queue->after(999ms, [&] { order += "b"; });
  EXPECT_EQ(manual->run(), 1U);
  EXPECT_EQ(manual->advance(999ms), 1U);
  EXPECT_EQ(order, "ab");
  EXPECT_EQ(manual->advance(501ms), 2U);
  EXPECT_EQ(order, "abcd");
  EXPECT_EQ(manual->pending(), 0U);
}

}  // namespace
}  // namespace platform
