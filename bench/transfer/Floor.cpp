#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include "bench/transfer/Client.h"
#include "platform/ContentHash.h"

namespace qnbench {
namespace {

struct Slot {
  CURL* easy = nullptr;
  int fd = -1;
  std::unique_ptr<platform::ContentHash> hash;
};

size_t writeBody(char* bytes, size_t size, size_t count, void* pointer) {
  auto& slot = *static_cast<Slot*>(pointer);
  if (slot.hash) slot.hash->update(bytes, size * count);
  return static_cast<size_t>(::write(slot.fd, bytes, size * count));
}

size_t dropBody(char*, size_t size, size_t count, void*) {
  return size * count;
}

// The connection stays with the multi handle.
void fetchManifest(CURLM* multi, const ClientOptions& options) {
  CURL* const easy = curl_easy_init();
  const std::string url =
      options.base + manifestPath(options.qualities, options.segments, options.bytes);
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &dropBody);
  if (!options.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, options.caFile.c_str());
  curl_multi_add_handle(multi, easy);
  int running = 1;
  while (running > 0) {
    curl_multi_perform(multi, &running);
    if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  int left = 0;
  curl_multi_info_read(multi, &left);
  curl_multi_remove_handle(multi, easy);
  curl_easy_cleanup(easy);
}

}  // namespace

// The floor: a bare multi loop that keeps its connections and only writes files.
int runFloor(const ClientOptions& options) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURLM* const multi = curl_multi_init();
  if (options.manifestFirst) fetchManifest(multi, options);
  const size_t window = static_cast<size_t>(options.qualities) * 4;
  std::vector<Slot> slots(window);
  long next = 0;
  const long total = static_cast<long>(options.qualities) * options.segments;
  const auto begin = [&](Slot& slot) {
    const std::string name = std::to_string(next++);
    slot.fd = ::open((options.directory + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (options.hashes) slot.hash = std::make_unique<platform::ContentHash>();
    const std::string url = options.base + "/" + std::to_string(options.bytes) + "/" + name;
    curl_easy_setopt(slot.easy, CURLOPT_URL, url.c_str());
    curl_multi_add_handle(multi, slot.easy);
  };
  for (auto& slot : slots) {
    slot.easy = curl_easy_init();
    curl_easy_setopt(slot.easy, CURLOPT_WRITEFUNCTION, &writeBody);
    curl_easy_setopt(slot.easy, CURLOPT_WRITEDATA, &slot);
    curl_easy_setopt(slot.easy, CURLOPT_PRIVATE, &slot);
    curl_easy_setopt(slot.easy, CURLOPT_BUFFERSIZE, 65536L);
    if (!options.caFile.empty()) {
      curl_easy_setopt(slot.easy, CURLOPT_CAINFO, options.caFile.c_str());
    }
    if (next < total) begin(slot);
  }
  int running = 1;
  long failed = 0;
  uint64_t hashes = 0;
  while (running > 0) {
    curl_multi_perform(multi, &running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
      char* pointer = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &pointer);
      auto& slot = *reinterpret_cast<Slot*>(pointer);
      failed += message->data.result != CURLE_OK;
      curl_multi_remove_handle(multi, slot.easy);
      ::close(slot.fd);
      if (slot.hash) hashes ^= slot.hash->digest();
      if (next < total) {
        begin(slot);
        running = 1;
      }
    }
    if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  for (auto& slot : slots)
    curl_easy_cleanup(slot.easy);
  curl_multi_cleanup(multi);
  curl_global_cleanup();
  if (failed > 0) std::fprintf(stderr, "floor: %ld failed\n", failed);
  return failed > 0 || (options.hashes && hashes == 1) ? 1 : 0;
}

}  // namespace qnbench
