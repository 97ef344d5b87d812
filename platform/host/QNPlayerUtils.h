#pragma once

#include <optional>
#include <string>

#include "platform/Export.h"

class QN_EXPORT QNPlayerUtils {
 public:
  // The display name of a language code (BCP 47) in the user's language; without ICU the code
  // itself. nullopt for an empty code.
  static std::optional<std::string> localizedLanguage(const std::string& code);
};
