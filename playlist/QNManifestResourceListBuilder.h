#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Mutex.h"
#include "playlist/QNResourceBudget.h"
#include "playlist/QNResourceListBuilder.h"

class QNPlaylist;
class QNResourceListAssembler;

// What the builders of parsed manifests have in common: the list of the last base URL is kept, all
// builders of a presentation share one budget, and what the parsers throw leaves as a
// platform::Exception. Not a public header.
class QNManifestResourceListBuilder : public QNResourceListBuilder {
 public:
  // Upper bounds of what will be listed, before neighbours are merged.
  struct Extent {
    uint64_t resources = 0;
    uint64_t textBytes = 0;
  };

  QNResourceListPtr fillResourcesWithBaseURL(const std::optional<std::string>& baseURL) final;

  // Cost grows with the elements of the manifest, not with what they repeat. Does not throw for
  // addressing that cannot be built: that is told when it is listed.
  virtual Extent extent() const = 0;

  // Declares all qualities of a finished playlist to one budget.
  static void shareBudget(const QNPlaylist& playlist);

 protected:
  // Adds the resources in download order. May throw anything.
  virtual void list(QNResourceListAssembler& assembler) const = 0;

 private:
  // Set before the playlist is handed out.
  std::shared_ptr<const QNResourceBudget> budget_;

  platform::Mutex mutex_;
  std::optional<std::string> baseURL_ GUARDED_BY(mutex_);
  QNResourceListPtr resources_ GUARDED_BY(mutex_);
};
