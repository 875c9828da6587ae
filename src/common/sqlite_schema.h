// Reading SQLite databases whose schema is not ours: the phone's own
// databases changed their tables and columns from one release to the next,
// and no version number says which a given phone has. Readers ask the
// database what it holds and build their queries from that.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include <sqlite3.h>

namespace tarn {

struct SqliteFinalizer {
  void operator()(sqlite3_stmt *stmt) const { sqlite3_finalize(stmt); }
};
using SqliteStmt = std::unique_ptr<sqlite3_stmt, SqliteFinalizer>;

// Null when the statement cannot be prepared; sqlite3_errmsg(db) says why.
SqliteStmt Prepare(sqlite3 *db, const std::string &sql);

// A column's text, "" for NULL.
const char *ColumnText(sqlite3_stmt *stmt, int column);

// The tables and columns of one database, asked once each.
class SqliteSchema {
 public:
  explicit SqliteSchema(sqlite3 *db) : db_(db) {}

  // A table whose columns can be read. A virtual table whose module stock
  // SQLite does not have (the phone's own extensions) counts as absent.
  bool HasTable(const std::string &table);
  bool HasColumn(const std::string &table, const std::string &column);
  // "alias.column" when the table has the column, else "NULL", so that a
  // query names every field it wants whatever the schema.
  std::string Column(const std::string &alias, const std::string &table, const std::string &column);
  // The first of several tables that exists, or "".
  std::string FirstTable(std::initializer_list<const char *> tables);
  // Names of all tables whose name matches a LIKE pattern.
  std::set<std::string> TablesLike(const char *pattern);

 private:
  const std::set<std::string> &Columns(const std::string &table);
  sqlite3 *db_;
  std::map<std::string, std::set<std::string>> columns_;
};

}  // namespace tarn
