#include "fake_scope.h"

#include <filesystem>

namespace access_test {

using tarn::zbrf::ZParcel;

void WritePolicy(const tarn::test::TempRoot& root, const std::string& text) {
  root.WriteFile("etc/tarncore/scope-policy.json.tmp", text);
  std::filesystem::rename(root.At("etc/tarncore/scope-policy.json.tmp"), root.At("etc/tarncore/scope-policy.json"));
}

DecodedRequest Decode(uint32_t code, ZParcel data) {
  data.Rewind();
  DecodedRequest request{code, data.ReadHeader(), {}};
  for (uint32_t tag = data.ReadTag(); tag != 0; tag = data.ReadTag()) {
    std::string value;
    if (data.ReadString(value)) request.fields[data.TagField(tag)].push_back(value);
  }
  return request;
}

bool FakeScopeObject::Transact(uint32_t code, const std::shared_ptr<ZParcel>& data,
                               const std::shared_ptr<ZParcel>& reply, uint32_t) {
  ++calls_;
  if (onCall) onCall();
  return !failTransact && Serve(code, *data, *reply);
}

bool FakeScopeObject::OnTransact(uint32_t code, const std::shared_ptr<ZParcel>& data,
                                 const std::shared_ptr<ZParcel>& reply, uint32_t flags) {
  // The local proxy must hand over a parcel positioned at its start.
  return data->Position() == 0 ? Transact(code, data, reply, flags) : (++calls_, false);
}

std::vector<DecodedRequest> FakeScopeObject::Requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

bool FakeScopeObject::Serve(uint32_t code, ZParcel& data, ZParcel& reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (answersBeforeFailing >= 0 && static_cast<int>(requests_.size()) >= answersBeforeFailing) return false;
  requests_.push_back(Decode(code, data));
  reply.WriteStatus(0);
  if (code == 1) {
    reply.WriteInt32(1, fingerprintCodes.empty() ? 0 : fingerprintCodes.front());
    if (fingerprintCodes.size() > 1) fingerprintCodes.pop_front();
  } else if (code == 2 || code == 3) {
    reply.WriteBool(1, allowed);
  } else if (code == 5) {
    for (const auto& s : scopes) {
      ZParcel item;
      item.WriteInt32(1, std::stoi(s.at(0)));
      item.WriteString(2, s.at(1));
      item.WriteString(3, s.at(2));
      item.WriteStringVector(4, std::vector<std::string>(s.begin() + 3, s.end()));
      reply.WriteString(1, item.Data());
    }
  }
  return true;
}

ScopeProxy::Platform FakePlatform::Make() {
  ScopeProxy::Platform p;
  p.initServiceManager = [] {};
  p.createInstance = [this](const std::string& name, const std::string& method,
                            std::shared_ptr<tarn::zbrf::ZObject>& object) {
    if (method != "getScopeService") return false;
    const bool wasmBuild = name == "wasm.scopeService";
    if (!wasmBuild && name != "dll.scopeService") return false;
    ++(wasmBuild ? wasmCreations : nativeCreations);
    if (auto build = wasmBuild ? wasm : native) object = build;
    return object != nullptr;
  };
  p.tickCount = [this] { return now.load(); };
  p.sleepMs = [this](uint32_t ms) {
    if (ms == 100) ++sleeps;
  };
  return p;
}

}  // namespace access_test
