#include "playlist/QNManifestResourceListBuilder.h"

#include <utility>

#include "playlist/QNMovie.h"
#include "playlist/QNParserExceptions.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNQuality.h"
#include "playlist/QNResourceListAssembler.h"
#include "playlist/QNTrack.h"

QNResourceListPtr QNManifestResourceListBuilder::fillResourcesWithBaseURL(
    const std::optional<std::string>& baseURL) {
  const platform::MutexLock lock(mutex_);
  if (resources_ && baseURL == baseURL_) return resources_;
  if (budget_) budget_->check();
  resources_ = nullptr;
  baseURL_ = baseURL;
  resources_ = withPlatformExceptions([&] {
    QNResourceListAssembler assembler(
        extent().resources, baseURL ? std::make_shared<const std::string>(*baseURL) : nullptr);
    list(assembler);
    return assembler.finish();
  });
  return resources_;
}

void QNManifestResourceListBuilder::shareBudget(const QNPlaylist& playlist) {
  const auto budget = std::make_shared<QNResourceBudget>();
  for (const auto& movie : playlist.movies()) {
    for (const auto& track : movie->tracks()) {
      for (const auto& quality : track->qualities()) {
        auto* builder =
            dynamic_cast<QNManifestResourceListBuilder*>(quality->resourceBuilder().get());
        if (!builder) continue;
        const Extent extent = builder->extent();
        budget->declare(extent.resources, extent.textBytes);
        builder->budget_ = budget;
      }
    }
  }
}
