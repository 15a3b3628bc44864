// MP3 metadata extraction over a folder's MP3s, in one process, side by side
// with the floor (stat + open + first 16 KiB + last 128 bytes + close) and,
// when built with ORVO_BENCH_TAGLIB, TagLib reading tags and audio properties
// of the same files. See bench/README.md.
//
//   mp3_bench <folder> [rounds]
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "meta/metaid3.h"
#include "platform/log.h"

#ifdef ORVO_BENCH_TAGLIB
#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/tag.h>
#endif

namespace {

void FindMp3s(const std::string& dir, std::vector<std::string>* out) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::string path = dir + "/" + e->d_name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      FindMp3s(path, out);
    } else if (path.size() > 4 && strcasecmp(path.c_str() + path.size() - 4, ".mp3") == 0) {
      out->push_back(path);
    }
  }
  closedir(d);
}

// What any reader must at least do: find the file, open it, read its start
// and its last 128 bytes.
long Floor(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return 0;
  static char head[16384];
  char tail[128];
  long n = read(fd, head, sizeof head);
  if (st.st_size >= 128) n += pread(fd, tail, sizeof tail, st.st_size - 128);
  close(fd);
  return n;
}

// The handler's work short of the database: stat, then the MP3 reader.
long Ours(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  MediaInfo rec;
  memset(&rec, 0, sizeof rec);
  if (ReadMp3Info(path.c_str(), &rec) != 0) return 0;
  return static_cast<long>(rec.duration) + rec.bitrate + rec.title[0];
}

#ifdef ORVO_BENCH_TAGLIB
long WithTagLib(const std::string& path) {
  TagLib::FileRef file(path.c_str(), true, TagLib::AudioProperties::Average);
  if (file.isNull() || file.tag() == nullptr) return 0;
  long n = static_cast<long>(file.tag()->title().size() + file.tag()->artist().size() +
                             file.tag()->album().size() + file.tag()->genre().size()) +
           file.tag()->year() + file.tag()->track();
  if (TagLib::AudioProperties* p = file.audioProperties())
    n += p->lengthInMilliseconds() + p->bitrate() + p->sampleRate() + p->channels();
  return n;
}
#endif

void Discard(const char*, void*) {}

struct Method {
  const char* name;
  long (*run)(const std::string&);
  std::vector<double> seconds;
  std::vector<double> cpu_seconds;
};

double CpuNow() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + t.tv_nsec * 1e-9;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s <folder> [rounds]\n", argv[0]);
    return 2;
  }
  int rounds = argc > 2 ? atoi(argv[2]) : 5;
  if (rounds < 1) rounds = 1;
  std::vector<std::string> files;
  FindMp3s(argv[1], &files);
  if (files.empty()) {
    fprintf(stderr, "no .mp3 files under %s\n", argv[1]);
    return 1;
  }
  orvo::SetLogCapture(Discard, nullptr);

  std::vector<Method> methods = {{"floor", Floor, {}, {}}, {"orvo", Ours, {}, {}}};
#ifdef ORVO_BENCH_TAGLIB
  methods.push_back({"taglib", WithTagLib, {}, {}});
#endif

  // One warm-up pass each, then the rounds with the methods interleaved so
  // that all of them see the same cache state.
  long sink = 0;
  for (Method& m : methods)
    for (const std::string& f : files) sink += m.run(f);
  for (int r = 0; r < rounds; ++r) {
    for (Method& m : methods) {
      auto start = std::chrono::steady_clock::now();
      double cpu_start = CpuNow();
      for (const std::string& f : files) sink += m.run(f);
      m.cpu_seconds.push_back(CpuNow() - cpu_start);
      m.seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
  }

  // Wall time counts waits for a shared machine; CPU time (user + system)
  // is the steadier cost figure.
  printf("%zu files, %d rounds, medians per round (warm cache)\n", files.size(), rounds);
  printf("%-8s %12s %12s %12s %10s\n", "method", "files/s", "wall us/f", "cpu us/f", "cpu/floor");
  double floor_cpu = 0;
  for (Method& m : methods) {
    std::sort(m.seconds.begin(), m.seconds.end());
    std::sort(m.cpu_seconds.begin(), m.cpu_seconds.end());
    double wall = m.seconds[m.seconds.size() / 2];
    double cpu_us = m.cpu_seconds[m.cpu_seconds.size() / 2] / files.size() * 1e6;
    if (floor_cpu == 0) floor_cpu = cpu_us;
    printf("%-8s %12.0f %12.1f %12.1f %9.2fx\n", m.name, files.size() / wall, wall / files.size() * 1e6, cpu_us,
           cpu_us / floor_cpu);
  }
  return sink == 42 ? 3 : 0;  // keeps the work from being optimised away
}
