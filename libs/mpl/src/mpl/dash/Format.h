#pragma once

#include <cstdint>
#include <utility>

#include "mpl/dash/FrameRate.h"
#include "qnc/qncFastString.h"

namespace mpl::dash {

// The media properties of a Representation, inherited ones included. -1 is an absent number.
class Format {
 public:
  Format(qnc::FastString id, qnc::FastString mimeType, int32_t width, int32_t height,
         FrameRate frameRate, int32_t audioChannels, int32_t audioSamplingRate, int32_t bandwidth,
         qnc::FastString lang, qnc::FastString codecs)
      : id_(std::move(id)),
        mimeType_(std::move(mimeType)),
        width_(width),
        height_(height),
        frameRate_(frameRate),
        audioChannels_(audioChannels),
        audioSamplingRate_(audioSamplingRate),
        bandwidth_(bandwidth),
        lang_(std::move(lang)),
        codecs_(std::move(codecs)) {}

  const qnc::FastString& id() const { return id_; }
  const qnc::FastString& mimeType() const { return mimeType_; }
  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  const FrameRate& frameRate() const { return frameRate_; }
  int32_t audioChannels() const { return audioChannels_; }
  int32_t audioSamplingRate() const { return audioSamplingRate_; }
  int32_t bandwidth() const { return bandwidth_; }  // bits per second
  const qnc::FastString& lang() const { return lang_; }
  const qnc::FastString& codecs() const { return codecs_; }

 private:
  qnc::FastString id_;
  qnc::FastString mimeType_;
  int32_t width_;
  int32_t height_;
  FrameRate frameRate_;
  int32_t audioChannels_;
  int32_t audioSamplingRate_;
  int32_t bandwidth_;
  qnc::FastString lang_;
  qnc::FastString codecs_;
};

}  // namespace mpl::dash
