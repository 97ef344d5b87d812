#include "playlist/QNAudioQuality.h"

#include <utility>

#include "playlist/QNQualityDescription.h"

namespace {

std::string describe(const QNTrack* track, uint32_t bitrate, uint32_t channels,
                     uint32_t sampleRate) {
  return quality_description::language(track).value_or("Unknown") + " " +
         quality_description::thousands(sampleRate) + " kHZ, " + std::to_string(channels) +
         " ch @ " + quality_description::thousands(bitrate) + " kbps\t";
}

}  // namespace

QNAudioQuality::QNAudioQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                               std::optional<std::string> fourCC, std::string identifier,
                               uint32_t bitrate, platform::DataPtr codecPrivateData,
                               uint32_t channels, uint32_t sampleRate, uint32_t bitsPerSample,
                               const std::shared_ptr<QNTrack>& parent)
    : QNCodecPrivateQuality(std::move(resourceBuilder),
                            describe(parent.get(), bitrate, channels, sampleRate),
                            std::move(fourCC), std::move(identifier), QNMediaTypeAudio, bitrate,
                            std::move(codecPrivateData), parent),
      channels_(channels),
      sampleRate_(sampleRate),
      bitsPerSample_(bitsPerSample) {}

QNAudioQuality::~QNAudioQuality() = default;
