#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "mpl/dash/AdaptationSet.h"

namespace mpl::dash {

// A stretch of the presentation. Immutable; owned by the MPD.
class Period {
 public:
  Period(qnc::FastString id, int64_t startMs, int64_t durationMs,
         std::vector<std::unique_ptr<AdaptationSet>> adaptationSets)
      : id_(std::move(id)),
        startMs_(startMs),
        durationMs_(durationMs),
        adaptationSets_(std::move(adaptationSets)) {}

  const qnc::FastString& id() const { return id_; }
  int64_t startMs() const { return startMs_; }
  int64_t durationMs() const { return durationMs_; }  // -1 absent
  const std::vector<std::unique_ptr<AdaptationSet>>& adaptationSets() const {
    return adaptationSets_;
  }

 private:
  qnc::FastString id_;
  int64_t startMs_;
  int64_t durationMs_;
  std::vector<std::unique_ptr<AdaptationSet>> adaptationSets_;
};

}  // namespace mpl::dash
