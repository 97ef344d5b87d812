#include "mpl/smooth/TrackFragmentElements.h"

#include <string_view>

namespace SmoothStreaming {

void TrackFragmentElements::append(const TrackFragmentElement& element) {
  text_.append(element.manifestOutputSample());
  records_.push_back(Record{element.index(), static_cast<uint32_t>(text_.size())});
}

std::shared_ptr<TrackFragmentElement> TrackFragmentElements::operator[](size_t index) const {
  const size_t begin = index == 0 ? 0 : records_[index - 1].textEnd;
  const std::string_view text(text_);
  return std::shared_ptr<TrackFragmentElement>(new TrackFragmentElement(
      records_[index].index, text.substr(begin, records_[index].textEnd - begin)));
}

}  // namespace SmoothStreaming
