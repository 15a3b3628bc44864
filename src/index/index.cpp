// Placeholder until the dispatcher lands.
#include "index/index.h"

int IndexFile(const char*, int) { return -1; }
int IndexFolder(const char*, int, int) { return 0; }
int SaveDirectoryInfo(const char*) { return -1; }
int IsInRecycleBin(const char*) { return 0; }
