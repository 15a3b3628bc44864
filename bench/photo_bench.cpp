// Photo indexing speed in one process: every picture of a folder through the
// media path (IndexPhoto) and the photo path (ORVOPhotoIndexAdd), side by
// side with the floor (stat, open, read of the first 64 KiB) and with libexif
// alone (load the EXIF block, nothing else).
//
//   photo_bench [folder] [passes]
//
// The folder defaults to the test corpus' pictures; passes to 20. The two
// databases go to a scratch folder unless ORVO_MEDIA_DB / ORVO_PHOTO_DB say
// otherwise. Files per second are printed per mode.

#include <dirent.h>
#include <fcntl.h>
#include <libexif/exif-data.h>
#include <libexif/exif-loader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "handlers/handlers.h"
#include "meta/exif.h"
#include "photo/photo_index.h"
#include "platform/orvodb.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> ListFiles(const std::string& folder) {
  std::vector<std::string> files;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return files;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::string path = folder + "/" + entry->d_name;
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(path);
  }
  closedir(dir);
  return files;
}

void Floor(const std::string& path) {
  static char buffer[65536];
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return;
  if (read(fd, buffer, sizeof buffer) < 0) perror("read");
  close(fd);
}

void LibexifAlone(const std::string& path) {
  ExifLoader* loader = exif_loader_new();
  exif_loader_write_file(loader, path.c_str());
  ExifData* data = exif_loader_get_data(loader);
  exif_loader_unref(loader);
  if (data != nullptr) exif_data_unref(data);
}

void ExifReader(const std::string& path) {
  PhotoInfo info = {};
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  ReadExifInfo(&info);
}

void MediaPath(const std::string& path) { IndexPhoto(path.c_str()); }
void PhotoPath(const std::string& path) { ORVOPhotoIndexAdd(path.c_str(), 1); }

double Run(const char* name, void (*step)(const std::string&), const std::vector<std::string>& files,
           int passes, bool flush) {
  auto start = Clock::now();
  for (int pass = 0; pass < passes; ++pass) {
    for (const std::string& file : files) step(file);
  }
  if (flush) ORVODBFlush();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  double rate = seconds > 0 ? static_cast<double>(files.size()) * passes / seconds : 0;
  printf("%-22s %10.0f files/s  (%zu files x %d passes, %.3f s)\n", name, rate, files.size(), passes, seconds);
  return rate;
}

// The corpus beside the source tree: <tree>/../shared/corpus/pictures.
std::string DefaultFolder() {
  std::string source = __FILE__;
  size_t cut = source.rfind("/bench/");
  std::string tree = cut == std::string::npos ? "." : source.substr(0, cut);
  return tree + "/../shared/corpus/pictures";
}

}  // namespace

int main(int argc, char** argv) {
  std::string folder = argc > 1 ? argv[1] : DefaultFolder();
  int passes = argc > 2 ? atoi(argv[2]) : 20;
  if (passes <= 0) passes = 1;

  char scratch[] = "/tmp/photo_bench.XXXXXX";
  if (mkdtemp(scratch) == nullptr) return 1;
  std::string media = std::string("sqlite:") + scratch + "/mediaserver.db";
  std::string photo = std::string("sqlite:") + scratch + "/photo.db";
  setenv("ORVO_MEDIA_DB", media.c_str(), 0);
  setenv("ORVO_PHOTO_DB", photo.c_str(), 0);

  std::vector<std::string> files = ListFiles(folder);
  if (files.empty()) {
    fprintf(stderr, "no files in %s\n", folder.c_str());
    return 1;
  }
  printf("folder %s\n", folder.c_str());
  // One untimed pass warms the page cache and creates both schemas.
  for (const std::string& file : files) {
    Floor(file);
    MediaPath(file);
    PhotoPath(file);
  }
  ORVODBFlush();

  double floor = Run("floor (stat+open+read)", Floor, files, passes, false);
  double libexif = Run("libexif alone", LibexifAlone, files, passes, false);
  Run("ReadExifInfo", ExifReader, files, passes, false);
  double mediaRate = Run("media path", MediaPath, files, passes, true);
  double photoRate = Run("photo path", PhotoPath, files, passes, true);
  printf("libexif alone / media path: %.2fx   libexif alone / photo path: %.2fx   floor / libexif: %.2fx\n",
         mediaRate > 0 ? libexif / mediaRate : 0, photoRate > 0 ? libexif / photoRate : 0,
         libexif > 0 ? floor / libexif : 0);

  ORVODBCloseAll();
  std::string cleanup = std::string("rm -rf '") + scratch + "'";
  if (system(cleanup.c_str()) != 0) perror("cleanup");
  return 0;
}
