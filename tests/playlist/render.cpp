#include "tests/playlist/render.h"

#include <sstream>

#include "platform/Exception.h"
#include "playlist/QNMovie.h"
#include "playlist/QNQuality.h"
#include "playlist/QNTrack.h"

namespace {

const char* nameOf(QNMediaType type) {
  switch (type) {
    case QNMediaTypeUnknown:
      return "unknown";
    case QNMediaTypeVideo:
      return "video";
    case QNMediaTypeAudio:
      return "audio";
    case QNMediaTypeText:
      return "text";
  }
  return "?";
}

std::string orDash(const std::optional<std::string>& text) {
  return text.value_or("-");
}

void renderTrack(std::ostream& out, const QNTrack& track) {
  out << nameOf(track.type()) << " " << track.duration() << " " << orDash(track.name()) << " "
      << orDash(track.language());
  if (track.isTrickMode()) out << " trick";
  out << " {";
  for (const auto& quality : track.qualities()) {
    out << " " << quality->identifier() << " " << quality->fourCC() << " " << quality->bitrate()
        << " (" << orDash(quality->parameters()) << ")";
  }
  out << " }";
}

}  // namespace

std::string render(const QNResourceList& list) {
  std::string line;
  for (const auto& resource : list) {
    if (!line.empty()) line += " ";
    line += resource->referenceURL().empty() ? "(empty)" : resource->referenceURL();
    if (resource->hasRange()) {
      line +=
          "[" + std::to_string(resource->offset()) + "," + std::to_string(resource->length()) + "]";
    }
  }
  return line;
}

std::string render(const QNResourceListPtr& list) {
  return list ? render(*list) : "(null)";
}

std::string render(const QNPlaylist& playlist) {
  std::ostringstream out;
  out.precision(10);
  for (const auto& movie : playlist.movies()) {
    if (out.tellp() > 0) out << " ";
    out << "movie " << movie->duration() << " {";
    for (const auto& track : movie->tracks()) {
      out << " ";
      renderTrack(out, *track);
    }
    out << " }";
  }
  return out.str();
}

std::string thrown(const std::function<void()>& call) {
  try {
    call();
  } catch (const platform::Exception& exception) {
    return exception.name() + ": " + exception.reason();
  }
  return {};
}
