// The appliance's feature switches, read once at start-up from
// /etc.defaults/orvoinfo.conf and only read afterwards. Atomic words, as the
// daemon's other process-wide flags are.
#pragma once

#include <atomic>

inline constexpr const char kFeatureConfigFile[] = "/etc.defaults/orvoinfo.conf";

extern std::atomic<int> gSupportCinedock;  // video-application renames wanted
extern std::atomic<int> gSupportPhoto;     // photo database upkeep wanted
