#include "cli/ManifestLoader.h"

#include <future>
#include <utility>

#include "cli/Failure.h"
#include "platform/FileManager.h"
#include "platform/URLResponse.h"
#include "platform/URLSession.h"
#include "playlist/QNPlaylistFactory.h"

namespace cli {
namespace {

struct Answer {
  platform::DataPtr bytes;
  platform::URLResponsePtr response;
  platform::ErrorPtr error;
};

Answer fetch(const std::string& url, const platform::HTTPHeaders& headers) {
  auto request = platform::URLRequest::requestWithURL(platform::URL::URLWithString(url));
  for (const auto& [name, value] : headers.fields())
    request->setValueForHTTPHeaderField(value, name);
  const auto answer = std::make_shared<std::promise<Answer>>();
  const auto task = platform::URLSession::sharedSession()->dataTaskWithRequest(
      request, [answer](const platform::DataPtr& bytes, const platform::URLResponsePtr& response,
                        const platform::ErrorPtr& error) {
        answer->set_value({bytes, response, error});
      });
  task->resume();
  return answer->get_future().get();
}

// "the server answered 404 (not found)"; empty for 200.
std::string describeStatus(const platform::URLResponsePtr& response) {
  const auto http = std::dynamic_pointer_cast<const platform::HTTPURLResponse>(response);
  if (!http || http->statusCode() == 200) return {};
  const auto text = platform::HTTPURLResponse::localizedStringForStatusCode(http->statusCode());
  return "the server answered " + std::to_string(http->statusCode()) +
         (text ? " (" + *text + ")" : "");
}

// What a refusal may come from: a redirect takes no headers to another origin.
std::string describeLostHeaders(const std::string& url, const platform::HTTPHeaders& headers,
                                const platform::URLResponsePtr& response) {
  const auto http = std::dynamic_pointer_cast<const platform::HTTPURLResponse>(response);
  const bool refused = http && (http->statusCode() == 401 || http->statusCode() == 403);
  if (!refused || headers.empty() || !http->url()) return {};
  const std::string origin = http->url()->origin();
  if (origin == platform::URL(url).origin()) return {};
  return " after a redirect to " + origin + ", where headers were not sent";
}

std::optional<std::string> reasonUnder(const platform::Exception& exception, const char* key) {
  const auto entry = exception.userInfo().find(key);
  if (entry == exception.userInfo().end()) return std::nullopt;
  const auto* inner = std::any_cast<platform::Exception>(&entry->second);
  return inner ? std::optional(inner->reason()) : std::nullopt;
}

Failure unusable(const std::string& source, const std::string& status,
                 const platform::Exception& exception) {
  const auto dash = reasonUnder(exception, QNDASHGeneratorErrorKey);
  const auto smooth = reasonUnder(exception, QNSmoothStreamingGeneratorErrorKey);
  std::string message = source + " is not a usable manifest: ";
  if (!status.empty()) message += status + "; ";
  message += dash && smooth ? "as DASH: " + *dash + "; as Smooth Streaming: " + *smooth
                            : exception.reason();
  platform::JSON result = platform::JSON::object();
  result.set("error", message);
  result.set("dash", dash ? platform::JSON(*dash) : platform::JSON());
  result.set("smooth", smooth ? platform::JSON(*smooth) : platform::JSON());
  return Failure(ExitManifest, message).withResult(std::move(result));
}

Failure listsNothing(const std::string& source, const std::string& format) {
  platform::JSON result = platform::JSON::object();
  result.set("format", format);
  result.set("inexactRanges", 0);
  result.set("movies", platform::JSON::array());
  return Failure(ExitManifest, source + " lists no movie").withResult(std::move(result));
}

LoadedManifest parse(const platform::DataPtr& bytes, const std::string& source,
                     const std::string& status) {
  std::shared_ptr<QNPlaylist> playlist;
  try {
    playlist = QNPlaylistFactory::generateWithData(bytes);
  } catch (const platform::Exception& exception) {
    throw unusable(source, status, exception);
  }
  // Only the DASH path may have nothing to say about bytes that it accepts.
  if (!playlist) throw listsNothing(source, "dash");
  if (playlist->movies().empty()) throw listsNothing(source, playlist->format());
  return {std::move(playlist), bytes};
}

}  // namespace

LoadedManifest loadManifestFromURL(const std::string& url, const platform::HTTPHeaders& headers) {
  const Answer answer = fetch(url, headers);
  if (answer.bytes) {
    return parse(
        answer.bytes, url,
        describeStatus(answer.response) + describeLostHeaders(url, headers, answer.response));
  }
  const bool tooLarge = answer.error && answer.error->domain() == platform::NSURLErrorDomain &&
                        answer.error->code() == platform::URLErrorDataLengthExceedsMaximum;
  const std::string reason = answer.error ? answer.error->localizedDescription() : "no answer";
  throw Failure(tooLarge ? ExitManifest : ExitUnreachable, "Cannot fetch " + url + ": " + reason);
}

LoadedManifest loadManifestFromFile(const std::string& path) {
  auto& files = platform::FileManager::defaultManager();
  const auto size = files.sizeOfFile(path);
  if (!size) {
    const char* what = files.fileExistsAtPath(path) ? " is not a regular file" : ": no such file";
    throw Failure(ExitUnreachable, path + what);
  }
  if (*size > QNManifestMaximumBytes) {
    throw Failure(ExitManifest, path + " is not a usable manifest: larger than 256 MiB");
  }
  platform::ErrorPtr error;
  const auto bytes = files.contentsAtPath(path, QNManifestMaximumBytes, &error);
  if (!bytes)
    throw Failure(ExitUnreachable, error ? error->localizedDescription() : "Cannot read " + path);
  return parse(bytes, path, {});
}

std::string baseURLOf(const std::string& url) {
  std::string base = url.substr(0, url.find_first_of("?#"));
  const size_t authority = base.find("://");
  const size_t path =
      authority == std::string::npos ? std::string::npos : base.find('/', authority + 3);
  if (path == std::string::npos) return base + "/";
  return base.substr(0, base.rfind('/') + 1);
}

}  // namespace cli
