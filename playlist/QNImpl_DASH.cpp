#include "playlist/QNImpl_DASH.h"

#include <algorithm>
#include <map>
#include <utility>

#include "mpl/Exception.h"
#include "mpl/dash/SegmentList.h"
#include "mpl/dash/SegmentTemplate.h"
#include "platform/Exception.h"
#include "playlist/QNParsedXML.h"
#include "playlist/QNParserExceptions.h"
#include "playlist/QNPlaylistFactory.h"
#include "playlist/QNResourceListAssembler.h"
#include "qnc/qncChecked.h"

using mpl::dash::AdaptationSet;
using mpl::dash::ContentType;
using mpl::dash::MediaPresentationDescription;
using mpl::dash::MultiSegmentRepresentation;
using mpl::dash::Period;
using mpl::dash::SegmentBase;
using mpl::dash::SegmentList;
using mpl::dash::SegmentTemplate;
using mpl::dash::SingleSegmentRepresentation;

namespace {

const char* const kNullPointer = "Unexpected NULL pointer";

double secondsOf(int64_t durationUs) {
  return static_cast<double>(durationUs) / 1000000.0;
}

uint32_t orZero(int32_t value) {
  return static_cast<uint32_t>(std::max(0, value));
}

uint64_t orZero(int64_t value) {
  return static_cast<uint64_t>(std::max<int64_t>(0, value));
}

// Durations of the Periods from what the manifest gives of durations, starts and the presentation's
// duration. Asked in document order.
class PeriodDurations {
 public:
  explicit PeriodDurations(const MediaPresentationDescription& mpd) : mpd_(mpd) {}

  // Microseconds; 0 or less when the manifest does not tell.
  int64_t next(size_t index) {
    const int64_t durationMs = millisecondsOf(index);
    if (durationMs <= 0) {
      elapsedMs_ = -1;
      return durationMs;
    }
    if (elapsedMs_ != -1) elapsedMs_ = qnc::saturatingAdd(elapsedMs_, durationMs);
    return qnc::saturatingMul(durationMs, int64_t{1000});
  }

 private:
  int64_t millisecondsOf(size_t index) const {
    const auto& periods = mpd_.periods();
    const int64_t own = periods[index]->durationMs();
    const int64_t whole = mpd_.mediaPresentationDuration();
    if (own >= 0 || whole < 1) return own;
    // An unknown elapsed time enters as the -1 that it is.
    if (index + 1 == periods.size()) {
      return elapsedMs_ < whole ? qnc::saturatingSub(whole, elapsedMs_) : own;
    }
    platform::assertThat(periods[index + 1] != nullptr, kNullPointer);
    const int64_t start = periods[index]->startMs() < 0 ? elapsedMs_ : periods[index]->startMs();
    const int64_t nextStart = periods[index + 1]->startMs();
    return start >= 0 && nextStart >= 1 && start < nextStart ? nextStart - start : own;
  }

  const MediaPresentationDescription& mpd_;
  int64_t elapsedMs_ = 0;
};

// Says what of a Period the model leaves out.
void noteOmissions(const Period& period, size_t number, QNPlaylist& playlist) {
  const std::string name = "Period " + std::to_string(number);
  if (period.adaptationSets().empty()) return playlist.addOmission(name + " has no adaptation set");
  size_t empty = 0;
  std::map<std::string, size_t> unknown;  // by MIME type
  for (const auto& set : period.adaptationSets()) {
    if (set->representations().empty()) {
      ++empty;
    } else if (mediaTypeWithContentType(set->contentType()) == QNMediaTypeUnknown) {
      const auto& own = set->mimeType();
      const auto& first = set->representations()[0];
      ++unknown[own.empty() && first ? first->format().mimeType().str() : own.str()];
    }
  }
  const auto sets = [](size_t count) {
    return std::to_string(count) + (count == 1 ? " adaptation set" : " adaptation sets");
  };
  if (empty > 0) playlist.addOmission(name + ": " + sets(empty) + " without a representation");
  for (const auto& [mimeType, count] : unknown) {
    playlist.addOmission(name + ": " + sets(count) +
                         " of a type that is not video, audio or text (" +
                         (mimeType.empty() ? "no MIME type" : mimeType) + ")");
  }
}

// Of a reference resolved against a base; resolving inserts a few characters at most.
uint64_t lengthBound(uint64_t reference, uint64_t base) {
  return reference + base + 4;
}

// Of the texts of `count` segments.
uint64_t textBound(const MultiSegmentRepresentation& representation, uint64_t count) {
  const auto& base = representation.segmentBase();
  if (const auto* list = dynamic_cast<const SegmentList*>(&base)) {
    const auto& segments = list->mediaSegments();
    return qnc::saturatingAdd<uint64_t>(
        segments.textSize(), qnc::saturatingMul(count, lengthBound(0, segments.base().size())));
  }
  if (const auto* segments = dynamic_cast<const SegmentTemplate*>(&base)) {
    const mpl::dash::TemplateURI uri(segments->mediaTemplate(), representation.id(),
                                     representation.format().bandwidth());
    return qnc::saturatingMul(count, lengthBound(uri.maximumLength(), segments->baseURL().size()));
  }
  return 0;
}

}  // namespace

