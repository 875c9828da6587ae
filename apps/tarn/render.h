// Aligned tables on the terminal.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "apps/common/catalogue.h"

namespace tarn::cli {

class Table {
 public:
  using Align = app::Align;
  static constexpr Align kLeft = app::Align::kLeft;
  static constexpr Align kRight = app::Align::kRight;
  using Column = app::Column;
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  void Print(std::FILE *out) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace tarn::cli
