#include "platform/transfer/StoreReserve.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace platform {
namespace {

constexpr int64_t kReserve = 512 << 10;
constexpr int64_t kLeast = kReserve / 2;

}  // namespace

void StoreReserve::renew() {
  // The log is made by the first transaction, and stays one file until the database is closed.
  if (!fd_) fd_.reset(::open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat status {};
  if (!fd_ || ::fstat(fd_.get(), &status) != 0 || status.st_size + kLeast <= allocated_) return;
  allocated_ = status.st_size + kReserve;
  // Without room, or where a file system cannot, there is no reserve.
  static_cast<void>(::fallocate(fd_.get(), FALLOC_FL_KEEP_SIZE, 0, allocated_));
}

}  // namespace platform
