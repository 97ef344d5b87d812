#include "platform/transfer/Download.h"

#include <cerrno>
#include <utility>

#include <sys/stat.h>

#include "platform/transfer/CurlLoop.h"

namespace platform {
namespace {

// A body that is not wanted is read so that the connection can be kept, but not a long one.
constexpr int64_t kMaximumDiscarded = 64 << 10;

bool hasNoBody(const std::string& method, int status) {
  return method == "HEAD" || status == 204 || status == 304;
}

// The bytes end where a part of a representation of unknown length did.
bool endsWithPart(const TransferContent& content, uint64_t start) {
  if (!content.response || content.response->statusCode() != 206) return false;
  const auto value = content.response->allHeaderFields().get("Content-Range");
  const auto part = value ? parseContentRange(*value) : std::nullopt;
  return part && part->range && !part->total &&
         *part->range->last + 1 == start + static_cast<uint64_t>(content.received);
}

}  // namespace

Download::Owner::~Owner() = default;

Download::Download(TransferTaskId task, URLRequestPtr request, TransferContent content,
                   PartialFiles& files, CurlLoop& loop, Owner& owner)
    : task_(task),
      request_(std::move(request)),
      content_(std::move(content)),
      files_(files),
      loop_(loop),
      owner_(owner) {}

Download::~Download() = default;

bool Download::canBeContinued() const {
  return content_.received > 0 && !content_.validator.empty();
}

std::optional<uint64_t> Download::contentHash() const {
  return hash_ ? std::optional(hash_->digest()) : std::nullopt;
}

void Download::start() {
  const URLPtr url = request_->url();
  if (!url || !url->isHTTP()) {
    outcome_ = {url ? URLErrorUnsupportedURL : URLErrorBadURL, false, {}};
    return finish(End::Failed);
  }
  base_ = content_.received;
  if (content_.response && content_.received == content_.expected) {
    ++responses_;
    return finish(End::Finished);
  }
  asked_ = whatToAsk();
  HttpExchange::Request request{url, request_->HTTPMethod(), request_->allHTTPHeaderFields(), true};
  if (asked_.offset > 0) {
    request.headers.set("Range", *asked_.header(std::nullopt));
    if (!asked_.validator.empty()) request.headers.set("If-Range", asked_.validator);
  }
  exchange_ = std::make_unique<HttpExchange>(loop_, *this);
  if (exchange_->start(std::move(request))) return;
  outcome_ = {URLErrorUnknown, false, "libcurl refused the request"};
  finish(End::Failed);
}

RangeAsked Download::whatToAsk() const {
  RangeAsked asked;
  const auto own = request_->valueForHTTPHeaderField("Range");
  asked.hasOwnRange = own.has_value();
  if (own) asked.own = parseRange(*own);
  // Bytes of a whole resource are none of the range: it is asked for again.
  const int status = content_.response ? content_.response->statusCode() : 0;
  const bool usable = !own || (asked.own && status == 206);
  if (!usable || request_->HTTPMethod() != "GET") return asked;
  asked.endUnknown = endsWithPart(content_, asked.start());
  if (!canBeContinued() && !asked.endUnknown) return asked;
  asked.offset = static_cast<uint64_t>(content_.received);
  asked.validator = content_.validator;
  asked.expected = content_.expected;
  if (content_.response) asked.total = completeLength(*content_.response);
  return asked;
}

void Download::fail(const HttpOutcome& outcome) {
  if (ended_) return;
  outcome_ = outcome;
  finish(End::Failed);
}

void Download::exchangeDidConnect() {
  owner_.downloadDidConnect(*this);
}

bool Download::exchangeDidReceiveHead(HttpHead head) {
  if (ended_) return false;
  status_ = head.status;
  if (isRetriedStatus(head.status)) {
    const bool retried = owner_.downloadShouldRetryStatus(*this, head.headers);
    if (retried || asked_.offset > 0) {
      discarding_ = true;
      end_ = End::Status;
      return true;
    }
  }
  switch (judgeResponse(asked_, head.status, head.headers)) {
    case Verdict::Continue:
      return beginContent(head, true);
    case Verdict::StartOver:
      return beginContent(head, false);
    case Verdict::Whole:
      presentWhole(head);
      discarding_ = true;
      end_ = End::Finished;
      return true;
    case Verdict::FromZero:
      discarding_ = true;
      end_ = End::FromZero;
      return true;
    case Verdict::Bad:
      break;
  }
  outcome_ = {URLErrorBadServerResponse, false,
              "the part that was sent is not the one asked for (status " +
                  std::to_string(head.status) + ")"};
  return stop(End::Failed);
}

bool Download::beginContent(HttpHead& head, bool continues) {
  if (!openFile(continues)) {
    return stop(continues && diskError_ == ENOENT ? End::FromZero : End::Disk);
  }
  ++responses_;
  base_ = continues ? content_.received : 0;
  hash_.reset();
  if (!continues) {
    hash_.emplace();
    content_.received = 0;
    content_.synced = 0;
    content_.expected = URLSessionTransferSizeUnknown;
    content_.reportDue = true;
    // Of a coded body the decoded bytes count, which no range can name.
    const bool coded = hasContentCoding(head.headers);
    const bool complete = head.status == 200 || head.status == 206;
    content_.validator = complete && !coded ? strongValidator(head.headers) : std::string();
  }
  setExpected(head);
  content_.response = std::make_shared<const HTTPURLResponse>(
      head.url, head.status, std::move(head.headers), content_.expected);
  touched_ = true;
  owner_.downloadDidReceive(*this);
  return true;
}

bool Download::openFile(bool continues) {
  if (continues) {
    // Written at its old end, a file that was cut would have a hole.
    const bool isThere = files_.size(content_.file) >= content_.received;
    diskError_ = isThere ? files_.openForAppend(content_.file, fd_) : ENOENT;
    return diskError_ == 0;
  }
  const PartialName old = content_.file;
  ++content_.file.generation;
  diskError_ = files_.create(content_.file, fd_);
  if (old.generation > 0) files_.remove(old);
  return diskError_ == 0;
}

void Download::setExpected(const HttpHead& head) {
  bytesAtEnd_ = URLSessionTransferSizeUnknown;
  mayBeMore_ = head.status == 206 && !bringsTheRest(asked_, head.headers);
  if (hasNoBody(request_->HTTPMethod(), head.status)) {
    content_.expected = bytesAtEnd_ = 0;
    return;
  }
  if (hasContentCoding(head.headers)) return;
  auto length = contentLength(head.headers);
  if (head.status == 206) {
    const auto value = head.headers.get("Content-Range");
    const auto content = value ? parseContentRange(*value) : std::nullopt;
    if (content && content->range) {
      length = static_cast<int64_t>(*content->range->last - content->range->first + 1);
    }
  }
  if (!length) return;
  bytesAtEnd_ = base_ + *length;
  if (!mayBeMore_) content_.expected = bytesAtEnd_;
}

// A 416 to a file that lacks nothing: the response of its bytes, as if its last part had come.
void Download::presentWhole(const HttpHead& head) {
  ++responses_;
  base_ = content_.received;
  content_.expected = content_.received;
  const auto& known = content_.response;
  content_.response = std::make_shared<const HTTPURLResponse>(
      head.url, 206, known ? known->allHeaderFields() : head.headers, content_.expected);
}

bool Download::exchangeDidReceiveBody(const char* bytes, size_t count) {
  if (ended_) return false;
  if (readsTold_) owner_.downloadDidRead(*this, static_cast<int64_t>(count));
  if (discarding_) {
    discarded_ += static_cast<int64_t>(count);
    return discarded_ <= kMaximumDiscarded || stop(end_);
  }
  const auto length = static_cast<int64_t>(count);
  if (bytesAtEnd_ >= 0 && content_.received + length > bytesAtEnd_) {
    outcome_ = {URLErrorBadServerResponse, false, "more bytes than announced"};
    return stop(End::Failed);
  }
  size_t written = 0;
  diskError_ = PartialFiles::write(fd_.get(), bytes, count, content_.received, written);
  content_.received += static_cast<int64_t>(written);
  if (hash_) hash_->update(bytes, written);
  if (!touched_) {
    touched_ = true;
    owner_.downloadDidReceive(*this);
  }
  return diskError_ == 0 || stop(End::Disk);
}

// Ends the exchange; exchangeDidComplete follows.
bool Download::stop(End end) {
  end_ = end;
  discarding_ = true;
  return false;
}

void Download::exchangeDidComplete(const HttpOutcome& outcome) {
  if (ended_) return;
  if (discarding_) return finish(end_);
  if (!outcome.succeeded()) {
    outcome_ = outcome;
    return finish(End::Failed);
  }
  if (bytesAtEnd_ >= 0 && content_.received < bytesAtEnd_) {
    outcome_ = {URLErrorNetworkConnectionLost, true,
                std::to_string(bytesAtEnd_ - content_.received) + " bytes are missing"};
    return finish(End::Failed);
  }
  if (mayBeMore_) return finish(End::Part);
  content_.expected = content_.received;
  finish(End::Finished);
}

// Somebody else may have removed it, with its directory or without.
bool Download::fileIsThere() const {
  if (!fd_) return files_.size(content_.file) == content_.received;
  struct stat status {};
  return ::fstat(fd_.get(), &status) == 0 && status.st_nlink > 0;
}

void Download::finish(End end) {
  if (ended_) return;
  ended_ = true;
  end_ = end == End::Finished && !fileIsThere() ? End::FromZero : end;
  // Some file systems tell only now that a write failed.
  if (const int error = fd_.close(); error != 0 && end_ == End::Finished) {
    diskError_ = error;
    end_ = End::Disk;
  }
  owner_.downloadDidEnd(*this);
}

}  // namespace platform
