// The photo database: photo rows (photo_image for pictures, photo_video for
// video files in the photo share), the album table and its access rights,
// and the video application's descriptions and comments.
#include "platform/photo_db.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/db_backend.h"
#include "platform/db_text.h"
#include "platform/log.h"
#include "platform/text_encoding.h"

namespace {

// Selector 0 reads the picture and the video rows as one table.
const char* TableSource(int table) {
  switch (table) {
    case kPhotoRows:
      return "(select path, name, title, album, filesize, updated from photo_image"
             " union all select path, name, title, album, filesize, updated from photo_video)"
             " as photo_rows";
    case kPhotoVideoDesc: return "video_desc";
    case kPhotoVideoComment: return "video_comment";
    case kPhotoShare: return "photo_share";
    case kPhotoAccessRight: return "photo_access_right";
    default: return nullptr;
  }
}

bool Empty(const char* text) { return text == nullptr || *text == '\0'; }

// name, title and album as the photo application shows them: the file name,
// the file name without its last extension, the holding folder's name.
struct PathNames {
  char name[255];
  char title[255];
  char album[255];
};

PathNames NamesOf(std::string_view path) {
  PathNames n;
  size_t slash = path.rfind('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  std::string_view title = name.substr(0, std::min(name.rfind('.'), name.size()));
  std::string_view album;
  if (slash != std::string_view::npos && slash > 0) {
    std::string_view folder = path.substr(0, slash);
    size_t up = folder.rfind('/');
    album = up == std::string_view::npos ? folder : folder.substr(up + 1);
  }
  std::string nameText(name), titleText(title), albumText(album);
  orvo::ToUtf8Field(nameText.c_str(), nameText.size() + 1, false, n.name, sizeof n.name);
  orvo::ToUtf8Field(titleText.c_str(), titleText.size() + 1, false, n.title, sizeof n.title);
  orvo::ToUtf8Field(albumText.c_str(), albumText.size() + 1, false, n.album, sizeof n.album);
  return n;
}

ORVODB* PhotoDB() { return OrvoDBConnect(OrvoDatabase::kPhoto); }

int Write(ORVODB* db, std::string_view sql, std::span<const DbParam> params, const char* path) {
  if (db == nullptr) return -1;
  if (DbGroupedWrite(db, sql, params) != 0) {
    ORVO_LOG("%s (%d) Failed to write %s into the photo database (%s)", path ? path : "",
             db->error.c_str());
    return -1;
  }
  return 0;
}

template <size_t N>
std::string Field(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

}  // namespace

PhotoDBHandle* PhotoInfoDBOpen(int table, const char* columns, const char* condition,
                               const char* /*reserved*/, const char* order, int offset,
                               int limit) {
  const char* source = TableSource(table);
  if (source == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return nullptr;
  }
  std::string sql = "select ";
  sql += Empty(columns) ? "*" : columns;
  sql += " from ";
  sql += source;
  if (!Empty(condition)) sql += std::string(" where ") + condition;
  if (!Empty(order)) sql += std::string(" order by ") + order;
  if (limit > 0) sql += " limit " + std::to_string(limit);
  if (offset > 0) sql += " offset " + std::to_string(offset);
  // The pieces come from callers: together they must still be one statement.
  if (DbSingleStatementLength(sql) != static_cast<long>(sql.size())) {
    ORVO_LOG("%s (%d) Refused to execute [%s]: not exactly one statement", sql.c_str());
    return nullptr;
  }
  ORVODB* db = PhotoDB();
  if (db == nullptr) return nullptr;
  ORVODBResult* result = nullptr;
  if (DbRun(db, sql, {}, &result) < 0) {
    ORVO_LOG("%s (%d) Failed to execute [%s] (%s)", sql.c_str(), db->error.c_str());
    return nullptr;
  }
  return new PhotoDBHandle{db, result, -1, ORVODBRowCount(result)};
}

void PhotoInfoDBClose(PhotoDBHandle* handle) {
  if (handle == nullptr) return;
  ORVODBFreeResult(handle->result);
  delete handle;
}

PhotoPathNode* PhotoPathDBGet(PhotoDBHandle* handle) {
  if (handle == nullptr || handle->result == nullptr) return nullptr;
  PhotoPathNode* head = nullptr;
  PhotoPathNode** tail = &head;
  for (int row = 0; row < ORVODBRowCount(handle->result); ++row) {
    const char* path = ORVODBFetchField(handle->result, row, "path");
    if (path == nullptr) break;
    // Nodes are malloc'd: lists built by callers are freed the same way.
    auto node = static_cast<PhotoPathNode*>(malloc(sizeof(PhotoPathNode)));
    char* copy = strdup(path);
    if (node == nullptr || copy == nullptr) {
      free(node);
      free(copy);
      ORVO_LOG("%s (%d) Failed to malloc(%d)", static_cast<int>(sizeof(PhotoPathNode)));
      break;
    }
    node->path = copy;
    node->next = nullptr;
    *tail = node;
    tail = &node->next;
  }
  return head;
}

void FreePhotoPathList(PhotoPathNode* list) {
  while (list != nullptr) {
    PhotoPathNode* next = list->next;
    free(list->path);
    free(list);
    list = next;
  }
}

int ORVOUpdatePhotoPath(const PhotoPathNode* list, const char* newPath, const char* oldPath) {
  if (newPath == nullptr || oldPath == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  ORVODB* db = PhotoDB();
  if (db == nullptr) return -1;
  const size_t oldLength = strlen(oldPath);
  for (const PhotoPathNode* node = list; node != nullptr; node = node->next) {
    if (node->path == nullptr || strncmp(node->path, oldPath, oldLength) != 0) continue;
    std::string target = std::string(newPath) + (node->path + oldLength);
    if (target == node->path) continue;
    PathNames names = NamesOf(target);
    const DbParam clear[] = {target.c_str()};
    const DbParam move[] = {target.c_str(), names.name, names.title, names.album, node->path};
    for (const char* table : {"photo_image", "photo_video"}) {
      // A row already at the target gives way to the moved one.
      std::string sql = std::string("delete from ") + table + " where path = $1";
      if (Write(db, sql, clear, target.c_str()) != 0) return -1;
      sql = std::string("update ") + table +
            " set path = $1, name = $2, title = $3, album = $4 where path = $5";
      if (Write(db, sql, move, target.c_str()) != 0) return -1;
    }
  }
  return 0;
}

int PhotoInfoDBSave(const PhotoInfo* info, int /*saveFlag*/) {
  if (info == nullptr || info->path[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  std::string path = Field(info->path);
  char name[sizeof info->name], title[sizeof info->title], album[sizeof info->album];
  char make[sizeof info->make], model[sizeof info->model];
  char exposure[sizeof info->exposure], aperture[sizeof info->aperture];
  char taken[sizeof info->takenDate], changed[sizeof info->changeTimeText];
  orvo::ToUtf8Field(info->name, sizeof info->name, false, name, sizeof name);
  orvo::ToUtf8Field(info->title, sizeof info->title, false, title, sizeof title);
  orvo::ToUtf8Field(info->album, sizeof info->album, false, album, sizeof album);
  orvo::ToUtf8Field(info->make, sizeof info->make, false, make, sizeof make);
  orvo::ToUtf8Field(info->model, sizeof info->model, false, model, sizeof model);
  orvo::ToUtf8Field(info->exposure, sizeof info->exposure, false, exposure, sizeof exposure);
  orvo::ToUtf8Field(info->aperture, sizeof info->aperture, false, aperture, sizeof aperture);
  orvo::ToUtf8Field(info->takenDate, sizeof info->takenDate, false, taken, sizeof taken);
  orvo::ToUtf8Field(info->changeTimeText, sizeof info->changeTimeText, false, changed,
                    sizeof changed);
  orvo::DecimalText width = orvo::Decimal(info->width), height = orvo::Decimal(info->height),
                    iso = orvo::Decimal(info->iso), size = orvo::Decimal(info->fileSize);
  const DbParam params[] = {path.c_str(), name,       title,       album,     make,
                            model,        exposure,   aperture,    taken,     changed,
                            width.text,   height.text, iso.text,   size.text};
  return Write(PhotoDB(),
               "insert into photo_image (path, name, title, album, make, model, exposure,"
               " aperture, takendate, change_time, width, height, iso, filesize, updated)"
               " values ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, '1')"
               " on conflict (path) do update set name = excluded.name,"
               " title = excluded.title, album = excluded.album, make = excluded.make,"
               " model = excluded.model, exposure = excluded.exposure,"
               " aperture = excluded.aperture, takendate = excluded.takendate,"
               " change_time = excluded.change_time, width = excluded.width,"
               " height = excluded.height, iso = excluded.iso, filesize = excluded.filesize,"
               " updated = excluded.updated",
               params, path.c_str());
}

int PhotoInfoDBDelete(const char* path) {
  if (Empty(path)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  ORVODB* db = PhotoDB();
  const DbParam params[] = {path};
  if (Write(db, "delete from photo_image where path = $1", params, path) != 0) return -1;
  return Write(db, "delete from photo_video where path = $1", params, path);
}

int PhotoInfoDBDirDelete(const char* path) {
  if (Empty(path)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  std::string folder(orvo::WithoutTrailingSlash(path));
  std::string below = orvo::LikeLiteral(folder) + (folder == "/" ? "%" : "/%");
  const DbParam params[] = {folder.c_str(), below.c_str()};
  ORVODB* db = PhotoDB();
  if (Write(db, "delete from photo_image where path = $1 or path like $2", params, path) != 0)
    return -1;
  return Write(db, "delete from photo_video where path = $1 or path like $2", params, path);
}

int ORVOIndexPhotoUpdateVideoStatus(const char* path) {
  struct stat st;
  if (Empty(path) || stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  PathNames names = NamesOf(path);
  orvo::DecimalText size = orvo::Decimal(st.st_size), mtime = orvo::Decimal(st.st_mtime);
  const DbParam params[] = {path, names.name, names.title, names.album, size.text, mtime.text};
  return Write(PhotoDB(),
               "insert into photo_video (path, name, title, album, filesize, mtime, updated)"
               " values ($1, $2, $3, $4, $5, $6, '1')"
               " on conflict (path) do update set name = excluded.name,"
               " title = excluded.title, album = excluded.album,"
               " filesize = excluded.filesize, mtime = excluded.mtime,"
               " updated = excluded.updated",
               params, path);
}

int ORVOPhotoInitAllRows() {
  ORVODB* db = PhotoDB();
  if (db == nullptr) return -1;
  for (const char* sql : {"update photo_image set updated = '0'",
                          "update photo_video set updated = '0'"}) {
    if (DbRun(db, sql, {}, nullptr) < 0) {
      ORVO_LOG("%s (%d) Failed to execute [%s] (%s)", sql, db->error.c_str());
      return -1;
    }
  }
  return 0;
}

int ORVOPhotoDeleteNoUpdateRows() {
  ORVODB* db = PhotoDB();
  if (db == nullptr) return -1;
  for (const char* sql : {"delete from photo_image where updated is not true",
                          "delete from photo_video where updated is not true"}) {
    if (DbRun(db, sql, {}, nullptr) < 0) {
      ORVO_LOG("%s (%d) Failed to execute [%s] (%s)", sql, db->error.c_str());
      return -1;
    }
  }
  return 0;
}

int PhotoDBExec(const char* sql) {
  ORVODB* db = PhotoDB();
  if (db == nullptr) return -1;
  return ORVODBExecute(db, sql, nullptr);
}

int PhotoDBVacuum() {
  ORVODB* db = PhotoDB();
  return db == nullptr ? -1 : DbVacuum(db);
}
