#include "tests/support/EngineWorld.h"

#include <cstdio>
#include <utility>

#include "playlist/QNAudioQuality.h"
#include "playlist/QNMovie.h"
#include "playlist/QNTextQuality.h"
#include "playlist/QNTrack.h"
#include "playlist/QNVideoQuality.h"

namespace qntest {
namespace {

class ListBuilder : public QNResourceListBuilder {
 public:
  explicit ListBuilder(std::vector<std::string> resources) : resources_(std::move(resources)) {}

  QNResourceListPtr fillResourcesWithBaseURL(const std::optional<std::string>& baseURL) override {
    const auto base =
        baseURL ? std::make_shared<const std::string>(*baseURL) : QNRangedURL::BaseURL();
    auto list = std::make_shared<QNResourceList>();
    for (const std::string& text : resources_) {
      const size_t at = text.find('@');
      uint64_t offset = 0;
      uint64_t length = 0;
      if (at != std::string::npos) {
        offset = std::stoull(text.substr(at + 1));
        length = std::stoull(text.substr(text.find('+', at) + 1));
      }
      list->push_back(QNRangedURL::rangedURLWithOffset(offset, length, text.substr(0, at), base));
    }
    return list;
  }

 private:
  const std::vector<std::string> resources_;
};

// Of any media type, also of none.
class PlainQuality : public QNQuality {
 public:
  PlainQuality(const QualityPlan& plan, const std::shared_ptr<QNTrack>& track)
      : QNQuality(std::make_shared<ListBuilder>(plan.resources), std::nullopt, "test",
                  plan.identifier, plan.type, plan.bitrate, track) {}
};

const char* nameOf(QNDownloadStatus status) {
  switch (status) {
    case QNDownloadStatusIdle:
      return "idle";
    case QNDownloadStatusPaused:
      return "paused";
    case QNDownloadStatusRunning:
      return "running";
  }
  return "?";
}

std::string percent(QNDownloadProgress progress) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f%%%s", static_cast<double>(progress.value) * 100,
                progress.estimated ? "~" : "");
  return text;
}

char letterOf(const QNResourceDownloadInfo& resource) {
  if (resource.status() == QNDownloadStatusRunning) return 'R';
  if (resource.status() == QNDownloadStatusPaused) return 'p';
  if (resource.completed()) return resource.failed() ? 'F' : 'C';
  return resource.failed() ? '!' : '.';
}

const char* contentTypeOf(QNMediaType type) {
  if (type == QNMediaTypeAudio) return "audio";
  return type == QNMediaTypeText ? "text" : "video";
}

}  // namespace

std::vector<std::string> numbered(const std::string& prefix, size_t count) {
  std::vector<std::string> names;
  for (size_t i = 1; i <= count; ++i)
    names.push_back(prefix + std::to_string(i));
  return names;
}

std::shared_ptr<QNPlaylist> makePlaylist(const std::vector<QualityPlan>& qualities) {
  auto playlist = QNPlaylist::playlistWithMovieCapacity(1);
  auto movie = QNMovie::movieWithTrackCapacity(qualities.size(), 0, playlist);
  for (const QualityPlan& plan : qualities) {
    auto track =
        QNTrack::trackWithType(plan.type, plan.duration, std::nullopt, std::nullopt, 1, movie);
    track->addQuality(std::make_shared<PlainQuality>(plan, track));
    movie->addTrack(track);
  }
  playlist->addMovie(movie);
  return playlist;
}

std::string makeMPD(const std::vector<QualityPlan>& qualities) {
  std::string text =
      "<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" "
      "mediaPresentationDuration=\"PT8S\" minBufferTime=\"PT2S\" "
      "profiles=\"urn:mpeg:dash:profile:isoff-main:2011\"><Period duration=\"PT8S\">\n";
  for (const QualityPlan& plan : qualities) {
    const std::string content = contentTypeOf(plan.type);
    const std::string mime = plan.type == QNMediaTypeText ? "application" : content;
    text += "<AdaptationSet contentType=\"" + content + "\" mimeType=\"" + mime +
            "/mp4\"><Representation id=\"" + plan.identifier + "\" bandwidth=\"" +
            std::to_string(plan.bitrate == 0 ? 8000 : plan.bitrate) +
            "\"><SegmentList duration=\"2\">\n";
    for (const std::string& resource : plan.resources)
      text += "<SegmentURL media=\"" + resource + "\"/>\n";
    text += "</SegmentList></Representation></AdaptationSet>\n";
  }
  return text + "</Period></MPD>\n";
}

