#include "meta/ogg_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "meta/byte_reader.h"
#include "meta/metamedia.h"
#include "platform/text_encoding.h"

namespace {

// The demuxer's largest page; it looks for the last granule position in
// this many bytes before the end.
constexpr int64_t kMaxPageSize = 65307;
// What the first read of the header pages takes; longer headers are read
// again, twice as far each time, up to kHeadLimit.
constexpr size_t kHeadFirstRead = 16384;
// Header pages longer than this (comments of a megabyte) are left to the probe.
constexpr size_t kHeadLimit = size_t{1} << 20;
// More comments than this are left to the probe: the dictionary it keeps
// them in searches every one for every new one.
constexpr uint32_t kCommentLimit = 4096;

constexpr uint8_t kContinued = 1, kFirstPage = 2, kLastPage = 4;
constexpr uint64_t kNoGranule = ~uint64_t{0};

uint32_t Le32(const uint8_t* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
uint64_t Le64(const uint8_t* p) { return Le32(p) | uint64_t{Le32(p + 4)} << 32; }

// The page checksum: CRC-32 of polynomial 0x04C11DB7, high bit first, from
// 0, not inverted. The end scan checks up to 64 KiB a file, so it is worth
// speed: eight tables take eight bytes a step.
struct CrcTables {
  uint32_t t[8][256];
};

constexpr CrcTables MakeCrcTables() {
  CrcTables c{};
  for (uint32_t b = 0; b < 256; ++b) {
    uint32_t r = b << 24;
    for (int i = 0; i < 8; ++i) r = (r & 0x80000000u) ? (r << 1) ^ 0x04C11DB7u : r << 1;
    c.t[0][b] = r;
  }
  for (int k = 1; k < 8; ++k)
    for (uint32_t b = 0; b < 256; ++b) c.t[k][b] = (c.t[k - 1][b] << 8) ^ c.t[0][c.t[k - 1][b] >> 24];
  return c;
}
constexpr CrcTables kCrc = MakeCrcTables();

uint32_t CrcByTables(uint32_t crc, const uint8_t* p, size_t n) {
  const auto& t = kCrc.t;
  for (; n >= 8; p += 8, n -= 8) {
    uint32_t a = crc ^ (uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]);
    crc = t[7][a >> 24] ^ t[6][(a >> 16) & 255] ^ t[5][(a >> 8) & 255] ^ t[4][a & 255] ^ t[3][p[4]] ^ t[2][p[5]] ^
          t[1][p[6]] ^ t[0][p[7]];
  }
  for (; n > 0; ++p, --n) crc = (crc << 8) ^ t[0][(crc >> 24) ^ *p];
  return crc;
}

#if defined(__x86_64__)
// x^n modulo the polynomial.
constexpr uint64_t PowerOfX(int n) {
  uint64_t r = 1;
  for (int i = 0; i < n; ++i) r = (r << 1) & 0x100000000u ? (r << 1) ^ 0x104C11DB7u : r << 1;
  return r;
}

// The same sixteen bytes a step, where the processor multiplies without
// carries (four to five times the tables' rate): the crc goes into the first
// 128 bits, each further 128 bits are added to the two halves so far times
// x^192 and x^128, and the 128 bits left and the last bytes go through the
// tables. Bytes are reversed so that the first is the highest power.
__attribute__((target("pclmul,ssse3"))) uint32_t CrcByFolding(uint32_t crc, const uint8_t* p, size_t n) {
  const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  constexpr uint64_t k192 = PowerOfX(192), k128 = PowerOfX(128);
  const __m128i k = _mm_set_epi64x(static_cast<long long>(k192), static_cast<long long>(k128));
  __m128i x = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), reverse);
  x = _mm_xor_si128(x, _mm_set_epi32(static_cast<int>(crc), 0, 0, 0));
  for (p += 16, n -= 16; n >= 16; p += 16, n -= 16) {
    __m128i next = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), reverse);
    x = _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x, k, 0x11), _mm_clmulepi64_si128(x, k, 0x00)), next);
  }
  alignas(16) uint8_t folded[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(folded), _mm_shuffle_epi8(x, reverse));
  return CrcByTables(CrcByTables(0, folded, 16), p, n);
}
#endif

uint32_t Crc(uint32_t crc, const uint8_t* p, size_t n) {
#if defined(__x86_64__)
  static const bool folding = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
  if (folding && n >= 32) return CrcByFolding(crc, p, n);
#endif
  return CrcByTables(crc, p, n);
}

