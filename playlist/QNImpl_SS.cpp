#include "playlist/QNImpl_SS.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/Exception.h"
#include "playlist/QNParsedXML.h"
#include "playlist/QNParserExceptions.h"
#include "playlist/QNPlaylistFactory.h"
#include "playlist/QNResourceListAssembler.h"
#include "qnc/qncChecked.h"

namespace {

const char* const kNullPointer = "Unexpected NULL pointer";
constexpr uint64_t kMaxDigits = 20;  // of a start time or bitrate

using SharedTrackElement = std::shared_ptr<SmoothStreaming::TrackElement>;

const SmoothStreaming::TrackElement& trackElementAt(const QNSmoothStreamElement& stream,
                                                    size_t index) {
  platform::assertThat(stream != nullptr, kNullPointer);
  const auto& elements = stream->trackElements();
  platform::assertThat(index < elements.size() && elements[index] != nullptr, kNullPointer);
  return *elements[index];
}

// The four bytes of a code as text, up to the first zero byte. The cut may have split a character.
std::string fourCCOf(const SmoothStreaming::TrackElement& element) {
  return qnc::FastString(element.fourCC().c_str()).toValidUTF8().str();
}

std::string identifierOf(const SmoothStreaming::TrackElement& element) {
  return std::to_string(static_cast<int32_t>(element.index()));
}

// Says which streams the model leaves out.
void noteOmissions(const SmoothStreaming::Media& media, QNPlaylist& playlist) {
  const auto& streams = media.streamElements();
  for (size_t i = 0; i < streams.size(); ++i) {
    if (!streams[i]->trackElements().empty()) continue;
    playlist.addOmission("stream " + std::to_string(i + 1) + " has no quality level");
  }
}

}  // namespace

std::shared_ptr<QNPlaylist> smoothGenerateWithXML(const QNParsedXML& xml) {
  return withPlatformExceptions([&] {
    if (!xml.wellFormed()) {
      throw platform::Exception(QNPlaylistFactoryException, "Can't parse SmoothStreaming XML");
    }
    return QNSmoothStreamingPlaylist::playlistWithManifest(SmoothStreaming::Media(xml.root()));
  });
}

std::string QNSmoothStreamingPlaylist::format() const {
  return "smooth";
}

std::shared_ptr<QNPlaylist> QNSmoothStreamingPlaylist::playlistWithManifest(
    const SmoothStreaming::Media& media) {
  const auto playlist = std::make_shared<QNSmoothStreamingPlaylist>(size_t{1});
  playlist->addMovie(QNSmoothStreamingMovie::movieWithMedia(media, playlist));
  noteOmissions(media, *playlist);
  QNManifestResourceListBuilder::shareBudget(*playlist);
  return playlist;
}

std::shared_ptr<QNMovie> QNSmoothStreamingMovie::movieWithMedia(
    const SmoothStreaming::Media& media, const std::shared_ptr<QNPlaylist>& parent) {
  const auto& streams = media.streamElements();
  if (streams.empty()) return nullptr;
  const double duration =
      static_cast<double>(media.duration()) / static_cast<double>(media.timeScale());
  const auto movie = std::make_shared<QNSmoothStreamingMovie>(streams.size(), duration, parent);
  for (const auto& stream : streams) {
    platform::assertThat(stream != nullptr, kNullPointer);
    movie->addTrack(QNSmoothStreamingTrack::trackWithStreamElement(stream, duration, movie));
  }
  return movie;
}

std::shared_ptr<QNTrack> QNSmoothStreamingTrack::trackWithStreamElement(
    const QNSmoothStreamElement& stream, double duration, const std::shared_ptr<QNMovie>& parent) {
  platform::assertThat(stream != nullptr, kNullPointer);
  const size_t levels = stream->trackElements().size();
  const QNMediaType type = mediaTypeWithStreamType(stream->type());
  if (levels == 0 || type == QNMediaTypeUnknown) return nullptr;
  const auto track = std::make_shared<QNSmoothStreamingTrack>(type, duration, stream->name().str(),
                                                              std::string(), levels, parent);
  for (size_t i = 0; i < levels; ++i)
    track->addQuality(qualityWithStreamElement(stream, i, track));
  return track;
}

