// The tables of the media and the photo database. Other programs on the
// appliance read them by these names, so names, columns and their order are
// fixed.
#include <string>
#include <vector>

#include "platform/db_backend.h"

namespace {

// The column set shared by music, video, photo and playlist: the fields of
// the media record.
std::string MediaTable(const char* name, DbBackend backend) {
  std::string id = backend == DbBackend::kSqlite ? "integer primary key" : "bigserial primary key";
  return std::string("create table if not exists ") + name + " (id " + id +
         ", path text not null unique"
         ", title text not null default '', album text not null default ''"
         ", artist text not null default '', year text not null default ''"
         ", genre text not null default ''"
         ", track integer, duration real, bitrate integer, video_bitrate integer"
         ", frequency integer, channels integer, width integer, height integer"
         ", filesize bigint, mtime bigint"
         ", camera_make text not null default '', camera_model text not null default ''"
         ", exposure_time text not null default '', aperture text not null default ''"
         ", iso integer)";
}

// SQLite has no boolean type: a column declared boolean gets 1/0 whatever
// literal was written ('true', 't', '1', ...), as PostgreSQL would take it,
// and anything PostgreSQL would refuse is refused. The reader turns 1/0 of a
// boolean column back into "t"/"f".
std::string BooleanCase(const std::string& column) {
  const std::string v = "new." + column;
  return column + " = case when " + v + " is null then null when typeof(" + v +
         ") = 'integer' and " + v + " in (0, 1) then " + v +
         " when lower(trim(" + v + ")) in ('t', 'true', 'y', 'yes', 'on', '1') then 1" +
         " when lower(trim(" + v + ")) in ('f', 'false', 'n', 'no', 'off', '0') then 0" +
         " else raise(abort, 'invalid input syntax for type boolean') end";
}

void AddBooleanTriggers(std::vector<std::string>& out, const std::string& table,
                        const std::vector<std::string>& columns) {
  std::string when, sets, names;
  for (const auto& c : columns) {
    if (!when.empty()) {
      when += " or ";
      sets += ", ";
      names += ", ";
    }
    // Integer 0/1 (also what '0'/'1' become by the column's affinity) needs
    // no rewrite; the trigger's update only runs for the other literals.
    when += "typeof(new." + c + ") not in ('integer', 'null') or new." + c + " not in (0, 1)";
    sets += BooleanCase(c);
    names += c;
  }
  std::string body = " when " + when + " begin update " + table + " set " + sets +
                     " where rowid = new.rowid; end";
  out.push_back("create trigger if not exists " + table + "_bool_insert after insert on " +
                table + body);
  out.push_back("create trigger if not exists " + table + "_bool_update after update of " +
                names + " on " + table + body);
}

}  // namespace

std::vector<std::string> DbSchemaStatements(OrvoDatabase which, DbBackend backend) {
  const bool lite = backend == DbBackend::kSqlite;
  const std::string id = lite ? "integer primary key" : "bigserial primary key";
  std::vector<std::string> out;
  if (which == OrvoDatabase::kMedia) {
    for (const char* table : {"music", "video", "photo", "playlist"})
      out.push_back(MediaTable(table, backend));
    out.push_back("create table if not exists directory (id " + id +
                  ", path text not null unique, mtime bigint)");
  } else {
    out.push_back("create table if not exists photo_image (id " + id +
                  ", path text not null unique"
                  ", name text not null default '', title text not null default ''"
                  ", album text not null default '', make text not null default ''"
                  ", model text not null default '', exposure text not null default ''"
                  ", aperture text not null default '', takendate text, change_time text"
                  ", width integer, height integer, iso integer, filesize bigint"
                  ", updated boolean)");
    out.push_back("create table if not exists photo_video (id " + id +
                  ", path text not null unique"
                  ", name text not null default '', title text not null default ''"
                  ", album text not null default '', filesize bigint, mtime bigint"
                  ", updated boolean)");
    out.push_back(
        "create table if not exists photo_share (shareid integer primary key"
        ", sharename text not null unique, title text, description text, public boolean"
        ", sort_order integer, password text, enabled boolean, is_subdir boolean"
        ", updated boolean)");
    out.push_back(
        "create table if not exists photo_access_right (userid integer not null"
        ", shareid integer not null, granted text not null default '')");
    out.push_back(
        "create table if not exists video_desc (path text primary key"
        ", description text not null default '')");
    out.push_back(std::string("create table if not exists video_comment (id ") +
                  (lite ? "integer primary key" : "serial primary key") +
                  ", path text not null, comment text not null default ''"
                  ", created text not null default '')");
    out.push_back("create index if not exists video_comment_path on video_comment (path)");
    if (lite) {
      AddBooleanTriggers(out, "photo_image", {"updated"});
      AddBooleanTriggers(out, "photo_video", {"updated"});
      AddBooleanTriggers(out, "photo_share", {"public", "enabled", "is_subdir", "updated"});
    }
  }
  out.push_back("create table if not exists schema_version (version integer)");
  out.push_back("insert into schema_version (version) select " + std::to_string(kSchemaVersion) +
                " where not exists (select 1 from schema_version)");
  return out;
}
