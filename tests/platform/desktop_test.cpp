// Whom a desktop program runs as, for each kind of container and desktop, and
// a program started for the person beside its privileged part.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/desktop/desktop.h"
#include "support/eventually.h"
#include "support/temp_root.h"

namespace {

using tarn::desktop::ChooseDesktopStart;
using tarn::desktop::SessionUser;
using Target = tarn::desktop::DesktopStart::Target;

TEST(DesktopStartTest, TheSessionUserForRootAnOwnDisplayOtherwiseNobody) {
  const SessionUser ada{"2", {1000, 1000, {24, 1000}, {"WAYLAND_DISPLAY=wayland-0", "HOME=/home/ada", "USER=ada"}}};
  SessionUser root = ada;
  root.user.uid = 0;
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

// A logind that always has this session active.
class OneSession : public tarn::desktop::Sessions {
 public:
  explicit OneSession(SessionUser user) : user_(std::move(user)) {}
  std::optional<SessionUser> ActiveGraphicalSession() override { return user_; }

 private:
  SessionUser user_;
};

// The programs are scripts that say who they run as and what they were given:
// the person's program asks its part over the channel and writes the answer.
TEST(DesktopStartTest, APersonsProgramGetsItsPrivilegedPartBesideItAndOnlyThen) {
  if (::geteuid() != 0) GTEST_SKIP() << "starts programs as another user";
  constexpr uid_t kNobody = 65534;
  tarn::test::TempRoot root;
  ::chmod(root.path().c_str(), 0755);
  root.MakeDir("out");
  ::chmod(root.At("out").c_str(), 0777);
  const std::string out = root.At("out/");
  root.WriteFile("ui", "#!/bin/sh\necho upgrade >&5\nread answer <&5\necho \"$(id -u) $TARNCORE_PRIVILEGED_CHANNEL $answer $1\" > " + out + "ui\n");
  root.WriteFile("part", "#!/bin/sh\nread request <&5\necho \"$(id -u) $1 $2 $request\" > " + out + "part\necho 1 >&5\n");
  root.WriteFile("alone", "#!/bin/sh\nfd5=closed; [ -e /proc/$$/fd/5 ] && fd5=open\necho \"$(id -u) [$TARNCORE_PRIVILEGED_CHANNEL] $fd5\" > " + out + "alone\n");
  for (const char* file : {"ui", "part", "alone"}) ::chmod(root.At(file).c_str(), 0755);
  const tarn::os::PinnedFile ui(root.At("ui")), part(root.At("part")), alone(root.At("alone"));
  auto written = [&](const char* name) {
    std::string text;
    tarn::test::Eventually([&] { return !(text = root.ReadFile(std::string("out/") + name)).empty(); });
    return text;
  };

  OneSession person({"c2", {kNobody, kNobody, {kNobody}, {"DISPLAY=:42", "HOME=/"}}});
  tarn::desktop::SetSessionsForTesting(&person);
  ASSERT_TRUE(tarn::desktop::StartOnDesktop(ui, "Upgrade", &part));
  EXPECT_EQ(written("ui"), "65534 5 1 Upgrade\n");
  EXPECT_EQ(written("part"), "0 --channel 5 upgrade\n");
  // Without a part there is no channel.
  ASSERT_TRUE(tarn::desktop::StartOnDesktop(alone, "", nullptr));
  EXPECT_EQ(written("alone"), "65534 [] closed\n");
  tarn::desktop::SetSessionsForTesting(nullptr);
}

}  // namespace
