// Text for people: readable sizes, durations and times, and the width of
// UTF-8 text in terminal cells.
#pragma once

#include <cstdint>
#include <string>

namespace tarn::app {

std::string HumanSize(uint64_t bytes);        // "5.3 MiB"
std::string HumanDuration(uint64_t millis);   // "3:07", "1:02:03"
std::string LocalTime(int64_t seconds);       // "2022-06-01 10:15"

// Text from the device made safe to show or write into a line-based file:
// invalid UTF-8 repaired, and control characters (C0, DEL and C1, which
// carry terminal escape sequences) each replaced by U+FFFD. Newlines too.
std::string Printable(const std::string &text);

// Display width of UTF-8 text in terminal cells.
size_t DisplayWidth(const std::string &text);
// Cuts text to at most `width` cells, ending in "…" when anything was cut;
// 0 means no limit.
std::string Fit(const std::string &text, size_t width);

}  // namespace tarn::app
