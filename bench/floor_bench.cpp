// The raw floor under any indexer: walk the tree, stat every entry, open
// every file, read its first 16 KiB and its last 128 bytes (where the tags
// of most formats live), close it. Nothing an indexer does per file can be
// cheaper, so its files/s is the ceiling to compare a full re-index with.
//
// It also times the picture size reader on every picture of the tree, next
// to the floor for the same pictures and to FFmpeg opening the picture and
// finding its stream parameters (which decodes it), the library way of
// getting the same two numbers.
//
//   floor_bench DIR [ROUNDS]      (ROUNDS of each measurement, default 3)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "platform/media_db.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Tally {
  long files = 0;
  long dirs = 0;
  long long bytes = 0;
};

bool IsPicture(const std::string& path) {
  size_t dot = path.rfind('.');
  if (dot == std::string::npos) return false;
  std::string ext = path.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  static const char* kExtensions[] = {"jpg", "jpeg", "jpe", "png", "gif", "bmp",
                                      "ico", "tif", "tiff", "psd", "ufo"};
  for (const char* e : kExtensions)
    if (ext == e) return true;
  return false;
}

// What a reader must do at least: open, read the head and the tail, close.
long long ReadHeadAndTail(const char* path, long long size) {
  static char buffer[16384];
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  long long got = 0;
  ssize_t n = read(fd, buffer, sizeof buffer);
  if (n > 0) got += n;
  if (size > static_cast<long long>(sizeof buffer) + 128) {
    n = pread(fd, buffer, 128, size - 128);
    if (n > 0) got += n;
  }
  close(fd);
  return got;
}

void Walk(const std::string& dir, Tally& tally, std::vector<std::string>* pictures) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  ++tally.dirs;
  while (dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    std::string path = dir + "/" + e->d_name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      Walk(path, tally, pictures);
    } else if (S_ISREG(st.st_mode)) {
      ++tally.files;
      tally.bytes += ReadHeadAndTail(path.c_str(), st.st_size);
      if (pictures != nullptr && IsPicture(path)) pictures->push_back(path);
    }
  }
  closedir(d);
}

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// FFmpeg's way to the size: open the picture and find its stream
// parameters (the image demuxers decode the picture for that).
bool FfmpegSize(const char* path, int* width, int* height) {
  AVFormatContext* ctx = nullptr;
  if (avformat_open_input(&ctx, path, nullptr, nullptr) != 0) return false;
  bool ok = avformat_find_stream_info(ctx, nullptr) >= 0 && ctx->nb_streams > 0;
  if (ok) {
    *width = ctx->streams[0]->codecpar->width;
    *height = ctx->streams[0]->codecpar->height;
  }
  avformat_close_input(&ctx);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    fprintf(stderr, "usage: %s DIR [ROUNDS]\n", argv[0]);
    return 2;
  }
  std::string root = argv[1];
  int rounds = argc == 3 ? std::max(1, atoi(argv[2])) : 3;
  av_log_set_level(AV_LOG_QUIET);

  // A first walk warms the page cache, so every round measures the same
  // thing: system calls and copies, not the disk.
  std::vector<std::string> pictures;
  Tally warm;
  Walk(root, warm, &pictures);
  if (warm.files == 0) {
    fprintf(stderr, "no files under %s\n", root.c_str());
    return 1;
  }

  std::vector<double> floorRounds;
  Tally tally;
  for (int r = 0; r < rounds; ++r) {
    tally = Tally{};
    auto start = Clock::now();
    Walk(root, tally, nullptr);
    floorRounds.push_back(Seconds(start));
  }
  double floor = Median(floorRounds);
  printf("floor: %ld files in %ld folders, %.1f MiB read, median of %d rounds %.3f s\n", tally.files,
         tally.dirs, tally.bytes / 1048576.0, rounds, floor);
  printf("floor: %.1f us/file, %.0f files/s (walk + stat + open + 16 KiB head + 128 B tail)\n",
         floor * 1e6 / tally.files, tally.files / floor);

  if (pictures.empty()) return 0;
  long n = static_cast<long>(pictures.size());
  std::vector<double> headRounds, sizeRounds, ffRounds;
  long sized = 0, ffSized = 0, disagree = 0;
  for (int r = 0; r < rounds; ++r) {
    auto start = Clock::now();
    for (const auto& p : pictures) {
      struct stat st;
      if (stat(p.c_str(), &st) == 0) ReadHeadAndTail(p.c_str(), st.st_size);
    }
    headRounds.push_back(Seconds(start));

    start = Clock::now();
    sized = 0;
    for (const auto& p : pictures) {
      int w = 0, h = 0;
      if (ORVOIndexImgResGet(p.c_str(), &w, &h) == 0) ++sized;
    }
    sizeRounds.push_back(Seconds(start));

    start = Clock::now();
    ffSized = 0;
    for (const auto& p : pictures) {
      int w = 0, h = 0;
      if (FfmpegSize(p.c_str(), &w, &h)) ++ffSized;
    }
    ffRounds.push_back(Seconds(start));
  }
  for (const auto& p : pictures) {
    int w1 = 0, h1 = 0, w2 = 0, h2 = 0;
    bool a = ORVOIndexImgResGet(p.c_str(), &w1, &h1) == 0, b = FfmpegSize(p.c_str(), &w2, &h2);
    if (a && b && (w1 != w2 || h1 != h2)) {
      ++disagree;
      fprintf(stderr, "sizes differ: %s ours %dx%d ffmpeg %dx%d\n", p.c_str(), w1, h1, w2, h2);
    }
  }
  printf("pictures: %ld files\n", n);
  printf("  stat + open + head + tail  %8.1f us/file\n", Median(headRounds) * 1e6 / n);
  printf("  ORVOIndexImgResGet         %8.1f us/file (%ld sized)\n", Median(sizeRounds) * 1e6 / n, sized);
  printf("  FFmpeg open + stream info  %8.1f us/file (%ld sized, %ld disagree)\n",
         Median(ffRounds) * 1e6 / n, ffSized, disagree);
  return 0;
}
