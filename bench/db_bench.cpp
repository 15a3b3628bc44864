// Rows per second of MediaInfoDBSave on each backend, grouped and one by one
// (a flush after every row), beside the best bare loop on the same backend:
// SQLite, a prepared upsert in one transaction; PostgreSQL, a prepared upsert
// in pipeline mode in one transaction.
//
//   db_bench [rows]          SQLite only
//   ORVO_BENCH_PG_URI=postgresql://postgres@/postgres?host=/tmp/pg-db-sock db_bench
//
// The PostgreSQL URI must allow CREATE DATABASE; the bench makes and drops
// its own databases.
#include <libpq-fe.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/media_db.h"
#include "platform/orvodb.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* kUpsert =
    "insert into music (path, title, album, artist, year, genre, track, duration, bitrate,"
    " video_bitrate, frequency, channels, width, height, filesize, mtime, camera_make,"
    " camera_model, exposure_time, aperture, iso)"
    " values ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, $15, $16, $17, $18,"
    " $19, $20, $21) on conflict (path) do update set title = excluded.title,"
    " album = excluded.album, artist = excluded.artist, year = excluded.year,"
    " genre = excluded.genre, track = excluded.track, duration = excluded.duration,"
    " bitrate = excluded.bitrate, video_bitrate = excluded.video_bitrate,"
    " frequency = excluded.frequency, channels = excluded.channels, width = excluded.width,"
    " height = excluded.height, filesize = excluded.filesize, mtime = excluded.mtime,"
    " camera_make = excluded.camera_make, camera_model = excluded.camera_model,"
    " exposure_time = excluded.exposure_time, aperture = excluded.aperture, iso = excluded.iso";

MediaInfo Row(const char* tag, int i) {
  MediaInfo info;
  memset(&info, 0, sizeof info);
  snprintf(info.path, sizeof info.path, "/volume1/music/%s/Artist %d/Album %d/%02d Track.mp3",
           tag, i / 100, i / 10, i % 10);
  snprintf(info.title, sizeof info.title, "Track %d", i);
  snprintf(info.album, sizeof info.album, "Album %d", i / 10);
  snprintf(info.artist, sizeof info.artist, "Artist %d", i / 100);
  snprintf(info.year, sizeof info.year, "2001");
  snprintf(info.genre, sizeof info.genre, "Rock");
  info.track = i % 10 + 1;
  info.duration = 215.5f;
  info.bitrate = 192000;
  info.frequency = 44100;
  info.channels = 2;
  info.filesize = 5000000 + i;
  info.mtime = 1600000000 + i;
  return info;
}

// The bare loops bind what MediaInfoDBSave would: 21 texts.
struct RowText {
  char numbers[10][24];
  const char* p[21];
  explicit RowText(const MediaInfo& m) {
    const long long values[] = {m.track, m.bitrate, m.video_bitrate, m.frequency, m.channels,
                                m.width, m.height, m.filesize, m.mtime, m.iso_speed};
    for (int i = 0; i < 10; ++i) snprintf(numbers[i], sizeof numbers[i], "%lld", values[i]);
    const char* texts[21] = {m.path, m.title, m.album, m.artist, m.year, m.genre, numbers[0],
                             "215.5", numbers[1], numbers[2], numbers[3], numbers[4],
                             numbers[5], numbers[6], numbers[7], numbers[8], m.camera_make,
                             m.camera_model, m.exposure_time, m.aperture, numbers[9]};
    memcpy(p, texts, sizeof p);
  }
};

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double SaveLoop(const char* tag, int rows, bool flushEachRow) {
  auto start = Clock::now();
  for (int i = 0; i < rows; ++i) {
    MediaInfo info = Row(tag, i);
    if (MediaInfoDBSave(kMediaMusic, &info) != 0) return -1;
    if (flushEachRow && ORVODBFlush() != 0) return -1;
  }
  if (ORVODBFlush() != 0) return -1;
  return Seconds(start);
}

