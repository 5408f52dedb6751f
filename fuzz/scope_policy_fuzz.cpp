// The machine's scope policy as the reference scope service reads it, asked
// what the container asks, once of the policy and once through the service
// object and the container's stub (the native build's road): a reply must
// carry exactly what the policy decided.
#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "access/scope_service.h"
#include "fuzz_support.h"
#include "scope_policy.h"
#include "scope_service_object.h"

namespace {

using tarn::fuzz::Check;

// Client ids and the first fingerprint of each, as far as the text tells them.
std::vector<std::pair<std::string, std::string>> Clients(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> out = {{"", ""}, {"absent", "00"}};
  Json::Value root;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) return out;
    if (!root.isObject() || !root["clients"].isObject()) return out;
    for (const auto& id : root["clients"].getMemberNames()) {
      const Json::Value& prints = root["clients"][id]["fingerprints"];
      std::string print = prints.isArray() && prints[0].isString() ? prints[0].asString() : "";
      out.emplace_back(id, print);
      if (out.size() == 6) break;
    }
  } catch (const Json::Exception&) {
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto& root = tarn::fuzz::Machine();
  static const std::string path = root.At("etc/tarncore/scope-policy.json");
  const std::string text(tarn::fuzz::Bytes(data, size));
  root.WriteFile("etc/tarncore/scope-policy.json", text);

  auto policy = std::make_shared<tarn::scope::ScopePolicy>(path);
  auto serving = std::make_shared<tarn::scope::ScopeServiceObject>(policy);
  service::ZpScopeService stub(std::make_shared<LocalZbrfProxy>(serving));

  for (const auto& [id, print] : Clients(text)) {
    const int32_t code = policy->CheckCertFingerprint(id, print);
    Check(code == 0 || code == 1 || code == 1000, "fingerprint codes");
    int32_t replied = -1;
    Check(stub.CheckCertFingerprint(id, print, replied) && replied == code, "fingerprint reply");
    Check(policy->CheckCertFingerprint(id, "") == 1, "an empty fingerprint is refused");

    for (const auto& scope : policy->GetScopes(id)) {
      for (const auto& permission : scope.permissions) {
        if (permission.empty()) continue;  // never granted
        bool allowed = false;
        Check(stub.CheckApiPermission(id, permission, scope.url, allowed) && allowed, "a scope grants its own");
      }
    }
    bool allowed = true;
    Check(stub.CheckPermission(id, "", allowed) && !allowed, "an empty permission is refused");

    std::vector<std::shared_ptr<service::ScopeItem>> items;
    Check(stub.GetScopeByAppId(id, items), "scopes reply");
    const auto scopes = policy->GetScopes(id);
    Check(items.size() == scopes.size(), "one item per scope");
    for (std::size_t i = 0; i < items.size(); ++i) {
      Check(items[i]->id == scopes[i].id && items[i]->name == scopes[i].name && items[i]->url == scopes[i].url &&
                items[i]->permissions == scopes[i].permissions,
            "a scope arrives as the policy has it");
    }
    Check(stub.SetLastCheckTime(id) && policy->LastCheckTime(id) != 0, "last check time");
  }
  return 0;
}
