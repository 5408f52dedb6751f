#include "platform/zbrf/service_manager.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

#include "platform/security/security.h"
#include "platform/security/signature.h"
#include "platform/zbrf/framework_log.h"
#include "platform/zbrf/sandbox_channel.h"

namespace tarn::zbrf {

namespace fs = std::filesystem;

namespace {

using Factory = bool (*)(std::shared_ptr<ZObject>*);

std::string FdPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

// Opens a service file and checks the signature of what was opened. The
// descriptor is what the caller then loads or executes. -1 on failure.
int OpenAndVerify(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    ZBRF_LOG(Error, "cannot open service file " << path);
    return -1;
  }
  if (!VerifyEmbeddedSignature(FdPath(fd).c_str())) {
    ZBRF_LOG(Error, "service file fails its signature check " << path);
    ::close(fd);
    return -1;
  }
  return fd;
}

// Libraries stay loaded for the life of the process, one per file (device and
// inode). Their descriptors stay open too: dlopen goes by the name
// /proc/self/fd/<n>, and a reused number must never name an earlier library.
struct LoadedLibraries {
  std::mutex mutex;
  std::map<std::pair<dev_t, ino_t>, void*> handles;
};

LoadedLibraries& Libraries() {
  static auto* libraries = new LoadedLibraries;
  return *libraries;
}

bool SafeRelativePath(const std::string& text) {
  if (text.empty() || text.front() == '/') return false;
  for (const auto& part : fs::path(text))
    if (part == "..") return false;
  return true;
}

}  // namespace

ZServiceManager& ZServiceManager::GetInstance() {
  static auto* manager = new ZServiceManager;
  return *manager;
}

ZServiceManager::ZServiceManager() : sandboxTimeout_(kMaxSandboxTimeout) {}
ZServiceManager::~ZServiceManager() = default;

bool ZServiceManager::Init() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!initialized_) {
    initialized_ = true;
    ZBRF_LOG(Info, "service manager ready");
  }
  return true;
}

void ZServiceManager::SetSandboxTimeout(std::chrono::milliseconds timeout) {
  if (timeout.count() <= 0 || timeout > kMaxSandboxTimeout) timeout = kMaxSandboxTimeout;
  std::lock_guard<std::mutex> lock(mutex_);
  sandboxTimeout_ = timeout;
}

std::vector<ZServiceManager::ServiceInfo> ZServiceManager::Services() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return services_;
}

ZServiceManager::ServiceInfoFile ZServiceManager::ReadServiceInfo(const std::string& path) {
  ServiceInfoFile file;
  std::ifstream in(path, std::ios::binary);
  if (!in) return file;
  Json::CharReaderBuilder builder;
  Json::Value root;
  if (!Json::parseFromStream(builder, in, &root, &file.error) || !root.isObject() ||
      !root["services"].isArray()) {
    file.state = ServiceInfoFile::State::kNotServiceInfo;
    return file;
  }
  file.state = ServiceInfoFile::State::kRead;
  const fs::path folder = fs::absolute(fs::path(path)).parent_path();
  for (const auto& entry : root["services"]) {
    ServiceEntry& judged = file.entries.emplace_back();
    if (!entry.isObject() || !entry["name"].isString() || !entry["kind"].isString() ||
        !entry["path"].isString() || !entry["methods"].isArray()) {
      judged.problem = ServiceEntry::Problem::kMalformed;
      continue;
    }
    ServiceInfo& info = judged.info;
    info.name = entry["name"].asString();
    judged.kindText = entry["kind"].asString();
    judged.pathText = entry["path"].asString();
    if (judged.kindText == "library") {
      info.kind = Kind::Library;
    } else if (judged.kindText == "sandbox") {
      info.kind = Kind::Sandbox;
    } else {
      judged.problem = ServiceEntry::Problem::kUnknownKind;
      continue;
    }
    if (info.name.empty() || !SafeRelativePath(judged.pathText)) {
      judged.problem = ServiceEntry::Problem::kBadPath;
      continue;
    }
    for (const auto& method : entry["methods"])
      if (method.isString() && !method.asString().empty()) info.methods.push_back(method.asString());
    info.path = (folder / judged.pathText).lexically_normal().string();
    if (!VerifyEmbeddedSignature(info.path.c_str())) judged.problem = ServiceEntry::Problem::kBadSignature;
  }
  return file;
}

