#include "tests/support/FaultAnswer.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <strings.h>

#include "tests/support/TestContent.h"

namespace qntest {

namespace {

struct ByteRange {
  uint64_t first = 0;
  uint64_t last = UINT64_MAX;  // inclusive; UINT64_MAX: to the end
};

bool sameName(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}

// One range, "bytes=a-b" or "bytes=a-"; anything else is as if it were not there.
std::optional<ByteRange> parseRange(const std::string& text) {
  if (text.rfind("bytes=", 0) != 0) return std::nullopt;
  ByteRange range;
  const char* end = text.data() + text.size();
  auto [at, failed] = std::from_chars(text.data() + 6, end, range.first);
  if (failed != std::errc() || at == end || *at != '-') return std::nullopt;
  if (++at == end) return range;
  const auto last = std::from_chars(at, end, range.last);
  if (last.ec != std::errc() || last.ptr != end || range.last < range.first) return std::nullopt;
  return range;
}

std::string lastModified(const FaultResource& resource) {
  char text[64];
  snprintf(text, sizeof text, "Wed, 21 Oct 2015 07:%02d:00 GMT", resource.version % 60);
  return text;
}

bool ifRangeHolds(const FaultRequest& request, const FaultResource& resource) {
  const auto condition = request.header("If-Range");
  if (!condition) return true;
  if (resource.etag && !resource.weakEtag && *condition == entityTag(request.path, resource))
    return true;
  return resource.lastModified && *condition == lastModified(resource);
}

bool headersMissing(const FaultRequest& request, const FaultResource& resource) {
  return std::any_of(
      resource.requiredHeaders.begin(), resource.requiredHeaders.end(),
      [&](const auto& field) { return request.header(field.first) != field.second; });
}

void setField(HeaderFields& fields, const std::string& name, const std::string& value) {
  const auto same = [&](const auto& field) { return sameName(field.first, name); };
  fields.erase(std::remove_if(fields.begin(), fields.end(), same), fields.end());
  if (!value.empty()) fields.emplace_back(name, value);
}

uint32_t crc32(const std::string& bytes) {
  uint32_t crc = ~0U;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0);
  }
  return ~crc;
}

std::string littleEndian(uint32_t value, int count) {
  std::string bytes;
  for (int i = 0; i < count; ++i)
    bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
  return bytes;
}

// RFC 1952 around stored blocks (RFC 1951 section 3.2.4).
std::string gzipped(const std::string& bytes) {
  std::string out("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10);
  constexpr size_t kBlock = 65535;
  size_t at = 0;
  do {
    const std::string block = bytes.substr(at, kBlock);
    at += block.size();
    const auto size = static_cast<uint32_t>(block.size());
    out +=
        (at == bytes.size() ? '\1' : '\0') + littleEndian(size, 2) + littleEndian(~size, 2) + block;
  } while (at < bytes.size());
  return out + littleEndian(crc32(bytes), 4) + littleEndian(static_cast<uint32_t>(bytes.size()), 4);
}

void describeResource(HeaderFields& fields, const FaultRequest& request,
                      const FaultResource& resource) {
  setField(fields, "Content-Type", resource.contentType);
  if (resource.acceptsRanges) setField(fields, "Accept-Ranges", "bytes");
  if (resource.etag) setField(fields, "ETag", entityTag(request.path, resource));
  if (resource.lastModified) setField(fields, "Last-Modified", lastModified(resource));
  setField(fields, "Date", "Fri, 13 Nov 2020 10:00:00 GMT");
}

void answerText(FaultAnswer& answer, int status, std::string text) {
  answer.status = status;
  answer.text = std::move(text);
  answer.length = answer.text.size();
}

// The content, whole or in part (RFC 9110 section 14), or 416.
void answerContent(FaultAnswer& answer, HeaderFields& fields, const FaultRequest& request,
                   const FaultResource& resource, const Fault& fault) {
  const uint64_t size = resource.literal ? resource.literal->size() : resource.size;
  answer.status = 200;
  answer.length = size;
  const auto range = parseRange(request.header("Range").value_or(""));
  const bool honoured = range && resource.acceptsRanges && !fault.ignoreRange &&
                        (fault.ignoreIfRange || ifRangeHolds(request, resource));
  if (honoured && range->first >= size) {
    setField(fields, "Content-Range", "bytes */" + std::to_string(size));
    return answerText(answer, 416, "");
  }
  if (honoured) {
    const auto shifted = [](uint64_t value, int64_t delta) {
      return value + static_cast<uint64_t>(delta);
    };
    const uint64_t first = shifted(range->first, fault.rangeStartDelta);
    const uint64_t last = shifted(std::min(range->last, size - 1), fault.rangeEndDelta);
    answer.status = 206;
    answer.start = first;
    answer.length = last + 1 - first;
    setField(
        fields, "Content-Range",
        "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" +
            (fault.rangeTotalUnknown ? "*" : std::to_string(shifted(size, fault.rangeTotalDelta))));
  }
  if (resource.literal) {
    answer.text = resource.literal->substr(answer.start, answer.length);
    answer.ofContent = !fault.gzip;
  } else if (fault.gzip) {
    answer.text = contentOf(request.path, resource.version, answer.start, answer.length);
  } else {
    answer.ofContent = true;
  }
  if (fault.gzip) {
    answer.text = gzipped(answer.text);
    answer.text.resize(answer.text.size() - fault.gzipMissing);
    answer.length = answer.text.size();
    setField(fields, "Content-Encoding", "gzip");
  }
}

const char* reasonOf(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 206:
      return "Partial Content";
    case 404:
      return "Not Found";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

}  // namespace

std::string entityTag(const std::string& path, const FaultResource& resource) {
  return std::string(resource.weakEtag ? "W/" : "") + "\"" + std::to_string(path.size()) + "-v" +
         std::to_string(resource.version) + "\"";
}

FaultAnswer composeAnswer(const FaultRequest& request, const FaultResource* resource,
                          const Fault& fault) {
  FaultAnswer answer;
  HeaderFields fields;
  if (fault.status) {
    answerText(answer, *fault.status, fault.body);
  } else if (resource == nullptr) {
    answerText(answer, 404, fault.body);
  } else if (headersMissing(request, *resource)) {
    answerText(answer, 403, fault.body);
  } else {
    describeResource(fields, request, *resource);
    answerContent(answer, fields, request, *resource, fault);
  }
  const bool oldVersion = fault.http10;
  answer.chunked = fault.chunked;
  answer.closes =
      oldVersion || fault.noLength || sameName(request.header("Connection").value_or(""), "close");
  if (fault.chunked) {
    setField(fields, "Transfer-Encoding", "chunked");
  } else if (!fault.noLength) {
    const auto announced = static_cast<int64_t>(answer.length) + fault.lengthDelta;
    setField(fields, "Content-Length", std::to_string(announced));
  }
  if (answer.closes) setField(fields, "Connection", "close");
  for (const auto& [name, value] : fault.headers)
    setField(fields, name, value);
  answer.head = std::string(oldVersion ? "HTTP/1.0 " : "HTTP/1.1 ") +
                std::to_string(answer.status) + " " + reasonOf(answer.status) + "\r\n";
  for (const auto& [name, value] : fields)
    answer.head += name + ": " + value + "\r\n";
  answer.head += "\r\n";
  return answer;
}

}  // namespace qntest
