#pragma once

#include <cstddef>
#include <memory>

#include "mpl/smooth/Media.h"
#include "playlist/QNAudioQuality.h"
#include "playlist/QNManifestResourceListBuilder.h"
#include "playlist/QNMediaType.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNTextQuality.h"
#include "playlist/QNTrack.h"
#include "playlist/QNVideoQuality.h"

// From a parsed Smooth Streaming client manifest to the model: one movie, a StreamIndex is a track,
// a QualityLevel a quality. Not a public header.
//
// Null pointers in the parsed tree are broken promises of the parser: assertion "Unexpected NULL
// pointer".

using QNSmoothStreamElement = std::shared_ptr<SmoothStreaming::StreamElement>;

class QNSmoothStreamingPlaylist : public QNPlaylist {
 public:
  using QNPlaylist::QNPlaylist;
  // Never null; without movies when the media has no streams.
  static std::shared_ptr<QNPlaylist> playlistWithManifest(const SmoothStreaming::Media& media);
  std::string format() const override;
};

class QNSmoothStreamingMovie : public QNMovie {
 public:
  using QNMovie::QNMovie;
  static std::shared_ptr<QNMovie> movieWithMedia(const SmoothStreaming::Media& media,
                                                 const std::shared_ptr<QNPlaylist>& parent);
};

class QNSmoothStreamingTrack : public QNTrack {
 public:
  using QNTrack::QNTrack;
  // Null for a stream without quality levels or of a type that the model does not have. `duration`
  // is in seconds.
  static std::shared_ptr<QNTrack> trackWithStreamElement(const QNSmoothStreamElement& stream,
                                                         double duration,
                                                         const std::shared_ptr<QNMovie>& parent);
};

// Of the class that the parent's type asks for; any other type throws platform::Exception
// "QNPlaylistFactoryException", "Unsupported SmoothStreaming media type encountered".
std::shared_ptr<QNQuality> qualityWithStreamElement(const QNSmoothStreamElement& stream,
                                                    size_t index,
                                                    const std::shared_ptr<QNTrack>& parent);

class QNSmoothStreamingVideoQuality : public QNVideoQuality {
 public:
  using QNVideoQuality::QNVideoQuality;
  static std::shared_ptr<QNQuality> qualityWithStreamElement(
      const QNSmoothStreamElement& stream, size_t index, const std::shared_ptr<QNTrack>& parent);
};

// Made without codec private data, also where the manifest gives some.
class QNSmoothStreamingAudioQuality : public QNAudioQuality {
 public:
  using QNAudioQuality::QNAudioQuality;
  static std::shared_ptr<QNQuality> qualityWithStreamElement(
      const QNSmoothStreamElement& stream, size_t index, const std::shared_ptr<QNTrack>& parent);
};

class QNSmoothStreamingTextQuality : public QNTextQuality {
 public:
  using QNTextQuality::QNTextQuality;
  static std::shared_ptr<QNQuality> qualityWithStreamElement(
      const QNSmoothStreamElement& stream, size_t index, const std::shared_ptr<QNTrack>& parent);
};

// Keeps the stream, and with it the timeline that its qualities share.
class QNSmoothStreamingResourceListBuilder : public QNManifestResourceListBuilder {
 public:
  QNSmoothStreamingResourceListBuilder(QNSmoothStreamElement stream, size_t index);
  ~QNSmoothStreamingResourceListBuilder() override;

  Extent extent() const override;

 protected:
  void list(QNResourceListAssembler& assembler) const override;

 private:
  QNSmoothStreamElement stream_;
  size_t index_;
};

// The model's type of a stream type; 0 for one that it has none for.
QNMediaType mediaTypeWithStreamType(SmoothStreaming::Stream::Type type);