struct Page {
  uint8_t flags = 0;
  uint64_t granule = 0;
  uint32_t serial = 0;
  const uint8_t* lacing = nullptr;
  int segments = 0;
  const uint8_t* body = nullptr;
  size_t size = 0;  // the whole page
};

enum class PageCheck { kWhole, kPastEnd, kBadChecksum, kBadVersion };

// The page whose "OggS" is at data[at], of the `size` bytes there are.
PageCheck ReadPage(const uint8_t* data, size_t size, size_t at, Page* page) {
  if (size - at < 27) return PageCheck::kPastEnd;
  const uint8_t* h = data + at;
  int segments = h[26];
  if (size - at - 27 < static_cast<size_t>(segments)) return PageCheck::kPastEnd;
  size_t body = 0;
  for (int i = 0; i < segments; ++i) body += h[27 + i];
  size_t total = 27 + segments + body;
  if (size - at < total) return PageCheck::kPastEnd;
  static const uint8_t kZeros[4] = {};
  uint32_t crc = Crc(Crc(Crc(0, h, 22), kZeros, 4), h + 26, total - 26);
  if (crc != Le32(h + 22)) return PageCheck::kBadChecksum;
  if (h[4] != 0) return PageCheck::kBadVersion;
  page->flags = h[5];
  page->granule = Le64(h + 6);
  page->serial = Le32(h + 14);
  page->segments = segments;
  page->lacing = h + 27;
  page->body = h + 27 + segments;
  page->size = total;
  return PageCheck::kWhole;
}

// ASCII case-insensitive equality, as the demuxer's dictionary compares keys.
bool SameKey(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    auto up = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; };
    if (up(a[i]) != up(b[i])) return false;
  }
  return true;
}

// The dictionary's set: an entry of the same key (without case) is taken
// out, the last entry moved into its place, and the new one added at the
// end under the new spelling; with `joint`, its value is the old one's,
// the joint and the new one's.
void SetTag(std::vector<OggTag>* dict, std::string key, std::string value, const char* joint) {
  for (size_t i = 0; i < dict->size(); ++i) {
    if (!SameKey((*dict)[i].key, key)) continue;
    if (joint != nullptr) value = std::move((*dict)[i].value).append(joint).append(value);
    if (i + 1 != dict->size()) (*dict)[i] = std::move(dict->back());
    dict->pop_back();
    break;
  }
  dict->push_back({std::move(key), std::move(value)});
}

// The comment header's list (after its packet type and name) into `dict`,
// as the demuxer's Vorbis comment parser fills the stream's dictionary.
// False for a file left to the probe: a cover picture (a stream of its
// own), chapter marks, too many comments.
bool ReadComments(const uint8_t* buf, size_t size, std::vector<OggTag>* dict) {
  if (size < 8) return true;  // malformed: no tags at all
  const uint8_t* p = buf;
  const uint8_t* end = buf + size;
  auto vendor = static_cast<int32_t>(Le32(p));
  p += 4;
  if (end - p - 4 < vendor || vendor < 0) return true;
  p += vendor;
  uint32_t n = Le32(p);
  p += 4;
  uint32_t read = 0;
  // Bounded: each comment moves past at least its four length bytes.
  while (end - p >= 4 && n > 0) {
    auto s = static_cast<int32_t>(Le32(p));
    p += 4;
    if (end - p < s || s < 0) break;
    if (++read > kCommentLimit) return false;
    const auto* eq = static_cast<const uint8_t*>(memchr(p, '=', static_cast<size_t>(s)));
    size_t key_size = eq != nullptr ? static_cast<size_t>(eq - p) : 0;
    size_t value_size = eq != nullptr ? static_cast<size_t>(s) - key_size - 1 : 0;
    if (key_size != 0 && value_size != 0) {
      // Key and value end at their first NUL, as C strings.
      const char* k = reinterpret_cast<const char*>(p);
      const char* v = reinterpret_cast<const char*>(eq + 1);
      std::string key(k, strnlen(k, key_size));
      std::string value(v, strnlen(v, value_size));
      if (SameKey(key, "METADATA_BLOCK_PICTURE")) return false;
      if (key.size() >= 9 && SameKey(std::string_view(key).substr(0, 7), "CHAPTER")) return false;
      SetTag(dict, std::move(key), std::move(value), ";");
    }
    p += s;
    --n;
  }
  // The comment names the demuxer renames, then every entry set again in order.
  static const char* const kRenamed[][2] = {
      {"ALBUMARTIST", "album_artist"}, {"TRACKNUMBER", "track"}, {"DISCNUMBER", "disc"}, {"DESCRIPTION", "comment"}};
  std::vector<OggTag> renamed;
  for (OggTag& t : *dict) {
    std::string key = std::move(t.key);
    for (const auto& r : kRenamed) {
      if (SameKey(key, r[0])) {
        key = r[1];
        break;
      }
    }
    SetTag(&renamed, std::move(key), std::move(t.value), nullptr);
  }
  *dict = std::move(renamed);
  return true;
}

