#include "common/sqlite_schema.h"

#include <algorithm>
#include <cctype>

namespace tarn {

SqliteStmt Prepare(sqlite3 *db, const std::string &sql) {
  sqlite3_stmt *raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr) != SQLITE_OK) {
    sqlite3_finalize(raw);
    return nullptr;
  }
  return SqliteStmt(raw);
}

const char *ColumnText(sqlite3_stmt *stmt, int column) {
  const unsigned char *text = sqlite3_column_text(stmt, column);
  return text ? reinterpret_cast<const char *>(text) : "";
}

namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

}  // namespace

const std::set<std::string> &SqliteSchema::Columns(const std::string &table) {
  const std::string key = Lower(table);
  auto it = columns_.find(key);
  if (it != columns_.end()) return it->second;
  std::set<std::string> names;
  // table_info fails for a virtual table without its module: such a table
  // has no columns as far as a reader is concerned. The name is bound, never
  // pasted into the statement.
  if (SqliteStmt stmt = Prepare(db_, "SELECT name FROM pragma_table_info(?1)")) {
    sqlite3_bind_text(stmt.get(), 1, table.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(stmt.get()) == SQLITE_ROW) names.insert(Lower(ColumnText(stmt.get(), 0)));
  }
  return columns_.emplace(key, std::move(names)).first->second;
}

bool SqliteSchema::HasTable(const std::string &table) { return !Columns(table).empty(); }

bool SqliteSchema::HasColumn(const std::string &table, const std::string &column) {
  return Columns(table).count(Lower(column)) != 0;
}

std::string SqliteSchema::Column(const std::string &alias, const std::string &table, const std::string &column) {
  return HasColumn(table, column) ? alias + "." + column : "NULL";
}

std::string SqliteSchema::FirstTable(std::initializer_list<const char *> tables) {
  for (const char *table : tables)
    if (HasTable(table)) return table;
  return "";
}

std::set<std::string> SqliteSchema::TablesLike(const char *pattern) {
  std::set<std::string> names;
  if (SqliteStmt stmt = Prepare(db_, "SELECT name FROM sqlite_master WHERE type = 'table' AND name LIKE ?1 ESCAPE '\\'")) {
    sqlite3_bind_text(stmt.get(), 1, pattern, -1, SQLITE_TRANSIENT);
    while (sqlite3_step(stmt.get()) == SQLITE_ROW) names.insert(ColumnText(stmt.get(), 0));
  }
  return names;
}

}  // namespace tarn
