#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace cli {

// A small HTTP server on 127.0.0.1 that offers the regular files below one directory: GET and HEAD,
// single byte ranges with If-Range, strong entity tags with If-None-Match (RFC 9110). For samples
// and trials, not for the open network. It serves on threads of its own from construction to
// destruction.
class DirectoryServer {
 public:
  // The file for a request path (percent-decoded, with its leading "/"); nullopt is a 404. Called
  // on server threads.
  using Resolver = std::function<std::optional<std::string>(const std::string& path)>;

  // Serves `directory`; links that lead out of it, and anything with a ".." component, are not
  // found. Port 0 takes a free one. Throws std::system_error when the directory cannot be read or
  // the port not be bound.
  DirectoryServer(const std::string& directory, uint16_t port);
  DirectoryServer(Resolver resolver, uint16_t port);
  ~DirectoryServer();
  DirectoryServer(const DirectoryServer&) = delete;
  DirectoryServer& operator=(const DirectoryServer&) = delete;

  uint16_t port() const;
  std::string baseURL() const;  // "http://127.0.0.1:PORT/"

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// One byte range of a file of `size` bytes as a Range header asks for it.
struct ByteRange {
  enum class Kind { Whole, Part, Unsatisfiable } kind = Kind::Whole;
  uint64_t first = 0;
  uint64_t length = 0;
  bool operator==(const ByteRange&) const = default;
};

// RFC 9110 section 14.1.2. A header that is malformed, or asks for several ranges, is ignored: the
// whole file.
ByteRange parseByteRange(const std::string& header, uint64_t size);

}  // namespace cli
