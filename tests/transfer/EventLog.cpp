#include "tests/transfer/EventLog.h"

#include <sstream>

#include <gtest/gtest.h>

namespace qntest {

void EventLog::read(const std::vector<std::string>& lines) {
  for (; linesRead_ < lines.size(); ++linesRead_) {
    SCOPED_TRACE("line " + std::to_string(linesRead_ + 1) + ": " + lines[linesRead_]);
    std::istringstream line(lines[linesRead_]);
    std::string word, name;
    uint64_t id = 0;
    line >> word >> name >> id;
    if (word == "open") _open(static_cast<pid_t>(std::stoll(name)));
    if (word == "launch") launched_ = true;
    if (word == "attached" || word == "new") hasTasks_ = true;
    if (word == "attached") safe_.insert(name);
    if (word == "new") _made(name, id);
    if (word == "undescribed") cancelled_.insert(std::stoull(name));
    if (word == "whole") _offered(id);
    if (word == "completed") _completed(std::stoull(name));
    if (word == "stored") {
      EXPECT_TRUE(stored_.insert(name).second) << "stored twice";
      taken_.insert(id);
    }
    EXPECT_NE(word, "failed");
    EXPECT_NE(word, "doubled");
  }
}

void EventLog::serviceWasKilled() {
  serviceDied_ = true;
  for (const std::string& name : made_)
    safe_.erase(name);
}

void EventLog::nextMovie() {
  made_.clear();
  stored_.clear();
  safe_.clear();
  recent_.clear();
}

void EventLog::_open(pid_t application) {
  application_ = application;
  ++launches_;
  launched_ = hasTasks_ = serviceDied_ = false;
  offered_.clear();
  uncompleted_ = 0;
  made_.clear();
  recent_.clear();
}

// Said outside of a delegate call, or in one that is over, it is in the service's hands. Only the
// service's own death, and the launch's before it could repeat it, may lose it.
void EventLog::_made(const std::string& name, uint64_t id) {
  EXPECT_TRUE(identifiers_.insert(id).second) << "an identifier was used again";
  EXPECT_FALSE(stored_.contains(name)) << "made again though it is in place";
  EXPECT_FALSE(safe_.contains(name)) << "the task that there was is lost";
  made_.insert(name);
  recent_.insert(name);
}

void EventLog::_offered(uint64_t id) {
  if (!serviceDied_) safe_.merge(recent_);
  recent_.clear();
  EXPECT_TRUE(offered_.insert(id).second) << "told twice to one application";
  EXPECT_FALSE(taken_.contains(id)) << "told again though its file had been taken";
  EXPECT_EQ(uncompleted_, 0U) << "an end was not told before the next file";
  uncompleted_ = id;
}

void EventLog::_completed(uint64_t id) {
  EXPECT_TRUE(completed_.insert(id).second) << "an end was told twice";
  if (cancelled_.contains(id)) return;
  EXPECT_EQ(uncompleted_, id) << "not after its file";
  uncompleted_ = 0;
}

}  // namespace qntest
