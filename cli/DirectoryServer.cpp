#include "cli/DirectoryServer.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cli {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

std::optional<uint64_t> parseNumber(std::string_view text) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string header(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value ? value : "";
}

// Changes with every write that a file system can tell: size and modification time.
std::string entityTag(const struct stat& info) {
  char text[64];
  std::snprintf(text, sizeof text, "\"%llx-%llx\"", static_cast<unsigned long long>(info.st_size),
                static_cast<unsigned long long>(info.st_mtim.tv_sec) * 1000000000ULL +
                    static_cast<unsigned long long>(info.st_mtim.tv_nsec));
  return text;
}

const char* contentType(std::string_view path) {
  const auto endsWith = [&](std::string_view suffix) { return path.ends_with(suffix); };
  if (endsWith(".mpd")) return "application/dash+xml";
  if (endsWith(".mp4") || endsWith(".m4s")) return "video/mp4";
  return "application/octet-stream";
}

std::optional<std::string> canonicalPath(const std::string& path) {
  char resolved[PATH_MAX];
  if (!::realpath(path.c_str(), resolved)) return std::nullopt;
  return resolved;
}

// The files that really lie below `root` (canonical).
std::optional<std::string> fileBelow(const std::string& root, const std::string& path) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos)
    return std::nullopt;
  const auto resolved = canonicalPath(root + path);
  if (!resolved || !resolved->starts_with(root == "/" ? root : root + "/")) return std::nullopt;
  return resolved;
}

MHD_Result respondEmpty(MHD_Connection* connection, unsigned status,
                        const std::string& contentRange = {}) {
  MHD_Response* response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
  if (!contentRange.empty())
    MHD_add_response_header(response, "Content-Range", contentRange.c_str());
  const MHD_Result result = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return result;
}

MHD_Result respondFile(MHD_Connection* connection, const std::string& path) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return respondEmpty(connection, MHD_HTTP_NOT_FOUND);
  }
  const std::string tag = entityTag(info);
  if (header(connection, "If-None-Match") == tag)
    return respondEmpty(connection, MHD_HTTP_NOT_MODIFIED);

  const auto size = static_cast<uint64_t>(info.st_size);
  const std::string condition = header(connection, "If-Range");
  ByteRange range{ByteRange::Kind::Whole, 0, size};
  if (condition.empty() || condition == tag)
    range = parseByteRange(header(connection, "Range"), size);
  if (range.kind == ByteRange::Kind::Unsatisfiable) {
    return respondEmpty(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE,
                        "bytes */" + std::to_string(size));
  }
  MHD_Response* response =
      MHD_create_response_from_fd_at_offset64(range.length, file.get(), range.first);
  if (!response) return MHD_NO;
  file.release();
  MHD_add_response_header(response, "ETag", tag.c_str());
  MHD_add_response_header(response, "Accept-Ranges", "bytes");
  MHD_add_response_header(response, "Content-Type", contentType(path));
  unsigned status = MHD_HTTP_OK;
  if (range.kind == ByteRange::Kind::Part) {
    status = MHD_HTTP_PARTIAL_CONTENT;
    const std::string value = "bytes " + std::to_string(range.first) + "-" +
                              std::to_string(range.first + range.length - 1) + "/" +
                              std::to_string(size);
    MHD_add_response_header(response, "Content-Range", value.c_str());
  }
  const MHD_Result result = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return result;
}

MHD_Result answer(void* context, MHD_Connection* connection, const char* url, const char* method,
                  const char*, const char*, size_t* uploadSize, void** state) {
  // The first call announces the request; answering on the second keeps the connection alive.
  static int announced = 0;
  if (*state != &announced) {
    *state = &announced;
    return MHD_YES;
  }
  if (*uploadSize != 0) {  // a body that nobody asked for
    *uploadSize = 0;
    return MHD_YES;
  }
  const std::string_view verb = method;
  if (verb != "GET" && verb != "HEAD") return respondEmpty(connection, MHD_HTTP_METHOD_NOT_ALLOWED);
  const auto& resolver = *static_cast<const DirectoryServer::Resolver*>(context);
  const auto path = resolver(url);
  return path ? respondFile(connection, *path) : respondEmpty(connection, MHD_HTTP_NOT_FOUND);
}

int listenOnLoopback(uint16_t wanted, uint16_t* port) {
  const auto fail = [&] {
    throw std::system_error(errno, std::generic_category(), "127.0.0.1:" + std::to_string(wanted));
  };
  Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) fail();
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(wanted);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(fd.get(), generic, size) != 0 || ::listen(fd.get(), 128) != 0 ||
      ::getsockname(fd.get(), generic, &size) != 0) {
    fail();
  }
  *port = ntohs(address.sin_port);
  return fd.release();
}

DirectoryServer::Resolver resolverFor(const std::string& directory) {
  const auto root = canonicalPath(directory);
  if (!root) throw std::system_error(errno, std::generic_category(), directory);
  return [root = *root](const std::string& path) { return fileBelow(root, path); };
}

}  // namespace

ByteRange parseByteRange(const std::string& header, uint64_t size) {
  const ByteRange whole{ByteRange::Kind::Whole, 0, size};
  std::string_view text = header;
  if (!text.starts_with("bytes=")) return whole;
  text.remove_prefix(6);
  const size_t hyphen = text.find('-');
  if (hyphen == std::string_view::npos || text.find(',') != std::string_view::npos) return whole;
  const std::string_view firstText = text.substr(0, hyphen);
  const std::string_view lastText = text.substr(hyphen + 1);
  const auto last = parseNumber(lastText);
  if (firstText.empty()) {  // the last N bytes
    if (!last) return whole;
    const uint64_t length = std::min(*last, size);
    if (length == 0) return {ByteRange::Kind::Unsatisfiable, 0, 0};
    return {ByteRange::Kind::Part, size - length, length};
  }
  const auto first = parseNumber(firstText);
  if (!first || (!lastText.empty() && !last) || (last && *last < *first)) return whole;
  if (*first >= size) return {ByteRange::Kind::Unsatisfiable, 0, 0};
  const uint64_t end = last && *last < size - 1 ? *last + 1 : size;
  return {ByteRange::Kind::Part, *first, end - *first};
}

struct DirectoryServer::Impl {
  explicit Impl(Resolver r) : resolver(std::move(r)) {}
  ~Impl() {
    if (daemon) MHD_stop_daemon(daemon);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void start(uint16_t wanted) {
    Descriptor listening(listenOnLoopback(wanted, &port));
    daemon =
        MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD, port, nullptr, nullptr, &answer, &resolver,
                         MHD_OPTION_LISTEN_SOCKET, listening.get(), MHD_OPTION_THREAD_POOL_SIZE, 2U,
                         MHD_OPTION_CONNECTION_LIMIT, 512U, MHD_OPTION_END);
    if (!daemon) throw std::system_error(EIO, std::generic_category(), "HTTP server");
    listening.release();
  }

  Resolver resolver;
  MHD_Daemon* daemon = nullptr;
  uint16_t port = 0;
};

DirectoryServer::DirectoryServer(const std::string& directory, uint16_t port)
    : DirectoryServer(resolverFor(directory), port) {}

DirectoryServer::DirectoryServer(Resolver resolver, uint16_t port)
    : impl_(std::make_unique<Impl>(std::move(resolver))) {
  impl_->start(port);
}

DirectoryServer::~DirectoryServer() = default;

uint16_t DirectoryServer::port() const {
  return impl_->port;
}

std::string DirectoryServer::baseURL() const {
  return "http://127.0.0.1:" + std::to_string(port()) + "/";
}

}  // namespace cli
