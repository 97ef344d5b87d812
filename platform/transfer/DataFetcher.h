#pragma once

#include <memory>

#include "platform/URLSession.h"

namespace platform {

// One-shot fetches into memory for the whole process, on one thread that is started with the first
// one and sleeps when there is none.
class DataFetcher {
 public:
  static DataFetcher& shared();

  std::shared_ptr<URLSessionDataTask> makeTask(const URLRequestPtr& request,
                                               URLSession::DataCompletion completion);

  class Core;

 private:
  DataFetcher();
  std::shared_ptr<Core> core_;
};

// The session for one-shot fetches: it has no store, and download tasks made by it fail.
std::shared_ptr<URLSession> sharedTransferSession();

}  // namespace platform
