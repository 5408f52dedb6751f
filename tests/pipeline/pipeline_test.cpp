#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "pipeline/RequestInvoke.h"
#include "pipeline/pipeline_fakes.h"
#include "platform/os/clock.h"
#include "platform/os/last_error.h"

namespace {

using tarn::log::Level;
using tarn::test::ApiRecord;
using tarn::test::Eventually;
using tarn::test::kLong;
using tarn::test::ParseJson;
using tarn::test::Request;

const uint32_t kPid = static_cast<uint32_t>(::getpid());
const std::string kPidText = std::to_string(::getpid());

// What the endpoint does after an answer has left (the "res" record, removing
// the callback, the end line) may still be under way when the client has it.
class Pipeline : public tarn::test::PipelineFixture {
 protected:
  void Answer(const std::string& result) {
    gates_.SetInvoke([result](const RequestHeader&, const ConvertedRequest&, ServerResCallBack* cb,
                              ResponseStatus&) {
      std::string copy = result;
      cb->Excute(copy);
    });
  }
  static int Listed(const std::string& clientId) {
    return SignatureManager::GetInstance()->FindSignatured(kPid, clientId);
  }
};

TEST_F(Pipeline, BadRequestTextsAreRefusedOrLeftUnanswered) {
  std::string response, expected;
  ASSERT_EQ(0, Send(31, "hello, container", response));
  ResponseStatus bad;
  SetResponseStatus(bad, TarnStatus::kDataFormatError);
  ConnectManager::GetResErrorMsg(bad, expected);
  EXPECT_EQ(expected, response);
  EXPECT_TRUE(logs_.Has(Level::Error, "req message parse error. msgIdentify = 31(RequestInvoke::Excute)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerManager.OnMsgCallback syncMessageId = 31 callerPid = " +
                                         kPidText + "(ServerManager::OnMsgCallback)"));
  EXPECT_TRUE(Eventually([] { return Callbacks() == 0; }));
  EXPECT_TRUE(gates_.Records().empty());  // no header was read: nothing is reported

  Json::Value r;
  ASSERT_EQ("907135000", Status(32, "{}", &r));
  EXPECT_EQ("907135000", r["header"]["error_code"].asString());
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerResCallBack.ExcuteError begin. responseStatus =  "
                                     "907135000 msgIdentify = 32(ServerResCallBack::ExcuteError)"));
  EXPECT_EQ(0, verifier_.calls.load());

  // An exception in the run: no answer at all, the callback stays, and the
  // line tells the thread's last error.
  gates_.SetInvoke([](const RequestHeader&, const ConvertedRequest&, ServerResCallBack*, ResponseStatus&) {
    tarn::os::SetLastError(4321);
    throw std::runtime_error("kit manager");
  });
  EXPECT_EQ(9003, Send(33, Request(), response, 500));
  EXPECT_TRUE(Eventually(
      [&] { return logs_.Has(Level::Info, "RequestInvoke.excute end. (RequestInvoke::Excute)"); }));
  EXPECT_TRUE(logs_.Has(Level::Error, "RequestInvoke Excute failed.errmsg = 4321(RequestInvoke::Excute)"));
  EXPECT_EQ(1u, Callbacks());
  EXPECT_NE(nullptr, ServerManager::GetInstance().GetServerResCallBackByMessageId("33"));
  EXPECT_EQ("907135000", Status(34, "{}"));  // the endpoint serves on
}

