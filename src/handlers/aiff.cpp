// Placeholder until this format lands: every call fails.
#include "handlers/handlers.h"

int IndexAiff(const char*) { return -1; }
int RemoveAiff(const char*) { return -1; }
