#include "engine/QNDownloadTypes.h"

#include <algorithm>

#include "platform/URLSession.h"

// A resource asserts the same of itself; both constants are fixed, so the build tells first.
static_assert(QNDownloadSizeUnknownValue == platform::URLSessionTransferSizeUnknown);

namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

QNDownloadSize QNMakeDownloadSize(int64_t value, bool estimated) {
  return {value, estimated};
}

bool QNDownloadSizeIsUnknown(QNDownloadSize size) {
  return size.value == QNDownloadSizeUnknownValue;
}

bool QNDownloadSizeIsEqual(QNDownloadSize a, QNDownloadSize b) {
  return a.value == b.value && a.estimated == b.estimated;
}

QNDownloadProgress QNMakeDownloadProgress(float value, bool estimated) {
  return {value, estimated};
}

bool QNDownloadProgressIsUnknown(QNDownloadProgress progress) {
  return progress.value == QNDownloadProgressUnknownValue;
}

QNDownloadProgress QNDownloadProgressCompute(int64_t downloadedBytes, QNDownloadSize expected) {
  if (expected.value < 1) return QNDownloadProgressUnknown;
  const double quotient =
      static_cast<double>(downloadedBytes) / static_cast<double>(expected.value);
  return {static_cast<float>(quotient), expected.estimated};
}

bool QNHeaderNameLess::operator()(const std::string& a, const std::string& b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char x, char y) { return lower(x) < lower(y); });
}
