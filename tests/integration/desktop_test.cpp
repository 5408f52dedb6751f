// The desktop programs with the real service and container on a whole demo
// machine: the privacy notice and the update dialogs on an Xvfb display of the
// test's own, answered by keyboard, as the container's user and as a person
// whom logind has at the desktop; the update cycle against the reference
// cloud, which serves a signed package; lock and unlock from a private system
// bus to the demo kit.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <thread>

#include "programs.h"
#include "support/eventually.h"

using namespace std::chrono_literals;
using namespace tarn::test;
namespace fs = std::filesystem;

namespace {

// Runs a shell command and gives its standard output.
std::string Shell(const std::string& command) {
  std::string out;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
    ::pclose(pipe);
  }
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

std::string Built(const std::string& relative) { return BuildDir() + "/" + relative; }

// An Xvfb on a display number nobody uses, which it names once it takes
// connections, and xdotool on it.
class Xvfb {
 public:
  // open: any local user may draw on it, as a person's session lets the person.
  explicit Xvfb(bool open = false) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return;
    std::vector<std::string> argv{"/usr/bin/Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "1280x1024x24"};
    if (open) argv.push_back("-ac");
    pid_ = Spawn(argv, {ready[1], -1, -1, {}});
    ::close(ready[1]);
    // Xvfb writes the number and its line feed apart and dies if the second
    // write finds the pipe closed: read up to the line feed.
    std::string number;
    for (char c; ::read(ready[0], &c, 1) == 1 && c != '\n';) number += c;
    if (!number.empty()) display_ = ":" + number;
    ::close(ready[0]);
  }
  ~Xvfb() { KillAndReap(pid_); }
  const std::string& display() const { return display_; }

  // The window with this title once it is shown ("" if none came).
  std::string Window(const std::string& title) const {
    return Shell("DISPLAY=" + display_ + " timeout 30 xdotool search --sync --onlyvisible --name '^" + title + "$' | head -1");
  }
  bool HasWindow(const std::string& title) const {
    return !Shell("DISPLAY=" + display_ + " xdotool search --onlyvisible --name '^" + title + "$'").empty();
  }
  // Focuses the window and types. A window just shown takes a moment to
  // settle its focus and default button, as a person's first key would.
  void Keys(const std::string& window, const std::string& keys) const {
    std::this_thread::sleep_for(1s);
    Shell("DISPLAY=" + display_ + " xdotool windowfocus --sync " + window);
    std::this_thread::sleep_for(300ms);
    Shell("DISPLAY=" + display_ + " xdotool key --clearmodifiers " + keys);
  }
  pid_t Pid(const std::string& window) const {
    return static_cast<pid_t>(std::atoi(Shell("DISPLAY=" + display_ + " xdotool getwindowpid " + window).c_str()));
  }
  // The real uid of the window's process.
  std::string Uid(const std::string& window) const {
    return Shell("awk '/^Uid:/ {print $2}' /proc/" + std::to_string(Pid(window)) + "/status");
  }

