// The integration-test helpers, inside the appliance sandbox.
#include <syslog.h>

#include "support/sandbox.h"

using namespace orvo::test;

namespace {

using Harness = DaemonSandboxTest;  // for its skip outside the sandbox; no daemon runs here

TEST_F(Harness, ListenerReceivesEverySyslogMessageBeforeTheCountReturns) {
  openlog("harness", LOG_PID, LOG_DAEMON);
  syslog(LOG_ERR, "%s (%d) first message with 100%% of a %s", "harness.cpp", 12, "path");
  syslog(LOG_ERR, "second message\nwith a line break");
  // Counted at once: every message sent before the call is seen, one line each.
  EXPECT_EQ(SandboxLogCount("harness.cpp (12) first message with 100% of a path"), 1);
  EXPECT_EQ(SandboxLogCount("second message with a line break"), 1);
  for (int i = 0; i < 20; ++i) {
    syslog(LOG_ERR, "burst %d", i);
    ASSERT_EQ(SandboxLogCount("burst " + std::to_string(i)), 1) << "message " << i << " not seen yet";
  }
  closelog();
  EXPECT_EQ(SandboxLogCount("harness"), 22);
  EXPECT_EQ(SandboxLogCount("orvo-sandbox-sync"), 0) << "the helpers' own markers are not messages";
}

}  // namespace
