#include "bench/manifest_samples.h"

namespace bench {

namespace {

constexpr int64_t kTimescale = 90000;

// Between 1.9 and 2.1 seconds, never twice the same in a row.
int64_t durationOf(size_t segment) {
  return 2 * kTimescale + static_cast<int64_t>(segment * 7919 % 18000) - 9000;
}

int64_t startOf(size_t segment) {
  int64_t time = 0;
  for (size_t i = 0; i < segment; ++i)
    time += durationOf(i);
  return time;
}

std::string number(int64_t value) {
  return std::to_string(value);
}

std::string padded(size_t value) {
  const std::string digits = std::to_string(value);
  return std::string(8 - digits.size(), '0') + digits;
}

void openMPD(std::string& text, size_t segments) {
  text +=
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
      "profiles=\"urn:mpeg:dash:profile:isoff-main:2011\" "
      "type=\"static\" minBufferTime=\"PT2S\" mediaPresentationDuration=\"PT" +
      number(static_cast<int64_t>(segments) * 2) +
      "S\">\n <Period id=\"1\" start=\"PT0S\">\n"
      "  <AdaptationSet id=\"1\" contentType=\"video\" mimeType=\"video/mp4\" "
      "segmentAlignment=\"true\">\n"
      "   <Representation id=\"v1\" bandwidth=\"2500000\" codecs=\"avc1.64001f\" width=\"1280\" "
      "height=\"720\">\n";
}

void closeMPD(std::string& text) {
  text += "   </Representation>\n  </AdaptationSet>\n </Period>\n</MPD>\n";
}

void timeline(std::string& text, size_t segments) {
  openMPD(text, segments);
  text +=
      "    <SegmentTemplate timescale=\"90000\" "
      "initialization=\"video/$RepresentationID$/init.mp4\" "
      "media=\"video/$RepresentationID$/seg-$Time$.m4s\">\n     <SegmentTimeline>\n";
  int64_t time = 0;
  for (size_t i = 0; i < segments; ++i) {
    text += "      <S t=\"" + number(time) + "\" d=\"" + number(durationOf(i)) + "\"/>\n";
    time += durationOf(i);
  }
  text += "     </SegmentTimeline>\n    </SegmentTemplate>\n";
  closeMPD(text);
}

void list(std::string& text, size_t segments) {
  openMPD(text, segments);
  text +=
      "    <SegmentList timescale=\"90000\" duration=\"180000\">\n"
      "     <Initialization sourceURL=\"video/v1/init.mp4\"/>\n";
  for (size_t i = 0; i < segments; ++i) {
    text += "     <SegmentURL media=\"video/v1/seg-" + padded(i + 1) + ".m4s\"/>\n";
  }
  text += "    </SegmentList>\n";
  closeMPD(text);
}

void smooth(std::string& text, size_t segments) {
  text +=
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<SmoothStreamingMedia MajorVersion=\"2\" MinorVersion=\"0\" TimeScale=\"90000\" "
      "Duration=\"" +
      number(startOf(segments)) + "\">\n <StreamIndex Type=\"video\" Name=\"video\" Chunks=\"" +
      number(static_cast<int64_t>(segments)) +
      "\" QualityLevels=\"1\" MaxWidth=\"1280\" MaxHeight=\"720\" DisplayWidth=\"1280\" "
      "DisplayHeight=\"720\" "
      "Url=\"QualityLevels({bitrate})/Fragments(video={start time})\">\n"
      "  <QualityLevel Index=\"0\" Bitrate=\"2500000\" FourCC=\"H264\" MaxWidth=\"1280\" "
      "MaxHeight=\"720\" "
      "CodecPrivateData=\"000000016764001FACD9405005BA1000000300100000030320F1831960\"/>\n";
  int64_t time = 0;
  for (size_t i = 0; i < segments; ++i) {
    text += "  <c t=\"" + number(time) + "\" d=\"" + number(durationOf(i)) + "\"/>\n";
    time += durationOf(i);
  }
  text += " </StreamIndex>\n</SmoothStreamingMedia>\n";
}

void numbers(std::string& text, size_t segments) {
  openMPD(text, segments);
  text +=
      "    <SegmentTemplate timescale=\"1000\" duration=\"2000\" startNumber=\"1\" "
      "initialization=\"video/$RepresentationID$/init.mp4\" "
      "media=\"video/$RepresentationID$/seg-$Number%08d$.m4s\"/>\n";
  closeMPD(text);
}

}  // namespace

const char* nameOf(Form form) {
  switch (form) {
    case Form::Timeline:
      return "SegmentTimeline";
    case Form::List:
      return "SegmentList";
    case Form::Smooth:
      return "Smooth c";
    case Form::Number:
      return "number template";
  }
  return "";
}

bool isXMLBound(Form form) {
  return form != Form::Number;
}

std::vector<uint8_t> manifest(Form form, size_t segments) {
  std::string text;
  switch (form) {
    case Form::Timeline:
      timeline(text, segments);
      break;
    case Form::List:
      list(text, segments);
      break;
    case Form::Smooth:
      smooth(text, segments);
      break;
    case Form::Number:
      numbers(text, segments);
      break;
  }
  return {text.begin(), text.end()};
}

size_t expectedResources(Form form, size_t segments) {
  return form == Form::Smooth ? segments : segments + 1;
}

std::string expectedLastReference(Form form, size_t segments) {
  switch (form) {
    case Form::Timeline:
      return "video/v1/seg-" + number(startOf(segments - 1)) + ".m4s";
    case Form::List:
    case Form::Number:
      return "video/v1/seg-" + padded(segments) + ".m4s";
    case Form::Smooth:
      return "QualityLevels(2500000)/Fragments(video=" + number(startOf(segments - 1)) + ")";
  }
  return {};
}

}  // namespace bench
