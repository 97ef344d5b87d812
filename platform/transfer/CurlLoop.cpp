#include "platform/transfer/CurlLoop.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

#include <curl/curl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/Log.h"
#include "platform/transfer/TransferClock.h"

namespace platform {
namespace {

// A segment of 64 KiB and its head come with one read; larger buffers leave the cache when many
// transfers run.
constexpr long kReceiveBufferBytes = 80 << 10;
constexpr size_t kIdleHandles = 64;
// libcurl's own limits on time are out of the way: time-outs are the caller's, on its clock.
constexpr long kNoConnectTimeoutMs = 24L * 3600 * 1000;

void initialiseCurl() {
  static const bool done = [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return true;
  }();
  static_cast<void>(done);
}

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

uint32_t epollEvents(int what) {
  uint32_t events = 0;
  if (what & CURL_POLL_IN) events |= EPOLLIN;
  if (what & CURL_POLL_OUT) events |= EPOLLOUT;
  return events;
}

}  // namespace

CurlLoop::CurlLoop(const Options& options, Done done) : options_(options), done_(std::move(done)) {
  initialiseCurl();
  epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
  wakeup_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!epoll_ || !wakeup_) fail("epoll");
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = wakeup_.get();
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wakeup_.get(), &event) != 0) fail("epoll_ctl");

  multi_ = curl_multi_init();
  if (!multi_) throw std::bad_alloc();
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlLoop::socketChanged);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlLoop::timerChanged);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(options_.connections));
}

CurlLoop::~CurlLoop() {
  for (CURL* easy : idle_)
    curl_easy_cleanup(easy);
  curl_multi_cleanup(multi_);
}

void CurlLoop::wake() {
  if (woken_.exchange(true) || !waiting_.load()) return;
  const uint64_t one = 1;
  static_cast<void>(!::write(wakeup_.get(), &one, sizeof one));
}

CURL* CurlLoop::takeHandle() {
  if (!idle_.empty()) {
    CURL* const easy = idle_.back();
    idle_.pop_back();
    return easy;
  }
  CURL* const easy = curl_easy_init();
  if (!easy) throw std::bad_alloc();
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlLoop::openSocket);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &CurlLoop::closeSocket);
  curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!options_.caFile.empty()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, options_.caFile.c_str());
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
  }
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, kNoConnectTimeoutMs);
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "identity");  // decodes what comes coded, too
  curl_easy_setopt(easy, CURLOPT_USERAGENT, "QNMovieDownloader");
  return easy;
}

void CurlLoop::giveHandle(CURL* easy) {
  if (idle_.size() < kIdleHandles) {
    idle_.push_back(easy);
  } else {
    curl_easy_cleanup(easy);
  }
}

bool CurlLoop::add(CURL* easy) {
  return curl_multi_add_handle(multi_, easy) == CURLM_OK;
}

void CurlLoop::remove(CURL* easy) {
  removing_ = true;
  curl_multi_remove_handle(multi_, easy);
  removing_ = false;
}

void CurlLoop::watch(int fd, uint32_t events, std::function<void(uint32_t)> ready) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  const int operation = events == 0 ? EPOLL_CTL_DEL : other_ == fd ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  epoll_ctl(epoll_.get(), operation, fd, &event);
  other_ = events == 0 ? -1 : fd;
  otherReady_ = events == 0 ? nullptr : std::move(ready);
}