 private:
  pid_t pid_ = -1;
  std::string display_;
};

// A demo machine: the four programs, the demo kit and the scope service, the
// build's key trusted as the maker's, and the demo's scope policy.
class DesktopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::unsetenv("DISPLAY");
    ::unsetenv("WAYLAND_DISPLAY");
    install_ = root_.At("opt/tarncore/");
    fs::create_directories(install_ + "kits");
    for (const char* program : {"src/container/TarnCoreContainer", "tools/service/TarnCoreService",
                                "tools/notice/TarnCoreNotice", "tools/ui/TarnCoreUI",
                                "tools/updater/TarnCoreUpdater"}) {
      fs::copy_file(Built(program), install_ + fs::path(program).filename().string());
    }
    for (const char* package : {"com.vantrel.demo", "com.vantrel.demo.lazy", "com.vantrel.scopeservice"}) {
      fs::copy(Built(std::string("kits/") + package), install_ + "kits/" + package, fs::copy_options::recursive);
    }
    fs::create_directories(install_ + "config");
    fs::copy_file(SourceDir() + "/demo/install/config/remoteConfig.json", install_ + "config/remoteConfig.json");
    root_.WriteFile("etc/os-release", "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n");
    for (const auto& [name, value] : {std::pair{"Install_Path", install_}, {"Version", "5.3.0"},
                                      {"ShareAnalysis", "false"}, {"AutoUpgrade", "false"}}) {
      root_.WriteFile(kVtid + name, value);
    }
    root_.WriteFile("etc/tarncore/trusted-keys/maker/tarn-dev.pub", ReadText(TARN_DEV_PUBLIC_KEY));
    std::string policy = ReadText(SourceDir() + "/demo/root-template/etc/tarncore/scope-policy.json");
    policy = std::regex_replace(policy, std::regex("@TARN_DEV_FINGERPRINT@"),
                                Shell(std::string(TARN_SIGN_TOOL) + " fingerprint " + Built("tools/cli/tarncore")));
    root_.WriteFile("etc/tarncore/scope-policy.json", policy);
    // The cloud offers a newer version: an installer script, signed, that leaves its mark.
    cloud_ = std::make_unique<Cloud>(root_, install_ + "config/service_urls.json",
                                     std::vector<std::string>{"--key", TARN_DEV_PRIVATE_KEY, "--sign-tool", TARN_SIGN_TOOL});
    cloud_->Serve("update.json",
                  R"({"version": "9.0.0", "installer": "setup.sh", "arguments": ")" + root_.At("installed") + R"("})");
    cloud_->Serve("packages/setup.sh", "#!/bin/sh\necho installed by $(id -u) > \"$1\"\nexit 0\n");
  }

  void TearDown() override {
    if (service_ > 0) {
      ::kill(service_, SIGTERM);
      if (!WaitExit(service_, 15s)) KillAndReap(service_);
    }
    // What the container started from this machine's folder ends with it.
    for (const auto& entry : fs::directory_iterator("/proc")) {
      std::error_code error;
      const fs::path exe = fs::read_symlink(entry.path() / "exe", error);
      if (!error && exe.string().rfind(install_, 0) == 0) ::kill(std::stoi(entry.path().filename()), SIGKILL);
    }
  }

  void StartService(std::vector<std::string> env, bool sessionMonitor = false,
                    const std::vector<std::string>& wrapper = {}) {
    env.push_back("GSK_RENDERER=cairo");  // Xvfb has no GL worth the name
    env.push_back("GTK_A11Y=none");       // nor an accessibility bus
    std::vector<std::string> argv = wrapper;
    argv.push_back(install_ + "TarnCoreService");
    if (!sessionMonitor) argv.push_back("--no-session-monitor");
    SpawnOptions options;
    options.extraEnv = env;
    service_ = Spawn(argv, options);
    WaitReady();
  }

  void WaitReady(int times = 1) {
    ASSERT_TRUE(WaitForText(ServiceLog(root_), "TarnCoreContainer NotifyWorkStatus1", 60s, times))
        << ReadText(ServiceLog(root_)) << ReadText(ContainerLog(root_));
    // The start-up tail has run once the network monitor, its last step, is up.
    ASSERT_TRUE(WaitForText(ContainerLog(root_), "(InitNetworkMonitor)", 30s, times)) << ReadText(ContainerLog(root_));
  }

  // The demo client's call; its printed answer.
  std::string Call(const std::string& uri, const std::string& options = "") {
    return Shell(Built("tools/cli/tarncore") + " call " + uri + " " + options + " 2>&1");
  }
  std::string AskForUpdate() { return Call("Framework.Updatekit", "--header sdk_version=5.3.0.300"); }

  // PrivacyNotice unset: the notice comes, as `uid`, and Enter agrees.
  void AgreeToNotice(const Xvfb& x, const std::string& uid) {
    const std::string notice = x.Window("Tarn Core privacy notice");
    ASSERT_FALSE(notice.empty()) << ReadText(ContainerLog(root_));
    EXPECT_EQ(Count("start PrivacyNoticeUI succes(NoticeManager::ShowPrivacyNoticeTray)"), 1);
    EXPECT_EQ(x.Uid(notice), uid);
    x.Keys(notice, "Return");
    ASSERT_TRUE(Eventually([&] { return Registry("PrivacyNotice") == "true"; }, 30s))
        << ReadText(root_.At("var/lib/Vantrel/TARNCORE/log/TarnCoreNotice.log")) << ReadText(ContainerLog(root_));
    EXPECT_EQ(Registry("PrivacyAgree"), "64000000");
    EXPECT_TRUE(Eventually([&] { return !x.HasWindow("Tarn Core privacy notice"); }, 30s));
  }

  // Asked for, agreed with Enter: the update runs, the package installs with
  // root's rights and the result re-initialises the kits. The outcome stays up
  // until the person closes it. Both windows run as `uid`.
  void AgreeToUpdate(const Xvfb& x, const std::string& uid) {
    EXPECT_NE(AskForUpdate().find("907135009"), std::string::npos);
    const std::string question = x.Window("prompting");
    ASSERT_FALSE(question.empty()) << ReadText(ContainerLog(root_));
    EXPECT_EQ(x.Uid(question), uid);
    x.Keys(question, "Return");
    ASSERT_TRUE(WaitForText(ContainerLog(root_), "user agree update.(UpdateKitResultReqHandler::Excute)", 30s));
    ASSERT_TRUE(WaitForText(ContainerLog(root_), "UpdateKitResultReqHandler.Excute end.", 60s)) << ReadText(ContainerLog(root_));
    EXPECT_EQ(ReadText(root_.At("installed")), "installed by 0\n");
    EXPECT_EQ(CountText(root_.At("cloud/received/requests.log"), "GET /tarncore/update/package/setup.sh 200"), 1);
    EXPECT_EQ(Count("KitManagerApi.InitKitsForUpdate end."), 1);
    const std::string outcome = x.Window("prompting");
    ASSERT_FALSE(outcome.empty());
    EXPECT_EQ(x.Uid(outcome), uid);
    x.Keys(outcome, "Return");
    EXPECT_TRUE(Eventually([&] { return !x.HasWindow("prompting"); }, 30s));
  }

  // The type of the last session event the demo kit got.
  std::string LastSessionEvent() {
    const std::string answer = Call("Demo.LastEvent");
    std::smatch type;
    return std::regex_search(answer, type, std::regex(R"re("lastSessionType"\s*:\s*"([0-9]*)")re")) ? type[1].str() : "";
  }

  int Count(const std::string& text) { return CountText(ContainerLog(root_), text); }
  std::string Registry(const std::string& name) { return ReadText(root_.At(kVtid + name)); }

  TempRoot root_;
  std::string install_;
  std::unique_ptr<Cloud> cloud_;
  pid_t service_ = -1;
};