// Past every gate the default kit manager refuses; the whitelist decides who is verified.
TEST_F(Pipeline, WhitelistFoundOtherClientIdOrUnknown) {
  Json::Value r;
  ASSERT_EQ("907135001", StatusFor(41, "c1", &r));
  EXPECT_EQ("API is not supported. ", r["header"]["error_reason"].asString());
  EXPECT_EQ("", r["header"]["api_name"].asString());  // failures carry no identity
  EXPECT_TRUE(logs_.Has(Level::Error, "Invoke failed. status_code = 907135001 msgIdentify = "
                                      "41(RequestInvoke::Excute)"));
  ASSERT_TRUE(Eventually([&] { return gates_.Records().size() == 2; }));
  EXPECT_EQ((std::vector<ApiRecord>{{"req", "Demo.Echo", "0"}, {"res", "Demo.Echo", "907135001"}}),
            gates_.Records());
  // Unknown: verified once, then found.
  EXPECT_EQ(1, verifier_.calls.load());
  EXPECT_EQ(kPid, verifier_.lastPid.load());
  EXPECT_EQ(0, Listed("c1"));
  EXPECT_TRUE(logs_.Has(Level::Info, "Verify success. client_id: c1 Pid: " + kPidText +
                                         "(RequestInvoke::CheckCertFingerprint)"));
  ASSERT_EQ("907135001", StatusFor(42, "c1"));
  EXPECT_EQ(1, verifier_.calls.load());
  EXPECT_EQ(1, gates_.fingerprintCalls.load());
  EXPECT_TRUE(logs_.Has(Level::Info, "Already in whitelist. client_id: c1 Pid: " + kPidText +
                                         "(RequestInvoke::VerifyProcess)"));
  {
    std::lock_guard lock(gates_.mutex);
    EXPECT_EQ(std::vector<std::string>{"c1"}, gates_.lastChecked);
  }

  // Another client id from a listed process: verified again, and listed anew.
  ASSERT_EQ("907135001", StatusFor(43, "new"));
  EXPECT_TRUE(logs_.Has(Level::Error, "Wrong clientId: new Pid: " + kPidText + "(RequestInvoke::VerifyProcess)"));
  EXPECT_EQ(2, verifier_.calls.load());
  EXPECT_EQ(0, Listed("new"));
  // Refused this time: the old entry is gone and no new one is made.
  verifier_.result = 7;
  ASSERT_EQ("907135004", StatusFor(44, "other"));
  EXPECT_EQ(2, Listed("other"));
  EXPECT_EQ(2, Listed("new"));
}

// Each row from an empty whitelist. A platform caller skips the fingerprint,
// verification switched off skips the signature, and fingerprint 1000 lets the
// caller through without listing it.
TEST_F(Pipeline, RefusalsAndSkipsOfSignatureAndFingerprint) {
  std::atomic<bool> flagged{false};
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest&, ServerResCallBack* cb,
                       ResponseStatus& status) {
    flagged = cb->isTarnCoreRequest;
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
  });
  const struct {
    bool core, verifyEnabled;
    int verify, fingerprint;
    const char *status, *reason;
    int verified, fingerprinted, listed;
  } cases[] = {
      {false, true, 3, 0, "907135004", "API is illegal. ", 1, 0, 2},
      {false, true, 0, 2000, "907135017", "API is illegal with network disconnect. ", 1, 1, 2},
      {false, true, 0, 1, "907135004", "API is illegal. ", 1, 1, 2},
      {false, true, 0, 1000, "907135001", "API is not supported. ", 1, 1, 2},
      {true, true, 0, 0, "907135001", "API is not supported. ", 1, 0, 0},
      {false, false, 9, 0, "907135001", "API is not supported. ", 0, 0, 2},
  };
  int32_t id = 50;
  for (const auto& c : cases) {
    SCOPED_TRACE(id);
    SignatureManager::GetInstance()->Clear();
    gates_.tarnCoreCaller = c.core;
    gates_.verifyEnabled = c.verifyEnabled;
    verifier_.result = c.verify;
    gates_.fingerprint = c.fingerprint;
    const int verified = verifier_.calls, fingerprinted = gates_.fingerprintCalls;
    Json::Value r;
    EXPECT_EQ(c.status, StatusFor(id++, "c1", &r));
    EXPECT_EQ(c.reason, r["header"]["error_reason"].asString());
    EXPECT_EQ(c.verified, verifier_.calls - verified);
    EXPECT_EQ(c.fingerprinted, gates_.fingerprintCalls - fingerprinted);
    EXPECT_EQ(c.listed, Listed("c1"));
    if (c.status == std::string("907135001")) {
      EXPECT_EQ(c.core, flagged.load());
    }
  }
  EXPECT_TRUE(logs_.Has(Level::Error, "SignatureVerifyer failed. msgIdentify = 50(RequestInvoke::VerifySignatured)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "Verify fail client_id:c1 Pid:" + kPidText +
                                          " ret:2000(RequestInvoke::CheckCertFingerprint)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "Verify success not add whitelist. clientId:c1 Pid:" + kPidText +
                                         "(RequestInvoke::CheckCertFingerprint)"));
}

