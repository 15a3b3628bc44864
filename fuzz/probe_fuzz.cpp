// The readers that take a path (the libavformat probe, the MP4 reader's
// file path, the FLAC reader) on arbitrary bytes, through a temporary file.
// The probe runs here, in the fuzzer's process, as the probe helper runs it:
// over the file's descriptor.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "handlers/formats.h"
#include "meta/metamedia.h"
#include "platform/log.h"

namespace {
void Discard(const char*, void*) {}
std::string gPath;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvo::SetLogCapture(Discard, nullptr);
  char tmpl[] = "/tmp/orvo-probe-fuzz-XXXXXX";
  int fd = mkstemp(tmpl);
  if (fd < 0) abort();
  close(fd);
  gPath = tmpl;
  atexit([] { unlink(gPath.c_str()); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* f = fopen(gPath.c_str(), "wb");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);
  MediaInfo info{};
  int fd = open(gPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    ProbeDescriptor(fd, gPath.c_str(), &info, ProbeMode::kTuned);
    close(fd);
  }
  MediaInfo mp4{};
  ReadMp4Info(gPath.c_str(), &mp4);
  MediaInfo flac{};
  ReadFlacInfo(gPath.c_str(), &flac);
  return 0;
}
