// The MPEG video stream parser (and the audio frame scanner it calls) on
// arbitrary bytes, from memory.
#include <cstddef>
#include <cstdint>

#include "meta/metavideo.h"
#include "platform/log.h"

namespace {
void Discard(const char*, void*) {}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvo::SetLogCapture(Discard, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MediaInfo info{};
  ParseMpegVideoMemory(data, size, &info);
  return 0;
}
