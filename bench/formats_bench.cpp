// Extraction rate per format, in one process: our reader (the handler's
// record fill, without the database), the floor (open, stat, read the first
// 16 KiB, close) and the library alone on the same files, with the bytes
// each of them asks the kernel for per file.
//
//   formats_bench [copies-per-format] [scratch-folder] [--cold] [--only NAME] [--ours-only]
//
// The files are made with ffmpeg into the scratch folder (default: a new
// folder under /tmp, removed afterwards); files already in a given folder
// are used as they are, so two builds can be timed on the same files. Every
// timed pass reads them warm from the page cache and is timed in CPU
// seconds (user and system) of this process, so the rates compare CPU work,
// not the disk, and hold up better on a busy machine than elapsed time. --cold (root only, and only meaningful on an otherwise
// idle machine) adds one pass per column after dropping the page cache and
// reports its rate and the bytes read from the disk.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <FLAC/metadata.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "handlers/formats.h"
#include "helper_cpu.h"
#include "meta/exif.h"
#include "meta/metaid3.h"
#include "meta/metamedia.h"
#include "meta/probe_helper.h"
#include "platform/media_db.h"
#include "platform/log.h"
#include "platform/media_info.h"
#include "platform/photo_info.h"

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

// A counter of /proc/PID/io: "rchar" is every byte read() returned, page
// cache or not; "read_bytes" what had to come from the disk.
long long ProcIoOf(const std::string& file, const char* key) {
  std::ifstream io(file);
  std::string name;
  long long value = 0;
  while (io >> name >> value)
    if (name == std::string(key) + ":") return value;
  return 0;
}

// This process's counter plus the probe helper's, which reads the files the
// generic probe is given.
long long ProcIo(const char* key) {
  long long total = ProcIoOf("/proc/self/io", key);
  pid_t pid = ProbeHelperPid();
  if (pid > 0) total += ProcIoOf("/proc/" + std::to_string(pid) + "/io", key);
  return total;
}

// Bytes of the file that are in the page cache: after a cold pass, what the
// pass made the disk read of the file itself (read-ahead included), apart
// from the libraries and the program that were loaded.
long long ResidentBytes(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  struct stat st;
  long long resident = 0;
  if (fstat(fd, &st) == 0 && st.st_size > 0) {
    void* map = mmap(nullptr, st.st_size, PROT_READ, MAP_SHARED, fd, 0);
    if (map != MAP_FAILED) {
      const long page = sysconf(_SC_PAGESIZE);
      std::vector<unsigned char> pages((st.st_size + page - 1) / page);
      if (mincore(map, st.st_size, pages.data()) == 0)
        for (unsigned char p : pages) resident += (p & 1) ? page : 0;
      munmap(map, st.st_size);
    }
  }
  close(fd);
  return resident;
}

// One pass over the files: the CPU seconds it took (user and system, the
// probe helper's included), or with `wall` the elapsed seconds.
double Pass(const std::vector<std::string>& files, const std::function<int(const char*)>& fn, bool wall = false) {
  double start = wall ? ClockSeconds(CLOCK_MONOTONIC) : ProcessAndHelperCpuSeconds();
  for (const auto& f : files) fn(f.c_str());
  return (wall ? ClockSeconds(CLOCK_MONOTONIC) : ProcessAndHelperCpuSeconds()) - start;
}

