// The sample kit: what a kit reads of the container it runs in.
//
//   Scopes    the scopes the scope service gives the calling client
//             (TarnGetScopeByAppId with the header's client_id)
//   Features  the product feature table (ProductAdapt::ProductFeature)
//
// Both come from TarnCoreContainer itself, which exports them; the kit
// resolves them when it is loaded.
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <list>
#include <sstream>
#include <string>

#include "tarnkit/tarn_kit.h"

namespace {

std::string Render(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

void Answer(const TarnKitCallback& callback, const Json::Value& value) {
  std::string text = Render(value);
  callback(text.data());
}

std::string ClientId(const char* header) {
  Json::Value root;
  std::istringstream stream(header ? header : "");
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors) || !root.isObject()) return "";
  const Json::Value& id = root["client_id"];
  return id.isString() ? id.asString() : "";
}

}  // namespace

TARN_KIT_API void Init(TarnKitCallback) {}

TARN_KIT_API void Scopes(const char* header, const char*, TarnKitCallback callback) {
  const std::string clientId = ClientId(header);
  std::list<Scope> scopes;
  TarnGetScopeByAppId(clientId, scopes);
  Json::Value answer;
  answer["client_id"] = clientId;
  answer["scopes"] = Json::Value(Json::arrayValue);
  for (const Scope& scope : scopes) {
    Json::Value item;
    item["id"] = scope.GetId();
    item["name"] = scope.GetName();
    item["url"] = scope.GetUrl();
    item["permissions"] = Json::Value(Json::arrayValue);
    for (const std::string& permission : scope.GetPermissions()) item["permissions"].append(permission);
    answer["scopes"].append(item);
  }
  Answer(callback, answer);
}

TARN_KIT_API void Features(const char*, const char*, TarnKitCallback callback) {
  using ProductAdapt::ProductFeature;
  struct Getter {
    const char* name;
    int (ProductFeature::*get)(bool&) const;
  };
  static constexpr Getter kGetters[] = {
      {"fingerprint", &ProductFeature::GetFingerprintStatus},
      {"integratedGraphics", &ProductFeature::GetSupportIntegratedGraphics},
      {"powerSafeMgr", &ProductFeature::GetPowerSafeMgrStatus},
  };
  const ProductFeature& features = ProductFeature::GetInstance();
  Json::Value answer;
  for (const Getter& getter : kGetters) {
    bool flag = false;
    answer["status"][getter.name] = (features.*getter.get)(flag);
    answer["features"][getter.name] = flag;
  }
  Answer(callback, answer);
}