// Two passes over the same rows: inserts, then updates (a re-index).
struct BareTimes {
  double first = -1, again = -1;
};

BareTimes SqliteBare(const std::string& file, int rows) {
  BareTimes times;
  // The same schema, made by the platform layer, in a file of its own.
  setenv("ORVO_MEDIA_DB", ("sqlite:" + file).c_str(), 1);
  ORVODBCloseAll();
  if (OrvoDBConnect(OrvoDatabase::kMedia) == nullptr) return times;
  ORVODBCloseAll();
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  sqlite3_exec(db, "pragma journal_mode = wal; pragma synchronous = normal", nullptr, nullptr, nullptr);
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, kUpsert, -1, &stmt, nullptr) != SQLITE_OK) return times;
  for (double* out : {&times.first, &times.again}) {
    auto start = Clock::now();
    sqlite3_exec(db, "begin", nullptr, nullptr, nullptr);
    bool ok = true;
    for (int i = 0; i < rows && ok; ++i) {
      MediaInfo info = Row("bare", i);
      RowText row(info);
      for (int c = 0; c < 21; ++c) sqlite3_bind_text(stmt, c + 1, row.p[c], -1, SQLITE_STATIC);
      ok = sqlite3_step(stmt) == SQLITE_DONE;
      sqlite3_reset(stmt);
    }
    sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
    *out = ok ? Seconds(start) : -1;
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return times;
}

BareTimes PgBare(const std::string& uri, int rows) {
  BareTimes times;
  PGconn* pg = PQconnectdb(uri.c_str());
  if (PQstatus(pg) != CONNECTION_OK) return times;
  PQclear(PQprepare(pg, "upsert", kUpsert, 21, nullptr));
  for (double* out : {&times.first, &times.again}) {
    auto start = Clock::now();
    PQenterPipelineMode(pg);
    PQsendQueryParams(pg, "begin", 0, nullptr, nullptr, nullptr, nullptr, 0);
    int queued = 1;
    bool ok = true;
    auto collect = [&](bool wait) {
      while (queued > 0) {
        if (!wait) {
          PQconsumeInput(pg);
          if (PQisBusy(pg)) return;
        }
        PGresult* r = PQgetResult(pg);
        if (r == nullptr) {
          --queued;
          continue;
        }
        ExecStatusType s = PQresultStatus(r);
        if (s == PGRES_PIPELINE_SYNC) --queued;
        else if (s != PGRES_COMMAND_OK) ok = false;
        PQclear(r);
      }
    };
    for (int i = 0; i < rows; ++i) {
      MediaInfo info = Row("bare", i);
      RowText row(info);
      PQsendQueryPrepared(pg, "upsert", 21, row.p, nullptr, nullptr, 0);
      ++queued;
      collect(false);
    }
    PQsendQueryParams(pg, "commit", 0, nullptr, nullptr, nullptr, nullptr, 0);
    PQpipelineSync(pg);
    queued += 2;
    collect(true);
    PQexitPipelineMode(pg);
    *out = ok ? Seconds(start) : -1;
  }
  PQfinish(pg);
  return times;
}

void Print(const char* backend, const char* loop, int rows, double seconds, double bare) {
  if (seconds < 0) {
    printf("%-11s %-34s %7d  failed\n", backend, loop, rows);
    return;
  }
  double rate = rows / seconds;
  printf("%-11s %-34s %7d %9.3f %11.0f", backend, loop, rows, seconds, rate);
  if (bare > 0) printf(" %8.2f", rate / bare);
  printf("\n");
}

std::string WithDatabase(const std::string& uri, const std::string& name) {
  size_t start = uri.find('/', uri.find("://") + 3);
  size_t query = uri.find('?');
  if (start == std::string::npos || (query != std::string::npos && start > query)) {
    size_t at = query == std::string::npos ? uri.size() : query;
    return uri.substr(0, at) + "/" + name + uri.substr(at);
  }
  return uri.substr(0, start + 1) + name + (query == std::string::npos ? "" : uri.substr(query));
}

