// Feeds arbitrary bytes to the picture header readers. The first byte picks
// the extension, so every reader sees every input, and the magic-byte
// fallback runs whenever the chosen reader gives up.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/image_size.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static constexpr std::string_view kExtensions[] = {"jpg", "png", "gif", "bmp", "ico",
                                                     "tif", "psd", "ufo", ""};
  if (size == 0) return 0;
  std::string_view extension = kExtensions[data[0] % std::size(kExtensions)];
  int width = 0, height = 0;
  if (ImageSizeFromBytes(data + 1, size - 1, extension, &width, &height) == 0 &&
      (width <= 0 || height <= 0))
    __builtin_trap();
  return 0;
}