// The response frame as it comes off the socket: the addresses, the codes, the
// request's id, and the body with its terminating zero counted.
TEST_F(Pipeline, BareResultIsWrappedInTheRequestsHeaderWithoutTheId) {
  std::string seenHeader, response;
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest& request, ServerResCallBack* cb,
                       ResponseStatus&) {
    seenHeader = request.header;
    std::string result = "{\"v\":1}";
    cb->Excute(result);
  });
  const int fd = tarn::test::RawConnect(tarn::ipc::SocketPath());
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(tarn::test::WriteAll(fd, tarn::test::EncodeFrame(tarn::test::RequestItem(-70), Request())));
  // The decoder reads the bytes as the wire format has them (the IPC suite
  // checks it byte for byte), and refuses padding that isn't zero.
  TagIPCMessageItem got;
  std::string body;
  ASSERT_TRUE(tarn::test::ReadFrame(fd, got, body));
  const std::string expected =
      "{\"header\":{\"api_name\":\"Demo.Echo\",\"app_id\":\"app\",\"error_code\":\"0\","
      "\"error_reason\":\"success\",\"pkg_name\":\"pkg\",\"resolution\":\"\",\"session_id\":\"s1\","
      "\"srv_name\":\"Demo\",\"status_code\":\"0\",\"transaction_id\":\"t1\",\"version\":\"1.0\"}\n"
      ",\"body\":{\"v\":1}}";
  EXPECT_EQ((std::vector<int64_t>{0x700000, 0x710000, 0x660008, 0, -1, -70, 1,
                                  static_cast<int64_t>(expected.size() + 1)}),
            (std::vector<int64_t>{got.target, got.source, got.messageCode, got.subCode, got.reserved,
                                  got.syncMessageId, got.bodyIsHeld, got.bodySize}));
  ::close(fd);
  EXPECT_EQ(expected + '\0', body);
  EXPECT_NE(std::string::npos, seenHeader.find("\"syncMessageId\":\"-70\""));
  ASSERT_TRUE(Eventually([&] { return gates_.Records().size() == 2; }));
  EXPECT_EQ((ApiRecord{"res", "Demo.Echo", "0"}), gates_.Records()[1]);

  // An empty result is wrapped as it is, though that is no JSON.
  Answer("");
  ASSERT_EQ(0, Send(71, Request(), response));
  EXPECT_EQ(",\"body\":}", response.substr(response.size() - 9));
  // A kit's answer that holds "header" goes out unchanged.
  const std::string own = "{\"header\":{\"status_code\":\"5\"},\"body\":{\"x\":2}}";
  Answer(own);
  ASSERT_EQ(0, Send(72, Request(), response));
  EXPECT_EQ(own, response);
}

