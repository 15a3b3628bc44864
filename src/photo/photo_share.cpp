// The album table of the photo application (photo_share) and the access
// rights of private albums (photo_access_right), kept in step with the
// folders under the photo share.

#include "photo/photo_share.h"

#include <glob.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "index/folder_visits.h"
#include "photo/photo_index.h"
#include "photo/photo_scoped.h"
#include "photo/photo_sql.h"
#include "platform/log.h"
#include "platform/orvodb.h"
#include "platform/photo_db.h"
#include "platform/share_paths.h"
#include "platform/system.h"

namespace {

using photo_scoped::CText;
using photo_scoped::GlobOwner;
using photo_scoped::HandleOwner;
using photo_scoped::IsDirectoryEntry;
using photo_scoped::WorkingFolderRestore;

constexpr const char* kPhotoRootLink = kPhotoShareLink;
constexpr const char* kAlbumConfig = "/etc/orvoinfo.conf";
// Share names start after this many characters, the length of
// "/volume1/photo/", whatever the path holds there. Deliberate: every stored
// share name was cut this way, so a volume name of another length must keep
// giving the same (wrong) names.
constexpr size_t kShareNameOffset = 15;

// printf into a string of exactly the needed size, so no statement is ever
// cut short.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<size_t>(length));
    vsnprintf(text.data(), text.size() + 1, format, args);
  }
  va_end(args);
  return text;
}

// The share name of an absolute path under the photo root; null when the
// path ends before the share name begins.
const char* ShareName(const char* path) {
  return strlen(path) > kShareNameOffset ? path + kShareNameOffset : nullptr;
}

bool ReadPhotoRoot(char (&root)[4096]) {
  memset(root, 0, sizeof root);
  if (readlink(kPhotoRootLink, root, sizeof root - 1) == -1) {
    ORVO_LOG("%s (%d) Failed to read link of %s", kPhotoRootLink);
    return false;
  }
  return true;
}

// Folder test of the directory-only listings: on the file system flagged by
// CheckPhotoShareFs the listing itself cannot be trusted.
bool IsListedFolder(const char* name) {
  return gPhotoShareFsFlag == 0 || IsDirectoryEntry(name);
}

// True the first time this listing of albums meets the folder; false for a
// link to a folder of the photo share, or a folder met under another name.
bool FirstVisitOfFolder(FolderVisits& visits, const char* path) {
  // Deliberate departure: an album or sub-album reached through a link of the share, or a second time, gets no row.
  if (IsLinkWithinShare(visits, path)) return false;
  struct stat64 st;
  return stat64(path, &st) == 0 && FirstVisit(visits, st.st_dev, st.st_ino);
}

}  // namespace

