#include "meta/h264_sps.h"

#include <climits>
#include <vector>

namespace {

constexpr int kSpsNalType = 7;

// Bits of a NAL unit's payload, emulation-prevention bytes removed. Reading
// past the end yields zeros and marks the reader as overrun.
struct BitReader {
  std::vector<uint8_t> bytes;
  size_t bit = 0;
  bool overrun = false;

  unsigned Bit() {
    if (bit >= bytes.size() * 8) {
      overrun = true;
      return 0;
    }
    unsigned value = (bytes[bit / 8] >> (7 - bit % 8)) & 1;
    ++bit;
    return value;
  }
  uint32_t Bits(int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) value = value << 1 | Bit();
    return value;
  }
  // ue(v); false for a code longer than 32 bits, which the decoder refuses.
  bool Ue(uint32_t* value) {
    int zeros = 0;
    while (Bit() == 0) {
      if (overrun || ++zeros > 31) return false;
    }
    *value = static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + Bits(zeros));
    return !overrun;
  }
  // se(v) as the decoder reads it; INT32_MIN is refused there.
  bool Se(int64_t* value) {
    uint32_t code;
    if (!Ue(&code)) return false;
    *value = (code & 1) ? (int64_t{code} + 1) / 2 : -(int64_t{code} / 2);
    return *value != INT32_MIN;
  }
};

// The payload of a NAL unit without its header byte.
BitReader Payload(const uint8_t* nal, size_t size) {
  BitReader reader;
  int zeros = 0;
  for (size_t i = 1; i < size; ++i) {
    if (zeros >= 2 && nal[i] == 3) {
      zeros = 0;
      continue;
    }
    zeros = nal[i] == 0 ? zeros + 1 : 0;
    reader.bytes.push_back(nal[i]);
  }
  return reader;
}

// A scaling list is only skipped; its values matter for the bits after it.
bool SkipScalingList(BitReader& r, int count) {
  if (!r.Bit()) return true;
  int last = 8, next = 8;
  for (int i = 0; i < count; ++i) {
    if (next != 0) {
      int64_t delta;
      if (!r.Se(&delta) || delta < -128 || delta > 127) return false;
      next = static_cast<int>((last + delta) & 0xff);
    }
    if (i == 0 && next == 0) break;  // the default list is used
    if (next != 0) last = next;
  }
  return !r.overrun;
}

bool HighProfile(uint32_t profile) {
  switch (profile) {
    case 100: case 110: case 122: case 244: case 44: case 83: case 86: case 118: case 128: case 138: case 144:
      return true;
    default:
      return false;
  }
}

