#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/ContentHash.h"
#include "platform/transfer/HttpExchange.h"
#include "platform/transfer/HttpRules.h"
#include "platform/transfer/TransferStore.h"

namespace platform {

// One attempt at a task: a request that goes on from what is there, and its response into a file.
// Belongs to the thread that runs the loop. It decides what a response means for the bytes; whether
// and when there is another attempt is its owner's to decide.
class Download final : public HttpExchange::Observer {
 public:
  enum class End {
    Finished,  // the content is whole
    Failed,    // as outcome() says
    Status,    // a response that is to be retried, or that ends what cannot be retried any more
    Part,      // whole as far as it goes; there may be more, or its end, to be asked for
    FromZero,  // what is there cannot be continued: to be started again without it
    Disk,      // diskError() kept the file from being written
  };

  class Owner {
   public:
    virtual ~Owner();
    virtual void downloadDidConnect(Download& download) = 0;
    // Bytes came; once per round until takeTouched().
    virtual void downloadDidReceive(Download& download) = 0;
    // Each piece of a body, when setReadsTold() was called; the download may be paused from inside.
    virtual void downloadDidRead(Download& download, int64_t count) = 0;
    // The response is one that is retried (429, 502, 503, 504): true when it will be.
    virtual bool downloadShouldRetryStatus(Download& download, const HTTPHeaders& headers) = 0;
    // The last call. The download may not be destroyed before it returned.
    virtual void downloadDidEnd(Download& download) = 0;
  };

  Download(TransferTaskId task, URLRequestPtr request, TransferContent content, PartialFiles& files,
           CurlLoop& loop, Owner& owner);
  ~Download() override;

  // downloadDidEnd may come from inside, when there is nothing to ask for.
  void start();
  // Ends the attempt as failed, with what is there kept.
  void fail(const HttpOutcome& outcome);
  void setReadsTold() { readsTold_ = true; }
  void pause() { exchange_->pause(); }
  void unpause() { exchange_->unpause(); }

  TransferTaskId task() const { return task_; }
  // What is there by now.
  const TransferContent& content() const { return content_; }
  TransferContent& content() { return content_; }
  bool canBeContinued() const;
  // Counts up with each response whose bytes are taken; 0: none came yet.
  int responses() const { return responses_; }
  // Bytes that were there before the response.
  int64_t base() const { return base_; }
  bool takeTouched() { return std::exchange(touched_, false); }
  int fd() const { return fd_.get(); }
  // Of a file whose bytes have all passed through here; nullopt when it was continued.
  std::optional<uint64_t> contentHash() const;

  End end() const { return end_; }
  const HttpOutcome& outcome() const { return outcome_; }
  int status() const { return status_; }
  int diskError() const { return diskError_; }

 private:
  void exchangeDidConnect() override;
  bool exchangeDidReceiveHead(HttpHead head) override;
  bool exchangeDidReceiveBody(const char* bytes, size_t count) override;
  void exchangeDidComplete(const HttpOutcome& outcome) override;

  RangeAsked whatToAsk() const;
  [[nodiscard]] bool beginContent(HttpHead& head, bool continues);
  [[nodiscard]] bool openFile(bool continues);
  bool fileIsThere() const;
  void presentWhole(const HttpHead& head);
  void setExpected(const HttpHead& head);
  bool stop(End end);
  void finish(End end);

  const TransferTaskId task_;
  const URLRequestPtr request_;
  TransferContent content_;
  PartialFiles& files_;
  CurlLoop& loop_;
  Owner& owner_;
  std::unique_ptr<HttpExchange> exchange_;
  FileDescriptor fd_;
  std::optional<ContentHash> hash_;  // of the file from its first byte
  RangeAsked asked_;
  int64_t base_ = 0;
  int64_t bytesAtEnd_ = URLSessionTransferSizeUnknown;  // of the task, when the body has ended
  bool mayBeMore_ = false;                              // behind them
  int responses_ = 0;
  bool readsTold_ = false;
  bool discarding_ = false;  // the body is not content
  int64_t discarded_ = 0;
  bool touched_ = false;
  bool ended_ = false;
  End end_ = End::Failed;
  HttpOutcome outcome_;
  int status_ = 0;
  int diskError_ = 0;
};

}  // namespace platform
