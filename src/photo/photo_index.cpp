// Placeholder until the photo database upkeep lands: every call fails.
#include "photo/photo_index.h"

int gPhotoShareFsFlag = 0;

int ORVOPhotoIndexAdd(const char*, int) { return -1; }
int ORVOPhotoIndexRemove(const char*) { return -1; }
int SanitizePhotoInfo(PhotoInfo*) { return -1; }
int HasNonPrintable(const char*) { return 0; }
int ORVOPhotoIndexUpdate(const char*, int) { return -1; }
int ORVOPhotoRenamePath(const char*, const char*, int) { return -1; }
int ORVOVideoRenamePath(int, const char*, const char*) { return -1; }
int ORVOPhotoReconcileDir(const char*, char**) { return -1; }
int ORVOPhotoSweep(const char*) { return -1; }
void CheckPhotoShareFs() {}
