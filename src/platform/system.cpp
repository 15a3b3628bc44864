// Placeholder until the system services land.
#include "platform/system.h"

int QLIBFileGetKeyValue(const char*, const char*, char*, int, int) { return -1; }
int QLIBReadPidFile(const char*) { return 0; }
void QLIBCopyright() {}
int IsFileExist(const char*, int64_t*) { return 0; }
int IsDirExist(const char*) { return 0; }
int QLIBSignalThumbCreate(const char*, int) { return -1; }
