#include "platform/transfer/HttpExchange.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include <curl/curl.h>

#include "platform/Log.h"
#include "platform/transfer/BodyDecoder.h"
#include "platform/transfer/CurlLoop.h"
#include "platform/transfer/HttpRules.h"

namespace platform {
namespace {

constexpr int kMaximumRedirects = 20;
// The body of a redirect is read so that the connection can be kept, but not a long one.
constexpr size_t kMaximumRedirectBody = 64 << 10;

// Fields that belong to the connection or the framing, which are libcurl's.
bool isConnectionField(std::string_view name) {
  static constexpr std::string_view kNames[] = {
      "connection", "transfer-encoding", "content-length", "upgrade", "te", "keep-alive", "expect"};
  return std::any_of(std::begin(kNames), std::end(kNames), [name](std::string_view known) {
    return name.size() == known.size() &&
           std::equal(name.begin(), name.end(), known.begin(),
                      [](char a, char b) { return (a | 0x20) == b || a == b; });
  });
}

// What has to stay when a redirect leaves the origin: without it the body would be another one.
HTTPHeaders rangeFieldsOf(const HTTPHeaders& headers) {
  HTTPHeaders kept;
  for (const char* name : {"Range", "If-Range"}) {
    if (auto value = headers.get(name)) kept.set(name, *std::move(value));
  }
  return kept;
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back()))
    text.remove_suffix(1);
  return text;
}

}  // namespace

HttpExchange::Observer::~Observer() = default;

HttpExchange::HttpExchange(CurlLoop& loop, Observer& observer) : loop_(loop), observer_(observer) {}

HttpExchange::~HttpExchange() {
  if (easy_) {
    if (inLoop_) loop_.remove(easy_);
    curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, nullptr);
    loop_.giveHandle(easy_);
  }
  curl_slist_free_all(headerList_);
}

bool HttpExchange::start(Request request) {
  request_ = std::move(request);
  sentHeaders_ = request_.headers;
  easy_ = loop_.takeHandle();
  curl_easy_setopt(easy_, CURLOPT_PRIVATE, this);
  curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, curlMessage_.data());
  curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &HttpExchange::headerCallback);
  curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &HttpExchange::bodyCallback);
  curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy_, CURLOPT_PREREQFUNCTION, &HttpExchange::connectedCallback);
  curl_easy_setopt(easy_, CURLOPT_PREREQDATA, this);
  curl_easy_setopt(easy_, CURLOPT_HTTP_CONTENT_DECODING, request_.provesCodedEnd ? 0L : 1L);
  return startHop();
}

bool HttpExchange::startHop() {
  status_ = 0;
  headers_ = {};
  headDone_ = false;
  redirect_ = nullptr;
  redirectBody_ = 0;
  redirectFailure_ = {};
  thrown_ = {};
  decoder_.reset();
  codingFailure_ = {};
  curlMessage_[0] = '\0';

  curl_easy_setopt(easy_, CURLOPT_URL, request_.url->absoluteString().c_str());
  // Where many transfers of one host begin at once, they wait to see whether they may share.
  const auto& text = request_.url->absoluteString();
  curl_easy_setopt(easy_, CURLOPT_PIPEWAIT, text.size() > 4 && (text[4] | 0x20) == 's' ? 1L : 0L);
  if (request_.method == "HEAD") {
    curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L);
  } else {
    curl_easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
  }
  const bool plain = request_.method == "GET" || request_.method == "HEAD";
  curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, plain ? nullptr : request_.method.c_str());
  buildHeaderList();
  inLoop_ = loop_.add(easy_);
  return inLoop_;
}

void HttpExchange::buildHeaderList() {
  curl_slist_free_all(std::exchange(headerList_, nullptr));
  const auto append = [this](const std::string& line) {
    curl_slist* const longer = curl_slist_append(headerList_, line.c_str());
    if (!longer) throw std::bad_alloc();
    headerList_ = longer;
  };
  for (const auto& [name, value] : sentHeaders_.fields()) {
    if (isConnectionField(name)) continue;
    append(value.empty() ? name + ";" : name + ": " + value);
  }
  curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headerList_);
}

