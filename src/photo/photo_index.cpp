// The photo database side of the photo share: one picture's photo row, and
// the upkeep of photo and video-application rows when files are added,
// removed, renamed or swept.

#include "photo/photo_index.h"

#include <glob.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "index/folder_visits.h"
#include "index/index.h"  // the one downward call back: a renamed folder with no rows is walked
#include "index/run_progress.h"
#include "meta/exif.h"
#include "photo/photo_path.h"
#include "photo/photo_scoped.h"
#include "photo/photo_sql.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/orvodb.h"
#include "platform/photo_db.h"
#include "platform/share_paths.h"
#include "platform/system.h"

int gPhotoShareFsFlag = 0;

namespace {

using photo_scoped::CText;
using photo_scoped::GlobOwner;
using photo_scoped::HandleOwner;
using photo_scoped::IsDirectoryEntry;
using photo_scoped::PathListOwner;
using photo_scoped::WorkingFolderRestore;

constexpr const char* kPhotoRootLink = kPhotoShareLink;
// Pictures of this size and above are deliberately left out of the photo
// database (they still reach the media database).
constexpr int64_t kPhotoSizeLimit = 0x1400000;  // 20 MiB
// f_type of the file system whose directory-only glob cannot be trusted.
constexpr long kUntrustedGlobFsType = 0x25521814;

enum PhotoKind { kKindNone = 0, kKindPhoto = 1, kKindVideo = 2 };

// The photo database's own lists, deliberately shorter than the media
// handler table: tif, psd and the rest are media-only pictures.
constexpr const char* kPhotoExtensions[] = {"jpg", "jpeg", "jpe", "bmp", "gif", "png"};
constexpr const char* kVideoExtensions[] = {"mpg", "mpeg", "avi", "wmv", "mov", "asf", "flv"};

struct ResultFree {
  void operator()(ORVODBResult* result) const { ORVODBFreeResult(result); }
};
using ResultOwner = std::unique_ptr<ORVODBResult, ResultFree>;

PhotoKind KindOfExtension(const char* extension) {
  for (const char* known : kPhotoExtensions) {
    if (strcasecmp(extension, known) == 0) return kKindPhoto;
  }
  for (const char* known : kVideoExtensions) {
    if (strcasecmp(extension, known) == 0) return kKindVideo;
  }
  return kKindNone;
}

// Kind by the text after the path's last '.'; none without a '.'.
PhotoKind KindOfPath(const char* path) {
  const char* dot = strrchr(path, '.');
  return dot != nullptr ? KindOfExtension(dot + 1) : kKindNone;
}

}  // namespace

int SanitizePhotoInfo(PhotoInfo* info) {
  if (info == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  if (info->width > 8000 || info->width < 0) info->width = 0;
  if (info->height > 8000 || info->height < 0) info->height = 0;
  // Exposure and aperture are deliberately not checked.
  if (HasNonPrintable(info->takenDate)) info->takenDate[0] = '\0';
  if (HasNonPrintable(info->make)) info->make[0] = '\0';
  if (HasNonPrintable(info->model)) info->model[0] = '\0';
  return 0;
}

int HasNonPrintable(const char* text) {
  if (text == nullptr) return 0;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != '\0'; ++p) {
    if (*p < 0x20 || *p >= 0x80) return 1;
  }
  return 0;
}

