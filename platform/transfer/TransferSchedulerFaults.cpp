#include <utility>

#include "platform/Log.h"
#include "platform/transfer/TransferScheduler.h"

// What is done about exceptions: nothing that is thrown may end more than it has to.
namespace platform {

// Tried again like a failure of the connection, until the bound.
void TransferScheduler::takeThrown() {
  while (!thrown_.empty()) {
    const auto [id, why] = std::move(thrown_.back());
    thrown_.pop_back();
    logError("Transfer " + std::to_string(id) + ": " + why);
    Job* const job = find(id);
    if (!job) continue;
    stopDownload(*job);
    leaveQueue(*job);
    setTrying(*job, true);
    if (const auto delay = retryDelay(*job, std::nullopt)) {
      retry(*job, *delay, false);
    } else {
      failJob(*job, {URLErrorUnknown, false, why}, 0);
    }
  }
}

void TransferScheduler::startOver() {
  for (const auto& [id, job] : jobs_) {
    stopDownload(*job);
    static_cast<void>(ledger_.setContent(id, job->content, job->effort));
  }
  jobs_.clear();
  hosts_.clear();
  active_ = 0;
  for (auto* ids : {&touched_, &ended_, &unreported_, &newlyQueued_, &flushing_})
    ids->clear();
  thrown_.clear();
  throttled_.clear();
  endings_.clear();
  endedResponses_.clear();
}

}  // namespace platform