void HttpExchange::pause() {
  if (paused_ || !inLoop_) return;
  paused_ = true;
  // Before its first byte a response is paused when its body begins: libcurl may fail a transfer
  // that was paused earlier than that.
  pausesAtBody_ = !headDone_;
  if (headDone_) curl_easy_pause(easy_, CURLPAUSE_RECV);
}

void HttpExchange::unpause() {
  if (!paused_) return;
  paused_ = false;
  pausesAtBody_ = false;
  if (inLoop_) curl_easy_pause(easy_, CURLPAUSE_CONT);
}

// Runs a callback of libcurl's, through which nothing may be thrown: what is ends this exchange, to
// be tried again.
template <class Result, class Function>
Result HttpExchange::guarded(Result onFailure, const Function& function) {
  try {
    return function();
  } catch (...) {
    thrown_ = {URLErrorUnknown, true, describeCurrentException()};
    return onFailure;
  }
}

size_t HttpExchange::headerCallback(char* bytes, size_t size, size_t count, void* selfPointer) {
  auto* const self = static_cast<HttpExchange*>(selfPointer);
  return self->guarded(size_t{0}, [&]() -> size_t {
    const std::string_view line(bytes, size * count);
    self->readHeaderLine(line);
    const bool complete = trimmed(line).empty();
    if (complete && self->status_ >= 200 && !self->headDone_ && !self->headIsComplete()) return 0;
    return size * count;
  });
}

