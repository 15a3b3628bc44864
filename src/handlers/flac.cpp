// Placeholder until this format lands: every call fails.
#include "handlers/handlers.h"

int IndexFlac(const char*) { return -1; }
