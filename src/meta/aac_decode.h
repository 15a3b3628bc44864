// The AAC decoder's answer for one access unit: what the generic probe's
// stream analysis learns about an MP4 sound track by decoding its first
// frame. Implicit SBR (a doubled rate) and parametric stereo (two channels
// from one) show only there, not in the track's headers.
//
// Runs in the probe helper (meta/probe_helper.h), which loads the library;
// the caller names the bytes, the helper reads them from the descriptor it
// was handed.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t kAacConfigLimit = 256;         // decoder-specific info kept
inline constexpr uint32_t kAacUnitLimit = 1u << 16;    // an access unit's largest size read

// One access unit and the track's decoder-specific info (its ES
// descriptor's AudioSpecificConfig). A plain record: it travels in the
// helper's request as it is.
struct AacUnit {
  int64_t offset;
  uint32_t size;
  uint32_t config_size;
  uint8_t config[kAacConfigLimit];
};

// Loads the decoder's entry points (the helper does so before it confines
// itself); false when one is missing, and every decode then fails.
bool LoadAacDecoder();

// Sets up the decoder as the analysis does for such a track (the rate and
// channel count the demuxer takes from the config, the config as extra
// data, one thread), decodes the unit read from `fd` and gives the rate
// and channel count the decoder then reports. False when the config names
// no AAC object type, the unit cannot be read, or the decoder does not
// open, refuses the unit or gives no frame: the caller then probes.
bool DecodeAacUnit(int fd, const AacUnit& unit, int32_t* sample_rate, int32_t* channels);