bool ZServiceManager::RegisterServiceInfo(const std::string& path) {
  ZBRF_LOG(Info, "RegisterServiceInfo " << path);
  ServiceInfoFile file = ReadServiceInfo(path);
  if (file.state == ServiceInfoFile::State::kUnreadable) {
    ZBRF_LOG(Error, "cannot open " << path);
    return false;
  }
  if (file.state == ServiceInfoFile::State::kNotServiceInfo) {
    ZBRF_LOG(Error, "not a service description: " << path << " " << file.error);
    return false;
  }
  std::vector<ServiceInfo> found;
  for (auto& entry : file.entries) {
    const ServiceInfo& info = entry.info;
    switch (entry.problem) {
      case ServiceEntry::Problem::kMalformed:
        ZBRF_LOG(Warn, "malformed service entry in " << path);
        break;
      case ServiceEntry::Problem::kUnknownKind:
        ZBRF_LOG(Warn, "service " << info.name << " has unknown kind " << entry.kindText);
        break;
      case ServiceEntry::Problem::kBadPath:
        ZBRF_LOG(Warn, "service " << info.name << " has a bad path " << entry.pathText);
        break;
      case ServiceEntry::Problem::kBadSignature:
        ZBRF_LOG(Error, "service " << info.name << " file fails its signature check " << info.path);
        break;
      case ServiceEntry::Problem::kNone:
        ZBRF_LOG(Info, "service " << info.name << " registered: " << entry.kindText << " " << info.path);
        found.push_back(std::move(entry.info));
        break;
    }
  }
  if (found.empty()) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& info : found) {
    std::erase_if(services_, [&](const ServiceInfo& s) { return s.name == info.name; });
    services_.push_back(std::move(info));
  }
  return true;
}

bool ZServiceManager::CreateInstance(const std::string& serviceName, const std::string& method,
                                     std::shared_ptr<ZObject>& object) {
  ServiceInfo info;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(services_.begin(), services_.end(),
                           [&](const ServiceInfo& s) { return s.name == serviceName; });
    if (it == services_.end()) {
      ZBRF_LOG(Error, "CreateInstance: no service " << serviceName);
      return false;
    }
    info = *it;
  }
  if (std::find(info.methods.begin(), info.methods.end(), method) == info.methods.end()) {
    ZBRF_LOG(Error, "CreateInstance: " << serviceName << " has no method " << method);
    return false;
  }
  return info.kind == Kind::Library ? CreateLibrary(info, method, object) : CreateSandbox(info, method, object);
}

bool ZServiceManager::CreateLibrary(const ServiceInfo& info, const std::string& method,
                                    std::shared_ptr<ZObject>& object) {
  int fd = OpenAndVerify(info.path);
  if (fd < 0) return false;
  struct stat st {};
  ::fstat(fd, &st);
  void* handle = nullptr;
  {
    LoadedLibraries& libs = Libraries();
    std::lock_guard<std::mutex> lock(libs.mutex);
    auto key = std::make_pair(st.st_dev, st.st_ino);
    auto it = libs.handles.find(key);
    if (it != libs.handles.end()) {
      handle = it->second;
      ::close(fd);
      fd = -1;
    } else {
      handle = ::dlopen(FdPath(fd).c_str(), RTLD_NOW | RTLD_LOCAL);
      if (!handle) {
        const char* why = ::dlerror();
        ZBRF_LOG(Error, "cannot load " << info.path << ": " << (why ? why : "?"));
        ::close(fd);
        return false;
      }
      // Belt and braces: the code that runs is mapped from the verified file.
      void* anySymbol = ::dlsym(handle, method.c_str());
      if (!anySymbol || !tarn::security::MappedFromFile(anySymbol, fd)) {
        ZBRF_LOG(Error, "loaded library is not the verified file " << info.path);
        ::close(fd);
        return false;
      }
      libs.handles.emplace(key, handle);  // fd stays open, see LoadedLibraries
    }
  }
  auto factory = reinterpret_cast<Factory>(::dlsym(handle, method.c_str()));
  if (!factory) {
    ZBRF_LOG(Error, info.path << " does not export " << method);
    return false;
  }
  std::shared_ptr<ZObject> made;
  bool ok = false;
  try {
    ok = factory(&made);
  } catch (...) {
    ok = false;
  }
  if (!ok || !made) {
    ZBRF_LOG(Error, "factory " << method << " of " << info.name << " failed");
    return false;
  }
  object = std::move(made);
  ZBRF_LOG(Info, "service " << info.name << " created in process");
  return true;
}

bool ZServiceManager::CreateSandbox(const ServiceInfo& info, const std::string& method,
                                    std::shared_ptr<ZObject>& object) {
  int fd = OpenAndVerify(info.path);
  if (fd < 0) return false;
  std::chrono::milliseconds timeout;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    timeout = sandboxTimeout_;
  }
  auto made = StartSandbox(fd, fs::path(info.path).filename().string(), method, timeout);
  ::close(fd);
  if (!made) return false;
  object = std::move(made);
  return true;
}

}  // namespace tarn::zbrf
