#pragma once

#include <memory>
#include <utility>

#include "qnc/qncByteArray.h"
#include "qnc/qncFastString.h"
#include "qnc/qncUUID.h"

namespace mpl::dash {

// Initialisation data of a protection scheme.
struct SchemeInitData {
  qnc::FastString type;  // "video/mp4" when it holds a PSSH box, else empty
  qnc::ByteArray data;   // the whole box, header included

  bool operator==(const SchemeInitData&) const = default;
};

// A protection scheme that applies to an AdaptationSet. Immutable; the same record may sit in
// several lists.
class ContentProtection {
 public:
  ContentProtection(qnc::FastString schemeIdUri, qnc::Uuid systemId, SchemeInitData schemeInitData)
      : schemeIdUri_(std::move(schemeIdUri)),
        systemId_(systemId),
        schemeInitData_(std::move(schemeInitData)) {}

  const qnc::FastString& schemeIdUri() const { return schemeIdUri_; }
  // That of the PSSH box; nil when the element carried none.
  const qnc::Uuid& systemId() const { return systemId_; }
  const SchemeInitData& schemeInitData() const { return schemeInitData_; }

 private:
  const qnc::FastString schemeIdUri_;
  const qnc::Uuid systemId_;
  const SchemeInitData schemeInitData_;
};

}  // namespace mpl::dash
