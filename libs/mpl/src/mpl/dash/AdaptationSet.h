#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "mpl/dash/ContentProtectionsBuilder.h"
#include "mpl/dash/ContentType.h"
#include "mpl/dash/Representation.h"

namespace mpl::dash {

// Interchangeable encodings of one content. Immutable; owned by its Period.
class AdaptationSet {
 public:
  AdaptationSet(int32_t id, ContentType contentType, qnc::FastString lang, qnc::FastString mimeType,
                std::vector<std::shared_ptr<Representation>> representations,
                ContentProtectionList contentProtections, bool trickMode = false)
      : id_(id),
        contentType_(contentType),
        lang_(std::move(lang)),
        mimeType_(std::move(mimeType)),
        representations_(std::move(representations)),
        contentProtections_(std::move(contentProtections)),
        trickMode_(trickMode) {}

  int32_t id() const { return id_; }  // -1 absent
  // What the set states, its components state or its Representations' types tell.
  ContentType contentType() const { return contentType_; }
  const qnc::FastString& lang() const { return lang_; }
  // The set's own, not that of its Representations.
  const qnc::FastString& mimeType() const { return mimeType_; }
  const std::vector<std::shared_ptr<Representation>>& representations() const {
    return representations_;
  }
  // Those of the set and of all its Representations, each scheme once.
  const ContentProtectionList& contentProtections() const { return contentProtections_; }
  // Serves fast forward and rewind only (DASH-IF IOP, scheme
  // "http://dashif.org/guidelines/trickmode").
  bool isTrickMode() const { return trickMode_; }

 private:
  int32_t id_;
  ContentType contentType_;
  qnc::FastString lang_;
  qnc::FastString mimeType_;
  std::vector<std::shared_ptr<Representation>> representations_;
  ContentProtectionList contentProtections_;
  bool trickMode_;
};

}  // namespace mpl::dash
