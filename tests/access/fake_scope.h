#pragma once
// Scriptable stand-ins for the scope service and the proxy's platform.
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "access/scope_proxy.h"
#include "platform/zbrf/zobject.h"
#include "platform/zbrf/zparcel.h"
#include "support/temp_root.h"

namespace access_test {

// Client 100 is admitted (fingerprint in lower case) and holds two scopes;
// 200 is admitted but not whitelisted; 300 has entries of the wrong kinds.
inline constexpr const char* kPolicy = R"({ "clients": {
  "100": { "fingerprints": ["ab12"], "permissions": ["contacts.read"],
           "scopes": [ { "id": 3, "name": "mail", "url": "https://mail", "permissions": ["mail.send", "mail.read"] },
                       { "id": 4, "name": "files", "url": "https://files", "permissions": ["files.read"] } ] },
  "200": { "fingerprints": ["CD34", "EF56"], "whitelist": false },
  "300": { "fingerprints": "not a list", "scopes": [ 5, { "id": "x", "name": "odd" } ] } } })";

// Replaces the policy file through a new file and a rename, as editors and installers do.
void WritePolicy(const tarn::test::TempRoot& root, const std::string& text);

// A decoded request: its header and its string fields by number.
struct DecodedRequest {
  uint32_t code = 0;
  bool header = false;
  std::map<uint32_t, std::vector<std::string>> fields;
};
DecodedRequest Decode(uint32_t code, tarn::zbrf::ZParcel data);

// Serves the six transactions from a script, sandboxed (Transact) or in-process (OnTransact).
class FakeScopeObject : public tarn::zbrf::ZObject {
 public:
  bool Transact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>& data,
                const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t flags) override;
  bool OnTransact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>& data,
                  const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t flags) override;

  int Calls() const { return calls_.load(); }  // attempted transactions
  std::vector<DecodedRequest> Requests();      // answered ones

  std::atomic<bool> failTransact{false};
  std::deque<int32_t> fingerprintCodes;  // in turn, the last one repeats; empty: 0
  int answersBeforeFailing = -1;         // then every transaction fails; -1: never
  bool allowed = true;
  std::vector<std::vector<std::string>> scopes;  // {id, name, url, permissions...}
  std::function<void()> onCall;                  // run at each attempt (tests move their clock)

 private:
  bool Serve(uint32_t code, tarn::zbrf::ZParcel& data, tarn::zbrf::ZParcel& reply);
  std::mutex mutex_;
  std::atomic<int> calls_{0};
  std::vector<DecodedRequest> requests_;
};

class RecordingSink : public ScopeEventSink {
 public:
  void RecordScopeEvent(const ScopeEventRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  }
  std::vector<ScopeEventRecord> Records() {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }
  std::vector<std::string> StatusCodes() {
    std::vector<std::string> out;
    for (const auto& r : Records()) out.push_back(r.statusCode);
    return out;
  }

 private:
  std::mutex mutex_;
  std::vector<ScopeEventRecord> records_;
};

// A proxy's platform: scripted builds (null: creation fails), a hand-moved clock, a sleep that only counts.
struct FakePlatform {
  std::shared_ptr<FakeScopeObject> wasm, native;
  std::atomic<uint32_t> now{1000};
  std::atomic<int> sleeps{0}, wasmCreations{0}, nativeCreations{0};

  ScopeProxy::Platform Make();
};

}  // namespace access_test