std::shared_ptr<QNPlaylist> dashGenerateWithXML(const QNParsedXML& xml) {
  return withPlatformExceptions([&] {
    if (!xml.wellFormed()) throw mpl::ParseException("Failed to parse XML");
    // An empty base leaves references as the manifest writes them: they resolve against the address
    // that a list is asked for.
    const auto mpd = MediaPresentationDescription::parse(xml.root(), "");
    return QNDASHPlaylist::playlistWithManifest(*mpd);
  });
}

std::string QNDASHPlaylist::format() const {
  return "dash";
}

std::shared_ptr<QNPlaylist> QNDASHPlaylist::playlistWithManifest(
    const MediaPresentationDescription& mpd) {
  const auto playlist = std::make_shared<QNDASHPlaylist>(mpd.periods().size());
  PeriodDurations durations(mpd);
  for (size_t i = 0; i < mpd.periods().size(); ++i) {
    const auto& period = mpd.periods()[i];
    platform::assertThat(period != nullptr, kNullPointer);
    playlist->addMovie(QNDASHMovie::movieWithPeriod(*period, durations.next(i), playlist));
    noteOmissions(*period, i + 1, *playlist);
  }
  if (playlist->movies().empty()) return nullptr;
  QNManifestResourceListBuilder::shareBudget(*playlist);
  return playlist;
}

std::shared_ptr<QNMovie> QNDASHMovie::movieWithPeriod(const Period& period, int64_t durationUs,
                                                      const std::shared_ptr<QNPlaylist>& parent) {
  const auto& sets = period.adaptationSets();
  if (sets.empty()) return nullptr;
  const auto movie = std::make_shared<QNDASHMovie>(sets.size(), secondsOf(durationUs), parent);
  for (const auto& set : sets) {
    platform::assertThat(set != nullptr, kNullPointer);
    movie->addTrack(QNDASHTrack::trackWithAdaptationSet(*set, durationUs, movie));
  }
  return movie->tracks().empty() ? nullptr : movie;
}

std::shared_ptr<QNTrack> QNDASHTrack::trackWithAdaptationSet(
    const AdaptationSet& set, int64_t durationUs, const std::shared_ptr<QNMovie>& parent) {
  const auto& representations = set.representations();
  const QNMediaType type = mediaTypeWithContentType(set.contentType());
  if (representations.empty() || type == QNMediaTypeUnknown) return nullptr;
  const auto track = std::make_shared<QNDASHTrack>(
      type, secondsOf(durationUs), std::to_string(set.id()) + " [" + set.mimeType().str() + "]",
      set.lang().empty() ? std::nullopt : std::optional(set.lang().str()), representations.size(),
      parent);
  track->setTrickMode(set.isTrickMode());
  for (const auto& representation : representations) {
    platform::assertThat(representation != nullptr, kNullPointer);
    track->addQuality(qualityWithRepresentation(representation, durationUs, track));
  }
  return track->qualities().empty() ? nullptr : track;
}

std::shared_ptr<QNQuality> qualityWithRepresentation(const QNDASHRepresentation& representation,
                                                     int64_t durationUs,
                                                     const std::shared_ptr<QNTrack>& parent) {
  switch (parent->type()) {
    case QNMediaTypeVideo:
      return QNDASHVideoQuality::qualityWithRepresentation(representation, durationUs, parent);
    case QNMediaTypeAudio:
      return QNDASHAudioQuality::qualityWithRepresentation(representation, durationUs, parent);
    case QNMediaTypeText:
      return QNDASHTextQuality::qualityWithRepresentation(representation, durationUs, parent);
    case QNMediaTypeUnknown:
      break;
  }
  throw platform::Exception(QNPlaylistFactoryException, "Unsupported DASH media type encountered");
}

std::shared_ptr<QNQuality> QNDASHVideoQuality::qualityWithRepresentation(
    const QNDASHRepresentation& representation, int64_t durationUs,
    const std::shared_ptr<QNTrack>& parent) {
  const auto& format = representation->format();
  const auto quality = std::make_shared<QNDASHVideoQuality>(
      std::make_shared<QNDASHResourceListBuilder>(representation, durationUs),
      fourCCWithCodecs(format.codecs()), representation->id().str(), orZero(format.bandwidth()),
      nullptr, orZero(format.width()), orZero(format.height()), 0, parent);
  quality->setCodecs(format.codecs().str());
  return quality;
}

