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

// The stream analysis for an input opened through LoadAv(), before any packet
// was read from it: what avformat_find_stream_info returns, 0 or more when
// the streams' parameters are known, negative when none is. With
// ProbeMode::kLibraryDefaults it is avformat_find_stream_info unchanged.
int AnalyseStreams(AVFormatContext* ctx, ProbeMode mode);

// Options for avformat_open_input that the tuned probe needs; see the
// definition for why it needs none.
std::vector<std::pair<std::string, std::string>> ProbeOpenOptions(ProbeMode mode);
