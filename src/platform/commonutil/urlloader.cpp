#include "platform/commonutil/urlloader.h"

#include <fstream>
#include <mutex>

#include <json/json.h>

#include "platform/os/places.h"

namespace {
std::mutex g_pathMutex;
std::string& g_path = *new std::string;  // read by threads until the process ends
}  // namespace

void UrlLoader::SetAddressBookPath(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_pathMutex);
  g_path = path;
}

std::string UrlLoader::AddressBookPath() {
  {
    std::lock_guard<std::mutex> lock(g_pathMutex);
    if (!g_path.empty()) return g_path;
  }
  return tarn::os::InstallDirectory() + "config/service_urls.json";
}

bool UrlLoader::GetServiceUrl(const std::string& name, std::string& url, const std::string& key) {
  std::ifstream in(AddressBookPath());
  if (!in) return false;
  Json::CharReaderBuilder builder;
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &root, &errors) || !root.isObject()) return false;
  const Json::Value* service = root.find(name.data(), name.data() + name.size());
  if (!service || !service->isObject()) return false;
  const Json::Value* value = service->find(key.data(), key.data() + key.size());
  if (!value || !value->isString()) return false;
  url = value->asString();
  return true;
}
