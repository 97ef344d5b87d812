#include "playlist/QNResourceBudget.h"

#include <limits>
#include <string>

#include "platform/Exception.h"
#include "playlist/QNPlaylistFactory.h"

namespace {

void addSaturating(std::atomic<uint64_t>& sum, uint64_t value) {
  const uint64_t old = sum.load();
  const uint64_t room = std::numeric_limits<uint64_t>::max() - old;
  sum.store(value > room ? std::numeric_limits<uint64_t>::max() : old + value);
}

}  // namespace

void QNResourceBudget::declare(uint64_t resources, uint64_t textBytes) {
  addSaturating(resources_, resources);
  addSaturating(textBytes_, textBytes);
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
