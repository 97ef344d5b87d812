#include "platform/transfer/BodyDecoder.h"

#include <algorithm>
#include <array>
#include <string>

#include <zlib.h>

namespace platform {
namespace {

constexpr size_t kPiece = 16 << 10;

std::string lowerTrimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  std::string result(text.substr(first, text.find_last_not_of(" \t") - first + 1));
  std::transform(result.begin(), result.end(), result.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
  return result;
}

// zlib's windowBits: the largest window, in the wrapping of RFC 1952, of RFC 1950 or in none.
int windowBits(bool gzip, unsigned char first) {
  if (gzip) return MAX_WBITS + 16;
  // "deflate" means RFC 1950, whose first byte says so; some servers leave the wrapping out.
  return (first & 0x0F) == Z_DEFLATED ? MAX_WBITS : -MAX_WBITS;
}

}  // namespace

struct BodyDecoder::Stream {
  z_stream z{};
  ~Stream() { inflateEnd(&z); }
};

std::unique_ptr<BodyDecoder> BodyDecoder::forCoding(std::string_view coding) {
  const std::string name = lowerTrimmed(coding);
  const bool gzip = name == "gzip" || name == "x-gzip";
  return gzip || name == "deflate" ? std::make_unique<BodyDecoder>(gzip) : nullptr;
}

BodyDecoder::BodyDecoder(bool gzip) : gzip_(gzip) {}
BodyDecoder::~BodyDecoder() = default;

bool BodyDecoder::begin(unsigned char first) {
  stream_ = std::make_unique<Stream>();
  return inflateInit2(&stream_->z, windowBits(gzip_, first)) == Z_OK;
}

BodyDecoder::Result BodyDecoder::feed(const char* bytes, size_t count, const Sink& sink) {
  if (count == 0) return Result::Fine;
  if (!stream_ && !begin(static_cast<unsigned char>(*bytes))) return Result::Damaged;
  auto& z = stream_->z;
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes));
  z.avail_in = static_cast<uInt>(count);
  std::array<char, kPiece> piece;
  do {
    // Streams may follow each other (RFC 1952 section 2.2).
    if (ended_ && (!gzip_ || inflateReset(&z) != Z_OK)) return Result::Damaged;
    z.next_out = reinterpret_cast<Bytef*>(piece.data());
    z.avail_out = kPiece;
    const int code = inflate(&z, Z_NO_FLUSH);
    ended_ = code == Z_STREAM_END;
    if (code != Z_OK && code != Z_STREAM_END && code != Z_BUF_ERROR) return Result::Damaged;
    const size_t made = kPiece - z.avail_out;
    if (made > 0 && !sink(piece.data(), made)) return Result::Stopped;
  } while (z.avail_in > 0 || (z.avail_out == 0 && !ended_));
  return Result::Fine;
}

}  // namespace platform
