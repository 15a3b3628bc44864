#include "platform/features.h"

std::atomic<int> gSupportCinedock{0};
std::atomic<int> gSupportPhoto{0};
