// Placeholder until the photo database lands.
#include "platform/photo_db.h"

PhotoDBHandle* PhotoInfoDBOpen(int, const char*, const char*, const char*, const char*, int, int) { return nullptr; }
void PhotoInfoDBClose(PhotoDBHandle*) {}
PhotoPathNode* PhotoPathDBGet(PhotoDBHandle*) { return nullptr; }
void FreePhotoPathList(PhotoPathNode*) {}
int ORVOUpdatePhotoPath(const PhotoPathNode*, const char*, const char*) { return -1; }
int PhotoInfoDBSave(const PhotoInfo*, int) { return -1; }
int PhotoInfoDBDelete(const char*) { return -1; }
int PhotoInfoDBDirDelete(const char*) { return -1; }
int ORVOIndexPhotoUpdateVideoStatus(const char*) { return -1; }
int ORVOPhotoInitAllRows() { return -1; }
int ORVOPhotoDeleteNoUpdateRows() { return -1; }
int PhotoDBExec(const char*) { return -1; }
int PhotoDBVacuum() { return -1; }
