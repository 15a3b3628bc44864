// The media database: one row per indexed file in the table of its media
// type, and one row per folder in directory.
#include "platform/media_db.h"

#include <sys/stat.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/db_backend.h"
#include "platform/db_text.h"
#include "platform/log.h"
#include "platform/text_encoding.h"

namespace {

const char* const kMediaTables[] = {"music", "video", "photo", "playlist"};
const char* const kTreeTables[] = {"music", "video", "photo", "playlist", "directory"};

const char* TableOf(int type) {
  return type >= kMediaMusic && type <= kMediaPlaylist ? kMediaTables[type] : nullptr;
}

// The upsert of a media table: a re-indexed file keeps its id.
std::string MakeUpsertSql(const char* table) {
  return std::string("insert into ") + table +
         " (path, title, album, artist, year, genre, track, duration, bitrate,"
         " video_bitrate, frequency, channels, width, height, filesize, mtime,"
         " camera_make, camera_model, exposure_time, aperture, iso)"
         " values ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, $15,"
         " $16, $17, $18, $19, $20, $21)"
         " on conflict (path) do update set title = excluded.title,"
         " album = excluded.album, artist = excluded.artist, year = excluded.year,"
         " genre = excluded.genre, track = excluded.track, duration = excluded.duration,"
         " bitrate = excluded.bitrate, video_bitrate = excluded.video_bitrate,"
         " frequency = excluded.frequency, channels = excluded.channels,"
         " width = excluded.width, height = excluded.height,"
         " filesize = excluded.filesize, mtime = excluded.mtime,"
         " camera_make = excluded.camera_make, camera_model = excluded.camera_model,"
         " exposure_time = excluded.exposure_time, aperture = excluded.aperture,"
         " iso = excluded.iso";
}

const std::string& UpsertSql(int type) {
  static const std::string statements[4] = {MakeUpsertSql("music"), MakeUpsertSql("video"),
                                            MakeUpsertSql("photo"), MakeUpsertSql("playlist")};
  return statements[type];
}

template <size_t N>
bool Terminate(char (&field)[N]) {
  if (memchr(field, '\0', N) != nullptr) return false;
  field[N - 1] = '\0';
  return true;
}

template <typename T>
bool NotNegative(T& value) {
  if (value >= 0) return false;
  value = 0;
  return true;
}

}  // namespace

int MediaInfoValid(MediaInfo* info) {
  if (info == nullptr) return -1;
  bool changed = false;
  changed |= Terminate(info->path);
  changed |= Terminate(info->title);
  changed |= Terminate(info->album);
  changed |= Terminate(info->artist);
  changed |= Terminate(info->year);
  changed |= Terminate(info->genre);
  changed |= Terminate(info->camera_make);
  changed |= Terminate(info->camera_model);
  changed |= Terminate(info->exposure_time);
  changed |= Terminate(info->aperture);
  changed |= NotNegative(info->track);
  changed |= NotNegative(info->bitrate);
  changed |= NotNegative(info->video_bitrate);
  changed |= NotNegative(info->frequency);
  changed |= NotNegative(info->channels);
  changed |= NotNegative(info->width);
  changed |= NotNegative(info->height);
  changed |= NotNegative(info->filesize);
  changed |= NotNegative(info->iso_speed);
  if (!std::isfinite(info->duration) || info->duration < 0) {
    info->duration = 0;
    changed = true;
  }
  return changed ? 1 : 0;
}

