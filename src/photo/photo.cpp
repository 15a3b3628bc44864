// Placeholder until this format lands: every call fails.
#include "handlers/handlers.h"

int IndexPhoto(const char*) { return -1; }
int RemovePhoto(const char*) { return -1; }
