#include "platform/ContentHash.h"

#include <cerrno>
#include <new>
#include <vector>

#include <fcntl.h>
#include <unistd.h>
#ifdef QN_HAVE_XXH_DISPATCH
#include <xxh_x86dispatch.h>  // the same functions, for the widest registers that the processor has
#else
#include <xxhash.h>
#endif

#include "platform/FileDescriptor.h"

namespace platform {
namespace {

constexpr size_t kReadBytes = size_t{256} << 10;

}  // namespace

struct ContentHash::State {
  State() : native(XXH3_createState()) {
    if (!native) throw std::bad_alloc();
    XXH3_64bits_reset(native);
  }
  ~State() { XXH3_freeState(native); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  XXH3_state_t* const native;
};

ContentHash::ContentHash() : state_(std::make_unique<State>()) {}

ContentHash::~ContentHash() = default;

void ContentHash::update(const void* bytes, size_t count) {
  XXH3_64bits_update(state_->native, bytes, count);
}

uint64_t ContentHash::digest() const {
  return XXH3_64bits_digest(state_->native);
}

uint64_t ContentHash::of(std::string_view bytes) {
  return XXH3_64bits(bytes.data(), bytes.size());
}

std::optional<uint64_t> ContentHash::ofFile(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return std::nullopt;
  ContentHash hash;
  std::vector<char> buffer(kReadBytes);
  for (;;) {
    const ssize_t got = ::read(file.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) return hash.digest();
    hash.update(buffer.data(), static_cast<size_t>(got));
  }
}

}  // namespace platform
