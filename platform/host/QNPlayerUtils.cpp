#include "platform/host/QNPlayerUtils.h"

#ifdef QN_HAVE_ICU
#include <array>
#include <vector>

#include <unicode/uloc.h>
#include <unicode/ustring.h>
#endif

#ifdef QN_HAVE_ICU
namespace {

std::optional<std::string> toUTF8(const UChar* text, int32_t length) {
  std::string result(static_cast<size_t>(length) * 3, '\0');  // at most 3 bytes for a UTF-16 unit
  int32_t written = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8(result.data(), static_cast<int32_t>(result.size()), &written, text, length, &status);
  if (U_FAILURE(status)) return std::nullopt;
  result.resize(static_cast<size_t>(written));
  return result;
}

// The locale identifier of a whole, well-formed language tag; nullopt for anything else.
std::optional<std::string> localeOfTag(const std::string& tag) {
  std::array<char, ULOC_FULLNAME_CAPACITY> locale{};
  int32_t parsed = 0;
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = uloc_forLanguageTag(tag.c_str(), locale.data(),
                                             static_cast<int32_t>(locale.size()), &parsed, &status);
  const bool whole = static_cast<size_t>(parsed) == tag.size();
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING || length == 0 || !whole) {
    return std::nullopt;
  }
  return std::string(locale.data(), static_cast<size_t>(length));
}

std::optional<std::string> displayName(const std::string& locale) {
  std::vector<UChar> name(128);
  for (int attempt = 0; attempt < 2; ++attempt) {
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length = uloc_getDisplayName(locale.c_str(), nullptr, name.data(),
                                               static_cast<int32_t>(name.size()), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      name.resize(static_cast<size_t>(length) + 1);
      continue;
    }
    if (U_FAILURE(status) || length == 0) return std::nullopt;
    return toUTF8(name.data(), length);
  }
  return std::nullopt;
}

}  // namespace
#endif

std::optional<std::string> QNPlayerUtils::localizedLanguage(const std::string& code) {
  if (code.empty()) return std::nullopt;
#ifdef QN_HAVE_ICU
  if (const auto locale = localeOfTag(code)) {
    if (auto name = displayName(*locale)) return name;
  }
#endif
  return code;
}
