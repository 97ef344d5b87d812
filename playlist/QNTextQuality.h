#pragma once

#include "playlist/QNQuality.h"

// `parameters` is the display language, followed by "[TTML]" or "[VTT]" when the track's name says
// so. Without a language it is "(null) [TTML]", or null without a tag. Throws as QNQuality.
class QN_EXPORT QNTextQuality : public QNQuality {
 public:
  QNTextQuality(std::shared_ptr<QNResourceListBuilder> resourceBuilder,
                std::optional<std::string> fourCC, std::string identifier, uint32_t bitrate,
                uint32_t width, uint32_t height, std::optional<std::string> text,
                const std::shared_ptr<QNTrack>& parent);
  ~QNTextQuality() override;

  uint32_t width() const { return width_; }    // pixels
  uint32_t height() const { return height_; }  // pixels
  const std::optional<std::string>& text() const { return text_; }

 private:
  uint32_t width_;
  uint32_t height_;
  std::optional<std::string> text_;
};
