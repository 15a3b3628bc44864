// Placeholder until this format lands: every call fails.
#include "handlers/handlers.h"

int IndexMp4(const char*) { return -1; }
int RemoveMp4(const char*) { return -1; }
