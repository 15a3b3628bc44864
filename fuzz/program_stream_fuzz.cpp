// The program stream scan (meta/program_stream) on arbitrary bytes, as the
// whole file and as a head cut short, with the analysis's limit and a small
// one: it must stay inside the bytes and give a consistent answer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include "meta/program_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (bool whole : {true, false}) {
    for (int64_t limit : {int64_t{5000000}, int64_t{2048}}) {
      PsScan scan = ScanProgramStream(data, size, whole, limit);
      if (scan.window_end < 0 || scan.window_end > static_cast<int64_t>(size)) abort();
      if (scan.count < 0 || scan.count > kPsMaxStreams) abort();
      if (scan.doubt != PsDoubt::kNone) continue;
      for (int i = 0; i < scan.count; ++i) {
        const PsStream& s = scan.streams[i];
        for (int j = 0; j < i; ++j)
          if (scan.streams[j].id == s.id) abort();
        bool audio = s.kind == PsKind::kMpegAudio || s.kind == PsKind::kAc3;
        if (audio && (s.sample_rate <= 0 || s.channels <= 0 || s.bit_rate <= 0)) abort();
        if (s.kind == PsKind::kVideo && s.mpeg2 && s.step <= 0) abort();
      }
    }
  }
  return 0;
}
