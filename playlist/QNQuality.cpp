#include "playlist/QNQuality.h"

#include <utility>

#include "platform/Exception.h"

namespace {

// UTF-16 units of UTF-8 text; a byte that starts no character counts as one.
size_t utf16Length(const std::string& text) {
  size_t units = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool continuation = (byte & 0xC0) == 0x80;
    if (!continuation) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

}  // namespace

QNQuality::QNQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                     std::optional<std::string> parameters, std::optional<std::string> fourCC,
                     std::string identifier, QNMediaType type, uint32_t bitrate,
                     const std::shared_ptr<QNTrack>& parent)
    : resourceBuilder_(std::move(resourceBuilder)),
      parent_(parent),
      parameters_(std::move(parameters)),
      fourCC_(fourCC ? std::move(*fourCC) : fourCCWithMediaType(type)),
      type_(type),
      identifier_(std::move(identifier)),
      bitrate_(bitrate) {
  if (utf16Length(fourCC_) != 4) {
    throw platform::Exception("InvalidArgumentException", "FourCC string not four characters long");
  }
}

QNQuality::~QNQuality() = default;

QNResourceListPtr QNQuality::fillResourcesWithBaseUrl(const std::optional<std::string>&) {
  return nullptr;
}