std::shared_ptr<QNQuality> QNDASHAudioQuality::qualityWithRepresentation(
    const QNDASHRepresentation& representation, int64_t durationUs,
    const std::shared_ptr<QNTrack>& parent) {
  const auto& format = representation->format();
  const auto quality = std::make_shared<QNDASHAudioQuality>(
      std::make_shared<QNDASHResourceListBuilder>(representation, durationUs),
      fourCCWithCodecs(format.codecs()), representation->id().str(), orZero(format.bandwidth()),
      nullptr, orZero(format.audioChannels()), orZero(format.audioSamplingRate()), 0, parent);
  quality->setCodecs(format.codecs().str());
  return quality;
}

std::shared_ptr<QNQuality> QNDASHTextQuality::qualityWithRepresentation(
    const QNDASHRepresentation& representation, int64_t durationUs,
    const std::shared_ptr<QNTrack>& parent) {
  const auto& format = representation->format();
  const auto quality = std::make_shared<QNDASHTextQuality>(
      std::make_shared<QNDASHResourceListBuilder>(representation, durationUs),
      fourCCWithCodecs(format.codecs()), representation->id().str(), orZero(format.bandwidth()), 0,
      0, std::nullopt, parent);
  quality->setCodecs(format.codecs().str());
  return quality;
}

QNDASHResourceListBuilder::QNDASHResourceListBuilder(QNDASHRepresentation representation,
                                                     int64_t durationUs)
    : representation_(std::move(representation)), durationUs_(durationUs) {}

QNDASHResourceListBuilder::~QNDASHResourceListBuilder() = default;

QNManifestResourceListBuilder::Extent QNDASHResourceListBuilder::extent() const {
  Extent extent{2, 0};
  try {
    const auto initialization = representation_->getInitialization();
    extent.textBytes = lengthBound(initialization.reference().size(), initialization.base().size());
    if (representation_->type() == SegmentBase::Type::Single) {
      extent.textBytes +=
          static_cast<const SingleSegmentRepresentation&>(*representation_).mediaURL().size();
    } else {
      const auto& index = static_cast<const MultiSegmentRepresentation&>(*representation_);
      const auto count = static_cast<uint64_t>(index.getSegmentCount(durationUs_));
      extent.resources = qnc::saturatingAdd<uint64_t>(count, 1);
      extent.textBytes = qnc::saturatingAdd(extent.textBytes, textBound(index, count));
    }
  } catch (const std::exception&) {
    // A template that cannot be built lists nothing.
  }
  return extent;
}

void QNDASHResourceListBuilder::list(QNResourceListAssembler& assembler) const {
  const auto initialization = representation_->getInitialization();
  if (!initialization.isEmpty()) {
    const auto& range = initialization.range();
    assembler.add(orZero(range.offset), orZero(range.length), initialization.resolve());
  }
  switch (representation_->type()) {
    case SegmentBase::Type::Single:
      return fillResourcesFromSingle(
          assembler, static_cast<const SingleSegmentRepresentation&>(*representation_));
    case SegmentBase::Type::Multi:
      return fillResourcesFromMulti(
          assembler, static_cast<const MultiSegmentRepresentation&>(*representation_));
  }
}

void QNDASHResourceListBuilder::fillResourcesFromSingle(
    QNResourceListAssembler& assembler, const SingleSegmentRepresentation& representation) const {
  assembler.add(0, orZero(representation.contentLength()), representation.mediaURL());
}

void QNDASHResourceListBuilder::fillResourcesFromMulti(
    QNResourceListAssembler& assembler, const MultiSegmentRepresentation& index) const {
  const int64_t first = index.getFirstSegmentNum();
  const int64_t count = index.getSegmentCount(durationUs_);
  index.forEachSegment(first, qnc::saturatingAdd(first, count - 1),
                       [&assembler](const mpl::dash::ListedSegment& segment) {
                         assembler.add(orZero(segment.range.offset), orZero(segment.range.length),
                                       segment.uri);
                       });
}

QNMediaType mediaTypeWithContentType(ContentType contentType) {
  switch (contentType) {
    case ContentType::Video:
      return QNMediaTypeVideo;
    case ContentType::Audio:
      return QNMediaTypeAudio;
    case ContentType::Text:
      return QNMediaTypeText;
    case ContentType::Unknown:
      break;
  }
  return QNMediaTypeUnknown;
}

std::optional<std::string> fourCCWithCodecs(const qnc::FastString& codecs) {
  const auto first = codecs.view().substr(0, codecs.find('.'));
  if (first.size() != 4) return std::nullopt;
  return std::string(first);
}
