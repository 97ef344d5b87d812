#pragma once

#include <cstdint>
#include <memory>

#include "mpl/smooth/Element.h"
#include "mpl/smooth/Stream.h"
#include "qnc/qncByteArray.h"

namespace SmoothStreaming {

class StreamElement;

// A "QualityLevel": one encoding of a stream. Numbers that the type of the stream does not require
// are 0 when absent.
class TrackElement : public Element {
 public:
  TrackElement(const qnc::xml::Element& element, std::weak_ptr<StreamElement> parentStream,
               Stream::Type type);

  // Null once the stream is gone.
  std::shared_ptr<StreamElement> parentStream() const { return parentStream_.lock(); }
  Stream::Type type() const { return type_; }
  uint32_t index() const { return index_; }
  uint32_t bitrate() const { return bitrate_; }  // bits per second
  uint32_t maxWidth() const { return maxWidth_; }
  uint32_t maxHeight() const { return maxHeight_; }
  uint32_t samplingRate() const { return samplingRate_; }
  uint32_t audioTag() const { return audioTag_; }
  uint32_t bitsPerSample() const { return bitsPerSample_; }
  uint32_t packetSize() const { return packetSize_; }
  uint32_t channels() const { return channels_; }
  const qnc::ByteArray& codecPrivateData() const { return codecPrivateData_; }
  // Exactly four bytes, a shorter one padded with zero bytes and a longer one cut; or empty.
  const qnc::FastString& fourCC() const { return fourCC_; }
  uint32_t NALUnitLengthField() const { return nalUnitLengthField_; }  // bytes

 private:
  std::weak_ptr<StreamElement> parentStream_;
  Stream::Type type_;
  uint32_t index_;
  uint32_t bitrate_;
  uint32_t maxWidth_;
  uint32_t maxHeight_;
  uint32_t samplingRate_;
  uint32_t audioTag_;
  uint32_t bitsPerSample_;
  uint32_t packetSize_;
  uint32_t channels_;
  qnc::ByteArray codecPrivateData_;
  qnc::FastString fourCC_;
  uint32_t nalUnitLengthField_;
};

}  // namespace SmoothStreaming
