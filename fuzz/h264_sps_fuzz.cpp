// The H.264 sequence parameter set reader on arbitrary codec configurations,
// and the size rule on what it read.
#include <cstddef>
#include <cstdint>

#include "meta/h264_sps.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  H264PictureSize sps;
  if (ReadH264PictureSize(data, size, &sps)) {
    int width = 0, height = 0;
    H264DecodedSize(sps, 1920, 1080, &width, &height);
    if (width <= 0 || height <= 0) __builtin_trap();  // the decoder never reports an empty picture
  }
  return 0;
}
