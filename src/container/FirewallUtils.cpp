#include "container/FirewallUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sstream>

#include "platform/log/tarn_log.h"
#include "platform/os/last_error.h"
#include "platform/os/places.h"
#include "platform/os/text.h"

namespace tarn::container {

namespace {

constexpr const char* kRuleSuffix = ".rule";

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Joins with a separator only where the directory doesn't end in one already
// (the root, or a path that had two), so no "//" comes into a rule.
std::wstring PathAppend(const std::wstring& directory, const std::wstring& name) {
  if (!directory.empty() && directory.back() == L'/') return directory + name;
  return directory + L"/" + name;
}

}  // namespace

std::string RenderFirewallRule(const FirewallRule& rule) {
  std::ostringstream text;
  text << "name=" << rule.name << "\n"
       << "description=" << rule.description << "\n"
       << "grouping=" << rule.grouping << "\n"
       << "applicationName=" << rule.applicationName << "\n"
       << "profiles=" << rule.profiles << "\n"
       << "action=" << rule.action << "\n"
       << "enabled=" << (rule.enabled ? "true" : "false") << "\n";
  return text.str();
}

std::int32_t FirewallRules::Item(const std::string& name) const {
  struct stat st {};
  if (::stat((directory_ + "/" + name + kRuleSuffix).c_str(), &st) != 0) {
    return tarn::os::HresultFromErrno(errno);
  }
  return 0;
}

std::int32_t FirewallRules::Add(const FirewallRule& rule) const {
  const std::string path = directory_ + "/" + rule.name + kRuleSuffix;
  const std::string temporary = path + ".tmp." + std::to_string(::getpid());
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return tarn::os::HresultFromErrno(errno);
  const std::string text = RenderFirewallRule(rule);
  std::size_t done = 0;
  int error = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = n < 0 ? errno : EIO;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  ::close(fd);
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    return tarn::os::HresultFromErrno(error);
  }
  return 0;
}

std::int32_t FirewallPolicy::get_Rules(std::unique_ptr<FirewallRules>* rules) const {
  const int fd = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return tarn::os::HresultFromErrno(errno);
  ::close(fd);
  *rules = std::make_unique<FirewallRules>(directory_);
  return 0;
}

}  // namespace tarn::container

std::int32_t WFCOMInitialize(std::unique_ptr<tarn::container::FirewallPolicy>* policy) {
  const std::string directory = tarn::os::FirewallDir();
  if (!tarn::os::MakeDirectories(directory)) {
    const std::int32_t hr = tarn::os::HresultFromErrno(errno != 0 ? errno : ENOTDIR);
    CLOGE("WFCOMInitialize", "CoCreateInstance for INetFwPolicy2 failed: " << hr);
    return hr;
  }
  *policy = std::make_unique<tarn::container::FirewallPolicy>(directory);
  return 0;
}

bool AddFwRule(const std::wstring& ruleName, const std::wstring& ruleDescription,
               const std::wstring& ruleGroup, const std::wstring& programPath,
               tarn::container::FirewallRules& rules) {
  const std::string name = tarn::os::WideToUtf8(ruleName);
  const std::int32_t item = rules.Item(name);
  if (item == 0) {
    // By name alone: a rule for another program or with other properties stays.
    CLOGI("AddFwRule", "Windows firewall have already exist ruleName: " << name);
    return true;
  }
  CLOGI("AddFwRule", "Windows firewall not have ruleName: " << name << ", errorcode: " << item);

  tarn::container::FirewallRule rule;
  rule.name = name;
  rule.description = tarn::os::WideToUtf8(ruleDescription);
  rule.grouping = tarn::os::WideToUtf8(ruleGroup);
  rule.applicationName = tarn::os::WideToUtf8(programPath);
  const std::int32_t hr = rules.Add(rule);
  if (hr != 0) {
    CLOGE("AddFwRule", "Firewall Rule Add failed. ruleName = " << name << ", retcode = " << hr);
  } else {
    CLOGI("AddFwRule", "Firewall Rule Add successfully. ruleName = " << name << ", retcode = " << hr);
  }
  return true;
}

bool FirewallUtils::AddContainerUIRule(std::wstring& installDirectory) {
  std::unique_ptr<tarn::container::FirewallPolicy> policy;
  std::int32_t hr = WFCOMInitialize(&policy);
  if (hr != 0) {
    CLOGE("FirewallUtils::AddContainerUIRule", "WFCOMInitialize failed: " << hr);
    return false;
  }
  std::unique_ptr<tarn::container::FirewallRules> rules;
  hr = policy->get_Rules(&rules);
  if (hr != 0) {
    CLOGE("FirewallUtils::AddContainerUIRule", "get_Rules failed: " << hr);
    return false;
  }

  if (tarn::container::IsDirectory(tarn::os::WideToUtf8(installDirectory))) {
    // One trailing separator goes, as long as something is left of the path.
    if (installDirectory.size() > 1 && installDirectory.back() == L'/') installDirectory.pop_back();
    AddFwRule(L"TarnCoreContainerRule", L"TarnCoreContainerRule", L"TarnCoreContainerRuleGroup",
              tarn::container::PathAppend(installDirectory, L"TarnCoreContainer"), *rules);
    AddFwRule(L"TarnCoreUIRule", L"TarnCoreUIRule", L"TarnCoreUIRuleGroup",
              tarn::container::PathAppend(installDirectory, L"TarnCoreUI"), *rules);
  }
  return true;
}
