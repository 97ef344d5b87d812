#include <any>

#include <gtest/gtest.h>

#include "platform/FileManager.h"
#include "playlist/QNMovie.h"
#include "playlist/QNPlaylist.h"
#include "playlist/QNPlaylistFactory.h"
#include "tests/playlist/manifests.h"
#include "tests/playlist/scripted_shared_session.h"
#include "tests/support/TempDirectory.h"

namespace {

using platform::Dictionary;
using platform::ErrorPtr;
using platform::Exception;

const char* const kNoImplementation = "Can't find proper implementation for parsing manifest";

std::string dashManifest() {
  return oneQuality("<BaseURL>v.mp4</BaseURL>");
}

std::string smoothManifest() {
  return smooth(
      "<StreamIndex Type='audio' Chunks='1' QualityLevels='1' Url='a({bitrate},{start time})'>"
      "<QualityLevel Bitrate='64000' FourCC='AACL' SamplingRate='44100' Channels='2' "
      "BitsPerSample='16' "
      "PacketSize='4' AudioTag='255' CodecPrivateData='1210'/><c d='20000000'/></StreamIndex>");
}

// What cannot be used, and what each parser says of it.
struct Unusable {
  const char* name;
  std::string text;
  const char* dash;
  const char* smooth;
};

std::vector<Unusable> unusableManifests() {
  return {
      {"empty", "", "Failed to parse XML", "Can't parse SmoothStreaming XML"},
      {"no XML", "404 page not found", "Failed to parse XML", "Can't parse SmoothStreaming XML"},
      {"truncated", dashManifest().substr(0, 200), "Failed to parse XML",
       "Can't parse SmoothStreaming XML"},
      {"HTML", "<html><body>no</body></html>", "Not a valid MPD",
       "Passed invalid XML element. Expected tag SmoothStreamingMedia but got html"},
      {"MPD without Period", mpd(""), "No Period found",
       "Passed invalid XML element. Expected tag SmoothStreamingMedia but got MPD"},
      {"Smooth without duration", smooth("", ""), "Not a valid MPD",
       "Can't retrieve required value Duration"},
      {"codecs of four bytes and fewer characters",
       mpd("<Period><AdaptationSet mimeType='video/mp4'><Representation id='v' "
           "codecs='a\xC3\xA9z'/></AdaptationSet>"
           "</Period>"),
       "FourCC string not four characters long",
       "Passed invalid XML element. Expected tag SmoothStreamingMedia but got MPD"},
      {"Smooth with a short FourCC",
       smooth("<StreamIndex Type='text' Subtype='SUBT' Chunks='0' QualityLevels='1' Url='u'>"
              "<QualityLevel Bitrate='1' FourCC='abc'/></StreamIndex>"),
       "Not a valid MPD", "FourCC string not four characters long"},
      {"Smooth of an unknown type",
       smooth("<StreamIndex Type='Video' Chunks='0' QualityLevels='1' Url='u'/>"),
       "Not a valid MPD", "Unsupported Type value"},
  };
}

std::string reasonUnder(const Dictionary& info, const char* key) {
  const auto at = info.find(key);
  if (at == info.end()) return "(none)";
  const auto* exception = std::any_cast<Exception>(&at->second);
  return exception ? exception->reason() : "(no exception)";
}

// The exact dictionary of an unusable manifest's error.
void expectUnusable(const ErrorPtr& error, const std::string& text) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "NSErrorQNDownloader");
  EXPECT_EQ(error->code(), -101);
  EXPECT_EQ(error->userInfo().size(), 3u);
  EXPECT_EQ(error->stringForKey("NSLocalizedDescription"), text);
  EXPECT_EQ(error->stringForKey("NSLocalizedFailureReason"), text);
  EXPECT_EQ(error->stringForKey("NSLocalizedRecoverySuggestion"), text);
}