void HttpExchange::readHeaderLine(std::string_view line) {
  if (headDone_) return;  // a trailer
  if (line.starts_with("HTTP/")) {
    headers_ = {};
    lastHeader_.clear();
    status_ = 0;
    const size_t blank = line.find(' ');
    if (blank == std::string_view::npos) return;
    std::from_chars(line.data() + blank + 1, line.data() + line.size(), status_);
    return;
  }
  if (line.starts_with(' ') || line.starts_with('\t')) {  // obsolete folding
    if (lastHeader_.empty() || trimmed(line).empty()) return;
    headers_.set(lastHeader_, *headers_.get(lastHeader_) + " " + std::string(trimmed(line)));
    return;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return;
  lastHeader_ = trimmed(line.substr(0, colon));
  std::string value(trimmed(line.substr(colon + 1)));
  // Fields of one name are a list (RFC 9110 section 5.2).
  if (const auto* const earlier = headers_.find(lastHeader_)) value = *earlier + ", " + value;
  headers_.set(lastHeader_, std::move(value));
}

bool HttpExchange::headIsComplete() {
  headDone_ = true;
  if (isRedirectStatus(status_) && headers_.find("Location")) return takeRedirect();
  if (!chooseDecoder()) return false;
  stoppedByObserver_ =
      !observer_.exchangeDidReceiveHead({status_, std::move(headers_), request_.url});
  return !stoppedByObserver_;
}

// False when the content is in a coding that cannot be undone here. A page that is no content is
// then left as it is.
bool HttpExchange::chooseDecoder() {
  const bool isEmpty = request_.method == "HEAD" || contentLength(headers_) == 0;
  if (!request_.provesCodedEnd || isEmpty || !hasContentCoding(headers_)) return true;
  const std::string coding = *headers_.get("Content-Encoding");
  decoder_ = BodyDecoder::forCoding(coding);
  if (decoder_ || !isContent()) return true;
  codingFailure_ = {URLErrorCannotDecodeContentData, false, coding + ", which was not asked for"};
  return false;
}

bool HttpExchange::decode(const char* bytes, size_t count) {
  const auto result = decoder_->feed(bytes, count, [this](const char* piece, size_t length) {
    return observer_.exchangeDidReceiveBody(piece, length);
  });
  stoppedByObserver_ = result == BodyDecoder::Result::Stopped;
  if (result == BodyDecoder::Result::Damaged) {
    codingFailure_ = {URLErrorCannotDecodeContentData, false, "the coded body is damaged"};
  }
  return result == BodyDecoder::Result::Fine;
}

bool HttpExchange::takeRedirect() {
  const std::string location = *headers_.get("Location");
  const URLPtr target = URL::URLWithString(location, request_.url);
  if (!target) {
    redirectFailure_ = {URLErrorRedirectToNonExistentLocation, false, "to " + location};
  } else if (!target->isHTTP()) {
    redirectFailure_ = {URLErrorUnsupportedURL, false, "redirected to " + location};
  } else if (++redirects_ > kMaximumRedirects) {
    redirectFailure_ = {URLErrorHTTPTooManyRedirects, false,
                        "more than " + std::to_string(kMaximumRedirects)};
  } else {
    redirect_ = target;
    return true;
  }
  return false;
}

size_t HttpExchange::bodyCallback(char* bytes, size_t size, size_t count, void* selfPointer) {
  auto* const self = static_cast<HttpExchange*>(selfPointer);
  return self->guarded(size_t{0}, [&] { return self->takeBody(bytes, size * count); });
}

size_t HttpExchange::takeBody(const char* bytes, size_t length) {
  if (redirect_) {
    redirectBody_ += length;
    return redirectBody_ > kMaximumRedirectBody ? 0 : length;
  }
  // Only then: libcurl keeps a copy of what is refused, and what it has read already may as well go
  // on.
  if (std::exchange(pausesAtBody_, false)) return CURL_WRITEFUNC_PAUSE;
  if (decoder_) return decode(bytes, length) ? length : 0;
  stoppedByObserver_ = !observer_.exchangeDidReceiveBody(bytes, length);
  return stoppedByObserver_ ? 0 : length;
}

int HttpExchange::connectedCallback(void* selfPointer, char*, char*, int, int) {
  auto* const self = static_cast<HttpExchange*>(selfPointer);
  return self->guarded(CURL_PREREQFUNC_ABORT, [self] {
    self->observer_.exchangeDidConnect();
    return CURL_PREREQFUNC_OK;
  });
}

void HttpExchange::done(CURL* easy, int curlCode) {
  char* self = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &self);
  reinterpret_cast<HttpExchange*>(self)->finishHop(curlCode);
}

void HttpExchange::finishHop(int curlCode) {
  inLoop_ = false;
  pausesAtBody_ = paused_;
  if (!thrown_.succeeded()) return complete(thrown_);
  if (stoppedByObserver_) return complete({URLErrorCancelled, false, {}});
  if (!redirectFailure_.succeeded()) return complete(redirectFailure_);
  if (!codingFailure_.succeeded()) return complete(codingFailure_);
  if (!redirect_) {
    auto outcome = outcomeOfCurl(curlCode, curlMessage_.data());
    if (outcome.succeeded() && !headDone_) {
      // libcurl counts a head that was cut off as a response without a body.
      outcome = {URLErrorNetworkConnectionLost, true, "the head of the response was cut off"};
    }
    if (outcome.succeeded() && decoder_ && isContent() && !decoder_->hasEnded()) {
      outcome = {URLErrorNetworkConnectionLost, true, "the coded body ended early"};
    }
    return complete(outcome);
  }
  const bool sameOrigin = redirect_->origin() == request_.url->origin();
  if (!sameOrigin) sentHeaders_ = rangeFieldsOf(sentHeaders_);
  const bool toGet =
      status_ == 303 || ((status_ == 301 || status_ == 302) && request_.method == "POST");
  if (toGet && request_.method != "HEAD") request_.method = "GET";
  request_.url = std::exchange(redirect_, nullptr);
  if (!startHop()) complete({URLErrorUnknown, false, "libcurl refused the request"});
}

void HttpExchange::complete(const HttpOutcome& outcome) {
  observer_.exchangeDidComplete(outcome);
}

}  // namespace platform