int ORVOPhotoShareDirLevel(const char* path) {
  if (path == nullptr || path[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return 2;
  }
  // The root itself, or anything too short to hold a share name, is no album.
  const char* name = ShareName(path);
  if (name == nullptr) return 2;
  const char* slash = strchr(name, '/');
  if (slash == nullptr) return 0;
  return strchr(slash + 1, '/') == nullptr ? 1 : 2;
}

int ORVOPhotoShareNewIdGet() {
  HandleOwner handle(PhotoInfoDBOpen(kPhotoShare, "*", "shareid > 0", nullptr, "shareid desc", 0, 1));
  if (!handle || handle->rowCount == 0) return 1;
  if (ORVODBFetchRow(handle->result, &handle->row) != 0) return 1;
  const char* id = ORVODBFetchField(handle->result, handle->row, "shareid");
  return id != nullptr ? atoi(id) + 1 : 1;
}

int ORVOPhotoShareUpdatedReset(const char* prefix) {
  std::string statement;
  if (prefix == nullptr) {
    statement = "Update photo_share set updated = '0'";
  } else {
    CText like = QuotedLike(prefix);
    if (!like) return -1;
    statement = Format("Update photo_share set updated = '0' where sharename like '%s/%%'", like.get());
  }
  if (PhotoDBExec(statement.c_str()) == -1) {
    ORVO_LOG("%s (%d) Failed to exec [%s].", statement.c_str());
    return -1;
  }
  return 0;
}

int ORVOPhotoShareUnmarkedDelete(const char* prefix) {
  std::string statement;
  if (prefix == nullptr) {
    statement = "Delete from photo_share where updated = '0'";
  } else {
    CText like = QuotedLike(prefix);
    if (!like) return -1;
    statement = Format("Delete from photo_share where updated = '0' and sharename like '%s/%%'", like.get());
  }
  if (PhotoDBExec(statement.c_str()) == -1) {
    ORVO_LOG("%s (%d) Failed to exec [%s].", statement.c_str());
    return -1;
  }
  return 0;
}

// Always -1, which no caller reads; kept as the routine has always answered.
int ORVOPhotoShareMark(const char* shareName) {
  if (shareName == nullptr) return -1;
  CText quoted = QuoteSql(shareName);
  if (!quoted) return -1;
  std::string condition = Format("sharename = '%s'", quoted.get());

  char root[4096];
  if (!ReadPhotoRoot(root)) return -1;

  HandleOwner handle(PhotoInfoDBOpen(kPhotoShare, "*", condition.c_str(), nullptr, nullptr, 0, 0));
  if (!handle) {
    ORVO_LOG("%s (%d) Error occurred, failed to get records.");
    return -1;
  }
  if (handle->rowCount == 0) {
    std::string path = Format("%s/%s", root, shareName);
    ORVOPhotoShareUpdate(path.c_str(), 1);
    return -1;
  }
  std::string statement = Format("Update photo_share set updated = '1' where sharename = '%s'", quoted.get());
  if (PhotoDBExec(statement.c_str()) == -1) {
    ORVO_LOG("%s (%d) Failed to exec [%s].", statement.c_str());
  }
  return -1;
}

int ORVOPhotoShareGetFieldValue(const char* shareName, const char* column, char* out, size_t outSize) {
  if (shareName == nullptr || column == nullptr || out == nullptr) return -1;
  CText quoted = QuoteSql(shareName);
  if (!quoted) return -1;
  std::string condition = Format("sharename = '%s'", quoted.get());
  HandleOwner handle(PhotoInfoDBOpen(kPhotoShare, "*", condition.c_str(), nullptr, nullptr, 0, 1));
  if (!handle) {
    ORVO_LOG("%s (%d) Error occurred, failed to get records.");
    return -1;
  }
  if (handle->rowCount == 0) return -1;
  if (ORVODBFetchRow(handle->result, &handle->row) == 0) {
    const char* value = ORVODBFetchField(handle->result, handle->row, column);
    snprintf(out, outSize, "%s", value != nullptr ? value : "");
  }
  return 0;
}

int ORVOPhotoShareSubDirUpdatePublic(const char* shareName, const char* value) {
  if (shareName == nullptr || value == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  CText quoted = QuoteSql(shareName);
  if (!quoted) return -1;
  // The value is the album's own flag as the database returned it.
  std::string statement =
      Format("Update photo_share set public = '%s' where sharename = '%s';", value, quoted.get());
  if (PhotoDBExec(statement.c_str()) == -1) {
    ORVO_LOG("%s (%d) Failed to exec [%s]", statement.c_str());
    return -1;
  }
  return 0;
}

int ORVOPhotoShareSubDirPrivilegeAdd(const char* subShareName, const char* albumShareName) {
  if (subShareName == nullptr || albumShareName == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  char shareId[128] = {};
  if (ORVOPhotoShareGetFieldValue(albumShareName, "shareid", shareId, sizeof shareId) != 0) {
    ORVO_LOG("%s (%d) ORVOPhotoShareGetFieldValue failed.");
    return -1;
  }
  CText quotedId = QuoteSql(shareId);
  if (!quotedId) return -1;
  std::string condition = Format("shareid = '%s'", quotedId.get());
  HandleOwner rights(PhotoInfoDBOpen(kPhotoAccessRight, "*", condition.c_str(), nullptr, nullptr, 0, 0));
  if (!rights) {
    ORVO_LOG("%s (%d) Error occurred, failed to get records.");
    return -1;
  }
  if (rights->rowCount == 0) return 0;

  if (ORVOPhotoShareGetFieldValue(subShareName, "shareid", shareId, sizeof shareId) != 0) {
    ORVO_LOG("%s (%d) ORVOPhotoShareGetFieldValue failed.");
    return -1;
  }
  while (ORVODBFetchRow(rights->result, &rights->row) == 0) {
    const char* userId = ORVODBFetchField(rights->result, rights->row, "userid");
    if (userId == nullptr) continue;
    time_t now = time(nullptr);
    struct tm local = {};
    char granted[64] = {};
    // asctime's text, trailing newline included, is what the photo
    // application shows as the grant time.
    if (localtime_r(&now, &local) != nullptr) asctime_r(&local, granted);
    std::string statement =
        Format("Insert into photo_access_right Values (%s, %s, '%s')", userId, shareId, granted);
    if (PhotoDBExec(statement.c_str()) == -1) {
      ORVO_LOG("%s (%d) Failed to exec [%s]", statement.c_str());
      return -1;
    }
  }
  return 0;
}

int ORVOPhotoShareSubDirUpdatePrivilege(const char* subShareName) {
  if (subShareName == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  const char* slash = strchr(subShareName, '/');
  if (slash == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  std::string album(subShareName, static_cast<size_t>(slash - subShareName));

  char isPublic[128] = {};
  if (ORVOPhotoShareGetFieldValue(album.c_str(), "public", isPublic, sizeof isPublic) != 0) {
    ORVO_LOG("%s (%d) ORVOPhotoShareGetFieldValue failed.");
    return -1;
  }
  if (ORVOPhotoShareSubDirUpdatePublic(subShareName, isPublic) != 0) {
    ORVO_LOG("%s (%d) ORVOPhotoShareSubDirUpdatePublic failed.");
    return -1;
  }
  // A public album needs no access rows.
  if (strcmp(isPublic, "t") == 0) return 0;
  if (ORVOPhotoShareSubDirPrivilegeAdd(subShareName, album.c_str()) != 0) {
    ORVO_LOG("%s (%d) ORVOPhotoShareSubDirPrivilegeAdd failed.");
    return -1;
  }
  return 0;
}

int ORVOPhotoShareRenameSubDir(const char* newAlbum, const char* oldAlbum) {
  if (newAlbum == nullptr || oldAlbum == nullptr) return -1;
  CText like = QuotedLike(oldAlbum);
  if (!like) return -1;
  std::string condition = Format("sharename like '%s/%%'", like.get());
  HandleOwner handle(PhotoInfoDBOpen(kPhotoShare, "*", condition.c_str(), nullptr, nullptr, 0, 0));
  if (!handle) {
    ORVO_LOG("%s (%d) Error occurred, failed to get records.");
    return -1;
  }
  size_t oldLength = strlen(oldAlbum);
  while (ORVODBFetchRow(handle->result, &handle->row) == 0) {
    const char* rowName = ORVODBFetchField(handle->result, handle->row, "sharename");
    if (rowName == nullptr || strlen(rowName) < oldLength) continue;
    char newName[4096] = {};
    snprintf(newName, sizeof newName, "%s%s", newAlbum, rowName + oldLength);
    CText quotedNew = QuoteSql(newName);
    if (!quotedNew) return -1;
    CText quotedOld = QuoteSql(rowName);
    if (!quotedOld) return -1;
    std::string statement = Format("Update photo_share set sharename = '%s' where sharename = '%s'",
                                   quotedNew.get(), quotedOld.get());
    if (PhotoDBExec(statement.c_str()) == -1) {
      ORVO_LOG("%s (%d) Failed to exec [%s]", statement.c_str());
      return -1;
    }
  }
  return 0;
}

int ORVOPhotoShareUpdate(const char* path, int operation) {
  if (path == nullptr || path[0] == '\0' || (operation != 1 && operation != 2)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  int level = ORVOPhotoShareDirLevel(path);
  if (level == 2) return 0;

  char shareName[4096] = {};
  snprintf(shareName, sizeof shareName, "%s", ShareName(path));
  CText quoted = QuoteSql(shareName);
  if (!quoted) return -1;
  // Deliberate departure: LIKE-escaped from the quoted name, as elsewhere; from the raw name "x''y" matched "x'y/...".
  CText like = EscapeLike(quoted.get());
  if (!like) return -1;

  std::string statement;
  if (operation == 1) {
    char value[16] = {};
    if (QLIBFileGetKeyValue(kAlbumConfig, "albumdefpublic", value, sizeof value, 0) < 0) {
      // Names another key than the one read; the message is kept as it is.
      ORVO_LOG("%s(%d) Can't get key valude. key=%s", "supportcinedock");
      value[0] = '\0';
    }
    const char* isPublic = strcasecmp(value, "yes") == 0 ? "true" : "false";
    int id = ORVOPhotoShareNewIdGet();
    const char* isSubdir = level == 1 ? "true" : "false";
    statement = Format("Insert into photo_share values(%d, '%s', '', '', '%s', 0, '', 'true', '%s', '1');",
                       id, quoted.get(), isPublic, isSubdir);
  } else {
    statement = Format("Delete from photo_share where sharename = '%s' or sharename like '%s/%%';",
                       quoted.get(), like.get());
  }
  if (PhotoDBExec(statement.c_str()) == -1) {
    ORVO_LOG("%s (%d) Failed to exec [%s]", statement.c_str());
    return -1;
  }
  if (operation == 1 && level == 1 && ORVOPhotoShareSubDirUpdatePrivilege(shareName) != 0) {
    ORVO_LOG("%s (%d) ORVOPhotoShareSubDirUpdatePrivilege Failed.");
    return -1;
  }
  return 0;
}

int ORVOPhotoShareAddTree(const char* path) {
  if (path == nullptr || path[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  int level = ORVOPhotoShareDirLevel(path);
  if (level == 2) return 0;
  ORVOPhotoShareUpdate(path, 1);
  if (level == 1) return 0;

  WorkingFolderRestore restore;
  if (!restore.Save()) {
    ORVO_LOG("%s (%d) Failed to get current directory");
    return -1;
  }
  // Listing the folder we are still in would add another folder's children.
  if (chdir(path) != 0) return 0;
  FolderVisits visits = StartFolderVisits(path);
  GlobOwner folders;
  if (folders.Run("*", GLOB_ONLYDIR)) {
    for (size_t i = 0; i < folders.matches.gl_pathc; ++i) {
      const char* name = folders.matches.gl_pathv[i];
      if (!IsListedFolder(name) || strstr(name, "@eaDir") != nullptr) continue;
      char child[4096] = {};
      snprintf(child, sizeof child, "%s/%s", path, name);
      if (!FirstVisitOfFolder(visits, child)) continue;
      ORVOPhotoShareUpdate(child, 1);
    }
  }
  return 0;
}

int ORVOPhotoShareRename(const char* newPath, const char* oldPath) {
  if (newPath == nullptr || oldPath == nullptr || newPath[0] == '\0' || oldPath[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  int newLevel = ORVOPhotoShareDirLevel(newPath);
  int oldLevel = ORVOPhotoShareDirLevel(oldPath);
  if (newLevel == 2 && oldLevel == 2) return -1;
  const char* newName = ShareName(newPath);
  const char* oldName = ShareName(oldPath);
  if (newName == nullptr || oldName == nullptr) return -1;

  CText quotedNew = QuoteSql(newName);
  if (!quotedNew) return -1;
  CText quotedOld = QuoteSql(oldName);
  if (!quotedOld) return -1;
  const char* isSubdir = strchr(quotedNew.get(), '/') != nullptr ? "t" : "f";
  std::string statement =
      Format("Update photo_share set sharename = '%s', is_subdir = '%s' where sharename = '%s'",
             quotedNew.get(), isSubdir, quotedOld.get());
  int changed = PhotoDBExec(statement.c_str());
  if (changed == -1) {
    ORVO_LOG("%s (%d) Failed to exec [%s]", statement.c_str());
    return -1;
  }
  if (changed == 0 && IsDirExist(newPath)) {
    // The folder was never an album row: build it afresh. Still reported as
    // a failure, deliberately; the queue does not read it.
    CheckPhotoShareFs();
    ORVOPhotoShareAddTree(newPath);
    return -1;
  }
  if (newLevel == 0 && oldLevel == 0) {
    if (ORVOPhotoShareRenameSubDir(newName, oldName) != 0) {
      ORVO_LOG("%s (%d) ORVOPhotoShareRenameSubDir failed.");
      return -1;
    }
  } else if (oldLevel == 0 && newLevel == 1) {
    ORVOPhotoShareUpdate(oldPath, 2);  // the old album's sub-albums go
  } else if (oldLevel == 1 && newLevel == 0) {
    ORVOPhotoShareAddTree(newPath);  // the new album's folders become sub-albums
  }
  return 0;
}

namespace {

// ORVOPhotoShareSync with the photo root read once for the whole sync.
int SyncAlbums(const char* albumPath, const char* root, FolderVisits& visits) {
  if (albumPath != nullptr && ORVOPhotoShareDirLevel(albumPath) != 0) return 0;

  const char* folder = albumPath != nullptr ? albumPath : root;
  if (albumPath == nullptr && ORVOPhotoShareUpdatedReset(nullptr) != 0) {
    ORVO_LOG("%s (%d) Failed to set updated to 0 for all rows.");
    return -1;
  }

  {
    WorkingFolderRestore restore;
    if (!restore.Save()) {
      ORVO_LOG("%s (%d) Failed to get current directory");
      return -1;
    }
    // Without the listing nothing was marked again: sweeping now would
    // empty the album table, so the rows stay marked until the next sync.
    if (chdir(folder) != 0) return albumPath == nullptr ? -1 : 0;
    struct stat64 st;
    if (stat64(".", &st) == 0) FirstVisit(visits, st.st_dev, st.st_ino);  // no album leads back here

    GlobOwner folders;
    if (folders.Run("*", GLOB_ONLYDIR)) {
      for (size_t i = 0; i < folders.matches.gl_pathc; ++i) {
        const char* name = folders.matches.gl_pathv[i];
        if (!IsListedFolder(name) || strstr(name, "@eaDir") != nullptr || strcmp(name, "#recycle") == 0) {
          continue;
        }
        if (!FirstVisitOfFolder(visits, Format("%s/%s", folder, name).c_str())) continue;
        if (albumPath == nullptr) {
          ORVOPhotoShareMark(name);
          SyncAlbums(Format("%s/%s", root, name).c_str(), root, visits);
        } else {
          ORVOPhotoShareMark(Format("%s/%s", ShareName(albumPath), name).c_str());
        }
      }
    }
  }

  if (albumPath == nullptr && ORVOPhotoShareUnmarkedDelete(nullptr) != 0) {
    ORVO_LOG("%s (%d) Failed to delete none updated rows.");
    return -1;
  }
  return 0;
}

}  // namespace

int ORVOPhotoShareSync(const char* albumPath) {
  if (albumPath != nullptr && ORVOPhotoShareDirLevel(albumPath) != 0) return 0;
  char root[4096];
  if (!ReadPhotoRoot(root)) return -1;
  FolderVisits visits = StartFolderVisits(albumPath != nullptr ? albumPath : root);
  return SyncAlbums(albumPath, root, visits);
}
