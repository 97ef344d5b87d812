#include <algorithm>
#include <utility>

#include "engine/QNMovieDownloadProperties.h"
#include "engine/QNMovieDownloadSet.h"
#include "engine/QNQualityDownloadInfo.h"
#include "platform/Exception.h"
#include "platform/JSON.h"
#include "platform/URL.h"

using platform::JSON;
using platform::RecursiveLock;

// Which requests carry the application's headers.

namespace {

[[noreturn]] void misuse(const std::string& reason) {
  throw platform::Exception(QNMovieDownloadSetException, reason);
}

QNHeadersPtr headersOfTask(const platform::URLSessionDownloadTask& task) {
  const auto request = task.originalRequest();
  if (!request) return nullptr;
  QNHeaders headers;
  for (const auto& [name, value] : request->allHTTPHeaderFields().fields())
    headers[name] = value;
  headers.erase("Range");
  return headers.empty() ? nullptr : std::make_shared<const QNHeaders>(std::move(headers));
}

}  // namespace

std::optional<QNHeaderOrigins> QNMovieDownloadSet::headerOrigins() const {
  RecursiveLock lock(mutex_);
  return headerOrigins_;
}

void QNMovieDownloadSet::setHeaderOrigins(const std::optional<QNHeaderOrigins>& origins) {
  RecursiveLock lock(mutex_);
  std::optional<QNHeaderOrigins> next;
  if (origins) next.emplace();
  for (const std::string& text : origins.value_or(QNHeaderOrigins())) {
    const auto url = platform::URL::URLWithString(text);
    if (!url || !url->isOrigin()) misuse("Not an origin: " + text);
    next->push_back(url->origin());
  }
  if (next == headerOrigins_) return;
  if (numActive_ != 0) misuse("Can't limit headers in non-idle state");
  // Recorded before the first request that it is about, or the next launch would not know of it.
  if (!removed_) {
    if (next) {
      properties_->setObjectForKey(JSON::Array(next->begin(), next->end()), QNHeaderOriginsKey);
    } else {
      properties_->removeObjectForKey(QNHeaderOriginsKey);
    }
    if (!properties_->isWritten()) misuse("Failed to record where headers may go");
  }
  headerOrigins_ = std::move(next);
}

// A member that is there limits, whatever its form: what cannot be read names no further origin.
void QNMovieDownloadSet::readHeaderOrigins() {
  const auto stored = properties_->objectForKey(QNHeaderOriginsKey);
  if (!stored) return;
  headerOrigins_.emplace();
  for (const JSON& item : stored->items()) {
    if (auto text = item.string()) headerOrigins_->push_back(std::move(*text));
  }
}

bool QNMovieDownloadSet::sendsHeadersTo(const platform::URL& url) const {
  RecursiveLock lock(mutex_);
  if (!headerOrigins_) return true;
  const std::string origin = url.origin();
  return origin == sourceOrigin_ ||
         std::find(headerOrigins_->begin(), headerOrigins_->end(), origin) != headerOrigins_->end();
}

// The next segments need what those before them were asked for with. A task that carries nothing
// may have been on its way elsewhere: another one's headers count for its quality, too.
void QNMovieDownloadSet::takeHeadersOfTask(const Task& task) {
  if (!foundHeaders_) foundHeaders_ = headersOfTask(*task);
  giveHeaders(foundHeaders_);
}

void QNMovieDownloadSet::adoptHeaders(const QNHeadersPtr& headers) {
  RecursiveLock lock(mutex_);
  if (headerOrigins_ && starts_ == 0) giveHeaders(_mergeHeaders(headers));
}

void QNMovieDownloadSet::giveHeaders(const QNHeadersPtr& headers) {
  if (!headers) return;
  for (const QualityInfo& info : selectedQualitiesInfo_) {
    const bool isActive = info->status() != QNDownloadStatusIdle;
    if (isActive && !info->additionalHeaders()) info->setAdditionalHeaders(headers);
  }
}