TEST_F(DesktopTest, NoticeAndUpdateDialogsOnTheDisplayAnsweredByKeyboard) {
  Xvfb x;
  ASSERT_FALSE(x.display().empty());
  StartService({"DISPLAY=" + x.display()});

  // The windows run as the test, which has the display.
  const std::string self = std::to_string(::geteuid());
  AgreeToNotice(x, self);

  // The next container start finds the notice done and shows nothing.
  const std::string serviceLog = ReadText(ServiceLog(root_));
  std::smatch started;
  ASSERT_TRUE(std::regex_search(serviceLog, started, std::regex("TarnCoreContainer started pid ([0-9]+)")));
  ::kill(std::stoi(started[1]), SIGKILL);
  WaitReady(2);
  EXPECT_EQ(Count("PrivacyNotice and PrivacyAgree not need start!(NoticeManager::ShowPrivacyNoticeTray)"), 1);
  EXPECT_FALSE(x.HasWindow("Tarn Core privacy notice"));

  // A newer client's update: the question, declined with Escape; the cycle ends.
  EXPECT_NE(AskForUpdate().find("907135009"), std::string::npos);
  std::string question = x.Window("prompting");
  ASSERT_FALSE(question.empty()) << ReadText(ContainerLog(root_));
  x.Keys(question, "Escape");
  ASSERT_TRUE(WaitForText(ContainerLog(root_), "user can not agree update.(UpdateKitResultReqHandler::Excute)", 30s));
  EXPECT_TRUE(WaitForText(ContainerLog(root_), "KitStoreManager.CompleteUpdate end.", 10s));

  AgreeToUpdate(x, self);

  // A UI that dies mid-question leaves the update to the container's expiry:
  // until then a new request is told the update is running.
  EXPECT_NE(AskForUpdate().find("907135009"), std::string::npos);
  question = x.Window("prompting");
  ASSERT_FALSE(question.empty());
  const pid_t ui = x.Pid(question);
  ASSERT_GT(ui, 0);  // kill(0) would end the test's own process group
  ::kill(ui, SIGKILL);
  EXPECT_NE(AskForUpdate().find("907135009"), std::string::npos);
  EXPECT_EQ(Count("TARN is Updating.(KitStoreManager::StartSelfUpdate)"), 1);
}

