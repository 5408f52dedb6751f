#include "fake_scope.h"

namespace access_test {

using tarn::zbrf::ZParcel;

DecodedRequest Decode(uint32_t code, ZParcel data) {
  DecodedRequest request;
  request.code = code;
  data.Rewind();
  request.header = data.ReadHeader();
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
  if (failTransact) return false;
  return Serve(code, *data, *reply);
}

bool FakeScopeObject::OnTransact(uint32_t code, const std::shared_ptr<ZParcel>& data,
                                 const std::shared_ptr<ZParcel>& reply, uint32_t flags) {
  // The local proxy hands over a parcel positioned at its start.
  return data->Position() == 0 ? Transact(code, data, reply, flags) : (++calls_, false);
}

std::vector<DecodedRequest> FakeScopeObject::Requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

bool FakeScopeObject::Serve(uint32_t code, ZParcel& data, ZParcel& reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (answersBeforeFailing >= 0 && answered_ >= answersBeforeFailing) return false;
  ++answered_;
  requests_.push_back(Decode(code, data));
  reply.WriteStatus(0);
  switch (code) {
    case 1: {
      int32_t value = 0;
      if (!fingerprintCodes.empty()) {
        value = fingerprintCodes.front();
        if (fingerprintCodes.size() > 1) fingerprintCodes.pop_front();
      }
      reply.WriteInt32(1, value);
      break;
    }
    case 2:
    case 3: reply.WriteBool(1, allowed); break;
    case 5:
      for (const auto& s : scopes) {
        ZParcel item;
        item.WriteInt32(1, std::stoi(s.at(0)));
        item.WriteString(2, s.at(1));
        item.WriteString(3, s.at(2));
        item.WriteStringVector(4, std::vector<std::string>(s.begin() + 3, s.end()));
        reply.WriteString(1, item.Data());
      }
      break;
    default: break;
  }
  return true;
}

ScopeProxy::Platform FakePlatform::Make() {
  ScopeProxy::Platform p;
  p.initServiceManager = [] {};
  p.createInstance = [this](const std::string& name, const std::string& method,
                            std::shared_ptr<tarn::zbrf::ZObject>& object) {
    if (method != "getScopeService") return false;
    if (name == "wasm.scopeService") {
      ++wasmCreations;
      if (wasm) object = wasm;
      return wasm != nullptr;
    }
    if (name == "dll.scopeService") {
      ++nativeCreations;
      if (native) object = native;
      return native != nullptr;
    }
    return false;
  };
  p.tickCount = [this] { return now.load(); };
  p.sleepMs = [this](uint32_t ms) {
    if (ms == 100) ++sleeps;
  };
  return p;
}

}  // namespace access_test
