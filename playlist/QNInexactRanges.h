#pragma once

#include <cstdint>

#include "platform/Export.h"
#include "playlist/QNResourceListBuilder.h"

// A listed range is an offset and a byte count, and the Range header is made of these two numbers
// as they stand: "bytes=<offset>-<count>", while RFC 9110 section 14.1.2 reads the second number as
// the position of the last byte. Such a header asks for exactly the bytes from the offset on, as
// many as counted, only when the offset is 1. Exact as well are a resource without range and an
// open-ended range. A resource that was merged from several means the span from the first to the
// last byte of all of them.
QN_EXPORT bool isInexactRange(const QNRangedURL& resource);

// How many resources of the list have a Range header that asks for other bytes than the manifest
// means; 0 for null.
QN_EXPORT uint64_t inexactRanges(const QNResourceListPtr& resources);