TEST_F(Pipeline, LateAnswerFromAnotherThreadFindsItsCallbackById) {
  std::promise<std::string> taken;
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest& request, ServerResCallBack*,
                       ResponseStatus&) {
    taken.set_value(ParseJson(request.header)["syncMessageId"].asString());  // as a kit would keep it
  });
  auto reply = std::async(std::launch::async, [&] {
    Json::Value r;
    std::string status = Status(-80, Request(), &r);
    return std::make_pair(status, r);
  });
  auto idFuture = taken.get_future();
  ASSERT_EQ(std::future_status::ready, idFuture.wait_for(std::chrono::milliseconds(kLong)));
  const std::string id = idFuture.get();
  EXPECT_EQ("-80", id);
  // Answer only after the delivering thread has left OnMsgCallback.
  ASSERT_TRUE(Eventually([&] {
    return logs_.Has(Level::Info, "ServerManager.OnMsgCallback end.(ServerManager::OnMsgCallback)");
  }));
  std::thread([&] {
    EXPECT_EQ(nullptr, ServerManager::GetInstance().GetServerResCallBackByMessageId("81"));
    ServerResCallBack* cb = ServerManager::GetInstance().GetServerResCallBackByMessageId(id);
    ASSERT_NE(nullptr, cb);
    std::string result = "{\"late\":true}";
    cb->Excute(result);
  }).join();
  auto [status, r] = reply.get();
  EXPECT_EQ("0", status);
  EXPECT_EQ("Demo.Echo", r["header"]["api_name"].asString());
  EXPECT_TRUE(r["body"]["late"].asBool());
  // The callback's own header, still alive.
  EXPECT_EQ((ApiRecord{"res", "Demo.Echo", "0"}), gates_.Records().at(1));
  EXPECT_EQ(0u, Callbacks());
}

// A request held inside the kit manager holds up no other: the next caller is
// served meanwhile, and the held one's answer goes to its own, departed caller.
TEST_F(Pipeline, DepartedClientLosesItsAnswerAndOthersCarryOn) {
  std::promise<void> release, entered;
  std::shared_future<void> released = release.get_future().share();
  gates_.SetInvoke([&](const RequestHeader& header, const ConvertedRequest&, ServerResCallBack* cb,
                       ResponseStatus&) {
    if (header.client_id == "slow") {
      entered.set_value();
      released.wait();
    }
    std::string result = "{}";
    cb->Excute(result);
  });
  {
    TarnCoreIPCMessageClient leaver(IpcAddressClientSide, true, false);
    std::string r;
    EXPECT_EQ(9003, tarn::test::SendRequest(leaver, 90, RequestFrom("slow"), r, 300));
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(std::chrono::milliseconds(kLong)));
  }  // the client goes away while its request is still being served
  ASSERT_TRUE(Eventually([] { return g_tarnCoreIpcServer->ConnectionCount() == 0; }));
  EXPECT_EQ("0", StatusFor(91, "fast"));
  release.set_value();
  ASSERT_TRUE(Eventually([] { return Callbacks() == 0; }));
  EXPECT_TRUE(logs_.Has(Level::Error, "PostIPCMessage failed!(ServerManager::SendIpcMessage)"));
  EXPECT_EQ("0", StatusFor(92, "fast"));
}

TEST_F(Pipeline, InitWaitPollsSeventeenTimesThenRefuses) {
  tarn::os::FakeClock clock(1000);
  tarn::os::SetClockForTesting(&clock);
  gates_.initComplete = [] { return false; };
  Json::Value r;
  std::string status = StatusFor(110, "c1", &r);
  // Init completing during the wait lets the request on.
  std::atomic<int> polls{0};
  gates_.initComplete = [&] { return ++polls > 3; };
  std::string later = StatusFor(111, "c1");
  tarn::os::SetClockForTesting(nullptr);
  EXPECT_EQ("907135011", status);
  EXPECT_EQ("TarnCore is not inited completely ", r["header"]["error_reason"].asString());
  EXPECT_EQ("907135001", later);
  EXPECT_EQ(1000u + 17 * 50 + 3 * 50, clock.TickCount());
  EXPECT_TRUE(logs_.Has(Level::Info, "TarnCore is not init completely. msgIdentify = 110 Wait "
                                     "it.(RequestInvoke::IsInitComplite)"));
  EXPECT_EQ(1u, logs_.Count(Level::Error, "TarnCore still not init complete after 1s. msgIdentify = "
                                          "110(RequestInvoke::IsInitComplite)"));
  EXPECT_EQ(1u, logs_.CountContaining("TarnCore still not init complete after 1s."));
}

