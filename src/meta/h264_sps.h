// The picture size an H.264 decoder works out from a stream's sequence
// parameter set, read from the codec configuration a container carries
// (an MP4 "avcC" record or Annex B start-code NAL units). The generic probe
// uses it to tell whether decoding the stream could change the size the
// container already gives.
#pragma once

#include <cstddef>
#include <cstdint>

struct H264PictureSize {
  int coded_width;   // 16 * macroblock columns
  int coded_height;  // 16 * macroblock rows (frame rows for field coding)
  int crop_left;     // in pixels
  int crop_right;
  int crop_top;
  int crop_bottom;
};

// Reads the size from the configuration's only sequence parameter set.
// False when there is none, more than one, or it cannot be read the way the
// decoder would accept it.
bool ReadH264PictureSize(const uint8_t* config, size_t size, H264PictureSize* out);

// The width and height the decoder reports for such a stream when the
// container said `container_width` x `container_height`: the container's
// size where it only crops the coded picture further at the right and the
// bottom within the same macroblocks, else the sequence's cropped size.
void H264DecodedSize(const H264PictureSize& sps, int container_width, int container_height, int* width,
                     int* height);
