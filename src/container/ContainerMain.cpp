#include "container/ContainerMain.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "access/scope_proxy.h"
#include "access/scope_util.h"
#include "access/zbrf_log_adapter.h"
#include "config/ConfigPlatform.h"
#include "config/ConfigRefresh.h"
#include "container/ContainerRequestGates.h"
#include "container/FirewallUtils.h"
#include "container/NetworkMonitor.h"
#include "container/SystemEvents.h"
#include "container/TarnContainerProcess.h"
#include "analytics/EvManager.h"
#include "analytics/EvScopeEventSink.h"
#include "framework/FrameworkKitAPI.h"
#include "kit/KitManagerApi.h"
#include "kit/KitRuntimeHooks.h"
#include "kit/LoadManger.h"
#include "notice/NoticeManager.h"
#include "support/SystemEnvironment.h"
#include "container/pipe_message.h"
#include "platform/commonutil/aaid.h"
#include "platform/commonutil/httputil.h"
#include "platform/log/tarn_log.h"
#include "platform/os/dbg_sdk.h"
#include "platform/os/event.h"
#include "platform/os/last_error.h"
#include "platform/os/places.h"
#include "platform/os/registry.h"
#include "platform/os/text.h"
#include "pipeline/ServerManager.h"
#include "platform/zbrf/service_manager.h"
#include "thread/ThreadManager.h"
#include "update/UpgradeManager.h"

namespace {

using VantrelThread::ThreadManager;

// The configuration hands each package's ServiceInfo.json to the service
// framework, which is how the scope service becomes known.
class ZbrfServiceInfoRegistrar : public tarn::config::ServiceInfoRegistrar {
 public:
  bool RegisterServiceInfo(const std::string& path) override {
    return tarn::zbrf::ZServiceManager::GetInstance().RegisterServiceInfo(path);
  }
};

// The exit handle as a descriptor to wait on: values beyond the descriptor
// range are as invalid as a closed one.
int ExitDescriptor(std::intptr_t handle) {
  return handle > 0 && handle <= INT_MAX ? static_cast<int>(handle) : -1;
}

}  // namespace

int TarnCoreContainerMain(const std::wstring& commandLine) {
  std::intptr_t exitHandle = 0;
  // Capabilities belong to each thread, and a thread starts with its creator's:
  // raised before the first thread (the privacy notice's) so that every thread
  // has it, and reported below in its place.
  const PtraceRaise ptrace = RaisePtraceCapability();

  initTarnLog(10, 10);
  CLOGI("main", "TarnCoreContainer.main begin.");
  DbgSdkInit();
  HttpUtil::Https_curl_global_init();
  NoticeManager::StartPrivacyNotice();

  if (!SetPrivilege(ptrace)) CLOGE("main", "SetPrivilege failed.");

  TarnContainerProcess::SetEventHandlers(
      {&NotifyWinEventToKit, &NoticeManager::LogonToCheckPrivacyNotice});
  if (TarnContainerProcess::GetParentPipeHandle(PipeHandles)) {
    ThreadManager::Instance().Create(TarnContainerProcess::Pipe_Listen, &PipeHandles.pipeRead,
                                     "TarnContainerProcess::Pipe_Listen", false);
  }

  exitHandle = tarn::container::ScanExitHandle(commandLine);

  ThreadManager::Instance().Create(svcThreadFun, nullptr, "svcThreadFun", true);

  const std::uint32_t waitResult = tarn::os::WaitForFd(ExitDescriptor(exitHandle), tarn::os::kInfinite);
  if (waitResult == tarn::os::kWaitObject0) {
    CLOGE("main", "Main, TarnCoreService stop, TarnCoreContainer exit");
  } else if (waitResult == tarn::os::kWaitTimeout) {
    CLOGE("main", "Main, Waiting timeout");
  } else if (waitResult == tarn::os::kWaitFailed) {
    CLOGE("main", "Function excuted failed " << tarn::os::GetLastError());
  }

  HttpUtil::Https_curl_global_free();
  ThreadManager::Instance().WaitAll();
  CLOGI("main", "Main, flush log and TarnCoreContainer end.");
  FlushTarnLogFile();
  DbgSdkUnInit();

  if (MustTerminateAtExit(SystemEnvironment::GetOSVersion(), NativeProcessorArchitecture())) {
    // Ends the process with code 0 at once: no static destructor runs.
    std::_Exit(0);
  }
  return 0;
}

