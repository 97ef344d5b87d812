#pragma once

#include <string>
#include <vector>

#include "cli/DownloadRun.h"
#include "platform/JSON.h"

namespace cli {

// What a download came to, for a person and for programs.
class DownloadReport {
 public:
  DownloadReport(const DownloadRun& run, bool nothingFetched);

  // 0, 1, or 73 when something is missing because it could not be written.
  int exitCode() const;
  // Standard output, also for an incomplete download.
  void print(bool json) const;
  // What is missing and why, for the console: the headline and one line a resource (a bounded
  // number).
  std::string headline() const;
  std::vector<std::string> missingLines() const;

 private:
  struct Part {
    uint64_t index = 0;
    std::string url;
    std::string error;
  };
  struct Entry {
    std::string type;
    std::string identifier;
    std::string label;
    int64_t bytes = 0;
    size_t resources = 0;
    bool complete = false;
    std::string error;  // when no single resource is to blame
    std::vector<Part> missing;
  };

  void _add(const DownloadRun& run, const std::shared_ptr<QNQuality>& quality,
            const platform::ErrorPtr& error);
  platform::JSON _toJSON() const;
  size_t _incomplete() const;

  std::string url_;
  std::string downloadId_;
  std::string directory_;
  std::string manifestPath_;
  bool nothingFetched_;
  bool cannotWrite_ = false;
  std::vector<Entry> entries_;
};

// One line: the status of an HTTP error, else the description.
std::string describeError(const platform::Error& error);

}  // namespace cli
