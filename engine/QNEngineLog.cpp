#include "engine/QNEngineLog.h"

#include "platform/host/QNLog.h"

void QNEngineLog(int level, const std::string& format, const std::string& argument) {
  if (!QNCheckLogTap(level, format)) return;
  std::string message = format;
  const size_t marker = message.find("%@");
  if (marker != std::string::npos) message.replace(marker, 2, argument);
  QNLog(level, message);
}