void CurlLoop::run(int64_t timeoutMs) {
  const int64_t timer = timeToTimer();
  if (timer >= 0) timeoutMs = timeoutMs < 0 ? timer : std::min(timeoutMs, timer);
  std::array<epoll_event, 64> events;
  // Whoever wakes looks whether there is a wait after having said so: one of the two sees it.
  waiting_.store(true);
  const int64_t limit = woken_.load() ? 0 : 3600 * 1000;
  const int wait = static_cast<int>(timeoutMs < 0 ? limit : std::min(timeoutMs, limit));
  const int count = epoll_wait(epoll_.get(), events.data(), events.size(), wait);
  waiting_.store(false);
  woken_.store(false);

  int running = 0;
  for (int i = 0; i < count; ++i) {
    const int fd = events[static_cast<size_t>(i)].data.fd;
    const uint32_t ready = events[static_cast<size_t>(i)].events;
    if (fd == wakeup_.get()) {
      uint64_t ignored = 0;
      static_cast<void>(!::read(fd, &ignored, sizeof ignored));
      continue;
    }
    if (fd == other_) {
      const auto tell = otherReady_;  // it may end the watch
      tell(ready);
      continue;
    }
    if (!watched_.contains(fd)) {
      forget(fd);
      continue;
    }
    int mask = 0;
    if (ready & EPOLLIN) mask |= CURL_CSELECT_IN;
    if (ready & EPOLLOUT) mask |= CURL_CSELECT_OUT;
    if (ready & (EPOLLERR | EPOLLHUP)) mask |= CURL_CSELECT_ERR;
    curl_multi_socket_action(multi_, fd, mask, &running);
  }
  // Once each round: a zero timer asks to be called soon, not to starve the sockets.
  if (timeToTimer() == 0) {
    timerAtMs_ = -1;
    curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
  }
  collectDone();
}

// Nothing may be thrown through libcurl, and an error would end all transfers for good. A socket
// that is not watched stalls its own, which is then tried again.
int CurlLoop::socketChanged(CURL*, int fd, int what, void* selfPointer, void*) {
  auto* const self = static_cast<CurlLoop*>(selfPointer);
  try {
    if (what == CURL_POLL_REMOVE) {
      self->unwatch(fd);
    } else {
      self->watch(fd, epollEvents(what));
    }
  } catch (...) {
    logError("A socket is not watched: " + describeCurrentException());
  }
  return 0;
}

int CurlLoop::openSocket(void* selfPointer, int, curl_sockaddr* address) {
  const int fd = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd < 0) return CURL_SOCKET_BAD;
  try {
    static_cast<CurlLoop*>(selfPointer)->opened_[fd] = 0;
  } catch (...) {
    ::close(fd);
    return CURL_SOCKET_BAD;
  }
  return fd;
}

int CurlLoop::closeSocket(void* selfPointer, int fd) {
  auto* const self = static_cast<CurlLoop*>(selfPointer);
  self->watched_.erase(fd);
  self->forget(fd);
  self->opened_.erase(fd);
  return ::close(fd);
}

void CurlLoop::watch(int fd, uint32_t events) {
  watched_.insert(fd);
  const auto opened = opened_.find(fd);
  if (opened != opened_.end() && std::exchange(opened->second, events) == events) return;
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0) return;
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

// A socket of a transfer that is taken out may have been closed already, without closeSocket() when
// it was still connecting, and its number may be another thread's by now: it is left alone, and
// run() sorts it out should it still be there.
void CurlLoop::unwatch(int fd) {
  if (watched_.erase(fd) == 0) return;
  if (removing_) {
    opened_.erase(fd);
  } else if (!opened_.contains(fd)) {
    forget(fd);
  }
}

void CurlLoop::forget(int fd) {
  epoll_event ignored{};
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, &ignored);
  const auto opened = opened_.find(fd);
  if (opened != opened_.end()) opened->second = 0;
}

int CurlLoop::timerChanged(CURLM*, long timeoutMs, void* selfPointer) {
  auto* const self = static_cast<CurlLoop*>(selfPointer);
  self->timerAtMs_ = timeoutMs < 0 ? -1 : TransferClock::systemClock().nowMs() + timeoutMs;
  return 0;
}

int64_t CurlLoop::timeToTimer() const {
  if (timerAtMs_ < 0) return -1;
  return std::max<int64_t>(0, timerAtMs_ - TransferClock::systemClock().nowMs());
}

void CurlLoop::collectDone() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* const easy = message->easy_handle;
    const int code = message->data.result;
    curl_multi_remove_handle(multi_, easy);
    done_(easy, code);
  }
}

}  // namespace platform
