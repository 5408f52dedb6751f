#pragma once
// Scriptable stand-ins for the scope service and what the proxy needs.
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

namespace access_test {

// A decoded request: its header and its string fields by number.
struct DecodedRequest {
  uint32_t code = 0;
  bool header = false;
  std::map<uint32_t, std::vector<std::string>> fields;
};
DecodedRequest Decode(uint32_t code, tarn::zbrf::ZParcel data);

// Serves the six transactions from a script, by Transact (sandboxed) or OnTransact (in-process).
class FakeScopeObject : public tarn::zbrf::ZObject {
 public:
  bool Transact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>& data,
                const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t flags) override;
  bool OnTransact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>& data,
                  const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t flags) override;

  // Transactions that go through (or, with failTransact, that are attempted).
  int Calls() const { return calls_.load(); }
  std::vector<DecodedRequest> Requests();

  std::atomic<bool> failTransact{false};
  // Fingerprint codes in turn; the last one repeats. Empty: 0.
  std::deque<int32_t> fingerprintCodes;
  // After this many answers every transaction fails (-1: never).
  int answersBeforeFailing = -1;
  bool allowed = true;
  std::vector<std::vector<std::string>> scopes;  // {id, name, url, permissions...}
  // Run during each attempted transaction (tests move their clock here).
  std::function<void()> onCall;

 private:
  bool Serve(uint32_t code, tarn::zbrf::ZParcel& data, tarn::zbrf::ZParcel& reply);
  std::mutex mutex_;
  std::atomic<int> calls_{0};
  int answered_ = 0;
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

// A proxy's platform: scripted services, a hand-moved clock, a sleep that only counts.
struct FakePlatform {
  std::shared_ptr<FakeScopeObject> wasm;    // null: creation fails
  std::shared_ptr<FakeScopeObject> native;  // null: creation fails
  std::atomic<uint32_t> now{1000};
  std::atomic<int> sleeps{0};
  std::atomic<int> wasmCreations{0};
  std::atomic<int> nativeCreations{0};

  ScopeProxy::Platform Make();
};

}  // namespace access_test
