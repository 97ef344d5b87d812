#pragma once

#include "platform/Data.h"
#include "playlist/QNQuality.h"

// A quality with the bytes that its decoder needs before the first sample.
class QN_EXPORT QNCodecPrivateQuality : public QNQuality {
 public:
  QNCodecPrivateQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                        std::optional<std::string> parameters, std::optional<std::string> fourCC,
                        std::string identifier, QNMediaType type, uint32_t bitrate,
                        platform::DataPtr codecPrivateData, const std::shared_ptr<QNTrack>& parent);
  ~QNCodecPrivateQuality() override;

  const platform::DataPtr& codecPrivateData() const { return codecPrivateData_; }  // may be null

 private:
  platform::DataPtr codecPrivateData_;
};