// What the demuxer's Vorbis parser takes from the setup header to time
// packets: the two block sizes and each mode's block flag.
struct VorbisModes {
  int blocksize[2] = {0, 0};
  int count = 0, mode_mask = 0, previous_mask = 0;
  uint8_t long_block[64] = {};
};

// Bits from the end of a packet backwards: bytes in reverse order, each
// from its high bit, as the parser reads the setup header.
struct BackwardBits {
  const uint8_t* data;
  size_t size;
  size_t bit = 0;
  size_t Left() const { return size * 8 - bit; }
  uint32_t Get(int count) {
    uint32_t value = 0;
    for (int i = 0; i < count && bit < size * 8; ++i, ++bit)
      value = value << 1 | ((data[size - 1 - bit / 8] >> (7 - bit % 8)) & 1);
    return value;
  }
};

// The parser's search for the mode list from the end of the setup header:
// the framing bit, then the longest run of plausible mode entries whose
// count the 6 bits before it confirm. False where it fails.
bool ReadVorbisModes(const std::string& setup, VorbisModes* modes) {
  const auto* data = reinterpret_cast<const uint8_t*>(setup.data());
  if (setup.size() < 7 || data[0] != 5 || memcmp(data + 1, "vorbis", 6) != 0) return false;
  BackwardBits bits{data, setup.size()};
  size_t framing = 0;
  // Bounded: every step reads a bit.
  while (bits.Left() > 97) {
    if (bits.Get(1)) {
      framing = bits.bit;
      break;
    }
  }
  if (framing == 0) return false;
  int count = 0, confirmed = 0;
  while (bits.Left() >= 97) {
    if (bits.Get(8) > 63 || bits.Get(16) || bits.Get(16)) break;
    bits.Get(1);
    if (++count > 64) break;
    BackwardBits ahead = bits;
    if (static_cast<int>(ahead.Get(6)) + 1 == count) confirmed = count;
  }
  if (confirmed == 0 || confirmed > 63) return false;
  modes->count = confirmed;
  int log2 = 0;
  while ((2u << log2) <= static_cast<unsigned>(confirmed - 1)) ++log2;
  modes->mode_mask = ((1 << (log2 + 1)) - 1) << 1;
  modes->previous_mask = (modes->mode_mask | 1) + 1;
  bits.bit = framing;
  for (int i = confirmed - 1; i >= 0; --i) {
    bits.Get(32), bits.Get(8);
    modes->long_block[i] = static_cast<uint8_t>(bits.Get(1));
  }
  return true;
}

// The samples an audio packet adds, from its first byte and the previous
// packet's block size; -1 where the parser would fail or the packet is a
// header (whose comments the demuxer would take again).
int PacketSamples(const VorbisModes& m, uint8_t first, int* previous) {
  if (first & 1) return -1;
  int mode = m.count == 1 ? 0 : (first & m.mode_mask) >> 1;
  if (mode >= m.count) return -1;
  int before = *previous;
  if (m.long_block[mode]) before = m.blocksize[(first & m.previous_mask) ? 1 : 0];
  int current = m.blocksize[m.long_block[mode]];
  *previous = current;
  return (before + current) >> 2;
}

enum class Codec { kVorbis, kOpus };

// What the header pages give.
struct Head {
  Codec codec = Codec::kVorbis;
  uint32_t serial = 0;
  int32_t channels = 0, sample_rate = 0;
  int64_t bit_rate = 0;
  VorbisModes modes;
  std::vector<OggTag> tags;
  // The page on which the first audio packet ends: its flags, its granule
  // position, where it ends, and the first bytes of the packets that end on
  // it from that packet on.
  uint8_t audio_flags = 0;
  uint64_t audio_granule = 0;
  size_t audio_page_end = 0;
  std::vector<uint8_t> audio_firsts;
};

