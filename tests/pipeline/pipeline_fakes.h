#pragma once
// Stand-ins for what sits behind the pipeline, and a started endpoint under a
// throw-away machine root.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

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
    calls++;
    lastPid = processId;
    return result;
  }
  std::atomic<int> result{0};
  std::atomic<int> calls{0};
  std::atomic<uint32_t> lastPid{0};
};

struct ApiRecord {
  std::string direction;
  std::string apiName;
  std::string statusCode;
};

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
    if (fn) {
      fn(header, request, callback, status);
    } else {
      DefaultRequestGates::Invoke(header, request, callback, status);
    }
  }
  bool IsTarnCorerequest(uint32_t, const RequestHeader&) override { return tarnCoreCaller; }
  bool VerifyEnabled() override { return verifyEnabled; }
  int CheckCertFingerprint(const std::string& clientId, uint32_t, const std::string&,
                           const std::string&, const std::string&) override {
    fingerprintCalls++;
    std::lock_guard lock(mutex);
    lastFingerprintClient = clientId;
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

  // Set before the requests that use it; read under the lock because a request
  // may come from another process, a hand-off a race detector can't see.
  void SetInvoke(InvokeFn fn) {
    std::lock_guard lock(mutex);
    onInvoke = std::move(fn);
  }

  std::function<bool()> initComplete = [] { return true; };
  InvokeFn onInvoke;
  std::atomic<bool> tarnCoreCaller{false};
  std::atomic<bool> verifyEnabled{true};
  std::atomic<int> fingerprint{0};
  std::atomic<int> fingerprintCalls{0};
  std::mutex mutex;
  std::string lastFingerprintClient;
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
    TagIPCMessageItem item;
    item.target = IpcAddressContainer;
    item.source = IpcAddressClientSide;
    item.messageCode = IpcRequestMessageCode;
    item.reserved = -1;
    item.syncMessageId = id;
    std::string copy = text;
    item.body = copy.data();
    item.bodySize = static_cast<uint32_t>(copy.size() + 1);
    return client.SendMessageSync(item, response, timeoutMs);
  }

  int Send(int32_t id, const std::string& text, std::string& response, int timeoutMs = kLong) {
    return Send(client_, id, text, response, timeoutMs);
  }

  static Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_TRUE(ConnectManager::Parse(text.data(), text.data() + text.size(), root)) << text;
    return root;
  }

  static std::string Request(const std::string& clientId, const std::string& apiName = "Demo.Echo") {
    return "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"Demo\",\"api_name\":\"" + apiName +
           "\",\"app_id\":\"app\",\"pkg_name\":\"pkg\",\"sdk_version\":\"2.0\",\"session_id\":\"s1\","
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