std::string render(QNDownloadSize size) {
  if (QNDownloadSizeIsUnknown(size)) return "?";
  return std::to_string(size.value) + (size.estimated ? "~" : "");
}

std::string render(const QNResourceDownloadInfo& resource) {
  std::string text = std::string(nameOf(resource.status())) + " " +
                     std::to_string(resource.downloadedBytes()) + "/" +
                     render(resource.expectedBytes());
  if (resource.reactivations() != 0)
    text += " reactivated " + std::to_string(resource.reactivations());
  if (resource.failed()) text += " failed " + std::to_string(resource.error()->code());
  if (resource.completed()) text += " completed";
  return text;
}

std::string letters(const QNQualityDownloadInfo& quality) {
  std::string text;
  for (const auto& resource : quality.resources())
    text += letterOf(*resource);
  return text;
}

std::string render(const QNQualityDownloadInfo& quality) {
  return "active " + std::to_string(quality.numActive()) + " running " +
         std::to_string(quality.numRunning()) + " completed " +
         std::to_string(quality.numCompleted()) + " failed " + std::to_string(quality.numFailed()) +
         " sized " + std::to_string(quality.numSized()) + " estimated " +
         std::to_string(quality.numEstimated()) + " [" + letters(quality) + "]";
}

std::string render(const QNMovieDownloadSet& set) {
  std::string text = nameOf(set.status());
  text += " selected";
  for (const auto& info : set.selectedQualitiesInfo())
    text += " " + info->quality()->identifier() + ":" + letters(*info);
  text += " downloaded";
  for (const auto& quality : set.downloadedQualities())
    text += " " + quality->identifier();
  return text + " completed " + std::to_string(set.numCompleted()) + " failed " +
         std::to_string(set.numFailed());
}

std::string render(const platform::ErrorPtr& error) {
  return error ? error->domain() + " " + std::to_string(error->code()) : "none";
}

// PlainController

PlainController::PlainController() {
  session = ScriptedSession::open(
      std::make_shared<ScriptedStore>(),
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("plain"), {});
}

void PlainController::resourceAttachTask(
    const std::shared_ptr<QNResourceDownloadInfo>& resource,
    const std::shared_ptr<platform::URLSessionDownloadTask>& task) {
  tasks[task] = resource;
  log += "+" + std::to_string(resource->index()) + " ";
}

void PlainController::resourceDetachTask(
    const std::shared_ptr<QNResourceDownloadInfo>& resource,
    const std::shared_ptr<platform::URLSessionDownloadTask>& task) {
  tasks.erase(task);
  log += "-" + std::to_string(resource->index()) + " ";
}

// RecordingDelegate

void RecordingDelegate::write(const Set& set, const std::string& line) {
  lines_ += line + "\n";
  if (react) react(set, line);
}

std::string RecordingDelegate::take() {
  return std::exchange(lines_, {});
}

void RecordingDelegate::movieDownloadSetDidChangeStatus(const Set& set, QNDownloadStatus status) {
  write(set, std::string("status ") + nameOf(status));
}

void RecordingDelegate::movieDownloadSetDidCompleteWithError(const Set& set,
                                                             const platform::ErrorPtr& error) {
  lastError = error;
  write(set, "complete " + render(error));
}

void RecordingDelegate::movieDownloadSetDidCompleteQualityWithError(
    const Set& set, const Quality& quality, const platform::ErrorPtr& error) {
  write(set, "quality " + quality->identifier() + " " + render(error));
}

void RecordingDelegate::movieDownloadSetDidUpdateProgressForQuality(const Set& set,
                                                                    QNDownloadProgress progress,
                                                                    const Quality& quality) {
  if (recordsProgress) write(set, "progress " + quality->identifier() + " " + percent(progress));
}

void RecordingDelegate::movieDownloadSetDidUpdateProgress(const Set& set,
                                                          QNDownloadProgress progress) {
  if (recordsProgress) write(set, "progress " + percent(progress));
}

}  // namespace qntest
