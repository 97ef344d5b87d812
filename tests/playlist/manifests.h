#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/Data.h"

inline platform::DataPtr bytes(std::string_view text) {
  return std::make_shared<const platform::Data>(text.begin(), text.end());
}

// A static MPD of 10 seconds around `periods`; `attributes` replace its own when given.
inline std::string mpd(
    const std::string& periods,
    const std::string& attributes = "type='static' mediaPresentationDuration='PT10S'") {
  return "<?xml version='1.0' encoding='UTF-8'?><MPD xmlns='urn:mpeg:dash:schema:mpd:2011' " +
         attributes + ">" + periods + "</MPD>";
}

// The same with one Period, one video set and one Representation "v" around `addressing`.
inline std::string oneQuality(const std::string& addressing) {
  return mpd(
      "<Period><AdaptationSet id='1' mimeType='video/mp4'><Representation id='v' "
      "bandwidth='1000'>" +
      addressing + "</Representation></AdaptationSet></Period>");
}

inline std::string smooth(
    const std::string& streams,
    const std::string& attributes = "TimeScale='10000000' Duration='1200000000'") {
  return "<SmoothStreamingMedia MajorVersion='2' MinorVersion='0' " + attributes + ">" + streams +
         "</SmoothStreamingMedia>";
}
