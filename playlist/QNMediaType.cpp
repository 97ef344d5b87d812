#include "playlist/QNMediaType.h"

#include "platform/Exception.h"

std::string fourCCWithMediaType(QNMediaType type) {
  switch (type) {
    case QNMediaTypeVideo:
      return "vide";
    case QNMediaTypeAudio:
      return "audi";
    case QNMediaTypeText:
      return "text";
    case QNMediaTypeUnknown:
      break;
  }
  throw platform::Exception("InvalidArgumentException", "Invalid media type");
}
