// TarnCoreService and TarnCoreContainer together, installed under a temporary machine root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "programs.h"
#include "support/eventually.h"
#include "support/run_program.h"

using namespace std::chrono_literals;
using namespace tarn::test;

namespace {

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { install_ = InstallPrograms(root_); }

  void TearDown() override {
    if (service_ > 0) KillAndReap(service_);
    for (pid_t pid : ContainerPids()) {
      if (ProcessAlive(pid)) ::kill(pid, SIGKILL);
    }
  }

  void StartService(std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {install_ + "TarnCoreService", "--no-session-monitor"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    service_ = Spawn(argv);
  }

  // The pids the service logged for the containers it started, in order.
  std::vector<pid_t> ContainerPids() const {
    std::vector<pid_t> pids;
    const std::string log = ReadText(ServiceLog(root_));
    static const std::regex started("TarnCoreContainer started pid ([0-9]+)");
    for (std::sregex_iterator it(log.begin(), log.end(), started), end; it != end; ++it) {
      pids.push_back(static_cast<pid_t>(std::stol((*it)[1])));
    }
    return pids;
  }

  void WaitReady(int times = 1) {
    ASSERT_TRUE(WaitForText(ServiceLog(root_), "TarnCoreContainer NotifyWorkStatus1", 30s, times))
        << ReadText(ServiceLog(root_)) << ReadText(ContainerLog(root_));
  }

  void Inject(const std::string& line) {
    const std::string fifo = root_.At("run/tarncore/TarnCoreService.ctl");
    int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0) << fifo;
    const std::string text = line + "\n";
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
  }

  // SIGTERM to the service; its exit status once it has ended.
  int StopService() {
    ::kill(service_, SIGTERM);
    int status = -1;
    EXPECT_TRUE(WaitExit(service_, 15s, &status)) << ReadText(ServiceLog(root_));
    service_ = -1;
    return status;
  }

  TempRoot root_;
  std::string install_;
  pid_t service_ = -1;
};

