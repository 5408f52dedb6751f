#include "access/scope_util.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include "access/scope_proxy.h"
#include "platform/log/tarn_log.h"
#include "platform/os/places.h"
#include "platform/security/security.h"

std::string ScopeUtil::CalcProcessExe(uint32_t pid) {
  // From the executable the process runs, never from a file opened again by
  // its path, which may have been replaced since the signature check.
  std::string thumb;
  if (SignatureVerifyer::GetInstance()->ProcessGetFileThumb(pid, thumb) != 0) return thumb;
  TARN_LOG(tarn::log::Level::Error, "SIGN", "ScopeUtil::CalcProcessExe",
           "ProcessGetPeFilePath failed, return empty thumb.");
  return {};
}

int32_t ScopeUtil::CheckCertFingerprint(std::string clientId, uint32_t pid, std::string transactionId,
                                        std::string pkgName, std::string apiName) {
  static constexpr const char* kWhere = "ScopeUtil::CheckCertFingerprint";
  (void)transactionId;
  CLOGI(kWhere, "checkCertFingerprint, clientId:" << clientId << ", pid:" << pid << ", url is: " << apiName);
  if (!clientId.empty()) {
    const std::string fingerprint = CalcProcessExe(pid);
    const int32_t code = ScopeProxy::Instance().CheckCertFingerprint(clientId, fingerprint);
    CLOGI(kWhere, "scope proxy check certFingerprint result " << code);
    return code;
  }
  if (apiName == "Account.Request" && pkgName != "com.vantrel.framework") {
    return SignatureVerifyer::GetInstance()->VerifyVantrelExe(pid) == 0 ? 0 : -1;
  }
  CLOGE(kWhere, "Check failed, must be Account.Request or com.vantrel.framework");
  return -1;
}

void ScopeUtil::ListFiles(const std::string& pattern) {
  static constexpr const char* kWhere = "ScopeUtil::ListFiles";
  const auto slash = pattern.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : pattern.substr(0, slash);
  const std::string glob = slash == std::string::npos ? pattern : pattern.substr(slash + 1);
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) {
    CLOGI(kWhere, "Failed to find first file!");
    return;
  }
  while (dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || ::fnmatch(glob.c_str(), name.c_str(), 0) != 0) continue;
    struct stat st {};
    if (::stat((folder + "/" + name).c_str(), &st) != 0 || S_ISDIR(st.st_mode)) continue;
    const std::string appId = name.substr(0, name.find('.'));
    CLOGI(kWhere, "refresh " << name << static_cast<uint64_t>(st.st_size) << " bytes");
    ScopeProxy::Instance().InvokeOpenGateway(appId);
    CLOGI(kWhere, name);
  }
  ::closedir(dir);
}

void ScopeUtil::RefreshScopeCache() {
  ListFiles(tarn::os::CommonAppDataPath() + "/Vantrel/TARNCORE/cache/" + "*");
}
