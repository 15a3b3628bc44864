// ByteReader: one read-ahead buffer over a file or a memory buffer.
#include "meta/byte_reader.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

void ByteReaderAttachFile(ByteReader* reader, FILE* file, int64_t length) {
  reader->file = file;
  reader->length = length;
  reader->memory = nullptr;
  reader->memory_size = 0;
  reader->start = 0;
  reader->end = 0;
  reader->source_ended = 0;
  reader->source_end = 0;
}

void ByteReaderAttachMemory(ByteReader* reader, const void* data, size_t size) {
  reader->file = nullptr;
  reader->memory = static_cast<const unsigned char*>(data);
  reader->memory_size = static_cast<int64_t>(size);
  reader->length = static_cast<int64_t>(size);
  reader->start = 0;
  reader->end = 0;
  reader->source_ended = 0;
  reader->source_end = 0;
}

void ByteReaderAttachSame(ByteReader* reader, const ByteReader* other) {
  if (other->file != nullptr) {
    ByteReaderAttachFile(reader, other->file, other->length);
  } else {
    ByteReaderAttachMemory(reader, other->memory, static_cast<size_t>(other->memory_size));
    reader->length = other->length;
  }
}

// Positions the source at `offset` and reads up to `count` bytes into `out`.
// -1 when the source cannot be positioned there (a negative offset, or a
// seek the file refuses); a position past the end reads nothing.
static int64_t ReadSource(ByteReader* reader, int64_t offset, unsigned char* out, size_t count) {
  if (offset < 0) return -1;
  if (reader->file == nullptr) {
    if (reader->memory == nullptr || offset >= reader->memory_size) return 0;
    int64_t available = reader->memory_size - offset;
    size_t n = available < static_cast<int64_t>(count) ? static_cast<size_t>(available) : count;
    memcpy(out, reader->memory + offset, n);
    return static_cast<int64_t>(n);
  }
  // One positioned read on the stream's descriptor per refill: no seek, no
  // second buffer in stdio. The stream's own position is never used. A short
  // count is the end of the file.
  ssize_t n;
  do {
    n = pread(fileno(reader->file), out, count, offset);
  } while (n < 0 && errno == EINTR);
  return n < 0 ? -1 : static_cast<int64_t>(n);
}

int64_t ByteReaderFill(ByteReader* reader, int64_t offset) {
  return ByteReaderFillSome(reader, offset, kByteReaderBufferSize);
}

int64_t ByteReaderFillSome(ByteReader* reader, int64_t offset, int64_t count) {
  if (offset < 0) return -1;
  if (reader->source_ended && offset >= reader->source_end) return 0;
  if (count > kByteReaderBufferSize) count = kByteReaderBufferSize;
  if (count < 1) count = 1;
  int64_t n = ReadSource(reader, offset, reader->buffer, static_cast<size_t>(count));
  if (n < 0) return -1;
  if (n < count) {
    reader->source_ended = 1;
    reader->source_end = offset + n;
  }
  reader->start = offset;
  reader->end = offset + n;
  return n;
}

int ReadByteRefill(ByteReader* reader, int64_t offset) {
  if (ByteReaderFill(reader, offset) < 0) return kUnreadableByte;
  if (!ByteReaderCached(reader, offset)) return kUnreadableByte;
  return reader->buffer[0];
}

int64_t ReadBytes(ByteReader* reader, int64_t offset, void* out, size_t count) {
  if (count <= static_cast<size_t>(kByteReaderBufferSize) && ByteReaderCached(reader, offset) &&
      offset + static_cast<int64_t>(count) <= reader->end) {
    memcpy(out, reader->buffer + (offset - reader->start), count);
    return static_cast<int64_t>(count);
  }
  return ReadSource(reader, offset, static_cast<unsigned char*>(out), count);
}

int64_t ReadSyncsafe32(ByteReader* reader, int64_t offset) {
  if (offset < 0) return kUnreadableByte;
  int64_t b0 = ReadByte(reader, offset);
  int64_t b1 = ReadByte(reader, offset + 1);
  int64_t b2 = ReadByte(reader, offset + 2);
  int64_t b3 = ReadByte(reader, offset + 3);
  return b0 << 21 | b1 << 14 | b2 << 7 | b3;
}

uint32_t ReadPlain32(ByteReader* reader, int64_t offset) {
  unsigned char b[4] = {0, 0, 0, 0};
  if (ReadBytes(reader, offset, b, sizeof b) < 0) return kUnreadableByte;
  return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 |
         static_cast<uint32_t>(b[2]) << 8 | b[3];
}

bool ReadFullyAt(int fd, void* out, size_t count, int64_t at) {
  auto* bytes = static_cast<unsigned char*>(out);
  size_t done = 0;
  // Bounded: every pass reads at least a byte or ends.
  while (done < count) {
    ssize_t n = pread(fd, bytes + done, count - done, static_cast<off_t>(at + static_cast<int64_t>(done)));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}
