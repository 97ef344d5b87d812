#include "cli/DownloadReport.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>

#include "cli/ExitCode.h"
#include "cli/ManifestTable.h"
#include "cli/Text.h"
#include "engine/QNMovieDownloadProperties.h"
#include "engine/QNQualityDownloadInfo.h"
#include "engine/QNResourceDownloadInfo.h"
#include "platform/FileManager.h"
#include "playlist/QNRangedURL.h"

namespace cli {
namespace {

constexpr size_t kMostLines = 20;
constexpr int kUnauthorized = 401;
constexpr int kForbidden = 403;

// Not the place that a manifest names, but the file system refuses.
bool isWriteFailure(const platform::Error& error) {
  if (error.domain() != platform::NSPOSIXErrorDomain) return false;
  switch (error.code()) {
    case ENOSPC:
    case EDQUOT:
    case EROFS:
    case EACCES:
    case EPERM:
    case EIO:
      return true;
    default:
      return false;
  }
}

const QNResourceErrors* resourceErrors(const platform::ErrorPtr& error) {
  if (!error) return nullptr;
  const auto entry = error->userInfo().find(QNResourceErrorsKey);
  return entry == error->userInfo().end() ? nullptr
                                          : std::any_cast<QNResourceErrors>(&entry->second);
}

// Whether the answer may come from headers that were kept from this server.
bool isRefusal(const platform::Error& error) {
  return error.domain() == QNDownloadHTTPErrorDomain &&
         (error.code() == kUnauthorized || error.code() == kForbidden);
}

std::string describeKeptHeaders(const QNMovieDownloadSet& set, const QNQualityDownloadInfo& info,
                                const QNRangedURL& resource) {
  const auto& headers = info.additionalHeaders();
  const auto url = resource.resolveURL();
  if (!headers || headers->empty() || !url || set.sendsHeadersTo(*url)) return {};
  return "; headers were kept from this server (--header-origin " + url->origin() + " sends them)";
}

void printLine(const std::string& text) {
  const std::string line = forTerminal(text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
}

}  // namespace

std::string describeError(const platform::Error& error) {
  if (error.domain() != QNDownloadHTTPErrorDomain) return error.localizedDescription();
  const auto text = error.stringForKey(QNStatusMessageKey);
  return "HTTP status " + std::to_string(error.code()) + (text ? " (" + *text + ")" : "");
}

DownloadReport::DownloadReport(const DownloadRun& run, bool nothingFetched)
    : nothingFetched_(nothingFetched) {
  const auto& set = run.set();
  url_ = set->sourceURL();
  downloadId_ = set->downloadId();
  directory_ = set->downloadPath();
  const auto name = set->properties()->objectForKey(QNManifestNameKey);
  manifestPath_ = platform::FileManager::pathByAppending(
      directory_, (name ? name->string() : std::nullopt).value_or(""));
  std::map<std::shared_ptr<QNQuality>, platform::ErrorPtr> missing;
  for (const auto& [quality, error] : run.missing())
    missing[quality] = error;
  for (const auto& quality : run.wanted().qualities) {
    const auto entry = missing.find(quality);
    _add(run, quality, entry == missing.end() ? nullptr : entry->second);
    entries_.back().complete = entry == missing.end();
  }
  for (Entry& entry : entries_) {
    if (!entry.complete && entry.missing.empty()) {
      entry.error = entry.resources == 0 ? "lists no resources" : "could not be started";
    }
  }
}

void DownloadReport::_add(const DownloadRun& run, const std::shared_ptr<QNQuality>& quality,
                          const platform::ErrorPtr& error) {
  const platform::RecursiveLock lock(*run.set()->mutex());
  const auto info = run.set()->qualityInfoForQuality(quality);
  Entry entry;
  entry.type = nameOf(quality->type());
  entry.identifier = quality->identifier();
  entry.label = labelOf(*quality);
  entry.bytes = info->resourceBytes();
  entry.resources = info->resources().size();
  if (const auto* errors = resourceErrors(error)) {
    for (const auto& [index, cause] : *errors) {
      Part part{index, {}, describeError(*cause)};
      if (index < info->resources().size()) {
        const auto& resource = *info->resources()[index]->resource();
        part.url = resource.referenceURL();
        if (isRefusal(*cause)) part.error += describeKeptHeaders(*run.set(), *info, resource);
      }
      cannotWrite_ = cannotWrite_ || isWriteFailure(*cause);
      entry.missing.push_back(std::move(part));
    }
  }
  entries_.push_back(std::move(entry));
}

size_t DownloadReport::_incomplete() const {
  return static_cast<size_t>(
      std::count_if(entries_.begin(), entries_.end(), [](const Entry& e) { return !e.complete; }));
}

int DownloadReport::exitCode() const {
  if (_incomplete() == 0) return ExitComplete;
  return cannotWrite_ ? ExitCannotWrite : ExitIncomplete;
}

platform::JSON DownloadReport::_toJSON() const {
  using platform::JSON;
  JSON qualities = JSON::array();
  for (const Entry& entry : entries_) {
    JSON quality = JSON::object();
    quality.set("type", entry.type);
    quality.set("identifier", entry.identifier);
    quality.set("complete", entry.complete);
    quality.set("bytes", entry.bytes);
    quality.set("resources", static_cast<uint64_t>(entry.resources));
    JSON missing = JSON::array();
    for (const Part& part : entry.missing) {
      JSON item = JSON::object();
      item.set("index", part.index);
      item.set("url", part.url);
      item.set("error", part.error);
      missing.append(std::move(item));
    }
    quality.set("missing", std::move(missing));
    if (!entry.error.empty()) quality.set("error", entry.error);
    qualities.append(std::move(quality));
  }
  JSON result = JSON::object();
  result.set("url", url_);
  result.set("id", downloadId_);
  result.set("directory", directory_);
  result.set("manifest", manifestPath_);
  result.set("complete", _incomplete() == 0);
  result.set("fetched", !nothingFetched_);
  result.set("qualities", std::move(qualities));
  return result;
}

void DownloadReport::print(bool json) const {
  if (json) {
    std::puts(_toJSON().dump().c_str());
    return;
  }
  if (_incomplete() > 0) {
    printLine("Stored in " + directory_ + " so far:");
  } else if (nothingFetched_) {
    printLine("Complete already, nothing was fetched: " + directory_);
  } else {
    printLine("Complete: " + directory_);
  }
  printLine("  manifest  " + manifestPath_);
  for (const Entry& entry : entries_) {
    printLine("  " + padded(entry.complete ? "complete" : "missing", 8) + "  " +
              forTerminal(entry.label) + "  " + counted(entry.resources, "resource", "resources") +
              ", " + formatBytes(entry.bytes));
  }
}

std::string DownloadReport::headline() const {
  return "Incomplete: " + std::to_string(_incomplete()) + " of " +
         counted(entries_.size(), "quality", "qualities") +
         " could not be stored whole; run the command again to try again";
}

std::vector<std::string> DownloadReport::missingLines() const {
  std::vector<std::string> lines;
  size_t more = 0;
  const auto add = [&](std::string line) {
    lines.size() < kMostLines ? lines.push_back(std::move(line)) : void(++more);
  };
  for (const Entry& entry : entries_) {
    if (!entry.error.empty()) add("  " + entry.label + ": " + entry.error);
    for (const Part& part : entry.missing) {
      add("  " + entry.label + ": resource " + std::to_string(part.index) + ", " + part.url + ": " +
          part.error);
    }
  }
  if (more > 0) lines.push_back("  and " + std::to_string(more) + " more");
  return lines;
}

}  // namespace cli
