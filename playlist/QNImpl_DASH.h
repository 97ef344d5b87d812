#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mpl/dash/MediaPresentationDescription.h"
#include "mpl/dash/MultiSegmentRepresentation.h"
#include "mpl/dash/SingleSegmentRepresentation.h"
#include "playlist/QNAudioQuality.h"
#include "playlist/QNManifestResourceListBuilder.h"
#include "playlist/QNMediaType.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNTextQuality.h"
#include "playlist/QNTrack.h"
#include "playlist/QNVideoQuality.h"

// From a parsed MPD (ISO/IEC 23009-1) to the model: a Period is a movie, an AdaptationSet a track,
// a Representation a quality. What has nothing to list is left out. The model keeps of the parsed
// tree only what its lists need. Not a public header.
//
// Null pointers in the parsed tree are broken promises of the parser: assertion "Unexpected NULL
// pointer". Durations are microseconds, negative when unknown.

class QNDASHPlaylist : public QNPlaylist {
 public:
  using QNPlaylist::QNPlaylist;
  // Null when no Period gives a movie.
  static std::shared_ptr<QNPlaylist> playlistWithManifest(
      const mpl::dash::MediaPresentationDescription& mpd);
  std::string format() const override;
};

class QNDASHMovie : public QNMovie {
 public:
  using QNMovie::QNMovie;
  static std::shared_ptr<QNMovie> movieWithPeriod(const mpl::dash::Period& period,
                                                  int64_t durationUs,
                                                  const std::shared_ptr<QNPlaylist>& parent);
};

class QNDASHTrack : public QNTrack {
 public:
  using QNTrack::QNTrack;
  static std::shared_ptr<QNTrack> trackWithAdaptationSet(const mpl::dash::AdaptationSet& set,
                                                         int64_t durationUs,
                                                         const std::shared_ptr<QNMovie>& parent);
};

using QNDASHRepresentation = std::shared_ptr<mpl::dash::Representation>;

// Of the class that the parent's type asks for; any other type throws platform::Exception
// "QNPlaylistFactoryException", "Unsupported DASH media type encountered".
std::shared_ptr<QNQuality> qualityWithRepresentation(const QNDASHRepresentation& representation,
                                                     int64_t durationUs,
                                                     const std::shared_ptr<QNTrack>& parent);

class QNDASHVideoQuality : public QNVideoQuality {
 public:
  using QNVideoQuality::QNVideoQuality;
  static std::shared_ptr<QNQuality> qualityWithRepresentation(
      const QNDASHRepresentation& representation, int64_t durationUs,
      const std::shared_ptr<QNTrack>& parent);
};

class QNDASHAudioQuality : public QNAudioQuality {
 public:
  using QNAudioQuality::QNAudioQuality;
  static std::shared_ptr<QNQuality> qualityWithRepresentation(
      const QNDASHRepresentation& representation, int64_t durationUs,
      const std::shared_ptr<QNTrack>& parent);
};

class QNDASHTextQuality : public QNTextQuality {
 public:
  using QNTextQuality::QNTextQuality;
  static std::shared_ptr<QNQuality> qualityWithRepresentation(
      const QNDASHRepresentation& representation, int64_t durationUs,
      const std::shared_ptr<QNTrack>& parent);
};

class QNDASHResourceListBuilder : public QNManifestResourceListBuilder {
 public:
  QNDASHResourceListBuilder(QNDASHRepresentation representation, int64_t durationUs);
  ~QNDASHResourceListBuilder() override;

  Extent extent() const override;

 protected:
  void list(QNResourceListAssembler& assembler) const override;

 private:
  void fillResourcesFromSingle(QNResourceListAssembler& assembler,
                               const mpl::dash::SingleSegmentRepresentation& representation) const;
  void fillResourcesFromMulti(QNResourceListAssembler& assembler,
                              const mpl::dash::MultiSegmentRepresentation& representation) const;

  QNDASHRepresentation representation_;
  int64_t durationUs_;
};

// The model's type of a content type; 0 for one that it has none for.
QNMediaType mediaTypeWithContentType(mpl::dash::ContentType contentType);
// The part of a codecs text (RFC 6381) before the first "." when it has exactly four bytes, else
// nullopt.
std::optional<std::string> fourCCWithCodecs(const qnc::FastString& codecs);
