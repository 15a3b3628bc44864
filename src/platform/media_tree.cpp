#include "platform/media_tree.h"

#include <charconv>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/db_backend.h"
#include "platform/db_text.h"
#include "platform/log.h"

namespace {

const char* const kTables[kMediaTreeTables] = {"music", "video", "photo", "playlist", "directory"};

const char* TableName(int table) {
  return table >= 0 && table < kMediaTreeTables ? kTables[table] : nullptr;
}

int64_t Number(const std::optional<std::string>& text) {
  int64_t value = -1;
  if (text) std::from_chars(text->data(), text->data() + text->size(), value);
  return value;
}

}  // namespace

int MediaTreeLoad(int table, const char* folder, std::vector<StoredMediaRow>* rows) {
  const char* name = TableName(table);
  if (name == nullptr || folder == nullptr || *folder == '\0' || rows == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
  if (db == nullptr) return -1;
  // The condition of MediaInfoDBDelete(5, folder): the rows a full re-index
  // would empty are the rows compared here.
  std::string top(orvo::WithoutTrailingSlash(folder));
  std::string below = orvo::LikeLiteral(top) + (top == "/" ? "%" : "/%");
  const DbParam params[] = {top.c_str(), below.c_str()};
  std::string sql = std::string("select path, ") +
                    (table == kMediaDirectoryTable ? "0" : "filesize") + ", mtime from " + name +
                    " where path = $1 or path like $2";
  ORVODBResult* raw = nullptr;
  if (DbRun(db, sql, params, &raw) < 0) {
    ORVO_LOG("%s (%d) Failed to read the rows of %s from %s (%s)", folder, name, db->error.c_str());
    return -1;
  }
  std::unique_ptr<ORVODBResult, void (*)(ORVODBResult*)> result(raw, ORVODBFreeResult);
  rows->reserve(rows->size() + result->rows.size());
  for (auto& row : result->rows) {
    if (row.size() != 3 || !row[0]) continue;
    rows->push_back({std::move(*row[0]), Number(row[1]), Number(row[2])});
  }
  return static_cast<int>(result->rows.size());
}

int MediaTreeDeleteRow(int table, const char* path) {
  const char* name = TableName(table);
  if (name == nullptr || path == nullptr || *path == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
  if (db == nullptr) return -1;
  std::string sql = std::string("delete from ") + name + " where path = $1";
  const DbParam params[] = {path};
  if (DbGroupedWrite(db, sql, params) != 0) {
    ORVO_LOG("%s (%d) Failed to delete %s from %s (%s)", path, name, db->error.c_str());
    return -1;
  }
  return 0;
}
