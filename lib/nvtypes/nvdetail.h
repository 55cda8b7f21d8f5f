#pragma once

// Helpers shared by the library's sources; not installed, not part of the interface.

#include <cstddef>
#include <cstdint>

namespace nvdetail {
// Sum of the bytes modulo 256 (the frame checksum without its sign).
uint8_t byteSum(const uint8_t* p, size_t n);
} // namespace nvdetail
