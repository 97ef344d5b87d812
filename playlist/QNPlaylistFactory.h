#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Exception.h"
#include "platform/Export.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"

class QNPlaylist;

// Names and reasons that callers compare.
QN_EXPORT extern const char* const QNPlaylistFactoryException;    // "QNPlaylistFactoryException"
QN_EXPORT extern const char* const QNPlaylistFactoryErrorDomain;  // "NSErrorQNDownloader"
inline constexpr int64_t QNPlaylistFactoryErrorCode = -101;
// User info of the exception that says that no parser accepts the bytes: the platform::Exception of
// each parser.
QN_EXPORT extern const char* const QNDASHGeneratorErrorKey;  // "DASHGeneratorError"
QN_EXPORT extern const char* const
    QNSmoothStreamingGeneratorErrorKey;  // "SmoothStreamingGeneratorError"
// What a manifest may weigh; more is refused before it is parsed.
inline constexpr int64_t QNManifestMaximumBytes = int64_t{256} << 20;

// Turns manifest bytes into a playlist without being told their format: DASH is tried first, then
// Smooth Streaming. No state; every function may be called on any thread.
class QN_EXPORT QNPlaylistFactory {
 public:
  using Completion =
      std::function<void(const std::shared_ptr<QNPlaylist>& playlist,
                         const platform::DataPtr& bytes, const platform::ErrorPtr& error)>;
  using ResponseCompletion = std::function<void(
      const std::shared_ptr<QNPlaylist>& playlist, const platform::DataPtr& bytes,
      const platform::URLResponsePtr& response, const platform::ErrorPtr& error)>;

  // Null when the bytes are an MPD without anything to list. Throws platform::Exception
  // "QNPlaylistFactoryException" when neither parser accepts them, with both parsers' exceptions
  // under the two keys above.
  static std::shared_ptr<QNPlaylist> generateWithData(const platform::DataPtr& data);
  // Null without an error: there is no such file, or it cannot be read; `error` (may be null) is
  // left untouched. Null with an error: not a usable manifest. Never throws a platform::Exception.
  static std::shared_ptr<QNPlaylist> generateWithFile(const std::string& path,
                                                      platform::ErrorPtr* error);
  // A plain GET on the shared session. The block is called once, on a thread of that session:
  // (playlist, bytes, null); (null, bytes, error) when the bytes are no usable manifest; (null,
  // null, error) when they could not be fetched. The playlist may be null without an error, as
  // above. The HTTP status is not looked at: an error page is bytes that no parser accepts.
  static void generateWithURL(const std::string& url, Completion block);
  // The same for a request of the caller's (headers), with the response, which may be null.
  static void generateWithRequest(const platform::URLRequestPtr& request, ResponseCompletion block);

  // Domain "NSErrorQNDownloader", code -101; description, failure reason and recovery suggestion
  // are the reason of the exception. Its user info is not carried over.
  static platform::ErrorPtr errorWithException(const platform::Exception& exception);

  // One format each. Everything that the parsers throw leaves as platform::Exception
  // "QNPlaylistFactoryException" with their message as reason, or "Unexpected C++ exception
  // received" for what carries none.
  static std::shared_ptr<QNPlaylist> dashGenerateWithData(const platform::DataPtr& data);
  static std::shared_ptr<QNPlaylist> smoothGenerateWithData(const platform::DataPtr& data);

  QNPlaylistFactory() = delete;
};
