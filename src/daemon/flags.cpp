#include "daemon/flags.h"

std::atomic<int> gIsDirty{0};
std::atomic<int> gNewSignal{0};
std::atomic<int> gSignalCount{0};
time_t gLastVacuumTime = 0;
