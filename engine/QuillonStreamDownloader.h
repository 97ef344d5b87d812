#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/host/QuillonStreamDownloaderInterface.h"

// The face of this library towards a host player that loads it as a plug-in. What the host calls
// through its interface, or by name, throws nothing: what fails is logged, and the answer is the
// empty one.
class QN_EXPORT QuillonStreamDownloader final : public QuillonStreamDownloaderInterface {
 public:
  // Registers `create` with the host.
  static void initPlugin();
  static std::shared_ptr<QuillonStreamDownloaderInterface> create();

  std::string getId() const override;  // "QuillonStreamDownloader"
  // Of what the shared downloader lists, the first with this local URL. Needs no shared downloader,
  // which another process may have, and makes none: then it looks in the default download path.
  std::optional<std::vector<std::string>> getDownloadedQualityIds(
      const std::string& localURL) override;
};

// The entry that a host looks up after dlopen.
extern "C" QN_EXPORT void QuillonStreamDownloader_initPlugin();
