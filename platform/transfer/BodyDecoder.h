#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

namespace platform {

// Undoes the content coding of one body, and knows whether the coded stream has come to its end:
// the framing of a response may be whole although its origin broke off.
class BodyDecoder {
 public:
  // False ends the decoding.
  using Sink = std::function<bool(const char* bytes, size_t count)>;

  // For gzip and deflate (RFC 9110 section 8.4.1); null for any other coding.
  static std::unique_ptr<BodyDecoder> forCoding(std::string_view coding);

  explicit BodyDecoder(bool gzip);
  ~BodyDecoder();

  enum class Result { Fine, Damaged, Stopped };
  // Hands on what comes of the bytes, in pieces.
  [[nodiscard]] Result feed(const char* bytes, size_t count, const Sink& sink);
  bool hasEnded() const { return ended_; }

 private:
  struct Stream;
  bool begin(unsigned char first);

  const bool gzip_;
  bool ended_ = false;
  std::unique_ptr<Stream> stream_;  // from the first byte
};

}  // namespace platform
