#include "render.h"

#include <glib.h>

#include <algorithm>
#include <memory>

#include "apps/common/text.h"

namespace tarn::cli {
using app::DisplayWidth;
using app::Fit;

void Table::Print(std::FILE *out) const {
  std::vector<std::vector<std::string>> cells;
  std::vector<size_t> widths(columns_.size(), 0);
  auto measure = [&](const std::vector<std::string> &row) {
    std::vector<std::string> fitted;
    for (size_t c = 0; c < columns_.size(); ++c) {
      // Device text reaches the terminal without its control characters.
      const std::string cell = app::Printable(c < row.size() ? row[c] : "");
      fitted.push_back(Fit(cell, columns_[c].max_width));
      widths[c] = std::max(widths[c], DisplayWidth(fitted.back()));
    }
    cells.push_back(std::move(fitted));
  };
  std::vector<std::string> header;
  for (const auto &column : columns_) header.push_back(column.header);
  measure(header);
  for (const auto &row : rows_) measure(row);
  for (const auto &row : cells) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      const size_t pad = widths[c] - DisplayWidth(row[c]);
      const bool last = c + 1 == row.size();
      if (columns_[c].align == kRight) line += std::string(pad, ' ') + row[c];
      else line += last ? row[c] : row[c] + std::string(pad, ' ');
      if (!last) line += "  ";
    }
    std::fprintf(out, "%s\n", line.c_str());
  }
}

}  // namespace tarn::cli
