#include "mpl/dash/AttributeReaders.h"

#include <limits>

#include "mpl/dash/XSDateTime.h"
#include "mpl/dash/XSDuration.h"

namespace mpl::dash {

bool readNode(const qnc::xml::Element& element, qnc::FastString& out) {
  out = element.getText();
  return !out.empty();
}

int64_t parseDuration(const qnc::xml::Element& element, std::string_view name, int64_t defaultMs) {
  const auto duration = parseAttribute<XSDuration>(element, name, XSDuration::Invalid);
  if (!duration.isValid()) return defaultMs;
  const int64_t ms = duration.inMilliseconds();
  const bool saturated =
      ms == std::numeric_limits<int64_t>::max() || ms == std::numeric_limits<int64_t>::min();
  return saturated ? defaultMs : ms;
}

int64_t parseDateTime(const qnc::xml::Element& element, std::string_view name, int64_t defaultMs) {
  const auto dateTime = parseAttribute<XSDateTime>(element, name, XSDateTime::Invalid);
  return dateTime.isValid() ? dateTime.inMillisecondsSinceEpoch() : defaultMs;
}

}  // namespace mpl::dash
