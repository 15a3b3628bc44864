// Placeholder until this format lands: every call fails.
#include "handlers/handlers.h"

int IndexPlaylist(const char*) { return -1; }
int RemovePlaylist(const char*) { return -1; }
