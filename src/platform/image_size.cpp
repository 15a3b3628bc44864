// Placeholder until the picture header reader lands.
#include "platform/media_db.h"

int ORVOIndexImgResGet(const char*, int*, int*) { return -1; }