int ORVOPhotoIndexAdd(const char* path, int saveFlag) {
  if (path == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  if (strstr(path, "@eaDir") != nullptr) return -1;

  PhotoInfo info = {};
  photo_path::CopyText(info.path, path);
  const char* fileName = photo_path::FileName(path);
  if (fileName[0] == '.') return -1;

  photo_path::CopyName(info.name, fileName);
  photo_path::CopyName(info.title, fileName);
  photo_path::CutAtLast(info.title, '.');
  if (photo_path::HoldingFolder(path, info.album) < 0) {
    ORVO_LOG("%s (%d) Impossible error.");
  }

  struct stat64 st;
  if (stat64(path, &st) != 0 || st.st_size <= 0 || st.st_size >= kPhotoSizeLimit) return -1;
  info.fileSize = st.st_size;

  // Every picture is tried, whatever its extension; no EXIF is not a failure.
  ReadExifInfo(&info);

  if (stat64(path, &st) != 0) return -1;
  // ctime()'s text, made with the reentrant calls: plain localtime looks
  // the zone file up again on every call.
  time_t changed = st.st_ctime;
  struct tm local = {};
  bool haveLocal = localtime_r(&changed, &local) != nullptr;
  char changeText[32] = {};
  char asciiTime[64] = {};
  if (haveLocal && asctime_r(&local, asciiTime) != nullptr) {
    snprintf(changeText, sizeof changeText, "%s", asciiTime);
  }
  photo_path::CopyText(info.changeTimeText, changeText);

  int width = 0;
  int height = 0;
  if (ORVOIndexImgResGet(path, &width, &height) == 0) {
    info.width = width;
    info.height = height;
  }
  // After the resolution lookup, so the header's size is clamped here too
  // (the media path does not clamp it).
  SanitizePhotoInfo(&info);

  if (info.takenDate[0] == '\0') {
    memset(info.takenDate, 0, sizeof info.takenDate);
    if (haveLocal) strftime(info.takenDate, sizeof info.takenDate, "%F %T", &local);
  }

  if (PhotoInfoDBSave(&info, saveFlag) == 0) return 0;
  ORVO_LOG("%s (%d) Failed to save photo info.");
  return -1;
}

int ORVOPhotoIndexRemove(const char* path) {
  if (path == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  if (IsFileExist(path, nullptr)) {
    ORVO_LOG("%s (%d) File exists. Skip remove it from database.");
    return -1;
  }
  if (strstr(path, "@eaDir") != nullptr) return -1;
  if (PhotoInfoDBDelete(path) != 0) {
    ORVO_LOG("%s (%d) Failed to remove %s from database.", path);
  }
  return 0;
}

int ORVOPhotoIndexUpdate(const char* path, int mode) {
  if (path == nullptr || (mode != 1 && mode != 2 && mode != 5)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  if (IsDirExist(path)) return -1;
  PhotoKind kind = KindOfPath(path);
  if (kind == kKindNone) return -1;
  FileWork work(path, mode == 2 ? FileWorkKind::kRemove : FileWorkKind::kIndex);

  switch (mode) {
    case 1:
      if (kind == kKindPhoto) ORVOPhotoIndexAdd(path, 1);
      QLIBSignalThumbCreate(path, 3);
      break;
    case 5:
      if (kind == kKindPhoto) {
        ORVOPhotoIndexAdd(path, 5);
      } else {
        ORVOIndexPhotoUpdateVideoStatus(path);
      }
      break;
    case 2:
      ORVOPhotoIndexRemove(path);
      break;
    default:
      ORVO_LOG("%s (%d) Bad mode!! This should never happen.");
      return -1;
  }
  return 0;
}

int ORVOPhotoRenamePath(const char* newPath, const char* oldPath, int isDir) {
  if (newPath == nullptr || oldPath == nullptr || newPath[0] == '\0' || oldPath[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  // A name without '.' counts as a folder, deliberately: the queue renames
  // folders through here too and tells them apart only this way.
  bool isFile = strchr(newPath, '.') != nullptr && !IsDirExist(newPath);
  PhotoKind kind = isFile ? KindOfPath(newPath) : kKindNone;

  CText pattern = QuotedLike(oldPath);
  if (!pattern) return -1;
  char condition[4096] = {};
  snprintf(condition, sizeof condition, isDir ? "path like '%s/%%'" : "path like '%s%%'",
           pattern.get());

  HandleOwner handle(PhotoInfoDBOpen(kPhotoRows, "path", condition, nullptr, nullptr, 0, 0));
  if (!handle) {
    ORVO_LOG("%s (%d) Error occurred, failed to get records.");
    return -1;
  }

  if (handle->rowCount == 0) {
    if (!isFile) {
      IndexFolder(newPath, 1, 2);
      return 0;
    }
    if (kind == kKindPhoto) {
      ORVOPhotoIndexAdd(newPath, 1);
      return 0;
    }
    return -1;
  }

  if (isFile && kind != kKindPhoto) {
    // Deliberately not renamed: the old row goes and the caller hears -1.
    ORVOPhotoIndexRemove(oldPath);
    return -1;
  }
  if (isFile) PhotoInfoDBDelete(newPath);  // a row already at the target would collide

  PathListOwner list(PhotoPathDBGet(handle.get()));
  if (list && ORVOUpdatePhotoPath(list.get(), newPath, oldPath) == -1) {
    ORVO_LOG("%s (%d) Failed to rename to new path.");
    return -1;
  }
  return 0;
}

int ORVOVideoRenamePath(int table, const char* newPath, const char* oldPath) {
  if (newPath == nullptr || oldPath == nullptr || newPath[0] == '\0' || oldPath[0] == '\0' ||
      (table != 1 && table != 2)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  CText pattern = QuotedLike(oldPath);
  if (!pattern) return -1;
  // No '/' after the old path: a file rename also moves the rows of every
  // path that merely begins with it (subtitles beside a video). Deliberate.
  char condition[4096] = {};
  snprintf(condition, sizeof condition, "path like '%s%%'", pattern.get());

  HandleOwner handle(PhotoInfoDBOpen(table, "path", condition, nullptr, nullptr, 0, 0));
  if (!handle) {
    ORVO_LOG("%s (%d) Error occurred, failed to get records.");
    return -1;
  }
  // Nothing renamed is reported as a failure, deliberately.
  if (handle->rowCount == 0) return -1;

  const char* updateTemplate = table == 1 ? "Update video_desc set path = '%s' where path = '%s'"
                                          : "Update video_comment set path = '%s' where path = '%s'";
  size_t oldLength = strlen(oldPath);
  std::string statement;
  while (ORVODBFetchRow(handle->result, &handle->row) == 0) {
    const char* rowPath = ORVODBFetchField(handle->result, handle->row, "path");
    if (rowPath == nullptr) continue;
    const char* found = strstr(rowPath, oldPath);
    if (found == nullptr) continue;
    char newValue[4096] = {};
    snprintf(newValue, sizeof newValue, "%s%s", newPath, found + oldLength);

    CText quotedOld = QuoteSql(rowPath);
    if (!quotedOld) return -1;
    CText quotedNew = QuoteSql(newValue);
    if (!quotedNew) return -1;
    size_t size = strlen(quotedOld.get()) + strlen(quotedNew.get()) + 64;
    statement.assign(size, '\0');
    snprintf(statement.data(), size, updateTemplate, quotedNew.get(), quotedOld.get());

    ORVODBResult* raw = nullptr;
    int changed = ORVODBExecute(handle->db, statement.c_str(), &raw);
    ResultOwner result(raw);
    if (changed == -1) {
      ORVO_LOG("%s (%d) Failed to exec [%s] (%s)", statement.c_str(), ORVODBErrorGet(handle->db));
      return -1;
    }
  }
  return 0;
}

int ORVOPhotoReconcileDir(const char* dir, char** files) {
  if (dir == nullptr || dir[0] == '\0' || files == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter. ");
    return -1;
  }
  CText pattern = QuotedLike(dir);
  if (!pattern) return -1;
  size_t conditionSize = 2 * strlen(pattern.get()) + 64;
  std::string condition(conditionSize, '\0');
  snprintf(condition.data(), conditionSize, "path like '%s/%%' and path not like '%s/%%/%%'",
           pattern.get(), pattern.get());

  char order[12] = "path asc";
  HandleOwner photos(PhotoInfoDBOpen(kPhotoRows, "path", condition.c_str(), nullptr, order, 0, 0));
  if (!photos) {
    ORVO_LOG("%s (%d) Error occurred, failed to get records.");
    return -1;
  }
  // The two video-application queries are not checked on their own: a
  // failure there only means their files count as new. Kept deliberately.
  HandleOwner descs(PhotoInfoDBOpen(kPhotoVideoDesc, "path", condition.c_str(), nullptr, order, 0, 0));
  HandleOwner comments(
      PhotoInfoDBOpen(kPhotoVideoComment, "path", condition.c_str(), nullptr, order, 0, 0));

  PathListOwner photoList(PhotoPathDBGet(photos.get()));
  PathListOwner descList(descs ? PhotoPathDBGet(descs.get()) : nullptr);
  PathListOwner commentList(comments ? PhotoPathDBGet(comments.get()) : nullptr);

  // Every path the three tables know in this folder; a set keeps large
  // folders linear.
  std::unordered_set<std::string_view> known;
  for (const PhotoPathNode* list : {descList.get(), commentList.get(), photoList.get()}) {
    for (const PhotoPathNode* node = list; node != nullptr; node = node->next) {
      if (node->path != nullptr) known.insert(node->path);
    }
  }

  std::vector<std::string> knownAgain;
  std::vector<std::string> added;
  for (char** name = files; *name != nullptr; ++name) {
    char full[4096] = {};
    int length = snprintf(full, sizeof full, "%s/%s", dir, *name);
    // Deliberate departure: a path cut at the buffer names another file or none, so it gets no row and no thumbnail.
    if (length < 0 || static_cast<size_t>(length) >= sizeof full) continue;
    if (known.count(full) != 0) {
      knownAgain.emplace_back(full);
    } else {
      added.emplace_back(full);
    }
  }
  // Each list is taken newest first, as it was built.
  for (auto it = knownAgain.rbegin(); it != knownAgain.rend(); ++it) ORVOPhotoIndexUpdate(it->c_str(), 5);
  for (auto it = added.rbegin(); it != added.rend(); ++it) ORVOPhotoIndexUpdate(it->c_str(), 1);
  return 0;
}

namespace {

int SweepFolder(const char* dir, FolderVisits& visits) {
  if (IsInRecycleBin(dir)) return 0;

  struct stat64 st;
  if (stat64(dir, &st) != 0) return 0;
  // Deliberate departure: a folder is swept once per sweep, however many links lead to it.
  if (!FirstVisit(visits, st.st_dev, st.st_ino)) return 0;

  WorkingFolderRestore restore;
  if (!restore.Save()) {
    ORVO_LOG("%s (%d) Failed to get current directory");
    return -1;
  }
  // A folder that vanished since it was listed is left for the next sweep;
  // listing the folder we are still in instead would walk the wrong tree.
  if (chdir(dir) != 0) return 0;

  {
    GlobOwner files;
    if (files.Run("*.*", 0)) ORVOPhotoReconcileDir(dir, files.matches.gl_pathv);
  }

  GlobOwner folders;
  if (folders.Run("*", GLOB_ONLYDIR)) {
    std::string child;
    for (size_t i = 0; i < folders.matches.gl_pathc; ++i) {
      const char* name = folders.matches.gl_pathv[i];
      if (gPhotoShareFsFlag == 1 && !IsDirectoryEntry(name)) continue;
      if (strstr(name, "@eaDir") != nullptr) continue;
      child.assign(dir).append("/").append(name);
      if (child.size() >= 4096) continue;  // would not fit a path buffer
      // Deliberate departure: a link to a folder of the same share is not followed, so no row gets a second path.
      if (IsLinkWithinShare(visits, child.c_str())) continue;
      SweepFolder(child.c_str(), visits);
    }
  }
  return 0;
}

}  // namespace

int ORVOPhotoSweep(const char* dir) {
  if (dir != nullptr) {
    FolderVisits visits = StartFolderVisits(dir);
    return SweepFolder(dir, visits);
  }

  char root[4096] = {};
  if (readlink(kPhotoRootLink, root, sizeof root - 1) == -1) {
    ORVO_LOG("%s (%d) Failed to read link of %s", kPhotoRootLink);
    return -1;
  }
  // Deliberate departure: a share folder that cannot be listed (volume not mounted) keeps its rows.
  if (int error = FolderOpenError(root); error != 0) {
    ORVO_LOG("%s (%d) Cannot open share folder %s (%s); its rows are kept.", root, strerror(error));
    return -1;
  }
  if (ORVOPhotoInitAllRows() == -1) {
    ORVO_LOG("%s (%d) Failed to set updated to 0 for all rows.");
    return -1;
  }
  // Without the walk no row was marked again: deleting now would empty the
  // photo database.
  FolderVisits visits = StartFolderVisits(root);
  if (SweepFolder(root, visits) == -1) return -1;
  if (ORVOPhotoDeleteNoUpdateRows() == -1) {
    ORVO_LOG("%s (%d) Failed to delete none updated rows.");
    return -1;
  }
  return 0;
}

void CheckPhotoShareFs() {
  struct statfs64 fs;
  if (statfs64(kPhotoRootLink, &fs) != 0) {
    ORVO_LOG("%s (%d) Failed to statfs.");
    return;
  }
  gPhotoShareFsFlag = static_cast<long>(fs.f_type) == kUntrustedGlobFsType ? 1 : 0;
}
