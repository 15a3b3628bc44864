// How much of libavformat's stream analysis the generic probe runs. The
// analysis (avformat_find_stream_info) reads packets, opens decoders and
// decodes first frames so that every stream's parameters, start and
// duration are known; for most files the header has already settled every
// value the record keeps. The tuned probe does only the part that can still
// change a stored value and leaves everything else as the library's full
// analysis would; where it cannot tell, it runs the full analysis.
#pragma once

#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "meta/metamedia.h"
#include "meta/program_stream.h"

enum class Analysis {
  kKnown,            // the streams' parameters are known
  kUnknown,          // they are not: the file cannot be probed
  kOpenAgainUntuned  // a shortcut did not hold: open the input afresh and analyse it with kLibraryDefaults
};

// The stream analysis for an input opened through LoadAv(), before any packet
// was read from it. With ProbeMode::kLibraryDefaults it is
// avformat_find_stream_info unchanged, known when that returns 0 or more.
// `fd`, when not -1, is the descriptor the input reads: an MPEG program
// stream's head is then mapped from it rather than read through the input.
Analysis AnalyseStreams(AVFormatContext* ctx, ProbeMode mode, int fd = -1);

// The scan (meta/program_stream) of what libavformat's full analysis of an
// input the "mpeg" demuxer opened would read, from where the demuxer starts;
// the input is left where it was. AnalyseStreams gives such an input the
// short analysis only when this finds no doubt. kWindowOpen when the bytes
// cannot be had.
PsScan ScanAnalysedPart(AVFormatContext* ctx, int fd = -1);

// What the tuned analysis of an opened input needs the H.264 decoder for.
enum class H264Decoder {
  kNeeded,        // it may change a stored value
  kRedundant,     // the header's parameter sets already confirm the size it would report
  kCheckedAfter,  // not if the parameter sets the analysis finds confirm the size
};
H264Decoder H264DecoderNeed(const AVFormatContext* ctx);

// Options for avformat_open_input that the tuned probe needs; see the
// definition for why it needs none.
std::vector<std::pair<std::string, std::string>> ProbeOpenOptions(ProbeMode mode);