std::uint32_t svcThreadFun(void* /*param*/) {
  CLOGI("svcThreadFun", "TarnCoreContainer.svcThreadFun begin.");
  InitDataDirectories();

  std::string installDirectory;
  GetInstallDirectory(installDirectory);
  // The Windows build made this the DLL search folder here. The dynamic loader
  // reads its search path once, at program start; kits are opened by full path
  // and find their own dependencies through their $ORIGIN run path, so there is
  // nothing to set.
  (void)installDirectory;

  CLOGI("svcThreadFun", "TarnCoreContainer.svcThreadFun IPCServer start.");
  // The first request can come as soon as the endpoint is open: the gates
  // that decide on it are in place before.
  ContainerRequestGates::InstallForProcess();
  // Scope service events wait in the reporter's list until its thread starts.
  ScopeProxy::SetEventSink(&EvScopeEventSink::Instance());
  ServerManager::GetInstance().ServerInit();
  CLOGI("svcThreadFun", "TarnCoreContainer.svcThreadFun IPCServer end.");

  // The framework kit and the update state, as the kit manager sees them.
  static tarn::framework::FrameworkKitHooks kitHooks;
  tarn::kit::SetKitRuntimeHooks(&kitHooks);
  // What a configuration refresh may load: kits, and the scope service.
  tarn::config::SetRefreshKitHooks({
      [](const std::string& package) { return LoadManger::GetInstance().HasKit(package); },
      [](const std::string& package) { return LoadManger::GetInstance().LoadKitDll(package); },
      [] { return ScopeProxy::Instance().HasService(); },
      [] { return ScopeProxy::Instance().CreateWasmScopeService(); }});
  static ZbrfServiceInfoRegistrar registrar;
  tarn::config::SetServiceInfoRegistrar(&registrar);
  KitManagerApi::GetInstance().Init();

  // The manager owns the adapter.
  tarn::zbrf::ZServiceManager::GetInstance().RegisterLogAdapter(new ZbrfLogAdapter());

  auto& threads = ThreadManager::Instance();
  if (tarn::os::WaitForSingle(threads.processExitEvent, 0) != tarn::os::kWaitObject0) {
    const std::string bytes = tarn::container::ToPipeBytes(tarn::container::WorkStatusText(1));
    const bool notifyState = TarnContainerProcess::SendDataPipe(PipeHandles, bytes.data(), bytes.size());
    CLOGI("svcThreadFun", "TarnCoreContainer.svcThreadFun SendDataPipe notifyState = " << notifyState);
    UpgradeManager::GetInstance().Init();
  }

  if (tarn::os::WaitForSingle(threads.processExitEvent, 1000) == tarn::os::kWaitTimeout) {
    ServerManager::GetInstance().SendServiceStartBroadcast();
    AAID::HandleRegAAID();
    std::string installPath;
    ReadVtidRegistryValue("Install_Path", installPath);
    if (!installPath.empty()) {
      std::wstring installPathW = tarn::os::Utf8ToWide(installPath);
      FirewallUtils::AddContainerUIRule(installPathW);
    }
    EvManager& evManager = EvManager::GetInstance();
    if (!evManager.started) {
      threads.Create(EvManager::ReportMsgProc, &evManager, "EvManager::ReportMsgProc", true);
      evManager.enabled = EvManager::IsShareAnalysisOn();
      evManager.started = true;
    }
    ScopeUtil::RefreshScopeCache();  // ListFiles of <common app data>/Vantrel/TARNCORE/cache/
    ScopeProxy::Instance().InvokeOpenGateway("204518762");
    UpgradeManager::GetInstance().ClearRedundantFile();
    // Its message loop keeps this thread until the process-exit event.
    tarn::container::SetNetworkMonitorCallbacks({&NotifyNetworkChangeToKit, &NetworkConnectForUpdate});
    InitNetworkMonitor();
  }

  CLOGI("svcThreadFun", "TarnCoreContainer.svcThreadFun end.");
  return 1;
}

// SeDebugPrivilege lets a process open every other process. What the
// container needs of it on Linux is to read /proc/<pid>/exe of its callers,
// which takes CAP_SYS_PTRACE for processes of other users (its own users'
// processes are readable anyway). So: look at the process's capability sets
// (the token), and raise CAP_SYS_PTRACE into the effective set when it is
// permitted. As with a token that lacks the privilege, a process that is not
// permitted it succeeds without it and sees its own user's processes only.
PtraceRaise RaisePtraceCapability() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, data) != 0) return {PtraceRaise::kReadFailed, errno};
  auto& set = data[CAP_TO_INDEX(CAP_SYS_PTRACE)];
  const std::uint32_t bit = CAP_TO_MASK(CAP_SYS_PTRACE);
  if ((set.effective & bit) != 0 || (set.permitted & bit) == 0) return {};
  set.effective |= bit;
  if (::syscall(SYS_capset, &header, data) != 0) return {PtraceRaise::kSetFailed, errno};
  return {};
}

bool SetPrivilege(const PtraceRaise& raise) {
  switch (raise.step) {
    case PtraceRaise::kRaised:
      return true;
    case PtraceRaise::kReadFailed:
      CLOGE("SetPrivilege", "SetPrivilege Failed error: " << raise.error);
      return false;
    case PtraceRaise::kSetFailed:
      CLOGE("SetPrivilege", "AdjustTokenPrivilege failed error: " << raise.error);
      return false;
  }
  return false;
}

void InitDataDirectories() {
  std::string base;
  GetCommonAppDataPath(base);
  LogDirHandle(base + "/Vantrel/TARNCORE/cache/");
  const std::string ucsLog = base + "/Vantrel/TARNCORE/log/tarnwucs";
  LogDirHandle(ucsLog);
  TarnCoreUcs::InitUcsKmsLog(ucsLog);
  LogDirHandle(base + "/Vantrel/TARNCORE/ev");
  LogDirHandle(base + "/Vantrel/TARNCORE/ev/work");
}

void LogDirHandle(std::string path) {
  if (!TarnCreateDirbyLev(path, 0)) {
    CLOGE("LogDirHandle", "Failed to create log directory by privilege = " << path);
  }
}

void GetInstallDirectory(std::string& directory) { directory = tarn::os::InstallDirectory(); }

void GetCommonAppDataPath(std::string& path) { path = tarn::os::CommonAppDataPath(); }

std::uint16_t NativeProcessorArchitecture() {
  utsname name{};
  if (::uname(&name) != 0) return 0xFFFF;
  const std::string machine = name.machine;
  if (machine == "x86_64") return 9;
  if (machine == "aarch64" || machine == "arm64") return 12;
  if (machine == "ia64") return 6;
  if (machine.size() == 4 && machine[0] == 'i' && machine.substr(2) == "86") return 0;
  if (machine.rfind("arm", 0) == 0) return 5;
  return 0xFFFF;
}

bool MustTerminateAtExit(const std::string& osName, std::uint16_t architecture) {
  std::string lower = osName;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (lower.find("windows 7") == std::string::npos) return false;
  return architecture != 6;
}
