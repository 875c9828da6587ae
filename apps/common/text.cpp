#include "apps/common/text.h"

#include <glib.h>

#include <ctime>
#include <memory>

namespace tarn::app {

std::string HumanSize(uint64_t bytes) {
  static const char *const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024.0 && unit < 6) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, value < 10.0 ? "%.2f %s" : value < 100.0 ? "%.1f %s" : "%.0f %s", value,
                kUnits[unit]);
  return text;
}

std::string HumanDuration(uint64_t millis) {
  const uint64_t seconds = millis / 1000;
  char text[48];
  if (seconds >= 3600) {
    std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", static_cast<unsigned long long>(seconds / 3600),
                  static_cast<unsigned long long>(seconds / 60 % 60), static_cast<unsigned long long>(seconds % 60));
  } else {
    std::snprintf(text, sizeof text, "%llu:%02llu", static_cast<unsigned long long>(seconds / 60),
                  static_cast<unsigned long long>(seconds % 60));
  }
  return text;
}

std::string LocalTime(int64_t seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr) return "?";
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &tm);
  return text;
}

namespace {

size_t CharWidth(gunichar c) {
  if (g_unichar_iszerowidth(c)) return 0;
  return g_unichar_iswide(c) ? 2 : 1;
}

}  // namespace

std::string Fit(const std::string &text, size_t width) {
  if (width == 0 || DisplayWidth(text) <= width) return text;
  std::string out;
  size_t used = 0;
  for (const char *p = text.c_str(); *p != '\0'; p = g_utf8_next_char(p)) {
    const size_t w = CharWidth(g_utf8_get_char(p));
    if (used + w + 1 > width) break;
    out.append(p, g_utf8_next_char(p) - p);
    used += w;
  }
  return out + "\u2026";
}

std::string Printable(const std::string &text) {
  std::string valid = text;
  if (!g_utf8_validate(text.c_str(), static_cast<gssize>(text.size()), nullptr) ||
      text.find('\0') != std::string::npos) {
    std::unique_ptr<gchar, decltype(&g_free)> repaired(g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size())), g_free);
    valid = repaired.get();
  }
  std::string out;
  out.reserve(valid.size());
  for (const char *p = valid.c_str(); *p != '\0'; p = g_utf8_next_char(p)) {
    const gunichar c = g_utf8_get_char(p);
    if (c < 0x20 || (c >= 0x7f && c <= 0x9f)) out += "\uFFFD";
    else out.append(p, g_utf8_next_char(p) - p);
  }
  return out;
}

size_t DisplayWidth(const std::string &text) {
  if (!g_utf8_validate(text.c_str(), static_cast<gssize>(text.size()), nullptr)) return text.size();
  size_t width = 0;
  for (const char *p = text.c_str(); *p != '\0'; p = g_utf8_next_char(p)) width += CharWidth(g_utf8_get_char(p));
  return width;
}

}  // namespace tarn::app