double Rate(const std::vector<std::string>& files, const std::function<int(const char*)>& fn) {
  Pass(files, fn);  // warm-up pass
  int passes = 0;
  double elapsed = 0;
  do {
    elapsed += Pass(files, fn);
    ++passes;
  } while (elapsed < 0.3);
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

// Bytes per file that one warm pass asks the kernel for.
double BytesPerFile(const std::vector<std::string>& files, const std::function<int(const char*)>& fn) {
  long long before = ProcIo("rchar");
  Pass(files, fn);
  return static_cast<double>(ProcIo("rchar") - before) / files.size();
}

bool DropCaches() {
  sync();
  std::ofstream drop("/proc/sys/vm/drop_caches");
  drop << "3" << std::endl;
  return static_cast<bool>(drop);
}

// Read requests the machine's disks have completed (whole devices only, from
// /proc/diskstats): counts every process's, so only meaningful when nothing
// else reads from the disk meanwhile.
long long DiskReadRequests() {
  std::ifstream stats("/proc/diskstats");
  std::string line;
  long long total = 0;
  while (std::getline(stats, line)) {
    char name[64];
    long long major, minor, reads;
    if (sscanf(line.c_str(), "%lld %lld %63s %lld", &major, &minor, name, &reads) != 4) continue;
    if (fs::exists(std::string("/sys/block/") + name + "/device")) total += reads;
  }
  return total;
}

// One pass after the page cache was dropped: files/s, disk bytes per file,
// of those the bytes of the files themselves, and disk read requests per file.
bool ColdPass(const std::vector<std::string>& files, const std::function<int(const char*)>& fn, double* rate,
              double* bytes, double* file_bytes, double* requests) {
  if (!DropCaches()) return false;
  long long before = ProcIo("read_bytes");
  long long requests_before = DiskReadRequests();
  *rate = files.size() / Pass(files, fn, true);
  *bytes = static_cast<double>(ProcIo("read_bytes") - before) / files.size();
  *requests = static_cast<double>(DiskReadRequests() - requests_before) / files.size();
  long long resident = 0;
  for (const auto& f : files) resident += ResidentBytes(f);
  *file_bytes = static_cast<double>(resident) / files.size();
  return true;
}

struct Format {
  const char* name;
  std::string make;  // ffmpeg arguments
  const char* ext;
  std::function<int(const char*)> ours;
  std::function<int(const char*)> library;
  const char* library_name;
  std::string after = {};  // a shell command run on the made file, {} its path
};

std::string Kib(double bytes) {
  char text[32];
  snprintf(text, sizeof text, "%.1f", bytes / 1024);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  int copies = 100;
  std::string dir, only;
  bool cold = false;
  bool ours_only = false;  // leave out the floor and library columns
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--cold") {
      cold = true;
    } else if (arg == "--ours-only") {
      ours_only = true;
    } else if (arg == "--only" && i + 1 < argc) {
      only = argv[++i];
    } else {
      positional.push_back(arg);
    }
  }
  if (!positional.empty()) copies = std::max(1, atoi(positional[0].c_str()));
  if (positional.size() > 1) dir = positional[1];
  bool own_dir = dir.empty();
  if (own_dir) {
    char tmpl[] = "/tmp/orvo-formats-bench-XXXXXX";
    dir = mkdtemp(tmpl);
  }
  if (cold && geteuid() != 0) {
    fprintf(stderr, "--cold needs root to drop the page cache; left out\n");
    cold = false;
  }
  orvo::SetLogCapture(Discard, nullptr);
  LoadAv();

  const std::string audio = "-f lavfi -i sine=sample_rate=44100:duration=30 -ac 2 ";
  const std::string video = "-f lavfi -i testsrc=duration=30:size=352x240:rate=30000/1001 ";
  MediaInfo scratch;
  auto fill = [&](int (*f)(const char*, MediaInfo*)) {
    return [f, &scratch](const char* p) { return f(p, &scratch); };
  };
  auto mp3 = [&scratch](const char* p) {
    scratch = MediaInfo{};
    return ReadMp3Info(p, &scratch);
  };
  // What the photo indexer reads of a JPEG: the EXIF block, then the size.
  auto picture = [](const char* p) {
    PhotoInfo photo = {};
    snprintf(photo.path, sizeof photo.path, "%s", p);
    ReadExifInfo(&photo);
    int width = 0, height = 0;
    return ORVOIndexImgResGet(p, &width, &height);
  };
  auto generic = [&](int type) { return [type, &scratch](const char* p) { return FillMediaRecord(p, type, &scratch); }; };
  std::vector<Format> formats = {
      {"MP3 (ID3v2 and v1)", audio + "-c:a libmp3lame -b:a 192k -id3v2_version 3 -write_id3v1 1 -metadata title=T "
       "-metadata artist=A", "mp3", mp3, LibavProbe, "libavformat probe"},
      {"JPEG (EXIF)", video + "-frames:v 1 -vf scale=2048:1536 -q:v 3", "jpg", picture, LibavProbe,
       "libavformat probe",
       "exiftool -q -overwrite_original -Make=Cam -Model=M1 -ISO=200 -DateTimeOriginal='2020:01:02 03:04:05' {}"},
      {"FLAC", audio + "-c:a flac -metadata TITLE=T -metadata ARTIST=A", "flac", fill(FillFlacRecord), LibFlac,
       "libFLAC metadata"},
      {"AIFF", audio + "-c:a pcm_s16be", "aiff", fill(FillAiffRecord), LibavProbe, "libavformat probe"},
      {"M4A", audio + "-c:a aac -metadata title=T -metadata album=A", "m4a", fill(FillMp4Record), LibavMov,
       "libavformat MOV open"},
      {"OGG", audio + "-c:a libvorbis -metadata title=T", "ogg", generic(0), LibavProbe, "libavformat probe"},
      {"WAV", audio + "-c:a pcm_s16le", "wav", generic(0), LibavProbe, "libavformat probe"},
      {"WMA", audio + "-c:a wmav2 -b:a 128k -metadata title=T", "wma", generic(0), LibavProbe, "libavformat probe"},
      {"MP2", audio + "-c:a mp2 -b:a 192k", "mp2", generic(0), LibavProbe, "libavformat probe"},
      {"AC-3", audio + "-c:a ac3 -b:a 192k", "ac3", generic(0), LibavProbe, "libavformat probe"},
      {"MPEG video (VCD .dat)", video + audio + "-target ntsc-vcd -f vcd", "dat", fill(FillVcdRecord), LibavProbe,
       "libavformat probe"},
      {"MPEG-PS (.mpg)", video + audio + "-c:v mpeg1video -c:a mp2 -f mpeg", "mpg", generic(1), LibavProbe,
       "libavformat probe"},
      {"DVD (.vob)", video + audio + "-c:v mpeg2video -c:a ac3 -f vob", "vob", generic(1), LibavProbe,
       "libavformat probe"},
      {"generic video (AVI)", video + audio + "-c:v mpeg4 -c:a mp2 -f avi", "avi", generic(1), LibavProbe,
       "libavformat probe"},
      {"MP4 (H.264, AAC)", video + audio + "-c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac", "mp4",
       generic(1), LibavProbe, "libavformat probe"},
      {"MOV (MPEG-4, AAC)", video + audio + "-c:v mpeg4 -c:a aac -f mov", "mov", generic(1), LibavProbe,
       "libavformat probe"},
      {"WMV", video + audio + "-c:v wmv2 -c:a wmav2 -f asf", "wmv", generic(1), LibavProbe, "libavformat probe"},
      {"FLV", video + audio + "-c:v flv1 -c:a libmp3lame -f flv", "flv", generic(1), LibavProbe,
       "libavformat probe"},
      {"RealMedia", video + audio + "-c:v rv10 -c:a ac3 -f rm", "rm", generic(1), LibavProbe, "libavformat probe"},
  };

  printf("%d copies per format, warm cache, files per CPU second (higher is better); KiB/file: what one pass "
         "reads\n\n", copies);
  printf("| format | ours | floor | library alone | library | KiB/file ours | floor | library |\n"
         "|---|---:|---:|---:|---|---:|---:|---:|\n");
  std::vector<std::string> cold_rows;
  for (const Format& f : formats) {
    if (!only.empty() && only != f.ext) continue;
    std::string first = dir + "/0." + f.ext;
    if (!fs::exists(first)) {
      if (!Ffmpeg(f.make, first)) {
        fprintf(stderr, "ffmpeg could not make %s\n", first.c_str());
        continue;
      }
      std::string after = f.after;
      if (size_t at = after.find("{}"); at != std::string::npos) after.replace(at, 2, "'" + first + "'");
      if (!after.empty() && system(after.c_str()) != 0) fprintf(stderr, "could not run %s\n", after.c_str());
    }
    std::vector<std::string> files = {first};
    for (int i = 1; i < copies; ++i) {
      std::string p = dir + "/" + std::to_string(i) + "." + f.ext;
      if (!fs::exists(p)) fs::copy_file(first, p);
      files.push_back(p);
    }
    std::vector<std::function<int(const char*)>> columns = {f.ours, Floor, f.library};
    if (ours_only) columns.resize(1);
    const size_t count = columns.size();
    double best[3] = {0, 0, 0};
    Measure(files, columns, best);
    double bytes[3] = {0, 0, 0};
    for (size_t i = 0; i < count; ++i) bytes[i] = BytesPerFile(files, columns[i]);
    printf("| %s | %.0f | %.0f | %.0f | %s | %s | %s | %s |\n", f.name, best[0], best[1], best[2], f.library_name,
           Kib(bytes[0]).c_str(), Kib(bytes[1]).c_str(), Kib(bytes[2]).c_str());
    fflush(stdout);
    if (cold) {
      std::string row = std::string("| ") + f.name;
      for (size_t i = 0; i < count; ++i) {
        double rate = 0, disk = 0, of_files = 0, requests = 0;
        if (!ColdPass(files, columns[i], &rate, &disk, &of_files, &requests)) break;
        char reqs[32];
        snprintf(reqs, sizeof reqs, "%.1f", requests);
        row += " | " + std::to_string(static_cast<long>(rate)) + " | " + Kib(disk) + " | " + Kib(of_files) + " | " + reqs;
      }
      cold_rows.push_back(row + " |");
    }
  }
  if (cold) {
    printf("\nCold: one pass per column after `sync; echo 3 > /proc/sys/vm/drop_caches` (only meaningful on an "
           "otherwise idle machine); files/s, KiB read from the disk per file (the probe helper's included) and of "
           "those the KiB of the file itself (in the page cache after the pass: read-ahead included), and the disk's "
           "read requests per file (the whole machine's)\n\n");
    printf("| format | ours | KiB | of file | requests | floor | KiB | of file | requests | library alone | KiB | "
           "of file | requests |\n|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const auto& row : cold_rows) printf("%s\n", row.c_str());
  }
  if (own_dir) fs::remove_all(dir);
  return 0;
}
