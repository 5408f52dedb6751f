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
  for (auto [ran, wait] : {std::pair{0ms, 1000ms}, {200ms, 2000ms}, {200ms, 4000ms}, {59000ms, 8000ms},
                           {1000ms, 8000ms}, {60000ms, 1000ms}, {0ms, 2000ms}}) {
    EXPECT_EQ(b.Next(ran), wait) << ran.count();
  }
}

TEST(LineSplitter, SplitsJoinsAndDropsOverlongLines) {
  LineSplitter s(8);
  EXPECT_TRUE(s.Feed("Notify").empty());
  EXPECT_EQ(s.Feed("A\r\n\nB\nC"), (std::vector<std::string>{"NotifyA", "B"}));
  EXPECT_EQ(s.Feed("\n123456789012\nok\n"), (std::vector<std::string>{"C", "ok"}));
  // Exactly the limit passes, with or without a '\r'; one more character doesn't.
  EXPECT_EQ(s.Feed("12345678\n12345678\r\n123456789\n"), (std::vector<std::string>{"12345678", "12345678"}));
}

TEST(SessionChanges, NewSessionsLogOnGoneOnesLogOff) {
  EXPECT_EQ(SessionChanges({"1", "2", "c1"}, {"2", "3", "c2"}),
            (std::vector<SessionEvent>{{6, 1}, {5, 3}}));
  EXPECT_TRUE(SessionChanges({"4"}, {"4"}).empty());
}

// Good options are those the integration tests start the service with.
TEST(SupervisorOptions, RejectsMissingBadAndUnknownValues) {
  SupervisorOptions o;
  std::string err;
  for (std::vector<const char*> bad : {std::vector<const char*>{"svc", "--container"},
                                       {"svc", "--stop-grace-ms", "-5"}, {"svc", "--fast"}}) {
    EXPECT_FALSE(ParseSupervisorOptions(static_cast<int>(bad.size()), const_cast<char**>(bad.data()), o, err))
        << bad[1];
  }
}