std::shared_ptr<QNQuality> qualityWithStreamElement(const QNSmoothStreamElement& stream,
                                                    size_t index,
                                                    const std::shared_ptr<QNTrack>& parent) {
  switch (parent->type()) {
    case QNMediaTypeVideo:
      return QNSmoothStreamingVideoQuality::qualityWithStreamElement(stream, index, parent);
    case QNMediaTypeAudio:
      return QNSmoothStreamingAudioQuality::qualityWithStreamElement(stream, index, parent);
    case QNMediaTypeText:
      return QNSmoothStreamingTextQuality::qualityWithStreamElement(stream, index, parent);
    case QNMediaTypeUnknown:
      break;
  }
  throw platform::Exception(QNPlaylistFactoryException,
                            "Unsupported SmoothStreaming media type encountered");
}

std::shared_ptr<QNQuality> QNSmoothStreamingVideoQuality::qualityWithStreamElement(
    const QNSmoothStreamElement& stream, size_t index, const std::shared_ptr<QNTrack>& parent) {
  const auto& element = trackElementAt(stream, index);
  const auto& privateData = element.codecPrivateData();
  return std::make_shared<QNSmoothStreamingVideoQuality>(
      std::make_shared<QNSmoothStreamingResourceListBuilder>(stream, index), fourCCOf(element),
      identifierOf(element), element.bitrate(),
      std::make_shared<const platform::Data>(privateData.begin(), privateData.end()),
      element.maxWidth(), element.maxHeight(), element.NALUnitLengthField(), parent);
}

std::shared_ptr<QNQuality> QNSmoothStreamingAudioQuality::qualityWithStreamElement(
    const QNSmoothStreamElement& stream, size_t index, const std::shared_ptr<QNTrack>& parent) {
  const auto& element = trackElementAt(stream, index);
  return std::make_shared<QNSmoothStreamingAudioQuality>(
      std::make_shared<QNSmoothStreamingResourceListBuilder>(stream, index), fourCCOf(element),
      identifierOf(element), element.bitrate(), nullptr, element.channels(), element.samplingRate(),
      element.bitsPerSample(), parent);
}

std::shared_ptr<QNQuality> QNSmoothStreamingTextQuality::qualityWithStreamElement(
    const QNSmoothStreamElement& stream, size_t index, const std::shared_ptr<QNTrack>& parent) {
  const auto& element = trackElementAt(stream, index);
  return std::make_shared<QNSmoothStreamingTextQuality>(
      std::make_shared<QNSmoothStreamingResourceListBuilder>(stream, index), fourCCOf(element),
      identifierOf(element), element.bitrate(), element.maxWidth(), element.maxHeight(),
      std::nullopt, parent);
}

QNSmoothStreamingResourceListBuilder::QNSmoothStreamingResourceListBuilder(
    QNSmoothStreamElement stream, size_t index)
    : stream_(std::move(stream)), index_(index) {}

QNSmoothStreamingResourceListBuilder::~QNSmoothStreamingResourceListBuilder() = default;

QNManifestResourceListBuilder::Extent QNSmoothStreamingResourceListBuilder::extent() const {
  const auto& url = stream_->url();
  const auto placeholders = static_cast<uint64_t>(std::count(url.begin(), url.end(), '{'));
  const uint64_t fragments = stream_->listedFragments();
  return {fragments, qnc::saturatingMul(fragments, url.size() + placeholders * kMaxDigits)};
}

void QNSmoothStreamingResourceListBuilder::list(QNResourceListAssembler& assembler) const {
  stream_->forEachURL(index_,
                      [&assembler](std::string_view reference) { assembler.add(0, 0, reference); });
}

QNMediaType mediaTypeWithStreamType(SmoothStreaming::Stream::Type type) {
  switch (type) {
    case SmoothStreaming::Stream::Type::Audio:
      return QNMediaTypeAudio;
    case SmoothStreaming::Stream::Type::Video:
      return QNMediaTypeVideo;
    case SmoothStreaming::Stream::Type::Text:
      return QNMediaTypeText;
  }
  return QNMediaTypeUnknown;
}
