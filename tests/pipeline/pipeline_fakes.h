#pragma once
// Stand-ins for what sits behind the pipeline, and a started endpoint under a
// throw-away machine root.
#include <gtest/gtest.h>
#include <json/value.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc_test_util.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/ipc/ipc_client.h"
#include "platform/ipc/signature_manager.h"
#include "platform/log/log_capture.h"
#include "platform/security/security.h"
#include "support/temp_root.h"

namespace tarn::test {

constexpr int kLong = 10000;  // ms: an upper bound for liveness only

inline bool Eventually(const std::function<bool()>& done) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLong);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class FakeVerifier : public SignatureVerifyer {
 public:
  int Verify(uint32_t processId) override {
    lastPid = processId;
    calls++;
    return result;
  }
  std::atomic<int> result{0}, calls{0};
  std::atomic<uint32_t> lastPid{0};
};

// Records of "req"/"res" as direction, api name, status code.
using ApiRecord = std::vector<std::string>;

class FakeGates : public DefaultRequestGates {
 public:
  using InvokeFn = std::function<void(const RequestHeader&, const ConvertedRequest&,
                                      ServerResCallBack*, ResponseStatus&)>;

  bool IsInitComplete() override { return initComplete(); }
  void Invoke(const RequestHeader& header, const ConvertedRequest& request,
              ServerResCallBack* callback, ResponseStatus& status) override {
    InvokeFn fn;
    {
      std::lock_guard lock(mutex);
      fn = onInvoke;
    }
    if (!fn) return DefaultRequestGates::Invoke(header, request, callback, status);
    fn(header, request, callback, status);
  }
  bool IsTarnCorerequest(uint32_t, const RequestHeader&) override { return tarnCoreCaller; }
  bool VerifyEnabled() override { return verifyEnabled; }
  int CheckCertFingerprint(const std::string&, uint32_t, const std::string&, const std::string&,
                           const std::string&) override {
    fingerprintCalls++;
    return fingerprint;
  }
  void SetLastCheckTime(const std::string& clientId) override {
    std::lock_guard lock(mutex);
    lastChecked.push_back(clientId);
  }
  void RecordApiCall(ServerResCallBack* callback, const std::string& direction) override {
    std::lock_guard lock(mutex);
    records.push_back({direction, callback->header.api_name, callback->status.status_code});
  }
  std::vector<ApiRecord> Records() {
    std::lock_guard lock(mutex);
    return records;
  }
  // Read under the lock: a request may come from another process, a hand-off
  // a race detector can't see.
  void SetInvoke(InvokeFn fn) {
    std::lock_guard lock(mutex);
    onInvoke = std::move(fn);
  }

  std::function<bool()> initComplete = [] { return true; };
  std::atomic<bool> tarnCoreCaller{false}, verifyEnabled{true};
  std::atomic<int> fingerprint{0}, fingerprintCalls{0};
  std::mutex mutex;
  InvokeFn onInvoke;
  std::vector<std::string> lastChecked;
  std::vector<ApiRecord> records;
};

// The container's endpoint with fake gates and a fake verifier installed.
class PipelineFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    RequestGates::Install(&gates_);
    SignatureVerifyer::SetInstanceForTesting(&verifier_);
    SignatureManager::GetInstance()->Clear();
    ServerManager::GetInstance().ServerInit();
    ASSERT_NE(nullptr, g_tarnCoreIpcServer);
  }
  void TearDown() override {
    ServerManager::GetInstance().ServerUnInit();
    SignatureVerifyer::SetInstanceForTesting(nullptr);
    RequestGates::Install(nullptr);
    SignatureManager::GetInstance()->Clear();
  }

  static int Send(TarnCoreIPCMessageClient& client, int32_t id, const std::string& text,
                  std::string& response, int timeoutMs = kLong) {
    return SendRequest(client, id, text, response, timeoutMs);
  }
  int Send(int32_t id, const std::string& text, std::string& response, int timeoutMs = kLong) {
    return Send(client_, id, text, response, timeoutMs);
  }

  static Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_TRUE(ConnectManager::Parse(text.data(), text.data() + text.size(), root)) << text;
    return root;
  }

  // Sends a well-formed request and returns the answer's header.status_code.
  std::string Status(int32_t id, const std::string& clientId, Json::Value* answer = nullptr) {
    std::string response;
    if (int code = Send(id, Request(clientId), response)) return "client " + std::to_string(code);
    Json::Value root = Parse(response);
    if (answer) *answer = root;
    return root["header"]["status_code"].asString();
  }

  static std::string Request(const std::string& clientId) {
    return "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"Demo\",\"api_name\":\"Demo.Echo\","
           "\"app_id\":\"app\",\"pkg_name\":\"pkg\",\"sdk_version\":\"2.0\",\"session_id\":\"s1\","
           "\"transaction_id\":\"t1\",\"kitSdkVersion\":\"3\",\"apiLevel\":\"4\",\"client_id\":\"" +
           clientId + "\"},\"body\":{\"q\":\"v\"}}";
  }

  TempRoot root_;
  log::LogCapture logs_;
  FakeGates gates_;
  FakeVerifier verifier_;
  TarnCoreIPCMessageClient client_{IpcAddressClientSide, false, true};
};

}  // namespace tarn::test