// The header packets the demuxer reads: Vorbis's identification, comment
// and setup headers, Opus's head and tags. False for a file left to the probe.
bool ReadHeaderPacket(int index, const std::string& packet, Head* head) {
  const auto* p = reinterpret_cast<const uint8_t*>(packet.data());
  if (index == 0) {
    if (packet.size() >= 7 && memcmp(p, "\x01vorbis", 7) == 0) {
      head->codec = Codec::kVorbis;
      if (packet.size() != 30 || Le32(p + 7) != 0 || p[29] != 1) return false;
      int small = p[28] & 15, large = p[28] >> 4;
      if (small > large || small < 6 || large > 13) return false;
      head->channels = p[11];
      head->sample_rate = static_cast<int32_t>(Le32(p + 12));
      head->bit_rate = Le32(p + 20);  // the nominal figure, taken unsigned
      head->modes.blocksize[0] = 1 << small;
      head->modes.blocksize[1] = 1 << large;
    } else if (packet.size() >= 8 && memcmp(p, "OpusHead", 8) == 0) {
      head->codec = Codec::kOpus;
      if (packet.size() < 19 || (p[8] & 0xF0) != 0) return false;
      head->channels = p[9];
      head->sample_rate = 48000;  // whatever rate the head gives
    } else {
      return false;
    }
    return head->channels > 0 && head->sample_rate > 0;
  }
  if (head->codec == Codec::kOpus) {
    if (packet.size() < 8 || memcmp(p, "OpusTags", 8) != 0) return false;
    return ReadComments(p + 8, packet.size() - 8, &head->tags);
  }
  if (index == 1) {
    // The framing byte at the end is not part of the list.
    if (p[0] != 3) return false;
    return packet.size() <= 8 || ReadComments(p + 7, packet.size() - 8, &head->tags);
  }
  return ReadVorbisModes(packet, &head->modes);
}

enum class Walk { kDone, kNeedMore, kRefused };

// The header pages from the start of `data` (`size` of the file's `length`
// bytes), laid out as encoders lay them out: one stream; the first page
// holding the first header alone; the first audio packet starting a page
// of its own; every page whole, contiguous, checked, and continued exactly
// where the page before it left a packet open. Up to the page on which
// the first audio packet ends, which is all the demuxer reads at the start.
Walk WalkHead(const uint8_t* data, size_t size, int64_t length, Head* head) {
  std::string packet;
  int packets = 0, headers = 0;
  bool open = false;
  // Bounded: every page moves `at` on by at least 27 bytes.
  for (size_t at = 0;; ) {
    Page page;
    if (size - at >= 4 && memcmp(data + at, "OggS", 4) != 0) return Walk::kRefused;
    PageCheck check = size - at >= 4 ? ReadPage(data, size, at, &page) : PageCheck::kPastEnd;
    if (check == PageCheck::kPastEnd) return static_cast<int64_t>(size) < length ? Walk::kNeedMore : Walk::kRefused;
    if (check != PageCheck::kWhole || page.flags > 7 || page.segments == 0) return Walk::kRefused;
    if (((page.flags & kFirstPage) != 0) != (at == 0) || ((page.flags & kContinued) != 0) != open)
      return Walk::kRefused;
    if (at == 0) head->serial = page.serial;
    if (page.serial != head->serial) return Walk::kRefused;
    const uint8_t* body = page.body;
    for (int i = 0; i < page.segments; ++i) {
      uint8_t lace = page.lacing[i];
      // The first audio packet starts a page, right after the page the last header ends.
      if (packets == headers && headers > 0 && packet.empty() && (i != 0 || open)) return Walk::kRefused;
      packet.append(reinterpret_cast<const char*>(body), lace);
      body += lace;
      if (lace == 255) continue;
      if (packet.empty()) return Walk::kRefused;
      if (packets == headers && headers > 0) {
        // The first audio packet: Vorbis's must not look like a header.
        if (head->codec == Codec::kVorbis && (packet[0] & 1)) return Walk::kRefused;
        head->audio_flags = page.flags;
        head->audio_granule = page.granule;
        head->audio_page_end = at + page.size;
        head->audio_firsts.push_back(static_cast<uint8_t>(packet[0]));
        // The packets that end later on the same page.
        size_t length_so_far = 0;
        const uint8_t* start = body;
        for (int j = i + 1; j < page.segments; ++j) {
          length_so_far += page.lacing[j];
          if (page.lacing[j] == 255) continue;
          if (length_so_far == 0) return Walk::kRefused;
          head->audio_firsts.push_back(*start);
          start += length_so_far;
          length_so_far = 0;
        }
        return Walk::kDone;
      }
      if (!ReadHeaderPacket(packets, packet, head)) return Walk::kRefused;
      if (packets == 0) {
        headers = head->codec == Codec::kVorbis ? 3 : 2;
        if (at != 0 || i != page.segments - 1) return Walk::kRefused;  // the first page holds it alone
      }
      ++packets;
      packet.clear();
    }
    // No stream ends before its first audio packet.
    if ((page.flags & kLastPage) != 0) return Walk::kRefused;
    open = page.lacing[page.segments - 1] == 255;
    at += page.size;
  }
}