TEST_F(Pipeline, BroadcastsReachListenersWithTheirOwnRandomId) {
  ServerManager& sm = ServerManager::GetInstance();
  sm.BroadcastMessage("nobody hears this");
  EXPECT_TRUE(logs_.Has(Level::Error, "ClientManager.BroadcastMessage fail.(ServerManager::BroadcastMessage)"));

  std::mutex m;
  std::condition_variable cv;
  std::vector<std::pair<TagIPCMessageItem, std::string>> got;
  TarnCoreIPCMessageClient listener(IpcAddressClientSide, true, false);
  listener.RegisterMessageCallback(IpcBroadcastMessageCode, [&](TagIPCMessageItem& item) {
    std::lock_guard lock(m);
    got.emplace_back(item, item.body);
    cv.notify_all();
  });
  ASSERT_TRUE(Eventually([] { return g_tarnCoreIpcServer->ConnectionCount() == 1; }));
  char kitText[] = "{\"kit\":\"news\"}";
  sm.broadcastSendHandle(kitText);
  sm.SendServiceStartBroadcast();
  sm.SendUpdateFailedBroadcast("boom");
  std::unique_lock lock(m);
  ASSERT_TRUE(cv.wait_for(lock, std::chrono::milliseconds(kLong), [&] { return got.size() == 3; }));
  EXPECT_EQ("{\"kit\":\"news\"}", got[0].second);
  EXPECT_EQ("{\"header\":{\"action\":\"com.vantrel.tarn.updateKit\"},\"notifyMsg\":{\"isUserAgree\":\"0\","
            "\"level\":\"\",\"version\":\"\"}}\n",
            got[1].second);
  EXPECT_NE(std::string::npos, got[2].second.find("\"updateKitResult\":\"boom\""));
  std::set<int32_t> ids;
  for (const auto& [it, text] : got) {
    EXPECT_EQ((std::vector<int64_t>{0, IpcAddressContainer, IpcBroadcastMessageCode, -1, 1,
                                    static_cast<int64_t>(text.size() + 1)}),
              (std::vector<int64_t>{it.target, it.source, it.subCode, it.reserved, it.bodyIsHeld, it.bodySize}));
    EXPECT_TRUE(it.syncMessageId >= 0 && it.syncMessageId <= 999999999);  // nine random digits
    ids.insert(it.syncMessageId);
  }
  EXPECT_EQ(3u, ids.size());
  EXPECT_TRUE(logs_.Has(Level::Info, "For forceUpdate failed, broadcastMsg = " + got[2].second +
                                         "(ServerManager::SendUpdateFailedBroadcast)"));
}

TEST_F(Pipeline, MessagesWithoutAKnownCallerOrOfAnotherCodeAreDropped) {
  std::string text = "{}";
  TagIPCMessageItem item;
  item.messageCode = IpcRequestMessageCode;
  item.syncMessageId = 4711;  // no connection sent this id
  item.body = text.data();
  item.bodySize = 3;
  ServerManager::GetInstance().OnMsgCallback(item);
  item.messageCode = IpcBroadcastMessageCode;
  ServerManager::GetInstance().OnMsgCallback(item);
  EXPECT_EQ(0u, Callbacks());
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerManager.OnMsgCallback syncMessageId = 4711 callerPid = "
                                     "0(ServerManager::OnMsgCallback)"));
  EXPECT_EQ(2u, logs_.Count(Level::Info, "ServerManager.OnMsgCallback end.(ServerManager::OnMsgCallback)"));
  EXPECT_FALSE(logs_.Contains("RequestInvoke.excute begin."));
}

}  // namespace
