#include "meta/aiff_reader.h"

#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/read_advice.h"

struct AiffFile {
  FILE* file = nullptr;
  const uint8_t* data = nullptr;
  uint64_t size = 0;
  AiffFormat format{};
  AiffEncoding encoding = AiffEncoding::kPcm;
};

void AiffFileCloser::operator()(AiffFile* file) const {
  if (file->file != nullptr) fclose(file->file);
  delete file;
}

namespace {

// Reads exactly `n` bytes at `offset`; false when they are not all there.
bool ReadAt(AiffFile* f, uint64_t offset, uint8_t* out, size_t n) {
  if (f->file == nullptr) {
    if (offset > f->size || f->size - offset < n) return false;
    memcpy(out, f->data + offset, n);
    return true;
  }
  if (offset > static_cast<uint64_t>(INT64_MAX)) return false;
  if (fseeko(f->file, static_cast<off_t>(offset), SEEK_SET) != 0) return false;
  return fread(out, 1, n, f->file) == n;
}

uint32_t Be32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
uint16_t Be16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

AiffEncoding EncodingOf(const uint8_t type[4]) {
  auto is = [&](const char* id) { return memcmp(type, id, 4) == 0; };
  if (is("NONE") || is("lpcm") || is("twos")) return AiffEncoding::kPcm;
  if (is("sowt")) return AiffEncoding::kPcmLittleEndian;
  if (is("ulaw") || is("ULAW")) return AiffEncoding::kUlaw;
  if (is("alaw") || is("ALAW")) return AiffEncoding::kAlaw;
  if (is("fl32") || is("FL32")) return AiffEncoding::kFloat32;
  return AiffEncoding::kUnknown;
}

bool ReadHeader(AiffFile* f) {
  uint8_t head[12];
  if (!ReadAt(f, 0, head, sizeof head)) return false;
  if (memcmp(head, "FORM", 4) != 0) return false;
  if (Be32(head + 4) == 0) return false;
  bool aifc = memcmp(head + 8, "AIFC", 4) == 0;
  if (!aifc && memcmp(head + 8, "AIFF", 4) != 0) return false;

  // Every step moves on by at least the 8-byte header, so the walk ends at
  // the end of the data whatever the chunk lengths say.
  uint64_t offset = 12;
  uint8_t chunk[8];
  uint32_t comm_length = 0;
  for (;;) {
    if (!ReadAt(f, offset, chunk, sizeof chunk)) return false;
    uint32_t length = Be32(chunk + 4);
    offset += 8;
    if (memcmp(chunk, "COMM", 4) == 0) {
      comm_length = length;
      break;
    }
    offset += uint64_t{length} + (length & 1);
  }
  if (comm_length < 18) return false;

  uint8_t comm[22];
  if (!ReadAt(f, offset, comm, 18)) return false;
  AiffFormat& fmt = f->format;
  fmt.channels = Be16(comm);
  fmt.sample_frames = Be32(comm + 2);
  fmt.bits_per_sample = Be16(comm + 6);
  fmt.sample_rate = ExtendedToDouble(comm + 8);
  fmt.segment_size = (fmt.bits_per_sample + 7) / 8;

  if (comm_length < 22 || !aifc) return true;
  if (!ReadAt(f, offset + 18, comm + 18, 4)) return false;
  f->encoding = EncodingOf(comm + 18);
  switch (f->encoding) {
    case AiffEncoding::kUlaw:
      fmt.bits_per_sample = 14;
      fmt.segment_size = 2;
      break;
    case AiffEncoding::kAlaw:
      fmt.bits_per_sample = 13;
      fmt.segment_size = 2;
      break;
    case AiffEncoding::kFloat32:
      fmt.bits_per_sample = 32;
      fmt.segment_size = 4;
      break;
    default:
      break;
  }
  return true;
}

AiffHandle Finish(AiffHandle f) {
  if (!ReadHeader(f.get())) return nullptr;
  return f;
}

}  // namespace

double ExtendedToDouble(const uint8_t b[10]) {
  int exponent = ((b[0] & 0x7F) << 8) | b[1];
  uint64_t mantissa = 0;
  for (int i = 2; i < 10; ++i) mantissa = (mantissa << 8) | b[i];
  double value;
  if (exponent == 0 && mantissa == 0) {
    value = 0.0;
  } else if (exponent == 0x7FFF) {
    value = HUGE_VAL;  // infinity or NaN: no rate a file can play at
  } else {
    value = std::ldexp(static_cast<double>(mantissa), exponent - 16383 - 63);
  }
  return (b[0] & 0x80) ? -value : value;
}

AiffHandle AiffOpen(const char* path, const char* mode) {
  if (path == nullptr || mode == nullptr || mode[0] != 'r' || strchr(mode, '+') != nullptr) return nullptr;
  AiffHandle f(new AiffFile);
  f->file = fopen(path, "rb");
  if (f->file == nullptr) return nullptr;
  AdviseFewReads(fileno(f->file));  // the header chunks only
  return Finish(std::move(f));
}

AiffHandle AiffOpenMemory(const uint8_t* data, size_t size) {
  AiffHandle f(new AiffFile);
  f->data = data;
  f->size = data != nullptr ? size : 0;
  return Finish(std::move(f));
}

int AiffGetFormat(const AiffFile* file, AiffFormat* format) {
  if (file == nullptr || format == nullptr) return -1;
  *format = file->format;
  return 1;
}

AiffEncoding AiffGetEncoding(const AiffFile* file) {
  return file != nullptr ? file->encoding : AiffEncoding::kUnknown;
}
