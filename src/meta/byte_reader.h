// ByteReader: byte-at-a-time access to a file or a memory buffer through one
// 16384-byte read-ahead buffer. The ID3 reader, the MPEG audio frame scanner
// and the MPEG video parser all read their source through it, so a forward
// scan costs one read per 16 KiB whatever the caller's step.
//
// The record is plain and zeroed before use. Its first five fields are the
// layout that readers extending it (the video reader) keep at their start, in
// this order; add new fields only after them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

inline constexpr int kByteReaderBufferSize = 16384;

// What a byte that cannot be read reads as. Deliberate: callers treat it as
// an ordinary byte; it matches no sync or start-code byte and lies below '0',
// which ends the ID3v2 frame walks.
inline constexpr int kUnreadableByte = 17;

struct ByteReader {
  FILE* file;          // the source when reading a file ("rb"); not owned
  int64_t length;      // source length; the ID3v1 reader lowers it by 128
  unsigned char buffer[kByteReaderBufferSize];
  int64_t start;       // source offset of buffer[0]
  int64_t end;         // source offset one past the last cached byte
  // The source when reading memory (file is then null); must outlive the reader.
  const unsigned char* memory;
  int64_t memory_size;
  // Set once a refill came up short: nothing lies at or after source_end,
  // so a scan past the end (a file that shrank after its length was taken)
  // costs no further reads.
  int32_t source_ended;
  int64_t source_end;
};

// Points a zeroed reader at an open file whose length the caller has taken.
void ByteReaderAttachFile(ByteReader* reader, FILE* file, int64_t length);

// Points a zeroed reader at `size` bytes of memory; length = size.
void ByteReaderAttachMemory(ByteReader* reader, const void* data, size_t size);

// Points a second reader at the source `other` reads, with its length: a
// buffer of its own over the same bytes, for reads far from where `other`
// is reading. `other`'s source must outlive it.
void ByteReaderAttachSame(ByteReader* reader, const ByteReader* other);

// True when the byte at `offset` is in the buffer.
inline bool ByteReaderCached(const ByteReader* reader, int64_t offset) {
  return reader->start <= offset && offset < reader->end;
}

// Refills the buffer from `offset`: up to 16384 bytes, start = offset,
// end = offset + count. Returns the count (0 at the end of the source), or
// -1 when the source cannot be positioned there (the buffer is then
// unchanged). Past a known end it returns 0 without reading and keeps the
// buffer. For readers that log their own failures around a refill.
int64_t ByteReaderFill(ByteReader* reader, int64_t offset);

// The same, reading at most `count` bytes (capped at the buffer's size), for
// a caller that knows how far it will look.
int64_t ByteReaderFillSome(ByteReader* reader, int64_t offset, int64_t count);

// The byte at `offset` (0..255), or kUnreadableByte when it cannot be read.
// Refills the buffer from `offset` when the byte is not cached.
int ReadByteRefill(ByteReader* reader, int64_t offset);
inline int ReadByte(ByteReader* reader, int64_t offset) {
  if (ByteReaderCached(reader, offset)) return reader->buffer[offset - reader->start];
  return ReadByteRefill(reader, offset);
}

// Reads up to `count` bytes at `offset` straight from the source into `out`
// (served from the buffer when it holds them all, which gives the same
// bytes). Returns the count read, or -1 when the source cannot be
// positioned at `offset`.
int64_t ReadBytes(ByteReader* reader, int64_t offset, void* out, size_t count);

// The 28-bit ID3v2 size at `offset`: b0 << 21 | b1 << 14 | b2 << 7 | b3.
// Deliberate: the top bit of each byte is not masked, so a damaged size can
// exceed 28 bits; the tag walks only compare it. 17 when `offset` cannot be
// positioned.
int64_t ReadSyncsafe32(ByteReader* reader, int64_t offset);

// The big-endian 32-bit value at `offset` read straight from the source; the
// bytes that could not be read count as 0 (so 0 when nothing is read), and
// 17 when `offset` cannot be positioned.
uint32_t ReadPlain32(ByteReader* reader, int64_t offset);

// Reads `count` bytes at `at` of the descriptor into `out`, however many
// reads that takes: false when the file ends first or a read fails.
bool ReadFullyAt(int fd, void* out, size_t count, int64_t at);
