#include "playlist/QNResourceBudget.h"

#include <limits>
#include <string>

#include "platform/Exception.h"
#include "playlist/QNPlaylistFactory.h"

namespace {

uint64_t saturatingSum(uint64_t a, uint64_t b) {
  uint64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<uint64_t>::max() : sum;
}

}  // namespace

void QNResourceBudget::declare(uint64_t resources, uint64_t textBytes) {
  resources_ = saturatingSum(resources_, resources);
  textBytes_ = saturatingSum(textBytes_, textBytes);
}

void QNResourceBudget::check() const {
  if (resources_ > MaximumResources) {
    throw platform::Exception(QNPlaylistFactoryException,
                              "The presentation lists " + std::to_string(resources_) +
                                  " resources, more than " + std::to_string(MaximumResources));
  }
  if (textBytes_ > MaximumTextBytes) {
    throw platform::Exception(QNPlaylistFactoryException,
                              "The addresses of the presentation's resources take up to " +
                                  std::to_string(textBytes_) + " bytes, more than " +
                                  std::to_string(MaximumTextBytes));
  }
}
