#include "mpl/Range.h"

#include "mpl/Numbers.h"
#include "qnc/qncChecked.h"

namespace mpl {

Range Range::parse(const char* text, const char** end, const Range& defaultValue) {
  if (end) *end = text;
  const char* at = text;
  Range range;
  if (!readDigits(at, range.offset) || *at++ != '-') return defaultValue;
  if (*at >= '0' && *at <= '9') {
    int64_t last = 0;
    if (!readDigits(at, last) || last < range.offset) return defaultValue;
    if (!qnc::checkedAdd(last - range.offset, 1, range.length)) return defaultValue;
  }
  if (end) *end = at;
  return range;
}

}  // namespace mpl
