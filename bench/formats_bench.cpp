// Extraction rate per format, in one process: our reader (the handler's
// record fill, without the database), the floor (open, stat, read the first
// 16 KiB, close) and the library alone on the same files. Then, for the
// formats read by the generic probe, what the probe helper's round trip adds:
// the median time per file of the probe run here and run through the helper.
//
//   formats_bench [copies-per-format] [scratch-folder]
//
// The files are made with ffmpeg into the scratch folder (default: a new
// folder under /tmp, removed afterwards) and copied; every pass reads them
// warm from the page cache, so the figures compare CPU work, not the disk.
#include <fcntl.h>
#include <stdlib.h>
#include <time.h>
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
#include "meta/probe_helper.h"
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

double NowUs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

// The probe in this process, opened as ReadMediaInfo opens it.
int ProbeHere(const char* path, MediaInfo* info) {
  int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  int rc = ProbeDescriptor(fd, path, info, ProbeMode::kTuned);
  close(fd);
  return rc;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// CPU time so far of this process plus the probe helper, in microseconds.
double CpuUs() {
  auto us = [](clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
  };
  clockid_t helper;
  pid_t pid = ProbeHelperPid();
  double total = us(CLOCK_PROCESS_CPUTIME_ID);
  if (pid > 0 && clock_getcpuclockid(pid, &helper) == 0) total += us(helper);
  return total;
}

struct ProbeCost {
  double wall_here, wall_helper;  // median us per file
  double cpu_here, cpu_helper;    // median us per file, this process and the helper together
};

// The probe here and through the helper, taken in turns file by file (the
// order swapped every round) so that a busy machine weighs on both alike.
// Wall time on a busy machine also holds the helper's wait for a processor
// once it is woken; CPU time is what the round trip itself costs.
ProbeCost ProbeCosts(const std::vector<std::string>& files, int rounds) {
  MediaInfo info;
  std::vector<double> wall[2], cpu[2];
  for (int round = 0; round < rounds; ++round) {
    for (const auto& f : files) {
      for (int turn = 0; turn < 2; ++turn) {
        int inHelper = (turn + round) % 2;
        memset(&info, 0, sizeof info);
        double cpuStart = CpuUs();
        double start = NowUs();
        if (inHelper) {
          ReadMediaInfo(f.c_str(), &info);
        } else {
          ProbeHere(f.c_str(), &info);
        }
        wall[inHelper].push_back(NowUs() - start);
        cpu[inHelper].push_back(CpuUs() - cpuStart);
      }
    }
  }
  return {Median(wall[0]), Median(wall[1]), Median(cpu[0]), Median(cpu[1])};
}

struct Format {
  const char* name;
  std::string make;  // ffmpeg arguments
  const char* ext;
  std::function<int(const char*)> ours;
  std::function<int(const char*)> library;
  const char* library_name;
  bool generic = false;  // read by the generic probe
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
  // The helper's start (fork, libavformat loaded, confinement) and its first
  // reply, before this process has loaded the library itself.
  std::string empty = dir + "/empty.wav";
  fclose(fopen(empty.c_str(), "w"));
  MediaInfo first;
  double startUs = NowUs();
  ReadMediaInfo(empty.c_str(), &first);
  double helperStartUs = NowUs() - startUs;
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
       [&](const char* p) { return FillMediaRecord(p, 0, &scratch); }, LibavProbe, "libavformat probe", true},
      {"WAV", audio + "-c:a pcm_s16le", "wav", [&](const char* p) { return FillMediaRecord(p, 0, &scratch); },
       LibavProbe, "libavformat probe", true},
      {"MPEG video (VCD .dat)", video + audio + "-target ntsc-vcd -f vcd", "dat", fill(FillVcdRecord), LibavProbe,
       "libavformat probe"},
      {"generic video (AVI)", video + audio + "-c:v mpeg4 -c:a mp2 -f avi", "avi",
       [&](const char* p) { return FillMediaRecord(p, 1, &scratch); }, LibavProbe, "libavformat probe", true},
  };

  constexpr int kRounds = 3;
  std::vector<std::pair<std::string, std::vector<std::string>>> generic;
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
    if (f.generic) generic.emplace_back(f.name, files);
  }

  printf("\nThe generic probe here and through the probe helper, median us per file (%d rounds)\n\n", kRounds);
  printf("| input | wall: here | wall: helper | wall: difference | CPU: here | CPU: helper | CPU: difference | "
         "CPU difference / probe |\n|---|---:|---:|---:|---:|---:|---:|---:|\n");
  generic.emplace_back("empty file (the round trip alone)", std::vector<std::string>(copies, empty));
  for (const auto& [name, files] : generic) {
    ProbeCost c = ProbeCosts(files, kRounds);
    printf("| %s | %.1f | %.1f | %.1f | %.1f | %.1f | %.1f | %.1f %% |\n", name.c_str(), c.wall_here, c.wall_helper,
           c.wall_helper - c.wall_here, c.cpu_here, c.cpu_helper, c.cpu_helper - c.cpu_here,
           100 * (c.cpu_helper - c.cpu_here) / c.cpu_here);
    fflush(stdout);
  }
  printf("\nhelper start and first reply: %.0f us (once per daemon)\n", helperStartUs);
  if (own_dir) fs::remove_all(dir);
  return 0;
}
