#include "playlist/QNVideoQuality.h"

#include <utility>

#include "playlist/QNQualityDescription.h"

namespace {

std::string describe(uint32_t bitrate, uint32_t width, uint32_t height) {
  return std::to_string(width) + " x " + std::to_string(height) + " @ " +
         quality_description::thousands(bitrate) + " kbps";
}

}  // namespace

QNVideoQuality::QNVideoQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                               std::optional<std::string> fourCC, std::string identifier,
                               uint32_t bitrate, platform::DataPtr codecPrivateData, uint32_t width,
                               uint32_t height, uint32_t naluSize,
                               const std::shared_ptr<QNTrack>& parent)
    : QNCodecPrivateQuality(std::move(resourceBuilder), describe(bitrate, width, height),
                            std::move(fourCC), std::move(identifier), QNMediaTypeVideo, bitrate,
                            std::move(codecPrivateData), parent),
      width_(width),
      height_(height),
      naluSize_(naluSize) {}

QNVideoQuality::~QNVideoQuality() = default;