// The fields up to the frame cropping, with the decoder's own range checks.
bool ParseSps(BitReader r, H264PictureSize* out) {
  uint32_t profile = r.Bits(8);
  r.Bits(16);  // constraint flags, level
  uint32_t value;
  if (!r.Ue(&value) || value > 31) return false;  // sps id
  uint32_t chroma_format = 1;
  if (HighProfile(profile)) {
    uint32_t luma_depth, chroma_depth;
    if (!r.Ue(&chroma_format) || chroma_format > 3) return false;
    if (chroma_format == 3 && r.Bit()) return false;  // separate colour planes
    if (!r.Ue(&luma_depth) || !r.Ue(&chroma_depth) || luma_depth != chroma_depth || luma_depth > 6) return false;
    r.Bit();  // transform bypass
    if (r.Bit()) {
      for (int i = 0; i < 6; ++i)
        if (!SkipScalingList(r, 16)) return false;
      for (int i = 0; i < (chroma_format == 3 ? 6 : 2); ++i)
        if (!SkipScalingList(r, 64)) return false;
    }
  }
  if (!r.Ue(&value) || value > 12) return false;  // log2 of the frame number range, less 4
  uint32_t poc_type;
  if (!r.Ue(&poc_type)) return false;
  if (poc_type == 0) {
    if (!r.Ue(&value) || value > 12) return false;
  } else if (poc_type == 1) {
    int64_t offset;
    uint32_t cycle;
    r.Bit();
    if (!r.Se(&offset) || !r.Se(&offset) || !r.Ue(&cycle) || cycle >= 256) return false;
    for (uint32_t i = 0; i < cycle; ++i)
      if (!r.Se(&offset)) return false;
  } else if (poc_type != 2) {
    return false;
  }
  if (!r.Ue(&value) || value > 16) return false;  // reference frames
  r.Bit();                                         // gaps in frame numbers
  uint32_t mb_width, mb_height;
  if (!r.Ue(&mb_width) || !r.Ue(&mb_height)) return false;
  uint64_t columns = uint64_t{mb_width} + 1, rows = uint64_t{mb_height} + 1;
  bool frames_only = r.Bit();
  if (!frames_only) {
    rows *= 2;
    r.Bit();  // macroblock-adaptive frame/field
  }
  if (columns >= INT_MAX / 16 || rows >= INT_MAX / 16) return false;
  int64_t coded_width = 16 * static_cast<int64_t>(columns), coded_height = 16 * static_cast<int64_t>(rows);
  if ((coded_width + 128) * (coded_height + 128) >= INT_MAX / 8) return false;
  r.Bit();  // direct 8x8 inference
  H264PictureSize size{static_cast<int>(coded_width), static_cast<int>(coded_height), 0, 0, 0, 0};
  if (r.Bit()) {
    uint32_t left, right, top, bottom;
    if (!r.Ue(&left) || !r.Ue(&right) || !r.Ue(&top) || !r.Ue(&bottom)) return false;
    int64_t step_x = (chroma_format == 1 || chroma_format == 2) ? 2 : 1;
    int64_t step_y = (frames_only ? 1 : 2) << (chroma_format == 1 ? 1 : 0);
    if (left > INT_MAX / 4 / step_x || right > INT_MAX / 4 / step_x || top > INT_MAX / 4 / step_y ||
        bottom > INT_MAX / 4 / step_y || (int64_t{left} + right) * step_x >= coded_width ||
        (int64_t{top} + bottom) * step_y >= coded_height)
      return false;
    size.crop_left = static_cast<int>(left * step_x);
    size.crop_right = static_cast<int>(right * step_x);
    size.crop_top = static_cast<int>(top * step_y);
    size.crop_bottom = static_cast<int>(bottom * step_y);
  }
  if (r.overrun) return false;
  *out = size;
  return true;
}

// The sequence parameter sets of an "avcC" record or of start-code NAL units.
std::vector<BitReader> SequenceParameterSets(const uint8_t* config, size_t size) {
  std::vector<BitReader> sets;
  if (size >= 7 && config[0] == 1) {
    size_t count = config[5] & 0x1f, at = 6;
    for (size_t i = 0; i < count; ++i) {
      if (at + 2 > size) return {};
      size_t length = size_t{config[at]} << 8 | config[at + 1];
      at += 2;
      if (length == 0 || at + length > size) return {};
      if ((config[at] & 0x1f) == kSpsNalType) sets.push_back(Payload(config + at, length));
      at += length;
    }
    return sets;
  }
  // Start codes: a NAL unit runs from after 00 00 01 to the next start code.
  size_t at = 0;
  while (at + 3 <= size) {
    if (config[at] != 0 || config[at + 1] != 0 || config[at + 2] != 1) {
      ++at;
      continue;
    }
    size_t begin = at + 3, end = begin;
    while (end + 3 <= size && !(config[end] == 0 && config[end + 1] == 0 && config[end + 2] <= 1)) ++end;
    if (end + 3 > size) end = size;
    if (end > begin && (config[begin] & 0x1f) == kSpsNalType) sets.push_back(Payload(config + begin, end - begin));
    at = end;
  }
  return sets;
}

}  // namespace

bool ReadH264PictureSize(const uint8_t* config, size_t size, H264PictureSize* out) {
  if (config == nullptr) return false;
  std::vector<BitReader> sets = SequenceParameterSets(config, size);
  return sets.size() == 1 && ParseSps(sets.front(), out);
}

void H264DecodedSize(const H264PictureSize& sps, int container_width, int container_height, int* width,
                     int* height) {
  int cropped_width = sps.coded_width - (sps.crop_left + sps.crop_right);
  int cropped_height = sps.coded_height - (sps.crop_top + sps.crop_bottom);
  auto align16 = [](int v) { return (v + 15) & ~15; };
  bool container_crops = container_width > 0 && container_height > 0 && sps.crop_top == 0 && sps.crop_left == 0 &&
                         align16(container_width) == align16(cropped_width) &&
                         align16(container_height) == align16(cropped_height) && container_width <= cropped_width &&
                         container_height <= cropped_height;
  *width = container_crops ? container_width : cropped_width;
  *height = container_crops ? container_height : cropped_height;
}
