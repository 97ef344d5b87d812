#include "playlist/QNParsedXML.h"

#include "qnc/qncLog.h"

QNParsedXML::QNParsedXML(const platform::DataPtr& data) {
  const qnc::Result result =
      document_.parse(data ? data->data() : nullptr, data ? data->size() : 0);
  wellFormed_ = qnc::succeeded(result);
  if (!wellFormed_) {
    // The only place that tells the line: the parsers' messages are fixed.
    QNC_LOG(qnc::debug::Level::DEBUG, result, "playlist/QNParsedXML", document_.errorText());
  }
}
