// Placeholder until this format lands: every call fails.
#include "handlers/handlers.h"

int IndexAudio(const char*) { return -1; }
int RemoveAudio(const char*) { return -1; }
int IndexVideo(const char*) { return -1; }
int RemoveVideo(const char*) { return -1; }
