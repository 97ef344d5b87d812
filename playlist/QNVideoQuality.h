#pragma once

#include "playlist/QNCodecPrivateQuality.h"

// `parameters` reads "<width> x <height> @ <kbps> kbps"; throws as QNQuality.
class QN_EXPORT QNVideoQuality : public QNCodecPrivateQuality {
 public:
  QNVideoQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                 std::optional<std::string> fourCC, std::string identifier, uint32_t bitrate,
                 platform::DataPtr codecPrivateData, uint32_t width, uint32_t height,
                 uint32_t naluSize, const std::shared_ptr<QNTrack>& parent);
  ~QNVideoQuality() override;

  uint32_t width() const { return width_; }        // pixels
  uint32_t height() const { return height_; }      // pixels
  uint32_t naluSize() const { return naluSize_; }  // bytes of the NAL unit length field, 0 unknown

 private:
  uint32_t width_;
  uint32_t height_;
  uint32_t naluSize_;
};
