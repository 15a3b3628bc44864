// The generic media probe: opens a file through libavformat and copies the
// container's tags and its streams' parameters into a media record. It never
// clears the record, so the handler's file-name defaults survive wherever
// the file has no value of its own.
#pragma once

#include <dlfcn.h>

#include <initializer_list>
#include <memory>

extern "C" {
#include <libavformat/avformat.h>
}

#include "platform/media_info.h"

// How much libavformat may read to find the streams' parameters.
enum class ProbeMode {
  kTuned,            // our limits where they leave every stored value as it is
  kLibraryDefaults,  // whatever libavformat reads on its own
};

// Probe entry point of the generic handlers. Returns 0, or -1 after logging
// "Failed to get Misc Media Info from [path]." Fields copied before a failure
// stay in the record. The file is opened here and read by the probe helper
// process (meta/probe_helper.h): libavformat never runs in the caller's
// process. Anything but a regular file is refused without being read.
int ReadMediaInfo(const char* path, MediaInfo* info, ProbeMode mode = ProbeMode::kTuned);

// The probe itself, on a file the caller opened: what the probe helper runs.
// libavformat reads through `fd` only (pread; the descriptor's offset is left
// alone) and opens nothing else: demuxers that would open other resources
// are refused and every nested open fails. `path` names the file in the
// messages and lets libavformat weigh the extension. Logs as the probe always
// has; returns 0 or -1.
int ProbeDescriptor(int fd, const char* path, MediaInfo* info, ProbeMode mode);

// The libavformat entry points we call. The library is loaded when the
// first file needs it, not linked: linking it made every start of the daemon
// map and relocate the 140-odd libraries it brings in, though most runs (MP3
// shares, pictures, playlists) never call it.
struct AvLibrary {
  decltype(&avformat_open_input) openInput;
  decltype(&avformat_find_stream_info) findStreamInfo;
  decltype(&avformat_close_input) closeInput;
  decltype(&av_find_input_format) findInputFormat;
  decltype(&av_dict_get) dictGet;
  decltype(&av_dict_set) dictSet;
  decltype(&av_dict_free) dictFree;
  decltype(&avformat_alloc_context) allocContext;
  decltype(&avio_alloc_context) allocIo;
  decltype(&avio_context_free) freeIo;
  decltype(&av_malloc) allocBuffer;
  decltype(&av_freep) freep;
  decltype(&av_demuxer_iterate) demuxerIterate;
};

// The FFmpeg library `base` ("libavformat", "libavcodec", ...) of the major
// version `major` the build's headers describe (the structures we read must
// match the library's, so no other version is tried), through dlopen with
// `flags`. Null when it cannot be opened; never closed.
void* OpenAvLibrary(const char* base, int major, int flags);

// The entry point `name` of `library` into `out`; false when the library
// (null here) or the symbol is missing.
template <typename Function>
bool ResolveAv(void* library, const char* name, Function& out) {
  out = library != nullptr ? reinterpret_cast<Function>(dlsym(library, name)) : nullptr;
  return out != nullptr;
}

// Loads the library once, with its own messages kept out of syslog. Null,
// logged the first time, when it cannot be loaded: every file then counts
// as one libavformat cannot open.
const AvLibrary* LoadAv();

// Owner of an opened input: closes it with avformat_close_input. Only an
// input opened through LoadAv() exists, so the library is there.
struct AvInputCloser {
  void operator()(AVFormatContext* ctx) const { LoadAv()->closeInput(&ctx); }
};
using AvInput = std::unique_ptr<AVFormatContext, AvInputCloser>;

// The container's tags as the record takes them: the format context's
// metadata, or the first audio stream's when the container carries none of
// them (Ogg keeps its comments on the stream). Each field takes the first of
// the names the demuxers give it (see TagsOf in metamedia.cpp).
struct ContainerTags {
  const char* title = nullptr;
  const char* artist = nullptr;  // artist, or author
  const char* album = nullptr;   // album, or product
  const char* date = nullptr;    // date, year, or WM/Year
  const char* track = nullptr;   // track, or WM/Track (counted from 0)
  const char* genre = nullptr;
  bool track_from_zero = false;  // `track` is WM/Track
};
ContainerTags GetContainerTags(const AVFormatContext* ctx);

// The same names over any tag lookup: `tag(name)` gives the value of the
// first tag called `name` (matched without case), or null. One list for the
// probe's dictionaries and for readers that keep the tags themselves.
template <typename Lookup>
ContainerTags ContainerTagsFrom(Lookup tag) {
  ContainerTags t;
  auto first = [&tag](std::initializer_list<const char*> keys) -> const char* {
    for (const char* key : keys)
      if (const char* value = tag(key)) return value;
    return nullptr;
  };
  t.title = tag("title");
  t.artist = first({"artist", "author"});
  t.album = first({"album", "product"});
  t.date = first({"date", "year", "WM/Year"});
  t.track = tag("track");
  if (t.track == nullptr && (t.track = tag("WM/Track")) != nullptr) t.track_from_zero = true;
  t.genre = tag("genre");
  return t;
}

// Opens the regular file `path` as ProbeFile opens the probe's descriptor
// and hands the descriptor and the file's size to `read`: the by-name entry
// point of a reader ProbeFile calls (tests and benchmarks). False when the
// file cannot be opened or is not a regular file.
bool ReadOpenedAsProbe(const char* path, bool (*read)(int fd, int64_t length, MediaInfo* info), MediaInfo* info);

// The container's share of the record as the probe stores it: the bit rate,
// the duration (`duration_us`, microseconds) in whole seconds and the tags
// but the album, which only a file without pictures takes.
void StoreContainerValues(const ContainerTags& tags, int64_t bit_rate, int64_t duration_us, MediaInfo* info);

// What the probe stores of a file whose one stream is audio, for the readers
// of our own that work out the same values (meta/ogg_reader,
// meta/asf_reader); a rate or bit rate of 0 leaves the field as it is.
void StoreOneAudioStream(const ContainerTags& tags, int64_t bit_rate, int64_t duration_us, int32_t sample_rate,
                         int32_t channels, int64_t audio_bit_rate, MediaInfo* info);

// The track number the record takes: atoi of the track text ("3/12" is 3),
// plus one for a number counted from 0; 0 when there is none.
int ContainerTrack(const ContainerTags& tags);

// Streams that newer libavformat shows but that are no audio, video or
// subtitle content of the file: cover art (a one-picture "video" stream), the
// navigation packets of DVD program streams and the program guide of DVB
// transport streams. Counted, the first would take every tagged song's album
// away and the others would end the stream loop with "Invalid stream type."
// before the streams after them; all are passed over.
inline bool IsSideStream(const AVStream* st) {
  return (st->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0 || st->codecpar->codec_id == AV_CODEC_ID_DVD_NAV ||
         st->codecpar->codec_id == AV_CODEC_ID_EPG;
}

// The same, knowing the container: FLV has no subtitle or data tracks, so
// the subtitle streams libavformat makes of its script data (onTextData,
// onCaption, cue points) are side streams too.
bool IsSideStream(const AVFormatContext* ctx, const AVStream* st);
