// Environment for starting the daemon in the sandbox tests of the daemon,
// the queue and the client.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace orvo::test {

// The sandbox's fast clock, plus what a sanitizer build of the daemon needs
// to accept the clock library preloaded ahead of its own runtime.
inline std::vector<std::string> FastDaemonClock() {
  std::vector<std::string> env = kFastClock;
  const char* asan = getenv("ASAN_OPTIONS");
  std::string options = asan != nullptr && *asan != '\0' ? std::string(asan) + ":" : std::string();
  env.push_back("ASAN_OPTIONS=" + options + "verify_asan_link_order=0");
  return env;
}

}  // namespace orvo::test
