// Placeholder until this format lands: every call fails.
#include "handlers/handlers.h"

int IndexMp3(const char*) { return -1; }
int RemoveMp3(const char*) { return -1; }