TEST(PlaylistFactory, FindsTheFormatByTrial) {
  const auto dash = QNPlaylistFactory::generateWithData(bytes(dashManifest()));
  ASSERT_TRUE(dash);
  EXPECT_EQ(dash->format(), "dash");
  EXPECT_EQ(dash->movies().size(), 1u);
  const auto smooth = QNPlaylistFactory::generateWithData(bytes(smoothManifest()));
  ASSERT_TRUE(smooth);
  EXPECT_EQ(smooth->format(), "smooth");
  EXPECT_EQ(smooth->movies().size(), 1u);
  EXPECT_EQ(smooth->url(), std::nullopt);
}

TEST(PlaylistFactory, GivesBothParsersReasonsForWhatNoneAccepts) {
  for (const auto& row : unusableManifests()) {
    SCOPED_TRACE(row.name);
    try {
      (void)QNPlaylistFactory::generateWithData(bytes(row.text));
      ADD_FAILURE() << "accepted";
    } catch (const Exception& exception) {
      EXPECT_EQ(exception.name(), "QNPlaylistFactoryException");
      EXPECT_EQ(exception.reason(), kNoImplementation);
      EXPECT_EQ(exception.userInfo().size(), 2u);
      EXPECT_EQ(reasonUnder(exception.userInfo(), "DASHGeneratorError"), row.dash);
      EXPECT_EQ(reasonUnder(exception.userInfo(), "SmoothStreamingGeneratorError"), row.smooth);
    }
  }
}

TEST(PlaylistFactory, TakesAnMPDWithoutAnythingToListAsFinal) {
  EXPECT_EQ(QNPlaylistFactory::generateWithData(bytes(mpd("<Period/>"))), nullptr);
}

TEST(PlaylistFactory, RefusesWhatIsTooLargeBeforeItIsParsed) {
  try {
    (void)QNPlaylistFactory::generateWithData(
        std::make_shared<const platform::Data>(static_cast<size_t>(QNManifestMaximumBytes) + 1));
    ADD_FAILURE() << "accepted";
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), "QNPlaylistFactoryException");
    EXPECT_EQ(exception.reason(), "The manifest is larger than 256 MiB");
  }
}

TEST(PlaylistFactory, ReadsFiles) {
  const qntest::TempDirectory directory;
  auto& files = platform::FileManager::defaultManager();
  const auto write = [&](const std::string& name, const std::string& text) {
    const std::string path = directory.path() + "/" + name;
    EXPECT_EQ(files.writeAtomically(path, text.data(), text.size()), nullptr);
    return path;
  };
  const ErrorPtr before = platform::Error::errorWithDomain("before", 1);

  ErrorPtr error = before;
  EXPECT_TRUE(QNPlaylistFactory::generateWithFile(write("a.mpd", dashManifest()), &error));
  EXPECT_TRUE(QNPlaylistFactory::generateWithFile(write("a.ism", smoothManifest()), &error));
  EXPECT_FALSE(QNPlaylistFactory::generateWithFile(write("none.mpd", mpd("<Period/>")), &error));
  EXPECT_FALSE(QNPlaylistFactory::generateWithFile(directory.path() + "/missing", &error));
  EXPECT_FALSE(QNPlaylistFactory::generateWithFile(directory.path(), &error));
  EXPECT_EQ(error, before) << "nil without an error means that nothing usable is stored";

  for (const auto& row : unusableManifests()) {
    SCOPED_TRACE(row.name);
    const std::string path = write("bad", row.text);
    EXPECT_FALSE(QNPlaylistFactory::generateWithFile(path, nullptr));
    EXPECT_FALSE(QNPlaylistFactory::generateWithFile(path, &error));
    expectUnusable(error, kNoImplementation);
  }
}

TEST(PlaylistFactory, ReportsAFileThatIsTooLargeWithoutReadingIt) {
  const qntest::TempDirectory directory;
  const std::string path = directory.path() + "/large.mpd";
  ASSERT_EQ(platform::FileManager::defaultManager().writeAtomically(path, "x", 1), nullptr);
  ASSERT_EQ(truncate(path.c_str(), QNManifestMaximumBytes + 1), 0);
  ErrorPtr error;
  EXPECT_FALSE(QNPlaylistFactory::generateWithFile(path, &error));
  expectUnusable(error, "The manifest is larger than 256 MiB");
}