// What logind would tell of a person, uid 65534, in an X11 session on the
// display: a private /run for the service, with seat0's active session in it.
std::vector<std::string> PersonAtTheDesktop(const std::string& display) {
  return {"/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-c",
          "set -e; mount -t tmpfs tarn-test-run /run; mkdir -p /run/systemd/seats /run/systemd/sessions;"
          "printf 'ACTIVE=c7\\nACTIVE_UID=65534\\n' > /run/systemd/seats/seat0;"
          "printf 'TYPE=x11\\nUID=65534\\nSEAT=seat0\\nACTIVE=1\\nDISPLAY=" + display +
              "\\n' > /run/systemd/sessions/c7;"
          "exec \"$@\"",
          "sh"};
}

// On a person's desktop the windows run as the person, never as root, and
// still report; the install they ask for runs with the service's rights.
TEST_F(DesktopTest, ForAPersonAtTheDesktopTheWindowsRunAsThePersonAndTheInstallAsRoot) {
  if (::geteuid() != 0 ||
      Shell("unshare --mount --propagation private /bin/sh -c 'mount -t tmpfs tarn-test-probe /run' 2>&1 && echo yes") !=
          "yes") {
    GTEST_SKIP() << "needs root and mount namespaces to stand in for logind";
  }
  Xvfb x(true);
  ASSERT_FALSE(x.display().empty());
  fs::permissions(root_.path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                    fs::perms::others_read | fs::perms::others_exec);
  StartService({}, false, PersonAtTheDesktop(x.display()));

  AgreeToNotice(x, "65534");
  AgreeToUpdate(x, "65534");
}

// Emits one of logind's session signals on a bus, as logind.
void EmitSessionSignal(const std::string& address, const char* member, const char* sessionPath) {
  sd_bus* bus = nullptr;
  ASSERT_GE(sd_bus_new(&bus), 0);
  ASSERT_GE(sd_bus_set_address(bus, address.c_str()), 0);
  sd_bus_set_bus_client(bus, 1);
  ASSERT_GE(sd_bus_start(bus), 0);
  ASSERT_GE(sd_bus_request_name(bus, "org.freedesktop.login1", 0), 0);
  ASSERT_GE(sd_bus_emit_signal(bus, sessionPath, "org.freedesktop.login1.Session", member, ""), 0);
  sd_bus_flush_close_unref(bus);
}

// Lock and unlock come from a private system bus, as logind sends them. There
// is no display and no session there: the update UI has nowhere to start.
TEST_F(DesktopTest, LockAndUnlockReachTheKitAndWithoutADesktopOrWithAnUnsignedUiTheUpdateFails) {
  root_.WriteFile(kVtid + "PrivacyNotice", "true");
  root_.MakeDir("run");
  const std::string socket = root_.At("run/system_bus");
  root_.WriteFile("etc/bus.conf",
                  "<busconfig><type>system</type><listen>unix:path=" + socket +
                      "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
                      "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>");
  const pid_t bus = Spawn({"/usr/bin/dbus-daemon", "--nofork", "--config-file=" + root_.At("etc/bus.conf")});
  ASSERT_TRUE(Eventually([&] { return fs::exists(socket); }, 10s));
  const std::string address = "unix:path=" + socket;
  StartService({"DBUS_SYSTEM_BUS_ADDRESS=" + address}, true);

  EmitSessionSignal(address, "Lock", "/org/freedesktop/login1/session/_33");
  EXPECT_TRUE(WaitForText(ContainerLog(root_), "[service] NotifyWinEvent 7luEventId 3(", 10s)) << ReadText(ServiceLog(root_));
  EXPECT_TRUE(Eventually([&] { return LastSessionEvent() == "7"; }, 10s)) << Call("Demo.LastEvent");
  EmitSessionSignal(address, "Unlock", "/org/freedesktop/login1/session/_33");
  EXPECT_TRUE(Eventually([&] { return LastSessionEvent() == "8"; }, 10s)) << Call("Demo.LastEvent");

  EXPECT_NE(AskForUpdate().find("907135007"), std::string::npos);
  EXPECT_EQ(Count("UpgradeManager.StartVTFrameworkUI StartProcess failed."), 1);
  // A UI without its signature is not started; the container serves on.
  const std::string ui = install_ + "TarnCoreUI";
  fs::resize_file(ui, fs::file_size(ui) - 112);
  EXPECT_NE(AskForUpdate().find("907135007"), std::string::npos);
  EXPECT_EQ(Count("[E] [container] sign verify failed. exepath = TarnCoreUI.exe"), 1);
  EXPECT_EQ(Count("UpgradeManager.StartVTFrameworkUI StartProcess failed."), 1);
  EXPECT_NE(Call("Demo.Echo", R"(--body '{"text":"still here"}')").find("still here"), std::string::npos);
  KillAndReap(bus);
}

}  // namespace
