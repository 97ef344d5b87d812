#pragma once

#include "playlist/QNCodecPrivateQuality.h"

// `parameters` reads "<language or Unknown> <kHz> kHZ, <channels> ch @ <kbps> kbps" and a tab;
// throws as QNQuality.
class QN_EXPORT QNAudioQuality : public QNCodecPrivateQuality {
 public:
  QNAudioQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                 std::optional<std::string> fourCC, std::string identifier, uint32_t bitrate,
                 platform::DataPtr codecPrivateData, uint32_t channels, uint32_t sampleRate,
                 uint32_t bitsPerSample, const std::shared_ptr<QNTrack>& parent);
  ~QNAudioQuality() override;

  uint32_t channels() const { return channels_; }
  uint32_t sampleRate() const { return sampleRate_; }  // Hz
  uint32_t bitsPerSample() const { return bitsPerSample_; }

 private:
  uint32_t channels_;
  uint32_t sampleRate_;
  uint32_t bitsPerSample_;
};
