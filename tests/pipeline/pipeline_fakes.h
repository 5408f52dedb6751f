#pragma once
// Stand-ins for what sits behind the pipeline, and the container's endpoint
// started under a throw-away machine root.
#include <gtest/gtest.h>
#include <json/value.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ipc_test_util.h"
#include "pipeline/ConnectManager.h"
#include "pipeline/RequestGates.h"
#include "pipeline/ServerManager.h"
#include "pipeline/ServerResCallBack.h"
#include "platform/ipc/signature_manager.h"
#include "platform/log/log_capture.h"
#include "platform/security/security.h"
#include "support/json.h"
#include "support/temp_root.h"

namespace tarn::test {

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
  void Invoke(RequestHeader& header, ConvertedRequest& request, ServerResCallBack* callback,
              ResponseStatus& status) override {
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

// A well-formed request: every header value a string.
inline std::string Request(const std::string& uri = "Demo.Echo", const std::string& body = "{}",
                           const std::string& sdkVersion = "5.3.0.300", const std::string& apiLevel = "1",
                           const std::string& clientId = "c1") {
  return "{\"header\":{\"version\":\"1.0\",\"srv_name\":\"" + uri.substr(0, uri.find('.')) +
         "\",\"api_name\":\"" + uri + "\",\"app_id\":\"app\",\"pkg_name\":\"pkg\",\"sdk_version\":\"" +
         sdkVersion + "\",\"session_id\":\"s1\",\"transaction_id\":\"t1\",\"kitSdkVersion\":\"1\","
         "\"apiLevel\":\"" + apiLevel + "\",\"client_id\":\"" + clientId + "\"},\"body\":" + body + "}";
}

// A machine root, a log capture, and once started the container's endpoint
// with the given gates behind it, reached by a client over the real socket.
class EndpointTest : public ::testing::Test {
 protected:
  void StartEndpoint(RequestGates* gates) {
    RequestGates::Install(gates);
    SignatureManager::GetInstance()->Clear();
    ServerManager::GetInstance().ServerInit();
    ASSERT_NE(nullptr, g_tarnCoreIpcServer);
  }
  void TearDown() override {
    ServerManager::GetInstance().ServerUnInit();
    RequestGates::Install(nullptr);
    SignatureManager::GetInstance()->Clear();
  }

  int Send(int32_t id, const std::string& text, std::string& response, int timeoutMs = kLong) {
    return SendRequest(client_, id, text, response, timeoutMs);
  }
  // The answer's header.status_code, or the client code when none came.
  std::string Status(int32_t id, const std::string& text, Json::Value* answer = nullptr) {
    std::string response;
    if (int code = Send(id, text, response)) return "client " + std::to_string(code);
    Json::Value root = ParseJson(response);
    if (answer) *answer = root;
    return root["header"]["status_code"].asString();
  }
  static std::size_t Callbacks() { return ServerManager::GetInstance().CallbackCount(); }

  TempRoot root_;
  log::LogCapture logs_;
  TarnCoreIPCMessageClient client_{IpcAddressClientSide, false, true};
};

// The endpoint with fake gates and a fake verifier.
class PipelineFixture : public EndpointTest {
 protected:
  void SetUp() override {
    SignatureVerifyer::SetInstanceForTesting(&verifier_);
    StartEndpoint(&gates_);
  }
  void TearDown() override {
    EndpointTest::TearDown();
    SignatureVerifyer::SetInstanceForTesting(nullptr);
  }
  static std::string RequestFrom(const std::string& clientId) {
    return Request("Demo.Echo", "{}", "5.3.0.300", "1", clientId);
  }
  std::string StatusFor(int32_t id, const std::string& clientId, Json::Value* answer = nullptr) {
    return Status(id, RequestFrom(clientId), answer);
  }

  FakeGates gates_;
  FakeVerifier verifier_;
};

}  // namespace tarn::test