void Admin(const char* uri, const std::string& sql) {
  PGconn* pg = PQconnectdb(uri);
  PQclear(PQexec(pg, sql.c_str()));
  PQfinish(pg);
}

void Run(const char* backend, const std::string& media, const std::string& bareLocation,
         int rows, int oneByOneRows) {
  BareTimes bare = backend[0] == 's' ? SqliteBare(bareLocation, rows) : PgBare(bareLocation, rows);
  double bareRate = bare.first > 0 ? rows / bare.first : 0;
  double bareAgainRate = bare.again > 0 ? rows / bare.again : 0;
  Print(backend, "bare prepared upsert", rows, bare.first, bareRate);
  Print(backend, "bare prepared upsert, again", rows, bare.again, bareAgainRate);
  setenv("ORVO_MEDIA_DB", media.c_str(), 1);
  ORVODBCloseAll();
  Print(backend, "MediaInfoDBSave grouped", rows, SaveLoop("grouped", rows, false), bareRate);
  Print(backend, "MediaInfoDBSave grouped, again", rows, SaveLoop("grouped", rows, false),
        bareAgainRate);
  Print(backend, "MediaInfoDBSave flush every row", oneByOneRows,
        SaveLoop("single", oneByOneRows, true), bareRate);
  ORVODBCloseAll();
}

}  // namespace

int main(int argc, char** argv) {
  int rows = argc > 1 ? atoi(argv[1]) : 20000;
  if (rows <= 0) rows = 20000;
  const int oneByOne = rows / 10;
  char pattern[] = "/tmp/orvo-db-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 1;
  std::string dir = pattern;
  setenv("ORVO_PHOTO_DB", ("sqlite:" + dir + "/photo.db").c_str(), 1);

  // What opening costs the daemon's start-up: a fresh database (schema made)
  // and an existing one.
  setenv("ORVO_MEDIA_DB", ("sqlite:" + dir + "/open-media.db").c_str(), 1);
  setenv("ORVO_PHOTO_DB", ("sqlite:" + dir + "/open-photo.db").c_str(), 1);
  for (const char* what : {"new", "existing"}) {
    ORVODBCloseAll();
    auto start = Clock::now();
    bool ok = OrvoDBConnect(OrvoDatabase::kMedia) && OrvoDBConnect(OrvoDatabase::kPhoto);
    printf("sqlite open of both databases, %s: %s %.1f ms\n", what, ok ? "" : "FAILED",
           Seconds(start) * 1000);
  }
  ORVODBCloseAll();
  setenv("ORVO_PHOTO_DB", ("sqlite:" + dir + "/photo.db").c_str(), 1);

  printf("%-11s %-34s %7s %9s %11s %8s\n", "backend", "loop", "rows", "seconds", "rows/s",
         "vs bare");
  Run("sqlite", "sqlite:" + dir + "/media.db", dir + "/bare.db", rows, oneByOne);

  const char* pgUri = getenv("ORVO_BENCH_PG_URI");
  if (pgUri != nullptr && *pgUri != '\0') {
    std::string media = "orvo_bench_" + std::to_string(getpid());
    std::string bare = media + "_bare";
    for (const auto& name : {media, bare}) {
      Admin(pgUri, "create database " + name + " encoding 'SQL_ASCII' locale 'C' template template0");
    }
    // The bare loop needs the table: the platform layer makes it.
    setenv("ORVO_MEDIA_DB", WithDatabase(pgUri, bare).c_str(), 1);
    ORVODBCloseAll();
    OrvoDBConnect(OrvoDatabase::kMedia);
    ORVODBCloseAll();
    Run("postgresql", WithDatabase(pgUri, media), WithDatabase(pgUri, bare), rows, oneByOne);
    for (const auto& name : {media, bare}) Admin(pgUri, "drop database " + name + " with (force)");
  }
  std::filesystem::remove_all(dir);
  return 0;
}
