// Numbers the device sends as decimal text: sizes, byte counts, times.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace tarn {

// Leading blanks and a sign, then digits up to the first other character;
// text that holds no number, and a null text, read 0. A value beyond the
// range reads as the largest one, where atoll's overflow is undefined: the
// device's answers are not trusted to fit.
inline uint64_t DeviceNumber(const char *text) { return text ? std::strtoull(text, nullptr, 10) : 0; }

}  // namespace tarn
