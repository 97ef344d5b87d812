// Any bytes as the record of a download: what is understood of a line is written as that very line.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "engine/QNRecordLine.h"

namespace {

std::string written(const QNRecordLine& line) {
  switch (line.kind) {
    case QNRecordLine::Kind::Header:
      return QNRecordHeader(line.number);
    case QNRecordLine::Kind::File:
      return QNRecordFile(QNUnescaped(line.place), line.number, line.hash,
                          QNUnescaped(line.validator), QNUnescaped(line.address));
    case QNRecordLine::Kind::Gone:
      return QNRecordGone(QNUnescaped(line.place));
    case QNRecordLine::Kind::Mark:
      return QNRecordMark(QNUnescaped(line.boot), line.number);
    case QNRecordLine::Kind::Invalid:
      break;
  }
  return {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const QNRecordLine line = QNReadRecordLine(text);
  if (line.kind == QNRecordLine::Kind::Invalid) return 0;
  // Once it is written, reading and writing change nothing any more.
  const std::string first = written(line);
  const QNRecordLine again = QNReadRecordLine(std::string_view(first).substr(0, first.size() - 1));
  if (again.kind != line.kind || written(again) != first) {
    std::fprintf(stderr, "not the same line:\n%s\n", first.c_str());
    std::abort();
  }
  return 0;
}
