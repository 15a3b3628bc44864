// Extraction rate per format, in one process: our reader (the handler's
// record fill, without the database), the floor (open, stat, read the first
// 16 KiB, close) and the library alone on the same files.
//
//   formats_bench [copies-per-format] [scratch-folder]
//
// The files are made with ffmpeg into the scratch folder (default: a new
// folder under /tmp, removed afterwards) and copied; every pass reads them
// warm from the page cache, so the figures compare CPU work, not the disk.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <FLAC/metadata.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "handlers/formats.h"
#include "meta/metamedia.h"
#include "platform/log.h"
#include "platform/media_info.h"

namespace fs = std::filesystem;

namespace {

void Discard(const char*, void*) {}

bool Ffmpeg(const std::string& args, const std::string& out) {
  std::string cmd = "ffmpeg -nostdin -loglevel error -y " + args + " '" + out + "' >/dev/null 2>&1";
  return system(cmd.c_str()) == 0;
}

int Floor(const char* path) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) return -1;
  struct stat st;
  fstat(fd, &st);
  static char buf[16384];
  ssize_t n = read(fd, buf, sizeof buf);
  close(fd);
  return n > 0 ? 0 : -1;
}

int LibavProbe(const char* path) {
  LoadAv();
  AVFormatContext* ctx = nullptr;
  if (avformat_open_input(&ctx, path, nullptr, nullptr) < 0) return -1;
  int rc = avformat_find_stream_info(ctx, nullptr);
  avformat_close_input(&ctx);
  return rc < 0 ? -1 : 0;
}

int LibavMov(const char* path) {
  LoadAv();
  AVFormatContext* ctx = nullptr;
  if (avformat_open_input(&ctx, path, av_find_input_format("mov"), nullptr) < 0) return -1;
  avformat_close_input(&ctx);
  return 0;
}

int LibFlac(const char* path) {
  FLAC__StreamMetadata info;
  if (!FLAC__metadata_get_streaminfo(path, &info)) return -1;
  FLAC__StreamMetadata* tags = nullptr;
  if (FLAC__metadata_get_tags(path, &tags)) FLAC__metadata_object_delete(tags);
  return 0;
}

double Rate(const std::vector<std::string>& files, const std::function<int(const char*)>& fn) {
  for (const auto& f : files) fn(f.c_str());  // warm-up pass
  auto start = std::chrono::steady_clock::now();
  int passes = 0;
  double elapsed = 0;
  do {
    for (const auto& f : files) fn(f.c_str());
    ++passes;
    elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  } while (elapsed < 0.5);
  return passes * files.size() / elapsed;
}

// The best of three interleaved rounds, so that a busy machine disturbs the
// three columns alike.
void Measure(const std::vector<std::string>& files, const std::vector<std::function<int(const char*)>>& fns,
             double* best) {
  for (int round = 0; round < 3; ++round) {
    for (size_t i = 0; i < fns.size(); ++i) best[i] = std::max(best[i], Rate(files, fns[i]));
  }
}

struct Format {
  const char* name;
  std::string make;  // ffmpeg arguments
  const char* ext;
  std::function<int(const char*)> ours;
  std::function<int(const char*)> library;
  const char* library_name;
};

}  // namespace

int main(int argc, char** argv) {
  int copies = argc > 1 ? atoi(argv[1]) : 100;
  bool own_dir = argc <= 2;
  std::string dir = own_dir ? "" : argv[2];
  if (own_dir) {
    char tmpl[] = "/tmp/orvo-formats-bench-XXXXXX";
    dir = mkdtemp(tmpl);
  }
  orvo::SetLogCapture(Discard, nullptr);
  LoadAv();

  const std::string audio = "-f lavfi -i sine=sample_rate=44100:duration=30 -ac 2 ";
  const std::string video = "-f lavfi -i testsrc=duration=30:size=352x240:rate=30000/1001 ";
  MediaInfo scratch;
  auto fill = [&](int (*f)(const char*, MediaInfo*)) {
    return [f, &scratch](const char* p) { return f(p, &scratch); };
  };
  std::vector<Format> formats = {
      {"FLAC", audio + "-c:a flac -metadata TITLE=T -metadata ARTIST=A", "flac", fill(FillFlacRecord), LibFlac,
       "libFLAC metadata"},
      {"AIFF", audio + "-c:a pcm_s16be", "aiff", fill(FillAiffRecord), LibavProbe, "libavformat probe"},
      {"M4A", audio + "-c:a aac -metadata title=T -metadata album=A", "m4a", fill(FillMp4Record), LibavMov,
       "libavformat MOV open"},
      {"OGG", audio + "-c:a libvorbis -metadata title=T", "ogg",
       [&](const char* p) { return FillMediaRecord(p, 0, &scratch); }, LibavProbe, "libavformat probe"},
      {"WAV", audio + "-c:a pcm_s16le", "wav", [&](const char* p) { return FillMediaRecord(p, 0, &scratch); },
       LibavProbe, "libavformat probe"},
      {"MPEG video (VCD .dat)", video + audio + "-target ntsc-vcd -f vcd", "dat", fill(FillVcdRecord), LibavProbe,
       "libavformat probe"},
      {"generic video (AVI)", video + audio + "-c:v mpeg4 -c:a mp2 -f avi", "avi",
       [&](const char* p) { return FillMediaRecord(p, 1, &scratch); }, LibavProbe, "libavformat probe"},
  };

  printf("%d copies per format, warm cache, files/s (higher is better)\n\n", copies);
  printf("| format | ours | floor | library alone | library |\n|---|---:|---:|---:|---|\n");
  for (const Format& f : formats) {
    std::string first = dir + "/0." + f.ext;
    if (!Ffmpeg(f.make, first)) {
      fprintf(stderr, "ffmpeg could not make %s\n", first.c_str());
      continue;
    }
    std::vector<std::string> files = {first};
    for (int i = 1; i < copies; ++i) {
      std::string p = dir + "/" + std::to_string(i) + "." + f.ext;
      fs::copy_file(first, p, fs::copy_options::overwrite_existing);
      files.push_back(p);
    }
    double best[3] = {0, 0, 0};
    Measure(files, {f.ours, Floor, f.library}, best);
    printf("| %s | %.0f | %.0f | %.0f | %s |\n", f.name, best[0], best[1], best[2], f.library_name);
    fflush(stdout);
  }
  if (own_dir) fs::remove_all(dir);
  return 0;
}
