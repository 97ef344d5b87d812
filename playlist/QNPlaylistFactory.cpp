#include "playlist/QNPlaylistFactory.h"

#include <utility>

#include "platform/FileManager.h"
#include "platform/URLSession.h"
#include "playlist/QNManifestLimits.h"
#include "playlist/QNParsedXML.h"
#include "playlist/QNParserExceptions.h"
#include "playlist/QNPlaylist.h"

const char* const QNPlaylistFactoryException = "QNPlaylistFactoryException";
const char* const QNPlaylistFactoryErrorDomain = "NSErrorQNDownloader";
const char* const QNDASHGeneratorErrorKey = "DASHGeneratorError";
const char* const QNSmoothStreamingGeneratorErrorKey = "SmoothStreamingGeneratorError";

namespace {

const char* const kTooLarge = "The manifest is larger than 256 MiB";

// Whether the bytes are well-formed is for the parsers to say.
QNParsedXML parseXML(const platform::DataPtr& data) {
  if (data && data->size() > static_cast<size_t>(QNManifestMaximumBytes)) {
    throw platform::Exception(QNPlaylistFactoryException, kTooLarge);
  }
  return withPlatformExceptions([&] {
    QNParsedXML xml(data);
    QNManifestLimits::check(xml.root());
    return xml;
  });
}

// What the two network entry points have in common.
void fetch(const platform::URLRequestPtr& request, QNPlaylistFactory::ResponseCompletion block) {
  const auto task = platform::URLSession::sharedSession()->dataTaskWithRequest(
      request, [block = std::move(block)](const platform::DataPtr& bytes,
                                          const platform::URLResponsePtr& response,
                                          const platform::ErrorPtr& error) {
        if (error || !bytes) return block(nullptr, nullptr, response, error);
        std::shared_ptr<QNPlaylist> playlist;
        platform::ErrorPtr unusable;
        try {
          playlist = QNPlaylistFactory::generateWithData(bytes);
        } catch (const platform::Exception& exception) {
          unusable = QNPlaylistFactory::errorWithException(exception);
        }
        block(playlist, bytes, response, unusable);
      });
  task->resume();
}

}  // namespace

std::shared_ptr<QNPlaylist> QNPlaylistFactory::generateWithData(const platform::DataPtr& data) {
  const auto xml = parseXML(data);
  platform::Dictionary reasons;
  try {
    return dashGenerateWithXML(xml);
  } catch (const platform::Exception& exception) {
    reasons[QNDASHGeneratorErrorKey] = exception;
  }
  try {
    return smoothGenerateWithXML(xml);
  } catch (const platform::Exception& exception) {
    reasons[QNSmoothStreamingGeneratorErrorKey] = exception;
  }
  throw platform::Exception(QNPlaylistFactoryException,
                            "Can't find proper implementation for parsing manifest", reasons);
}

std::shared_ptr<QNPlaylist> QNPlaylistFactory::dashGenerateWithData(const platform::DataPtr& data) {
  return dashGenerateWithXML(parseXML(data));
}

std::shared_ptr<QNPlaylist> QNPlaylistFactory::smoothGenerateWithData(
    const platform::DataPtr& data) {
  return smoothGenerateWithXML(parseXML(data));
}

std::shared_ptr<QNPlaylist> QNPlaylistFactory::generateWithFile(const std::string& path,
                                                                platform::ErrorPtr* error) {
  auto& files = platform::FileManager::defaultManager();
  try {
    if (files.sizeOfFile(path).value_or(0) > QNManifestMaximumBytes) {
      throw platform::Exception(QNPlaylistFactoryException, kTooLarge);
    }
    const auto bytes = files.contentsAtPath(path, QNManifestMaximumBytes);
    return bytes ? generateWithData(bytes) : nullptr;
  } catch (const platform::Exception& exception) {
    if (error) *error = errorWithException(exception);
    return nullptr;
  }
}

void QNPlaylistFactory::generateWithURL(const std::string& url, Completion block) {
  fetch(platform::URLRequest::requestWithURL(platform::URL::URLWithString(url)),
        [block = std::move(block)](const std::shared_ptr<QNPlaylist>& playlist,
                                   const platform::DataPtr& bytes, const platform::URLResponsePtr&,
                                   const platform::ErrorPtr& error) {
          block(playlist, bytes, error);
        });
}

void QNPlaylistFactory::generateWithRequest(const platform::URLRequestPtr& request,
                                            ResponseCompletion block) {
  fetch(request, std::move(block));
}

platform::ErrorPtr QNPlaylistFactory::errorWithException(const platform::Exception& exception) {
  // There is no string table: a reason stands for itself.
  const std::string& text = exception.reason();
  return platform::Error::errorWithDomain(
      QNPlaylistFactoryErrorDomain, QNPlaylistFactoryErrorCode,
      {{platform::NSLocalizedDescriptionKey, text},
       {platform::NSLocalizedFailureReasonErrorKey, text},
       {platform::NSLocalizedRecoverySuggestionErrorKey, text}});
}
