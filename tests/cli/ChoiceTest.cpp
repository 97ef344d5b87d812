#include <gtest/gtest.h>

#include "cli/Choice.h"
#include "cli/Failure.h"

namespace {

using cli::Candidate;
using cli::Choice;

Candidate video(size_t track, const char* id, uint32_t bitrate, uint32_t height,
                bool trick = false) {
  return {QNMediaTypeVideo, track, id, bitrate, height * 16 / 9, height, std::nullopt, trick};
}
Candidate sound(size_t track, const char* id, uint32_t bitrate,
                std::optional<std::string> language) {
  return {QNMediaTypeAudio, track, id, bitrate, 0, 0, std::move(language), false};
}
Candidate words(size_t track, const char* id, std::optional<std::string> language) {
  return {QNMediaTypeText, track, id, 0, 0, 0, std::move(language), false};
}

const std::vector<Candidate>& film() {
  static const std::vector<Candidate> candidates{
      video(0, "v1", 800'000, 360),    video(0, "v2", 2'000'000, 720),
      video(0, "v3", 1'500'000, 720),  video(1, "w1", 2'500'000, 720),
      video(1, "w2", 100'000, 180),    video(2, "fast", 50'000, 90, true),
      sound(3, "a1", 64'000, "en"),    sound(3, "a2", 128'000, "en"),
      sound(4, "b1", 96'000, "de-AT"), sound(5, "c1", 96'000, std::nullopt),
      words(6, "s1", "EN-us"),         words(7, "720p", "fr")};
  return candidates;
}

// "v2 a2 | notices", or "usage: message".
std::string chosen(const std::vector<Candidate>& candidates, const Choice& choice,
                   bool languages = true) {
  try {
    const cli::Chosen result = cli::choose(candidates, choice, languages);
    std::string text;
    for (const size_t i : result.indices)
      text += (text.empty() ? "" : " ") + candidates[i].identifier;
    for (const std::string& notice : result.notices)
      text += " | " + notice;
    return text;
  } catch (const cli::Failure& failure) {
    EXPECT_EQ(failure.code(), cli::ExitUsage);
    EXPECT_EQ(failure.details().size(), 3u) << "what there is, by type";
    return "usage: " + failure.message();
  }
}

TEST(ChoiceTest, PicksWhatIsSaid) {
  const Choice none{{"none"}, {"none"}, {"none"}};
  const auto videoOnly = [&](std::vector<std::string> values) {
    return Choice{std::move(values), {"none"}, {"none"}};
  };
  const auto audioOnly = [&](std::vector<std::string> values) {
    return Choice{{"none"}, std::move(values), {"none"}};
  };
  const auto textOnly = [&](std::vector<std::string> values) {
    return Choice{{"none"}, {"none"}, std::move(values)};
  };
  Choice all;
  all.all = true;
  const std::pair<Choice, const char*> rows[] = {
      // The default: the best video over all tracks, the best of every other track.
      {{}, "w1 a2 b1 c1 s1 720p"},
      {{{"none"}, {}, {}}, "a2 b1 c1 s1 720p"},
      {all, "v1 v2 v3 w1 w2 fast a1 a2 b1 c1 s1 720p"},
      {none, "usage: Nothing is chosen; there is:"},
      // Trick mode is no rendition, but can be named.
      {videoOnly({"best"}), "w1"},
      {videoOnly({"worst"}), "w2"},
      {videoOnly({"all"}), "v1 v2 v3 w1 w2 fast"},
      {videoOnly({"fast"}), "fast"},
      {videoOnly({"90p"}), "usage: --video 90p matches nothing; there is:"},
      // Heights: exact, else the next lower; the most bits among equals.
      {videoOnly({"720p"}), "w1"},
      {videoOnly({"1080p"}), "w1 | There is no 1080p video; taking 720p."},
      {videoOnly({"719p"}), "v1 | There is no 719p video; taking 360p."},
      {videoOnly({"179p"}), "usage: --video 179p matches nothing; there is:"},
      {videoOnly({"99999999999p"}), "usage: --video 99999999999p matches nothing; there is:"},
      {videoOnly({"p"}), "usage: --video p matches nothing; there is:"},
      // Identifiers; several values are a union.
      {videoOnly({"v3"}), "v3"},
      {videoOnly({"v3", "worst", "v3"}), "v3 w2"},
      {videoOnly({"V3"}), "usage: --video V3 matches nothing; there is:"},
      {videoOnly({"a1"}), "usage: --video a1 matches nothing; there is:"},
      // Languages by primary subtag, the best of every such track.
      {audioOnly({"en"}), "a2"},
      {audioOnly({"EN-gb"}), "a2"},
      {audioOnly({"de"}), "b1"},
      {audioOnly({"de", "en"}), "a2 b1"},
      {audioOnly({"e"}), "usage: --audio e matches nothing; there is:"},
      {audioOnly({"worst"}), "usage: --audio worst matches nothing; there is:"},
      {audioOnly({"all"}), "a1 a2 b1 c1"},
      {textOnly({"en"}), "s1"},
      {textOnly({"best"}), "s1 720p"},
      // An identifier that reads like something else.
      {textOnly({"720p"}), "720p"},
  };
  for (const auto& [choice, expected] : rows)
    EXPECT_EQ(chosen(film(), choice), expected);
}

TEST(ChoiceTest, MeetsPresentationsThatLackSomething) {
  const std::vector<Candidate> silent{video(0, "0", 1000, 100), video(0, "0", 2000, 200)};
  EXPECT_EQ(chosen(silent, {}), "0");
  EXPECT_EQ(chosen(silent, {{"0"}, {}, {}}), "0 0") << "identifiers may repeat";
  EXPECT_EQ(chosen(silent, {{}, {"best"}, {}}), "usage: --audio best matches nothing; there is:");
  EXPECT_EQ(chosen(silent, {{}, {"none"}, {}}), "0");
  EXPECT_EQ(chosen({}, {}), "usage: Nothing is chosen; there is:");

  const std::vector<Candidate> onlyFast{video(0, "f", 1000, 100, true)};
  EXPECT_EQ(chosen(onlyFast, {}), "f");

  const std::vector<Candidate> equal{video(0, "x", 1000, 100), video(1, "y", 1000, 100)};
  EXPECT_EQ(chosen(equal, {}), "x");

  std::vector<Candidate> unknown = silent;
  unknown[0].type = QNMediaTypeUnknown;
  Choice all;
  all.all = true;
  EXPECT_EQ(chosen(unknown, all), "0") << "what has no type cannot be selected";
}

TEST(ChoiceTest, SaysThatSmoothStreamingHasNoLanguages) {
  const std::vector<Candidate> smooth{video(0, "0", 1000, 100), sound(1, "0", 1000, std::nullopt)};
  EXPECT_EQ(chosen(smooth, {{}, {"en"}, {}}, false),
            "usage: --audio en matches nothing (Smooth Streaming states no languages; choose by "
            "identifier); "
            "there is:");
  EXPECT_EQ(chosen(smooth, {{"none"}, {"0"}, {}}, false), "0");
}

}  // namespace
