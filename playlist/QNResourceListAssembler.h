#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "playlist/QNResourceListBuilder.h"

// Puts a resource list together: neighbours are merged while they come, by the rule of `mergeURL`,
// and the resources lie in blocks, so that one of them costs neither an allocation of its own nor
// one that a merge throws away. A block lives as long as any of its resources is held. Not a public
// header.
class QNResourceListAssembler {
 public:
  // `expected` is how many resources come at most, before merging.
  QNResourceListAssembler(size_t expected, QNRangedURL::BaseURL baseURL);

  void add(uint64_t offset, uint64_t length, std::string_view referenceURL);
  // The list; the assembler is done then.
  QNResourceListPtr finish();

 private:
  using Block = std::vector<QNRangedURL>;

  void startBlock();

  size_t expected_;
  QNRangedURL::BaseURL baseURL_;
  std::shared_ptr<Block> block_;  // has room for one more, or is full
  std::shared_ptr<QNResourceList> list_;
};