struct Outcome {
  int calls = 0;
  std::shared_ptr<QNPlaylist> playlist;
  platform::DataPtr bytes;
  ErrorPtr error;

  QNPlaylistFactory::Completion block() {
    return [this](const auto& p, const auto& b, const auto& e) {
      ++calls;
      playlist = p;
      bytes = b;
      error = e;
    };
  }
};

TEST(PlaylistFactory, FetchesWithAPlainRequest) {
  ScriptedSharedSession session;
  Outcome outcome;
  QNPlaylistFactory::generateWithURL("http://host/a b.mpd", outcome.block());
  ASSERT_EQ(session.fetches().size(), 1u);
  const auto request = session.fetches()[0].request;
  EXPECT_EQ(request->url()->absoluteString(), "http://host/a%20b.mpd");
  EXPECT_EQ(request->HTTPMethod(), "GET");
  EXPECT_TRUE(request->allHTTPHeaderFields().empty());
  EXPECT_EQ(outcome.calls, 0);

  const auto data = bytes(dashManifest());
  session.fetches()[0].completion(data, nullptr, nullptr);
  EXPECT_EQ(outcome.calls, 1);
  EXPECT_TRUE(outcome.playlist);
  EXPECT_EQ(outcome.bytes, data) << "the bytes as received";
  EXPECT_FALSE(outcome.error);
}

TEST(PlaylistFactory, ReportsWhatAFetchBrought) {
  const auto transport =
      platform::Error::errorWithDomain(platform::NSURLErrorDomain, platform::URLErrorTimedOut);
  const auto page = bytes("<html>404</html>");
  const auto nothing = bytes(mpd("<Period/>"));
  const auto notFound = std::make_shared<const platform::HTTPURLResponse>(
      platform::URL::URLWithString("http://h/m"), 404, platform::HTTPHeaders(), 16);
  const struct {
    const char* name;
    platform::DataPtr received;
    ErrorPtr failed;
    platform::DataPtr bytes;  // what the block gets
    bool unusable;
  } rows[] = {
      {"transport failure", nullptr, transport, nullptr, false},
      {"bytes and a transport failure", page, transport, nullptr, false},
      {"neither bytes nor error", nullptr, nullptr, nullptr, false},
      {"an error page", page, nullptr, page, true},
      {"a manifest without a movie", nothing, nullptr, nothing, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedSharedSession session;
    Outcome outcome;
    QNPlaylistFactory::generateWithURL("http://h/m", outcome.block());
    session.fetches().at(0).completion(row.received, notFound, row.failed);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_FALSE(outcome.playlist);
    EXPECT_EQ(outcome.bytes, row.bytes);
    if (row.unusable) {
      expectUnusable(outcome.error, kNoImplementation);
    } else {
      EXPECT_EQ(outcome.error, row.failed);
    }
  }
}

TEST(PlaylistFactory, FetchesWithTheCallersRequestAndShowsTheResponse) {
  ScriptedSharedSession session;
  const auto request =
      platform::URLRequest::requestWithURL(platform::URL::URLWithString("http://h/m"));
  request->setValueForHTTPHeaderField("secret", "Authorization");
  platform::URLResponsePtr shown;
  QNPlaylistFactory::generateWithRequest(
      request,
      [&](const auto&, const auto&, const auto& response, const auto&) { shown = response; });
  ASSERT_EQ(session.fetches().at(0).request, request);
  const auto response = std::make_shared<const platform::HTTPURLResponse>(
      request->url(), 403, platform::HTTPHeaders(), -1);
  session.fetches()[0].completion(bytes("no"), response, nullptr);
  EXPECT_EQ(shown, response);
}

TEST(PlaylistFactory, AURLThatIsNoneIsStillOneTask) {
  ScriptedSharedSession session;
  Outcome outcome;
  QNPlaylistFactory::generateWithURL("", outcome.block());
  ASSERT_EQ(session.fetches().size(), 1u);
  EXPECT_EQ(session.fetches()[0].request->url(), nullptr);
}

}  // namespace
