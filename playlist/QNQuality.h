#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Export.h"
#include "playlist/QNMediaType.h"
#include "playlist/QNResourceListBuilder.h"

class QNTrack;

// One rendition of a track. Read only.
class QN_EXPORT QNQuality {
 public:
  // A null `fourCC` becomes the default of `type`. Throws platform::Exception
  // "InvalidArgumentException": "Invalid media type" when there is no default, "FourCC string not
  // four characters long" (UTF-16 units) for any other.
  QNQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
            std::optional<std::string> parameters, std::optional<std::string> fourCC,
            std::string identifier, QNMediaType type, uint32_t bitrate,
            const std::shared_ptr<QNTrack>& parent);
  QNQuality(const QNQuality&) = delete;
  QNQuality& operator=(const QNQuality&) = delete;
  virtual ~QNQuality();

  const std::shared_ptr<QNResourceListBuilder>& resourceBuilder() const { return resourceBuilder_; }
  std::shared_ptr<QNTrack> parent() const { return parent_.lock(); }
  // One line for a person. May be null.
  const std::optional<std::string>& parameters() const { return parameters_; }
  const std::string& fourCC() const { return fourCC_; }  // four characters
  QNMediaType type() const { return type_; }
  const std::string& identifier() const {
    return identifier_;
  }                                              // as the manifest gives it; need not be unique
  uint32_t bitrate() const { return bitrate_; }  // bits per second, 0 unknown

  // Always null: lists come from the resource builder. Kept for callers of old.
  QNResourceListPtr fillResourcesWithBaseUrl(const std::optional<std::string>& baseURL);

  // An addition of this library: the codecs text of the manifest (RFC 6381), empty where it gives
  // none.
  const std::string& codecs() const { return codecs_; }

 protected:
  void setCodecs(std::string codecs) { codecs_ = std::move(codecs); }

 private:
  std::shared_ptr<QNResourceListBuilder> resourceBuilder_;
  std::weak_ptr<QNTrack> parent_;
  std::optional<std::string> parameters_;
  std::string fourCC_;
  QNMediaType type_;
  std::string identifier_;
  uint32_t bitrate_;
  std::string codecs_;
};
