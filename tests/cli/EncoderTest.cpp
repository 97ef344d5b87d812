// Presentations as ffmpeg makes them, tiny and made at test time: everything that is listed has to
// arrive as the encoder wrote it, and a player has to find in the stored copy what it finds in the
// encoder's folder.

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/cli/ProgramRunner.h"

namespace qntest {
namespace {

namespace fs = std::filesystem;

class EncoderTest : public ::testing::Test {
 protected:
  std::string folder() const { return program_.home().path("encoded"); }

  // Two video qualities and one audio of three seconds.
  void encode(const std::vector<std::string>& format) const {
    std::vector<std::string> command{
        "ffmpeg",  "-nostdin",  "-v",       "error",
        "-f",      "lavfi",     "-i",       "testsrc2=s=64x36:r=10:d=3",
        "-f",      "lavfi",     "-i",       "sine=d=3:sample_rate=44100",
        "-map",    "0:v",       "-map",     "0:v",
        "-map",    "1:a",       "-c:v",     "libx264",
        "-preset", "ultrafast", "-pix_fmt", "yuv420p",
        "-g",      "10",        "-b:v:0",   "50k",
        "-b:v:1",  "20k",       "-c:a",     "aac",
        "-b:a",    "32k",       "-ac",      "1"};
    command.insert(command.end(), format.begin(), format.end());
    fs::create_directory(folder());
    runTool(command);
  }

  static std::string probe(const std::string& manifest) {
    return runTool(
        {"ffprobe", "-v", "error", "-count_packets", "-show_entries",
         "stream=codec_name,width,height,sample_rate,channels,nb_read_packets:format=duration",
         "-of", "json", manifest});
  }

  // Downloads everything, and compares every listed resource with the encoder's file. Gives the
  // download directory.
  std::string downloadAndCompare(const std::string& manifestName) {
    serveDirectory(server_, folder(), "encoded");
    const std::string url = server_.url("/encoded/" + manifestName);
    const Ended ended = program_.download(url, {"--all"});
    EXPECT_EQ(ended.code, 0) << ended.err;
    const std::string directory = program_.onlyDownload();
    const auto info = program_.run({"info", url, "--json", "--resources"}).json();
    size_t compared = 0;
    for (const auto& track : info.find("movies")->items()[0].find("tracks")->items()) {
      for (const auto& quality : track.find("qualities")->items()) {
        for (const auto& resource : quality.find("resources")->items()) {
          const std::string name = resource.find("url")->string().value_or("");
          const auto expected = readFile(folder() + "/" + name);
          EXPECT_TRUE(expected) << name;
          EXPECT_EQ(readFile(directory + "/" + name), expected) << name;
          ++compared;
        }
      }
    }
    EXPECT_GE(compared, 9U) << "three qualities of at least three segments";
    EXPECT_EQ(readFile(directory + "/manifest.mpd"), readFile(folder() + "/" + manifestName));
    return directory;
  }

  ProgramRunner program_;
  FaultServer server_;
};

struct DashRow {
  const char* name;
  std::vector<std::string> options;
};

TEST_F(EncoderTest, DashArrivesAsItWasEncodedAndPlays) {
  const DashRow rows[] = {
      {"a timeline", {"-use_template", "1", "-use_timeline", "1"}},
      {"numbers", {"-use_template", "1", "-use_timeline", "0"}},
      {"a list", {"-use_template", "0", "-use_timeline", "0"}},
  };
  for (const DashRow& row : rows) {
    SCOPED_TRACE(row.name);
    fs::remove_all(folder());
    fs::remove_all(program_.root());
    std::vector<std::string> format{"-f", "dash", "-seg_duration", "1"};
    format.insert(format.end(), row.options.begin(), row.options.end());
    format.push_back(folder() + "/manifest.mpd");
    encode(format);
    const std::string directory = downloadAndCompare("manifest.mpd");
    const std::string heard = probe(folder() + "/manifest.mpd");
    EXPECT_NE(heard.find("nb_read_packets"), std::string::npos) << heard;
    EXPECT_EQ(probe(directory + "/manifest.mpd"), heard);
  }
}

// ffmpeg leaves out the sizes of a video stream and the start of the first fragment, which is not
// always 0.
std::string completedSmoothManifest(const std::string& folder) {
  std::string manifest = readFile(folder + "/Manifest").value_or("");
  for (const char* type : {"video", "audio"}) {
    uint64_t first = UINT64_MAX;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      const std::string name = entry.path().filename();
      const std::string prefix = std::string("Fragments(") + type + "=";
      if (name.starts_with(prefix))
        first = std::min<uint64_t>(first, std::stoull(name.substr(prefix.size())));
    }
    const size_t stream = manifest.find(std::string("Type=\"") + type);
    const size_t fragment = manifest.find("<c ", stream);
    manifest.insert(fragment + 3, "t=\"" + std::to_string(first) + "\" ");
    if (std::string(type) != "video") continue;
    manifest.insert(stream,
                    "MaxWidth=\"64\" MaxHeight=\"36\" DisplayWidth=\"64\" DisplayHeight=\"36\" ");
  }
  return manifest;
}

TEST_F(EncoderTest, SmoothStreamingArrivesAsItWasEncoded) {
  encode({"-f", "smoothstreaming", "-min_frag_duration", "1000000", folder()});
  const Ended refused = program_.run({"info", folder() + "/Manifest"});
  EXPECT_EQ(refused.code, 65);
  EXPECT_NE(refused.err.find("Can't retrieve required value MaxWidth"), std::string::npos)
      << refused.err;

  const std::string completed = completedSmoothManifest(folder());
  std::ofstream(folder() + "/Manifest") << completed;
  const std::string directory = downloadAndCompare("Manifest");
  EXPECT_NE(program_.run({"info", folder() + "/Manifest"}).out.find("Smooth Streaming, 0:03"),
            std::string::npos);

  // All fragments of the encoder were listed.
  auto encoded = filesBelow(folder());
  std::erase_if(encoded, [](const auto& file) {
    return file.first.find("FragmentInfo") != std::string::npos;
  });
  EXPECT_EQ(filesBelow(directory, "QNMovieDownload").size(), encoded.size());
}

}  // namespace
}  // namespace qntest
