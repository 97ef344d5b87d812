#pragma once

#include <memory>

#include "platform/Export.h"
#include "platform/URLSession.h"

class QNResourceDownloadInfo;

// Who owns the transfer session and knows which task belongs to which resource. Held weakly by
// every resource; all calls come with the lock of the resource's set held.
class QN_EXPORT QNSessionController {
 public:
  virtual ~QNSessionController() = default;

  // Asked whenever a task is made. Never null.
  virtual std::shared_ptr<platform::URLSession> downloadSession() = 0;
  // Right after a task became the resource's own, a new one or one found again after a relaunch.
  virtual void resourceAttachTask(
      const std::shared_ptr<QNResourceDownloadInfo>& resource,
      const std::shared_ptr<platform::URLSessionDownloadTask>& task) = 0;
  // When the resource gives its task up, by cancelling or completing.
  virtual void resourceDetachTask(
      const std::shared_ptr<QNResourceDownloadInfo>& resource,
      const std::shared_ptr<platform::URLSessionDownloadTask>& task) = 0;
};
