#include "platform/share_paths.h"

#include <strings.h>

#include <cstring>

int IsPhotoSharePath(const char* path) {
  if (path == nullptr || strlen(path) <= 9) return 0;
  // Only the volume's length is fixed ("/volumeN"); its name is not examined.
  if (path[8] != '/' || strncasecmp(path + 9, "photo", 5) != 0) return 0;
  return path[14] == '/' || path[14] == '\0' ? 1 : 0;
}

int IsInRecycleBin(const char* path) {
  if (path == nullptr) return 0;
  // The third '/' starts the component below the share: /volume1/share/#recycle.
  const char* rest = path;
  for (int slashes = 0; slashes < 3; ++slashes) {
    rest = strchr(slashes == 0 ? rest : rest + 1, '/');
    if (rest == nullptr) return 0;
  }
  if (strncmp(rest + 1, "#recycle", 8) != 0) return 0;
  return rest[9] == '\0' || rest[9] == '/' ? 1 : 0;
}
