#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/URL.h"
#include "platform/URLRequest.h"
#include "platform/transfer/TransferErrors.h"

typedef void CURL;
struct curl_slist;

namespace platform {

class BodyDecoder;
class CurlLoop;

// The head of the response that a redirect chain ended with.
struct HttpHead {
  int status = 0;
  HTTPHeaders headers;
  URLPtr url;
};

// One request, for content without coding unless a header field says otherwise, and its response,
// redirects followed hop by hop. What comes coded is decoded anyway. Belongs to the thread of its
// loop. The application's header fields are not sent on to another origin, except for the range
// asked for, without which the body would be another one. The observer may not destroy the exchange
// from inside a call, except in exchangeDidComplete.
class HttpExchange {
 public:
  class Observer {
   public:
    virtual ~Observer();
    // The connection stands, the request goes out; once per hop.
    virtual void exchangeDidConnect() {}
    // False ends the exchange: exchangeDidComplete comes with URLErrorCancelled.
    virtual bool exchangeDidReceiveHead(HttpHead head) = 0;
    virtual bool exchangeDidReceiveBody(const char* bytes, size_t count) = 0;
    virtual void exchangeDidComplete(const HttpOutcome& outcome) = 0;
  };

  struct Request {
    URLPtr url;
    std::string method = "GET";
    HTTPHeaders headers;
    // A coded body counts as received only when its own end has come, which gzip and deflate show;
    // content in another coding is refused.
    bool provesCodedEnd = false;
  };

  HttpExchange(CurlLoop& loop, Observer& observer);
  ~HttpExchange();  // ends the exchange without a call
  HttpExchange(const HttpExchange&) = delete;
  HttpExchange& operator=(const HttpExchange&) = delete;

  // False when libcurl does not take it.
  [[nodiscard]] bool start(Request request);
  // Stops and goes on reading from the network. Not from inside exchangeDidReceive….
  void pause();
  void unpause();
  bool isPaused() const { return paused_; }

  // What a loop's Done function is to call.
  static void done(CURL* easy, int curlCode);

 private:
  static size_t headerCallback(char* bytes, size_t size, size_t count, void* self);
  static size_t bodyCallback(char* bytes, size_t size, size_t count, void* self);
  static int connectedCallback(void* self, char*, char*, int, int);

  bool startHop();
  void buildHeaderList();
  void readHeaderLine(std::string_view line);
  [[nodiscard]] bool headIsComplete();
  [[nodiscard]] bool chooseDecoder();
  [[nodiscard]] bool decode(const char* bytes, size_t count);
  size_t takeBody(const char* bytes, size_t length);
  template <class Result, class Function>
  Result guarded(Result onFailure, const Function& function);
  bool isContent() const { return status_ == 200 || status_ == 206; }
  [[nodiscard]] bool takeRedirect();
  void finishHop(int curlCode);
  void complete(const HttpOutcome& outcome);

  CurlLoop& loop_;
  Observer& observer_;
  CURL* easy_ = nullptr;
  bool inLoop_ = false;
  bool paused_ = false;
  bool pausesAtBody_ = false;
  curl_slist* headerList_ = nullptr;
  std::array<char, 256> curlMessage_{};

  Request request_;
  HTTPHeaders sentHeaders_;  // without what a redirect took away
  int redirects_ = 0;

  int status_ = 0;
  HTTPHeaders headers_;
  std::string lastHeader_;
  bool headDone_ = false;
  bool stoppedByObserver_ = false;
  std::unique_ptr<BodyDecoder> decoder_;  // null: libcurl's, or none is needed
  HttpOutcome codingFailure_;
  URLPtr redirect_;
  size_t redirectBody_ = 0;
  HttpOutcome redirectFailure_;
  HttpOutcome thrown_;  // in a callback
};

}  // namespace platform
