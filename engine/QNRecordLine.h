#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The lines of a download's record (QNDownloadRecord.h). Pure functions.
//
//   record = line*                       each line one JSON array without blanks, ended by LF
//   line   = ["QNMovieDownloadRecord",VERSION]
//          | ["file",PLACE,LENGTH,HASH,VALIDATOR,ADDRESS]
//          | ["gone",PLACE]
//          | ["mark",BOOT,END]
//
// PLACE is the path below the download's directory. LENGTH counts bytes, HASH is their XXH3 in 16
// hexadecimal digits, empty when it is not known; VALIDATOR and ADDRESS may be empty. END is an
// offset in the record: what the lines before it speak of is on the disk. Strings hold what JSON
// demands to be escaped as \", \\ or \u00XX and everything else as it is; this is all that the
// reader takes, too, since it has a line for each segment to read.
struct QNRecordLine {
  enum class Kind { Invalid, Header, File, Gone, Mark };

  Kind kind = Kind::Invalid;
  // As they stand in the line, escapes included (QNUnescaped); they live as long as its text.
  std::string_view place;
  std::string_view validator;
  std::string_view address;
  std::string_view boot;
  uint64_t number = 0;  // version, length or end
  std::optional<uint64_t> hash;
};

// Of a line without its LF. What a torn or overwritten line leaves is Invalid.
QNRecordLine QNReadRecordLine(std::string_view line);
std::string QNUnescaped(std::string_view escaped);

// Each with its LF.
std::string QNRecordHeader(uint64_t version);
std::string QNRecordFile(std::string_view place, uint64_t length, std::optional<uint64_t> hash,
                         std::string_view validator, std::string_view address);
std::string QNRecordGone(std::string_view place);
std::string QNRecordMark(std::string_view boot, uint64_t end);
