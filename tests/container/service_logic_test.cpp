// The service's pure pieces: restart back-off, control lines, session changes, options.
#include <gtest/gtest.h>

#include "control_channel.h"
#include "restart_backoff.h"
#include "session_monitor.h"
#include "supervisor.h"

using namespace std::chrono_literals;
using namespace tarn::service;

TEST(RestartBackoff, DoublesOnQuickDeathsUpToTheMaximumAndResetsAfterAStableRun) {
  RestartBackoff b(1s, 8s, 60s);
  EXPECT_EQ(b.Next(0ms), 1000ms);
  EXPECT_EQ(b.Next(200ms), 2000ms);
  EXPECT_EQ(b.Next(200ms), 4000ms);
  EXPECT_EQ(b.Next(59s), 8000ms);
  EXPECT_EQ(b.Next(1s), 8000ms);
  EXPECT_EQ(b.Next(60s), 1000ms);
  EXPECT_EQ(b.Next(0ms), 2000ms);
}

TEST(LineSplitter, SplitsJoinsAndDropsOverlongLines) {
  LineSplitter s(8);
  EXPECT_TRUE(s.Feed("Notify").empty());
  auto lines = s.Feed("A\r\n\nB\nC");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "NotifyA");
  EXPECT_EQ(lines[1], "B");
  lines = s.Feed("\n123456789012\nok\n");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "C");
  EXPECT_EQ(lines[1], "ok");
  // Exactly the limit passes, with or without a '\r'.
  lines = s.Feed("12345678\n12345678\r\n");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "12345678");
}

TEST(SessionChanges, NewSessionsLogOnGoneOnesLogOff) {
  auto ev = SessionChanges({"1", "2", "c1"}, {"2", "3", "c2"});
  ASSERT_EQ(ev.size(), 2u);
  EXPECT_EQ(ev[0], (SessionEvent{6, 1}));
  EXPECT_EQ(ev[1], (SessionEvent{5, 3}));
  EXPECT_TRUE(SessionChanges({"4"}, {"4"}).empty());
}

TEST(SupervisorOptions, ParsesAndRejects) {
  const char* ok[] = {"svc", "--container", "/x/C", "--stop-grace-ms", "250",
                      "--no-session-monitor", "--control", "/x/ctl"};
  SupervisorOptions o;
  std::string err;
  ASSERT_TRUE(ParseSupervisorOptions(8, const_cast<char**>(ok), o, err)) << err;
  EXPECT_EQ(o.containerPath, "/x/C");
  EXPECT_EQ(o.controlPath, "/x/ctl");
  EXPECT_EQ(o.stopGrace, 250ms);
  EXPECT_FALSE(o.watchSessions);

  const char* missing[] = {"svc", "--container"};
  EXPECT_FALSE(ParseSupervisorOptions(2, const_cast<char**>(missing), o, err));
  const char* bad[] = {"svc", "--stop-grace-ms", "-5"};
  EXPECT_FALSE(ParseSupervisorOptions(3, const_cast<char**>(bad), o, err));
  const char* unknown[] = {"svc", "--fast"};
  EXPECT_FALSE(ParseSupervisorOptions(2, const_cast<char**>(unknown), o, err));
}
