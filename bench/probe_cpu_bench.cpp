// CPU per file of the generic probe, by file name extension: every file
// under a folder goes through the video handler's record fill (the daemon's
// path, the probe helper included) or, with --untuned, through the helper's
// probe with libavformat's full stream analysis; the figure is the CPU time
// of this process and of the helper together, the mean over the rounds.
//
//   probe_cpu_bench FOLDER [ROUNDS] [--untuned] [--only EXT]
//
// The first round warms the page cache and the helper and is not counted.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "handlers/formats.h"
#include "helper_cpu.h"
#include "meta/metamedia.h"
#include "meta/probe_helper.h"

namespace {

void ProbeOnce(const std::string& path, bool untuned) {
  MediaInfo info;
  memset(&info, 0, sizeof info);
  if (!untuned) {
    FillMediaRecord(path.c_str(), 1, &info);
    return;
  }
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  ProbeInHelper(fd, path.c_str(), &info, ProbeMode::kLibraryDefaults);
  close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s FOLDER [ROUNDS] [--untuned] [--only EXT]\n", argv[0]);
    return 2;
  }
  int rounds = 3;
  bool untuned = false;
  std::string only;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--untuned") {
      untuned = true;
    } else if (arg == "--only" && i + 1 < argc) {
      only = argv[++i];
    } else {
      rounds = std::max(1, atoi(argv[i]));
    }
  }
  std::map<std::string, std::vector<std::string>> by_ext;
  std::error_code ec;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[1], ec)) {
    if (!entry.is_regular_file()) continue;
    std::string ext = entry.path().extension().string();
    if (!ext.empty()) ext.erase(0, 1);
    if (!only.empty() && ext != only) continue;
    by_ext[ext].push_back(entry.path().string());
  }
  printf("%-6s %6s %12s   (%s, %d rounds)\n", "ext", "files", "us/file", untuned ? "untuned" : "tuned", rounds);
  for (const auto& [ext, files] : by_ext) {
    for (const auto& f : files) ProbeOnce(f, untuned);
    double start = ProcessAndHelperCpuSeconds();
    for (int r = 0; r < rounds; ++r)
      for (const auto& f : files) ProbeOnce(f, untuned);
    double per_file = (ProcessAndHelperCpuSeconds() - start) * 1e6 /
                      (static_cast<double>(rounds) * static_cast<double>(files.size()));
    printf("%-6s %6zu %12.0f\n", ext.c_str(), files.size(), per_file);
  }
  return 0;
}
