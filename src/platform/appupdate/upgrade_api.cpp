#include "platform/appupdate/upgrade_api.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

#include <json/json.h>

#include "platform/commonutil/de.h"
#include "platform/commonutil/httputil.h"
#include "platform/commonutil/urlloader.h"
#include "platform/log/tarn_log.h"
#include "platform/os/pinned_file.h"
#include "platform/os/places.h"
#include "platform/os/process.h"
#include "platform/os/registry.h"
#include "platform/os/text.h"
#include "platform/security/security.h"

namespace {

constexpr std::uint32_t kCheckTimeoutMs = 30000;
constexpr std::uint32_t kDownloadTimeoutMs = 30 * 60 * 1000;

std::string UrlEncode(const std::string& text) {
  std::ostringstream out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out << c;
    } else {
      static const char kHex[] = "0123456789ABCDEF";
      out << '%' << kHex[c >> 4] << kHex[c & 15];
    }
  }
  return out.str();
}

std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

// A file name alone: no separators, no "." or "..", so the package stays in Download/.
bool IsPlainFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\\') == std::string::npos;
}

std::string Member(const Json::Value& object, const char* key) {
  const Json::Value* value = object.find(key, key + std::strlen(key));
  return value && value->isString() ? value->asString() : std::string();
}

}  // namespace

UpgradeAPI::UpgradeAPI() = default;
UpgradeAPI::~UpgradeAPI() = default;

void UpgradeAPI::Init() {
  serviceRoot_.clear();
  if (!UrlLoader::GetServiceUrl(tarn::appupdate::kServiceName, serviceRoot_, "ROOT")) {
    TARN_LOG(::tarn::log::Level::Warn, "appupdate", "UpgradeAPI::Init", "no address for " << tarn::appupdate::kServiceName);
  }
  while (!serviceRoot_.empty() && serviceRoot_.back() == '/') serviceRoot_.pop_back();
  installedVersion_.clear();
  ReadVtidRegistryValue("Version", installedVersion_);
}

bool UpgradeAPI::Check(bool force, std::string& answer) {
  if (serviceRoot_.empty()) return false;
  const std::string url = serviceRoot_ + "/tarncore/update/check?version=" +
                          UrlEncode(installedVersion_) + "&force=" + (force ? "1" : "0");
  tarn::http::HttpResponse response;
  if (!HttpUtil::HttpGet(url, response, kCheckTimeoutMs)) {
    TARN_LOG(::tarn::log::Level::Warn, "appupdate", "UpgradeAPI::Check",
             "check failed, status " << response.status << " " << response.error);
    return false;
  }
  answer = std::move(response.body);
  return true;
}

bool UpgradeAPI::CheckTarnCoreUpdate(char* buffer) {
  if (!buffer) return false;
  std::string answer;
  if (!Check(false, answer)) return false;
  const std::size_t length = std::min(answer.size(), tarn::appupdate::kCheckBufferSize - 1);
  std::memcpy(buffer, answer.data(), length);
  buffer[length] = '\0';
  return true;
}

bool UpgradeAPI::TarnCoreAppSilentUpgrade(bool force) {
  std::string answer;
  if (!Check(force, answer)) return false;
  Json::CharReaderBuilder builder;
  Json::Value root;
  std::string errors;
  std::istringstream in(answer);
  try {
    if (!Json::parseFromStream(builder, in, &root, &errors) || !root.isObject()) return false;
  } catch (const Json::RuntimeError&) {
    return false;  // nested deeper than the reader goes: no announcement
  }
  static constexpr char kInfoKey[] = "updateAppInfo";
  const Json::Value* info = root.find(kInfoKey, kInfoKey + sizeof(kInfoKey) - 1);
  if (!info || !info->isObject()) return false;  // nothing newer

  const std::string packageUrl = Member(*info, "packageUrl");
  const std::string sha256 = Upper(Member(*info, "sha256"));
  const std::string installer = Member(*info, "installer");
  const std::string arguments = Member(*info, "arguments");
  if (packageUrl.empty() || sha256.size() != 64 || !IsPlainFileName(installer)) {
    TARN_LOG(::tarn::log::Level::Error, "appupdate", "UpgradeAPI::TarnCoreAppSilentUpgrade", "announcement incomplete");
    return false;
  }
  const std::string directory = tarn::os::CommonAppDataPath() + "/Vantrel/TARNCORE/Download";
  if (!tarn::os::MakeDirectories(directory)) return false;
  const std::string path = directory + "/" + installer;
  tarn::http::HttpResponse response;
  if (!HttpUtil::HttpDownload(packageUrl, path, response, kDownloadTimeoutMs)) {
    TARN_LOG(::tarn::log::Level::Error, "appupdate", "UpgradeAPI::TarnCoreAppSilentUpgrade",
             "download failed, status " << response.status << " " << response.error);
    return false;
  }
  // Digest and maker signature both, read through one open descriptor, before
  // anything of the package runs; that descriptor is what starts.
  ::chmod(path.c_str(), 0755);
  const tarn::os::PinnedFile package(path);
  if (DE::GetFileSha256Hex(package.ReadPath()) != sha256) {
    TARN_LOG(::tarn::log::Level::Error, "appupdate", "UpgradeAPI::TarnCoreAppSilentUpgrade", "package digest mismatch");
    DE::FileDelete(path);
    return false;
  }
  if (!VerifyVantrelDigitalSignature(tarn::os::Utf8ToWide(package.ReadPath()))) {
    TARN_LOG(::tarn::log::Level::Error, "appupdate", "UpgradeAPI::TarnCoreAppSilentUpgrade", "package signature invalid");
    DE::FileDelete(path);
    return false;
  }
  if (!tarn::os::GetProcesses().StartFile(package.fd(), path, arguments, nullptr, -1)) {
    TARN_LOG(::tarn::log::Level::Error, "appupdate", "UpgradeAPI::TarnCoreAppSilentUpgrade", "installer did not start");
    DE::FileDelete(path);
    return false;
  }
  TARN_LOG(::tarn::log::Level::Info, "appupdate", "UpgradeAPI::TarnCoreAppSilentUpgrade", "installer started " << installer);
  return true;
}