TEST_F(ServiceTest, StartsTheContainerForwardsEventsAndStopsItOnSigterm) {
  StartService();
  WaitReady();
  EXPECT_TRUE(WaitForText(ServiceLog(root_), "service ready", 5s));
  EXPECT_TRUE(WaitForText(ContainerLog(root_),
      "TarnCoreContainer.svcThreadFun SendDataPipe notifyState = 1(svcThreadFun)", 5s));
  // One service per machine root: a second one ends at once.
  int status = -1;
  ASSERT_TRUE(WaitExit(Spawn({install_ + "TarnCoreService", "--no-session-monitor"}), 10s, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);

  // Session events; each line is one read for the container.
  for (const char* line : {"NotifyWinEvent5EventId2", "NotifyWinEvent0EventId0", "NotifyWinEvent7EventId3"}) Inject(line);
  const std::string log = ContainerLog(root_);
  EXPECT_TRUE(WaitForText(log, "[service] NotifyWinEvent 5luEventId 2(TarnContainerProcess::Pipe_Listen)", 10s));
  EXPECT_TRUE(WaitForText(log, "[container] invalid notify(TarnContainerProcess::Pipe_Listen)", 10s));
  EXPECT_TRUE(WaitForText(log, "[service] NotifyWinEvent 7luEventId 3(TarnContainerProcess::Pipe_Listen)", 10s));

  const auto pids = ContainerPids();
  ASSERT_EQ(pids.size(), 1u);
  status = StopService();
  // Ended through the exit pipe, not killed after the grace period.
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(ProcessAlive(pids[0]));
  const std::string serviceLog = ReadText(ServiceLog(root_));
  EXPECT_NE(serviceLog.find("TarnCoreContainer ended, exit code 0"), std::string::npos) << serviceLog;
  EXPECT_EQ(serviceLog.find("killing it"), std::string::npos);
  EXPECT_NE(serviceLog.find("TarnCoreService end."), std::string::npos);
  EXPECT_EQ(CountText(log, "[E] [container] Main, TarnCoreService stop, TarnCoreContainer exit(main)"), 1);
  EXPECT_EQ(CountText(log, "Main, flush log and TarnCoreContainer end.(main)"), 1);
  EXPECT_FALSE(std::filesystem::exists(root_.At("run/tarncore/TarnCoreService.ctl")));
}

// The cloud's copy is saved before it is read, and a value of the wrong JSON
// type then throws out of the refresh worker and ends the container. The
// service starts a new one, which reads the cached copy: its kits fail to
// start, and it still serves the framework kit and gets the events.
TEST_F(ServiceTest, RestartsAContainerEndedByAMistypedCloudCopyAndTheContainerEndsWhenTheServiceDies) {
  const std::string mistyped = R"({"packageInfo": [{"packageName": {"not": "a text"}, "subKits": []}]})";
  Cloud cloud(root_, install_ + "config/service_urls.json");
  cloud.Serve("remoteConfig.json", mistyped);
  // The platform's own client: signed by a trusted maker key, in the installation.
  std::filesystem::copy_file(BuildDir() + "/tools/cli/tarncore", install_ + "tarncore");
  root_.WriteFile("etc/tarncore/trusted-keys/maker/tarn-dev.pub", ReadText(TARN_DEV_PUBLIC_KEY));
  // Installed as the package installs it, so that diagnose finds the installation.
  root_.WriteFile(kVtid + "Install_Path", "/opt/tarncore/");
  root_.WriteFile(kVtid + "Version", "5.3.0");
  StartService();
  WaitReady();
  const pid_t first = ContainerPids().at(0);

  // The first fetch comes a minute after the start; the uncaught exception aborts.
  ASSERT_TRUE(WaitForText(ServiceLog(root_), "TarnCoreContainer died, signal 6", 90s)) << ReadText(ContainerLog(root_));
  WaitReady(2);
  const auto pids = ContainerPids();
  ASSERT_EQ(pids.size(), 2u);
  EXPECT_NE(pids[1], first);
  EXPECT_TRUE(ProcessAlive(pids[1]));
  EXPECT_EQ(ReadText(install_ + "config/cache/remoteConfig.json"), mistyped);
  EXPECT_EQ(CountText(ContainerLog(root_), "KitManagerApi.Init faield.(KitManagerApi::Init)"), 1);
  const std::string tarncore = install_ + "tarncore";
  const RunResult call =
      RunProgram(tarncore, {"call", "Framework.EVReport", "--header", "client_id=204518762", "--body", "{}"});
  EXPECT_EQ(call.exitCode, 0) << call.output << ReadText(ContainerLog(root_));
  Inject("NotifyWinEvent6EventId4");
  EXPECT_TRUE(WaitForText(ContainerLog(root_), "NotifyWinEvent 6luEventId 4(", 10s));

  // diagnose names the cached copy as the cause, without the log.
  const RunResult diagnosis = RunProgram(tarncore, {"diagnose", "--offline"});
  EXPECT_NE(diagnosis.exitCode, 0);
  EXPECT_TRUE(diagnosis.Has("ERROR   remote configuration: " + install_ +
                            "config/cache/remoteConfig.json has a value of the wrong JSON type"))
      << diagnosis.output;

  KillAndReap(service_);
  service_ = -1;
  EXPECT_TRUE(WaitForText(ContainerLog(root_), "Main, TarnCoreService stop, TarnCoreContainer exit(main)", 10s));
  EXPECT_TRUE(WaitForText(ContainerLog(root_), "Main, flush log and TarnCoreContainer end.(main)", 10s));
  EXPECT_TRUE(Eventually([&] { return !ProcessAlive(pids[1]); }, 10s));
}

TEST_F(ServiceTest, KillsAContainerThatIgnoresTheExitPipeAfterTheGracePeriod) {
  root_.WriteFile("opt/stubborn", "#!/bin/sh\nexec sleep 600\n");
  std::filesystem::permissions(root_.At("opt/stubborn"), std::filesystem::perms::owner_all);
  StartService({"--container", root_.At("opt/stubborn"), "--stop-grace-ms", "300"});
  ASSERT_TRUE(WaitForText(ServiceLog(root_), "TarnCoreContainer started pid", 10s));
  const pid_t pid = ContainerPids().at(0);
  const int status = StopService();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(ProcessAlive(pid));
  EXPECT_EQ(CountText(ServiceLog(root_), "still running after 300 ms, killing it"), 1);
  EXPECT_EQ(CountText(ServiceLog(root_), "TarnCoreContainer ended, signal 9"), 1);
}

}  // namespace
