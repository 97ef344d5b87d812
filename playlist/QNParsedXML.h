#pragma once

#include <memory>

#include "platform/Data.h"
#include "qnc/qncXml.h"

class QNPlaylist;

// Manifest bytes as an XML document, so that both formats are tried on one parse. Not a public
// header.
class QNParsedXML {
 public:
  // Null counts as empty.
  explicit QNParsedXML(const platform::DataPtr& data);

  bool wellFormed() const { return wellFormed_; }
  qnc::xml::Element root() const { return document_.root(); }  // lives as long as this object

 private:
  qnc::xml::Document document_;
  bool wellFormed_;
};

// What the factory's functions of the same name do; they throw platform::Exception only.
std::shared_ptr<QNPlaylist> dashGenerateWithXML(const QNParsedXML& xml);
std::shared_ptr<QNPlaylist> smoothGenerateWithXML(const QNParsedXML& xml);
