// The probe's input: libavformat reads the file through the descriptor the
// probe was handed, at offsets of its own, and gets no file name it could
// open. The two functions are an AVIOContext's read and seek callbacks, with
// a DescriptorInput as their opaque pointer.
//
// The descriptor comes with the kernel's read-ahead off, so a read after a
// seek (a header at the end, an index) costs the disk what it asks for. A
// demuxer that reads on from where it stopped (an MPEG stream's analysis)
// would then pay one disk request per buffer; instead such a run is read in
// refills that double from kFirstRunRead up to kLongestRunRead and are handed
// out from `run`; from its second refill on, each asks for the next ahead of
// time. A run costs a few requests, overlapped with the parsing, and at most
// two refills unread.
#pragma once

#include <cstdint>
#include <memory>

inline constexpr int64_t kFirstRunRead = 65536;
inline constexpr int64_t kLongestRunRead = 262144;

struct DescriptorInput {
  int fd = -1;                     // not owned
  int64_t position = 0;            // where the next read starts
  std::unique_ptr<uint8_t[]> run;  // kLongestRunRead bytes once a run starts
  int64_t run_start = 0;           // file offset of run[0]
  int64_t run_size = 0;            // bytes held in run
  int64_t run_read = 0;            // size of the last refill; 0 outside a run
  int64_t read_end = -1;           // file offset just past the last read made
};

// Up to `size` bytes at the input's position into `buf`: the count, or
// AVERROR_EOF at the end, or a negative AVERROR of the read's errno.
int DescriptorInputRead(void* opaque, uint8_t* buf, int size);

// Sets the position (SEEK_SET, SEEK_CUR, SEEK_END; AVSEEK_FORCE ignored) and
// returns it, or with AVSEEK_SIZE returns the file's size; a negative AVERROR
// for a position before the start or an unknown `whence`.
int64_t DescriptorInputSeek(void* opaque, int64_t offset, int whence);
