#include "platform/Application.h"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Error.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/NetworkMonitor.h"
#include "platform/NotificationCenter.h"

namespace platform {
namespace {

TEST(NotificationCenter, ObserversRunInOrderAndMayRemoveEachOther) {
  NotificationCenter center;
  std::string order;
  NotificationCenter::Observer second = 0;
  NotificationCenter::Observer own = 0;
  own = center.addObserver("n", [&] {
    order += "1";
    center.removeObserver(second);
    center.removeObserver(own);
    center.addObserver("n", [&] { order += "4"; });  // not of this round
  });
  second = center.addObserver("n", [&] { order += "2"; });
  center.addObserver("n", [&] { order += "3"; });
  center.addObserver("other", [&] { order += "x"; });
  center.postNotification("n");
  EXPECT_EQ(order, "13");
  center.postNotification("n");
  EXPECT_EQ(order, "1334");
  center.removeObserver(own);  // again: nothing
}

TEST(NotificationCenter, AnObserverThatThrowsStopsNoOther) {
  std::vector<std::string> told;
  setErrorLog([&](const std::string& message) { told.push_back(message); });
  NotificationCenter center;
  bool reached = false;
  center.addObserver("n", [] { throw Exception("Name", "reason"); });
  center.addObserver("n", [&] { reached = true; });
  center.postNotification("n");
  setErrorLog(nullptr);
  EXPECT_TRUE(reached);
  EXPECT_EQ(told, std::vector<std::string>{"Observer of n: Name: reason"});
}

TEST(NotificationCenter, WhatABlockCapturedMayTouchTheCentreWhenItGoes) {
  NotificationCenter center;
  struct Remover {
    NotificationCenter& center;
    NotificationCenter::Observer other;
    ~Remover() { center.removeObserver(other); }
  };
  bool ran = false;
  const auto other = center.addObserver("n", [&] { ran = true; });
  auto remover = std::make_shared<Remover>(Remover{center, other});
  const auto observer = center.addObserver("n", [remover] {});
  remover.reset();
  center.removeObserver(observer);
  center.postNotification("n");
  EXPECT_FALSE(ran);
}

TEST(NotificationCenter, IsUsedFromSeveralThreads) {
  NotificationCenter center;
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        const auto observer = center.addObserver("n", [&] { ++calls; });
        center.postNotification("n");
        center.removeObserver(observer);
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_GE(calls, 300);
  const int before = calls;
  center.postNotification("n");
  EXPECT_EQ(calls, before);
}

TEST(Application, BackgroundTasksCanBeWatched) {
  Application application;
  std::vector<std::string> seen;
  application.setBackgroundTaskWatcher([&](const std::string& name, BackgroundTaskChange change) {
    seen.push_back((change == BackgroundTaskChange::Began ? "+" : "-") + name + "/" +
                   std::to_string(application.openBackgroundTasks().size()));
  });
  const auto first = application.beginBackgroundTaskWithName("a");
  const auto second = application.beginBackgroundTaskWithName("a");
  EXPECT_NE(first, second);
  application.endBackgroundTask(first);
  application.endBackgroundTask(first);
  application.endBackgroundTask(0);
  EXPECT_EQ(application.openBackgroundTasks(), std::vector<std::string>{"a"});
  application.setBackgroundTaskWatcher(nullptr);
  application.endBackgroundTask(second);
  EXPECT_EQ(seen, (std::vector<std::string>{"+a/1", "+a/2", "-a/1"}));
}

TEST(Application, TheHostTellsTheLifeCycle) {
  auto& center = NotificationCenter::defaultCenter();
  std::string seen;
  const auto background =
      center.addObserver(UIApplicationDidEnterBackgroundNotification, [&] { seen += "b"; });
  const auto foreground =
      center.addObserver(UIApplicationWillEnterForegroundNotification, [&] { seen += "f"; });
  Application::sharedApplication().enterBackground();
  Application::sharedApplication().enterForeground();
  center.removeObserver(background);
  center.removeObserver(foreground);
  Application::sharedApplication().enterForeground();
  EXPECT_EQ(seen, "bf");
}

TEST(Error, TellsWhatItKnows) {
  const auto file = Error::errorWithErrno(ENOSPC, "Cannot write", "/x");
  EXPECT_EQ(file->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(file->code(), ENOSPC);
  EXPECT_EQ(file->localizedDescription(), "Cannot write /x: No space left on device");
  EXPECT_EQ(file->stringForKey(NSFilePathErrorKey), "/x");

  const Error bare("D", -5, {{"n", int64_t{1}}, {NSLocalizedDescriptionKey, 2}});
  EXPECT_EQ(bare.stringForKey("n"), std::nullopt);
  EXPECT_EQ(bare.localizedDescription(), "D error -5");
}

TEST(Exception, AssertionsCarryTheirFixedText) {
  EXPECT_NO_THROW(assertThat(true, "x"));
  try {
    assertThat(false, "Underflow in running counter");
    FAIL();
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
    EXPECT_EQ(exception.reason(), "Underflow in running counter");
    EXPECT_STREQ(exception.what(), "Underflow in running counter");
  }
}

}  // namespace
}  // namespace platform
