#include "playlist/QNCodecPrivateQuality.h"

#include <utility>

QNCodecPrivateQuality::QNCodecPrivateQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                                             std::optional<std::string> parameters,
                                             std::optional<std::string> fourCC,
                                             std::string identifier, QNMediaType type,
                                             uint32_t bitrate, platform::DataPtr codecPrivateData,
                                             const std::shared_ptr<QNTrack>& parent)
    : QNQuality(std::move(resourceBuilder), std::move(parameters), std::move(fourCC),
                std::move(identifier), type, bitrate, parent),
      codecPrivateData_(std::move(codecPrivateData)) {}

QNCodecPrivateQuality::~QNCodecPrivateQuality() = default;
