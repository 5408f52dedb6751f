// Whom a desktop program runs as, for each kind of container and desktop.
#include <gtest/gtest.h>

#include "platform/desktop/desktop.h"

namespace {

using tarn::desktop::ChooseDesktopStart;
using tarn::desktop::SessionUser;
using Target = tarn::desktop::DesktopStart::Target;

TEST(DesktopStartTest, TheSessionUserForRootAnOwnDisplayOtherwiseNobody) {
  const SessionUser ada{"2", 1000, 1000, {24, 1000}, {"WAYLAND_DISPLAY=wayland-0", "HOME=/home/ada", "USER=ada"}};
  SessionUser root = ada;
  root.uid = 0;
  const std::vector<std::string> xvfb{"DISPLAY=:99", "TARNCORE_ROOT=/tmp/m", "SECRET=x"};
  const std::vector<std::string> service{"TARNCORE_ROOT=/tmp/m", "DISPLAY="};
  struct Case {
    const char* name;
    uid_t self;
    std::optional<SessionUser> session;
    std::vector<std::string> own;
    Target target;
  } cases[] = {
      {"root, a person logged on", 0, ada, xvfb, Target::kSessionUser},
      {"root, root logged on", 0, root, xvfb, Target::kNobody},
      {"root, no session, own display", 0, std::nullopt, xvfb, Target::kSelf},
      {"root, no session, no display", 0, std::nullopt, service, Target::kNobody},
      {"user, a person logged on", 1000, ada, service, Target::kSelf},
      {"user, own display", 1000, std::nullopt, xvfb, Target::kSelf},
      {"user, nothing", 1000, std::nullopt, service, Target::kNobody},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ChooseDesktopStart(c.self, c.session, c.own).target, c.target);
  }

  // The person's ids and environment, with our machine root, and nothing else of ours.
  const auto start = ChooseDesktopStart(0, ada, xvfb);
  EXPECT_EQ(start.as.uid, 1000u);
  EXPECT_EQ(start.as.gid, 1000u);
  EXPECT_EQ(start.as.groups, (std::vector<gid_t>{24, 1000}));
  EXPECT_EQ(start.as.environment,
            (std::vector<std::string>{"WAYLAND_DISPLAY=wayland-0", "HOME=/home/ada", "USER=ada",
                                      "PATH=/usr/local/bin:/usr/bin:/bin", "TARNCORE_ROOT=/tmp/m"}));
}

}  // namespace
