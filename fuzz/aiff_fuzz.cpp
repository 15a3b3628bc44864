// The AIFF reader on arbitrary bytes, from memory.
#include <cstddef>
#include <cstdint>

#include "meta/aiff_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  AiffHandle aiff = AiffOpenMemory(data, size);
  AiffFormat format;
  if (aiff && AiffGetFormat(aiff.get(), &format) == 1) {
    // The same conversions the record filler makes must stay defined.
    volatile double seconds = format.sample_rate > 0 ? static_cast<double>(format.sample_frames) / format.sample_rate : 0;
    (void)seconds;
  }
  return 0;
}
