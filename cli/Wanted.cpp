#include "cli/Wanted.h"

#include <algorithm>
#include <map>

#include "cli/ManifestTable.h"
#include "cli/Record.h"
#include "platform/JSON.h"
#include "playlist/QNTrack.h"

namespace cli {
namespace {

using platform::JSON;

std::optional<std::string> textMember(const JSON& json, const char* key) {
  const JSON* member = json.find(key);
  return member ? member->string() : std::nullopt;
}

}  // namespace

Wanted wantedQualities(const QNMovie& movie, const std::string& format, const Choice& choice) {
  const auto qualities = qualitiesOf(movie);
  Chosen chosen = choose(candidatesOf(movie), choice, format != "smooth");
  Wanted wanted;
  for (const size_t index : chosen.indices)
    wanted.qualities.push_back(qualities[index]);
  wanted.notices = std::move(chosen.notices);
  return wanted;
}

std::string labelOf(const QNQuality& quality) {
  std::string label = std::string(nameOf(quality.type())) + " " + quality.identifier();
  const auto track = quality.parent();
  if (track && track->language()) label += " " + *track->language();
  const std::string format = describeFormat(quality);
  return format.empty() ? label : label + " " + format;
}

void storeWanted(QNMutableMovieDownloadProperties& properties, const Choice& choice,
                 const Wanted& wanted) {
  JSON qualities = JSON::array();
  for (const auto& quality : wanted.qualities) {
    JSON entry = JSON::object();
    entry.set("type", nameOf(quality->type()));
    entry.set("identifier", quality->identifier());
    qualities.append(std::move(entry));
  }
  JSON value = JSON::object();
  value.set("choice", toJSON(choice));
  value.set("qualities", std::move(qualities));
  if (properties.objectForKey(WantedKey) != value)
    properties.setObjectForKey(std::move(value), WantedKey);
}

Choice storedChoice(const QNMovieDownloadProperties& properties) {
  const auto value = properties.objectForKey(WantedKey);
  const JSON* choice = value ? value->find("choice") : nullptr;
  return choice ? choiceFromJSON(*choice) : Choice();
}

// Identifiers may repeat, within a media type and between them; so both the identifiers and the
// counts by type have to be there.
StoredExtent storedExtent(const QNMovieDownloadProperties& properties) {
  StoredExtent extent;
  const auto value = properties.objectForKey(WantedKey);
  const JSON* qualities = value ? value->find("qualities") : nullptr;
  if (!qualities) return extent;
  std::map<std::string, uint64_t> ofType{{"video", properties.numberOfDownloadedVideoQualities()},
                                         {"audio", properties.numberOfDownloadedAudioQualities()},
                                         {"text", properties.numberOfDownloadedTextQualities()}};
  std::map<std::string, uint64_t> ofIdentifier;
  for (const auto& identifier :
       properties.downloadedQualityIdentifiers().value_or(std::vector<std::string>())) {
    ++ofIdentifier[identifier];
  }
  for (const JSON& entry : qualities->items()) {
    ++extent.wanted;
    uint64_t& identifiers = ofIdentifier[textMember(entry, "identifier").value_or("")];
    uint64_t& types = ofType[textMember(entry, "type").value_or("")];
    if (identifiers == 0 || types == 0) continue;
    --identifiers;
    --types;
    ++extent.stored;
  }
  return extent;
}

}  // namespace cli
