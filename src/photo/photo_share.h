// The album table of the photo application (photo_share) and the access
// rights of private albums (photo_access_right), kept in step with the
// folders under the photo share.
#pragma once

#include <cstddef>

int ORVOPhotoShareDirLevel(const char* path);
int ORVOPhotoShareNewIdGet();
int ORVOPhotoShareUpdatedReset(const char* prefix);
int ORVOPhotoShareMark(const char* shareName);
int ORVOPhotoShareUnmarkedDelete(const char* prefix);
int ORVOPhotoShareGetFieldValue(const char* shareName, const char* column, char* out, size_t outSize);
int ORVOPhotoShareSubDirUpdatePublic(const char* shareName, const char* value);
int ORVOPhotoShareSubDirPrivilegeAdd(const char* subShareName, const char* albumShareName);
int ORVOPhotoShareSubDirUpdatePrivilege(const char* subShareName);
int ORVOPhotoShareRenameSubDir(const char* newAlbum, const char* oldAlbum);
int ORVOPhotoShareRename(const char* newPath, const char* oldPath);
int ORVOPhotoShareUpdate(const char* path, int operation);
int ORVOPhotoShareAddTree(const char* path);
int ORVOPhotoShareSync(const char* albumPath);