// The last granule position the demuxer's end scan finds in the last
// kMaxPageSize bytes of the file (`tail`, from the file's offset
// `tail_at`): the first "OggS" whose page checks out, passing over those
// whose checksum fails, then the pages after it, contiguous to the end.
// It stops at a page the file ends inside. False for anything else: a
// granule position it never finds, a gap or a damaged page after the
// first good one, another stream, a stream that ends and goes on.
bool EndGranule(const uint8_t* tail, size_t size, int64_t tail_at, uint32_t serial, uint64_t* granule) {
  bool found = false, ended = false, have = false;
  // Bounded: `at` only moves forward.
  for (size_t at = 0;;) {
    size_t page_at = at;
    if (!found) {
      const void* hit = memmem(tail + at, size - at, "OggS", 4);
      if (hit == nullptr) break;
      page_at = static_cast<size_t>(static_cast<const uint8_t*>(hit) - tail);
    } else {
      if (size - at < 4) break;
      if (memcmp(tail + at, "OggS", 4) != 0) return false;
    }
    Page page;
    PageCheck check = ReadPage(tail, size, page_at, &page);
    if (check == PageCheck::kPastEnd) break;
    if (check == PageCheck::kBadChecksum && !found) {
      at = page_at + 4;
      continue;
    }
    if (check != PageCheck::kWhole || page.serial != serial || page.flags > 7 || ended) return false;
    if ((page.flags & kFirstPage) != 0 && tail_at + static_cast<int64_t>(page_at) != 0) return false;
    ended = (page.flags & kLastPage) != 0;
    found = true;
    if (page.granule != 0 && page.granule != kNoGranule) {
      *granule = page.granule;
      have = true;
    }
    at = page_at + page.size;
  }
  return have;
}

enum class Outcome { kValues, kNeedMore, kRefused };

// The values from the header bytes (the file's first `head_size` bytes)
// and its last bytes (`tail`, from `tail_at` to the end).
Outcome WorkOut(const uint8_t* head_data, size_t head_size, const uint8_t* tail, int64_t tail_at, int64_t length,
                OggValues* values) {
  Head head;
  Walk walk = WalkHead(head_data, head_size, length, &head);
  if (walk != Walk::kDone) return walk == Walk::kNeedMore ? Outcome::kNeedMore : Outcome::kRefused;
  uint64_t last = 0;
  if (!EndGranule(tail, static_cast<size_t>(length - tail_at), tail_at, head.serial, &last) ||
      last > static_cast<uint64_t>(INT64_MAX))
    return Outcome::kRefused;

  // The stream's duration: the last granule position, less the start the
  // demuxer works out from the first audio page for Vorbis (its granule
  // position less the samples of the packets ending there, not below 0).
  // Opus's start is not taken off, nor its pre-skip.
  auto duration = static_cast<int64_t>(last);
  if (head.codec == Codec::kVorbis) {
    bool ends_here = (head.audio_flags & kLastPage) != 0;
    if (ends_here && head.audio_page_end != static_cast<size_t>(length)) return Outcome::kRefused;
    if (!ends_here) {
      if (head.audio_granule > static_cast<uint64_t>(INT64_MAX)) return Outcome::kRefused;
      int previous = head.modes.blocksize[0];
      int64_t samples = 0;
      for (uint8_t first : head.audio_firsts) {
        int n = PacketSamples(head.modes, first, &previous);
        if (n < 0) return Outcome::kRefused;
        samples += n;
      }
      auto granule = static_cast<int64_t>(head.audio_granule);
      // A first page at 0 that still counts samples is taken to start at 0.
      int64_t start = granule == 0 ? 0 : granule - samples;
      if (start > 0) duration -= start;
    }
  } else if (head.audio_granule > (uint64_t{1} << 62)) {
    return Outcome::kRefused;
  }
  if (duration <= 0) return Outcome::kRefused;

  // Into microseconds rounded to the nearest, and the file's bit rate over
  // that, as the probe's timing step works them out.
  auto rate = static_cast<unsigned __int128>(head.sample_rate);
  unsigned __int128 us = (static_cast<unsigned __int128>(duration) * 1000000u + rate / 2) / rate;
  if (us == 0 || us > static_cast<unsigned __int128>(INT64_MAX / 4)) return Outcome::kRefused;
  values->duration = static_cast<int64_t>(us);
  double bit_rate = static_cast<double>(length) * 8.0 * 1000000 / static_cast<double>(values->duration);
  values->bit_rate = bit_rate >= 0 && bit_rate <= static_cast<double>(INT64_MAX) ? static_cast<int64_t>(bit_rate) : 0;
  values->audio_bit_rate = head.bit_rate;
  values->sample_rate = head.sample_rate;
  values->channels = head.channels;
  values->tags = std::move(head.tags);
  return Outcome::kValues;
}

