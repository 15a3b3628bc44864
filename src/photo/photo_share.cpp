// Placeholder until the album table lands: every call fails.
#include "photo/photo_share.h"

int ORVOPhotoShareDirLevel(const char*) { return 2; }
int ORVOPhotoShareNewIdGet() { return 1; }
int ORVOPhotoShareUpdatedReset(const char*) { return -1; }
int ORVOPhotoShareMark(const char*) { return -1; }
int ORVOPhotoShareUnmarkedDelete(const char*) { return -1; }
int ORVOPhotoShareGetFieldValue(const char*, const char*, char*, size_t) { return -1; }
int ORVOPhotoShareSubDirUpdatePublic(const char*, const char*) { return -1; }
int ORVOPhotoShareSubDirPrivilegeAdd(const char*, const char*) { return -1; }
int ORVOPhotoShareSubDirUpdatePrivilege(const char*) { return -1; }
int ORVOPhotoShareRenameSubDir(const char*, const char*) { return -1; }
int ORVOPhotoShareRename(const char*, const char*) { return -1; }
int ORVOPhotoShareUpdate(const char*, int) { return -1; }
int ORVOPhotoShareAddTree(const char*) { return -1; }
int ORVOPhotoShareSync(const char*) { return -1; }