int MediaInfoDBSave(int type, const MediaInfo* info) {
  const char* table = TableOf(type);
  if (table == nullptr || info == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  MediaInfo record;
  memcpy(&record, info, sizeof record);
  MediaInfoValid(&record);
  if (record.path[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  // Text goes in as UTF-8, each field within its own width.
  char title[sizeof record.title], album[sizeof record.album], artist[sizeof record.artist];
  char year[sizeof record.year], genre[sizeof record.genre];
  char make[sizeof record.camera_make], model[sizeof record.camera_model];
  char exposure[sizeof record.exposure_time], aperture[sizeof record.aperture];
  orvo::ToUtf8Field(record.title, sizeof record.title, record.title_is_utf16, title, sizeof title);
  orvo::ToUtf8Field(record.album, sizeof record.album, record.album_is_utf16, album, sizeof album);
  orvo::ToUtf8Field(record.artist, sizeof record.artist, record.artist_is_utf16, artist,
                    sizeof artist);
  orvo::ToUtf8Field(record.year, sizeof record.year, record.year_is_utf16, year, sizeof year);
  orvo::ToUtf8Field(record.genre, sizeof record.genre, record.genre_is_utf16, genre, sizeof genre);
  orvo::ToUtf8Field(record.camera_make, sizeof record.camera_make, false, make, sizeof make);
  orvo::ToUtf8Field(record.camera_model, sizeof record.camera_model, false, model, sizeof model);
  orvo::ToUtf8Field(record.exposure_time, sizeof record.exposure_time, false, exposure,
                    sizeof exposure);
  orvo::ToUtf8Field(record.aperture, sizeof record.aperture, false, aperture, sizeof aperture);

  // The shortest text that reads back as the same float.
  char duration[32];
  auto [end, ec] = std::to_chars(duration, duration + sizeof duration - 1, record.duration);
  *(ec == std::errc() ? end : duration) = '\0';
  orvo::DecimalText track = orvo::Decimal(record.track), bitrate = orvo::Decimal(record.bitrate),
         videoBitrate = orvo::Decimal(record.video_bitrate), frequency = orvo::Decimal(record.frequency),
         channels = orvo::Decimal(record.channels), width = orvo::Decimal(record.width),
         height = orvo::Decimal(record.height), filesize = orvo::Decimal(record.filesize),
         mtime = orvo::Decimal(record.mtime), iso = orvo::Decimal(record.iso_speed);
  const DbParam params[] = {record.path,    title,          album,        artist,
                            year,           genre,          track.text,   duration,
                            bitrate.text,   videoBitrate.text, frequency.text, channels.text,
                            width.text,     height.text,    filesize.text, mtime.text,
                            make,           model,          exposure,     aperture,
                            iso.text};
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
  if (db == nullptr || DbGroupedWrite(db, UpsertSql(type), params) != 0) {
    ORVO_LOG("%s (%d) Failed to save %s into %s (%s)", record.path, table,
             db ? db->error.c_str() : "no database");
    return -1;
  }
  return 0;
}

int MediaInfoDBDelete(int type, const char* path) {
  if (path == nullptr || *path == '\0' || (type != kMediaTree && TableOf(type) == nullptr)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
  if (db == nullptr) return -1;
  if (type != kMediaTree) {
    std::string sql = std::string("delete from ") + TableOf(type) + " where path = $1";
    const DbParam params[] = {path};
    if (DbGroupedWrite(db, sql, params) != 0) {
      ORVO_LOG("%s (%d) Failed to delete %s from %s (%s)", path, TableOf(type), db->error.c_str());
      return -1;
    }
    return 0;
  }
  // The folder and everything below it; /x/P must not take /x/P2 along, and
  // '%' or '_' in a name match only themselves.
  std::string folder(orvo::WithoutTrailingSlash(path));
  std::string below = orvo::LikeLiteral(folder) + (folder == "/" ? "%" : "/%");
  const DbParam params[] = {folder.c_str(), below.c_str()};
  int rc = 0;
  for (const char* table : kTreeTables) {
    std::string sql = std::string("delete from ") + table + " where path = $1 or path like $2";
    if (DbGroupedWrite(db, sql, params) != 0) {
      ORVO_LOG("%s (%d) Failed to delete %s from %s (%s)", path, table, db->error.c_str());
      rc = -1;
    }
  }
  return rc;
}

int MediaInfoDBDirSave(const char* path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  orvo::DecimalText mtime = orvo::Decimal(st.st_mtime);
  const DbParam params[] = {path, mtime.text};
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
  if (db == nullptr ||
      DbGroupedWrite(db,
                     "insert into directory (path, mtime) values ($1, $2)"
                     " on conflict (path) do update set mtime = excluded.mtime",
                     params) != 0) {
    ORVO_LOG("%s (%d) Failed to save %s into directory (%s)", path,
             db ? db->error.c_str() : "no database");
    return -1;
  }
  return 0;
}

int MediaDBVacuum() {
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
  return db == nullptr ? -1 : DbVacuum(db);
}

int ORVOTruncateTable(const char* table) {
  const char* known = nullptr;
  for (const char* name : kTreeTables) {
    if (table != nullptr && strcmp(table, name) == 0) known = name;
  }
  if (known == nullptr) {
    ORVO_LOG("%s (%d) Refused to truncate unknown table %s", table ? table : "(null)");
    return -1;
  }
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
  if (db == nullptr) return -1;
  std::string sql = std::string("delete from ") + known;
  if (DbRun(db, sql, {}, nullptr) < 0) {
    ORVO_LOG("%s (%d) Failed to truncate %s (%s)", known, db->error.c_str());
    return -1;
  }
  return 0;
}

time_t ORVOIndexModifyTimeGet(const char* path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0) return 0;
  return st.st_mtime;
}
