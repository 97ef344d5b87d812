#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestCA.h"

namespace qntest {

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

// A request as the server saw it and what was answered. `bodySent` counts bytes handed to the
// kernel.
struct FaultRequest {
  uint64_t connection = 0;  // from 1
  uint64_t ordinal = 0;     // among the requests of this path, from 0
  std::string method, path, query;
  HeaderFields headers;
  double atSeconds = 0;  // since the server started
  int status = 0;        // 0: ended before a status line
  uint64_t bodyStart =
      0;  // offset in the resource of the first body byte, for a 200 or 206 of its content
  uint64_t bodySent = 0;
  bool ofContent = false;  // the body was content of the resource
  bool finished = false;   // answered to its end, faults included

  std::optional<std::string> header(const std::string& name) const;  // any case
};

// A file of the server: generated content (TestContent.h) under strong validators, or literal text.
struct FaultResource {
  uint64_t size = 0;
  int version = 0;  // another version has other bytes and other validators
  bool etag = true;
  bool weakEtag = false;
  bool lastModified = false;
  bool acceptsRanges = true;
  HeaderFields requiredHeaders;  // missing or different: 403
  std::optional<std::string> literal;
  std::string contentType = "application/octet-stream";
};

// How one answer differs from the right one. Offsets count body bytes of this answer; -1 is never.
struct Fault {
  std::optional<int> status;  // an error page (or redirect) with `body` in place of the content
  std::string body = "<h1>no</h1>";  // of the error page, may be empty
  HeaderFields headers;              // set or replaced; an empty value removes the field
  std::optional<std::string> raw;    // these bytes in place of head and body, then end of stream
  bool closeBeforeHead = false;      // end of stream instead of an answer
  bool resetBeforeHead = false;
  int64_t resetAt = -1;       // RST when the client's kernel has this many bytes
  int64_t closeAt = -1;       // end of stream
  int64_t stallAt = -1;       // silent until the client goes
  int64_t holdAt = -1;        // silent until release() of the path
  double delaySeconds = 0;    // before the status line
  double bytesPerSecond = 0;  // 0: as fast as it goes
  int64_t lengthDelta = 0;    // added to Content-Length
  // Added in Content-Range; the body follows the start and the end.
  int64_t rangeStartDelta = 0;
  int64_t rangeEndDelta = 0;
  int64_t rangeTotalDelta = 0;
  bool rangeTotalUnknown = false;  // "*"
  bool ignoreRange = false;        // 200 with the whole content
  bool ignoreIfRange = false;      // 206 although the validator changed
  bool chunked = false;            // chunked, no length
  bool noLength = false;           // no length, ended by closing
  bool http10 = false;
  bool gzip = false;        // Content-Encoding: gzip whatever was asked
  size_t gzipMissing = 0;   // bytes that the compressed stream lacks at its end, rightly framed
  bool closeAfter = false;  // closes the kept connection after the answer without having said so

  // An answer of `status` with a body and fields of its own.
  static Fault page(int status, HeaderFields headers = {}, std::string body = "<h1>no</h1>");
  static Fault redirect(const std::string& location, int status = 302);
  static Fault reset(int64_t at);
  static Fault close(int64_t at);
  static Fault stall(int64_t at);
  static Fault hold(int64_t at);
};

// An HTTP/1.1 server of the test process on 127.0.0.1, on raw sockets, one thread per connection,
// with or without TLS. It serves files right unless a fault is scripted for the request, and logs
// every request. Thread-safe.
class FaultServer {
 public:
  struct Options {
    const TestCA* ca = nullptr;                                   // with it: TLS
    std::vector<std::string> names = {"localhost", "127.0.0.1"};  // of the certificate
    bool expired = false;
    uint16_t port = 0;  // 0: any free one; else this one (a server that comes back)
  };

  FaultServer();
  explicit FaultServer(const Options& options);
  ~FaultServer();  // ends every connection
  FaultServer(const FaultServer&) = delete;
  FaultServer& operator=(const FaultServer&) = delete;

  uint16_t port() const;
  // "http(s)://host:port" and the path. The default host is 127.0.0.1.
  std::string url(const std::string& path, const std::string& host = "127.0.0.1") const;

  // Files. Paths begin with "/" and have no query; the longest prefix wins where no file of that
  // name was set.
  void serve(const std::string& path, const FaultResource& resource);
  void serve(const std::string& path, uint64_t size);
  void servePrefix(const std::string& prefix, const FaultResource& resource);

  // The n-th request of a path (from now) meets the n-th fault, later ones meet `then`.
  void script(const std::string& path, std::vector<Fault> faults, const Fault& then = {});
  // Asked for every request that no script covers; null removes it.
  void setChooser(std::function<Fault(const FaultRequest&)> chooser);
  // Lets go answers held at a path; later holds of this path do not hold until it is scripted
  // again.
  void release(const std::string& path);
  // Ends all connections and accepts no new ones until called with false; the port stays reserved
  // when refused.
  void setRefusing(bool refusing);

  // The log, in the order in which requests came; `path` empty: all.
  std::vector<FaultRequest> requests(const std::string& path = "") const;
  size_t requestCount(const std::string& path = "") const;
  void clearLog();
  uint64_t bytesSent(const std::string& path = "") const;  // of content
  // Content bytes of a path that were sent more than once, counted as often as they were sent
  // again.
  uint64_t bytesSentAgain(const std::string& path) const;
  uint64_t connectionCount() const;
  double seconds() const;         // since it started, the clock of FaultRequest::atSeconds
  int maximumConcurrent() const;  // requests that were being answered at one time

  // Waits for an event with a deadline; false when it did not come.
  bool waitForRequests(const std::string& path, size_t count, double seconds = 10) const;
  bool waitForNoConnections(double seconds = 10) const;
  bool waitForSent(const std::string& path, uint64_t bytes, double seconds = 10) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qntest