// Into the record as the probe copies a file with one audio stream.
void Store(const OggValues& values, MediaInfo* info) {
  ContainerTags tags = ContainerTagsFrom([&values](const char* key) -> const char* {
    for (const OggTag& t : values.tags)
      if (SameKey(t.key, key)) return t.value.c_str();
    return nullptr;
  });
  StoreOneAudioStream(tags, values.bit_rate, values.duration, values.sample_rate, values.channels,
                      values.audio_bit_rate, info);
}

}  // namespace

bool ReadOggMemory(const uint8_t* data, size_t size, OggValues* values) {
  auto length = static_cast<int64_t>(size);
  int64_t tail_at = length > kMaxPageSize ? length - kMaxPageSize : 0;
  OggValues out;
  if (WorkOut(data, size, data + tail_at, tail_at, length, &out) != Outcome::kValues) return false;
  *values = std::move(out);
  return true;
}

bool StartsWithOggPage(const uint8_t* head, size_t size) { return size >= 4 && memcmp(head, "OggS", 4) == 0; }

bool ReadOggValues(int fd, int64_t length, MediaInfo* info) {
  if (length < 27) return false;
  int64_t tail_at = length > kMaxPageSize ? length - kMaxPageSize : 0;
  // A file little longer than the first read is read whole, its end with it.
  bool whole = length <= static_cast<int64_t>(kHeadFirstRead) + kMaxPageSize;
  size_t want = whole ? static_cast<size_t>(length) : kHeadFirstRead;
  size_t first = std::min(want, kHeadFirstRead);
  auto head = std::make_unique_for_overwrite<uint8_t[]>(want);
  if (!ReadFullyAt(fd, head.get(), first, 0) || !StartsWithOggPage(head.get(), first)) return false;
  std::unique_ptr<uint8_t[]> tail;
  if (whole) {
    if (!ReadFullyAt(fd, head.get() + first, want - first, static_cast<int64_t>(first))) return false;
  } else {
    tail = std::make_unique_for_overwrite<uint8_t[]>(kMaxPageSize);
    if (!ReadFullyAt(fd, tail.get(), kMaxPageSize, tail_at)) return false;
  }
  OggValues values;
  // Bounded: the header read doubles up to kHeadLimit or the whole file.
  for (;;) {
    Outcome outcome = WorkOut(head.get(), want, whole ? head.get() + tail_at : tail.get(), tail_at, length, &values);
    if (outcome == Outcome::kValues) break;
    if (outcome == Outcome::kRefused || want >= kHeadLimit || static_cast<int64_t>(want) >= length) return false;
    want = static_cast<size_t>(std::min<int64_t>(length, static_cast<int64_t>(std::min(want * 2, kHeadLimit))));
    head = std::make_unique_for_overwrite<uint8_t[]>(want);
    if (!ReadFullyAt(fd, head.get(), want, 0)) return false;
  }
  Store(values, info);
  return true;
}

bool ReadOggValues(const char* path, MediaInfo* info) {
  return ReadOpenedAsProbe(path, [](int fd, int64_t length, MediaInfo* out) { return ReadOggValues(fd, length, out); }, info);
}
