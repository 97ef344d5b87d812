#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qntest {

// The bytes of a served file are a function of path, version and offset: servers make them and
// tests compare them without a file. Two versions of a path differ in nearly every byte.
void fillContent(std::string_view path, int version, uint64_t offset, char* bytes, size_t count);

std::string contentOf(std::string_view path, int version, uint64_t offset, size_t count);

// Compares a file with the first `size` bytes of the content. Empty when equal, else what differs
// and where.
std::string compareWithContent(const std::string& file, std::string_view path, int version,
                               uint64_t size, uint64_t offset = 0);

}  // namespace qntest
