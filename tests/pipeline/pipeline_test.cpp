#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "pipeline/RequestInvoke.h"
#include "pipeline/pipeline_fakes.h"
#include "platform/os/clock.h"

namespace {

using namespace std::chrono_literals;
using tarn::log::Level;
using tarn::test::kLong;

const uint32_t kPid = static_cast<uint32_t>(::getpid());
const std::string kPidText = std::to_string(::getpid());

class Pipeline : public tarn::test::PipelineFixture {};

using tarn::test::Eventually;

// What the endpoint does after an answer has left (the "res" record, removing
// the callback, the end line) may still be under way when the client has it.
TEST_F(Pipeline, TextThatIsNotJsonIsRefusedAsDataFormatError) {
  std::string response;
  ASSERT_EQ(0, Send(31, "hello, container", response));
  std::string expected;
  ResponseStatus bad;
  SetResponseStatus(bad, TarnStatus::kDataFormatError);
  ConnectManager::GetResErrorMsg(bad, expected);
  EXPECT_EQ(expected, response);
  EXPECT_NE(std::string::npos, response.find("data format is error."));
  EXPECT_TRUE(logs_.Has(Level::Error, "req mgs error.(ConnectManager::ConvertRequest)"));
  EXPECT_TRUE(
      logs_.Has(Level::Error, "req message parse error. msgIdentify = 31(RequestInvoke::Excute)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerManager.OnMsgCallback syncMessageId = 31 callerPid = " +
                                         kPidText + "(ServerManager::OnMsgCallback)"));
  EXPECT_TRUE(Eventually([] { return ServerManager::GetInstance().CallbackCount() == 0; }));
  EXPECT_TRUE(gates_.Records().empty());  // no header was read: nothing is reported
}

TEST_F(Pipeline, EmptyObjectFailsAtTheHeader) {
  std::string response;
  ASSERT_EQ(0, Send(32, "{}", response));
  Json::Value r = Parse(response);
  EXPECT_EQ("907135000", r["header"]["status_code"].asString());
  EXPECT_EQ("907135000", r["header"]["error_code"].asString());
  EXPECT_TRUE(logs_.Has(Level::Error, "request data parse error.(ConnectManager::GetReqHeader)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerResCallBack.ExcuteError begin. responseStatus =  "
                                     "907135000 msgIdentify = 32(ServerResCallBack::ExcuteError)"));
  EXPECT_EQ(0, verifier_.calls.load());
}

TEST_F(Pipeline, NonStringApiLevelGetsNoAnswerAndKeepsItsCallback) {
  std::string response;
  EXPECT_EQ(9003, Send(33, "{\"header\":{\"apiLevel\":5}}", response, 500));
  EXPECT_TRUE(Eventually(
      [&] { return logs_.Has(Level::Info, "RequestInvoke.excute end. (RequestInvoke::Excute)"); }));
  EXPECT_TRUE(logs_.Contains("RequestInvoke Excute failed.errmsg = "));
  EXPECT_EQ(1u, ServerManager::GetInstance().CallbackCount());
  EXPECT_NE(nullptr, ServerManager::GetInstance().GetServerResCallBackByMessageId("33"));
  // The endpoint serves on.
  EXPECT_EQ(0, Send(34, "{}", response));
}

TEST_F(Pipeline, VerifiedRequestReachesTheKitManagerWhichRefusesByDefault) {
  std::string response;
  ASSERT_EQ(0, Send(40, Request("c1"), response));
  Json::Value r = Parse(response);
  EXPECT_EQ("907135001", r["header"]["status_code"].asString());
  EXPECT_EQ("API is not supported. ", r["header"]["error_reason"].asString());
  EXPECT_EQ("", r["header"]["api_name"].asString());  // failures carry no identity
  EXPECT_TRUE(logs_.Has(Level::Error, "Invoke failed. status_code = 907135001 msgIdentify = "
                                      "40(RequestInvoke::Excute)"));
  ASSERT_TRUE(Eventually([&] { return gates_.Records().size() == 2; }));
  auto records = gates_.Records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("req", records[0].direction);
  EXPECT_EQ("Demo.Echo", records[0].apiName);
  EXPECT_EQ("res", records[1].direction);
  EXPECT_EQ("907135001", records[1].statusCode);
  EXPECT_TRUE(Eventually([] { return ServerManager::GetInstance().CallbackCount() == 0; }));
}

TEST_F(Pipeline, UnknownCallerIsVerifiedOnceThenFoundInTheWhitelist) {
  std::string response;
  ASSERT_EQ(0, Send(41, Request("c1"), response));
  EXPECT_EQ(1, verifier_.calls.load());
  EXPECT_EQ(kPid, verifier_.lastPid.load());
  EXPECT_EQ(1, gates_.fingerprintCalls.load());
  EXPECT_EQ(0, SignatureManager::GetInstance()->FindSignatured(kPid, "c1"));
  EXPECT_TRUE(logs_.Has(Level::Info, "Verify success. client_id: c1 Pid: " + kPidText +
                                         "(RequestInvoke::CheckCertFingerprint)"));

  ASSERT_EQ(0, Send(42, Request("c1"), response));
  EXPECT_EQ(1, verifier_.calls.load());
  EXPECT_EQ(1, gates_.fingerprintCalls.load());
  EXPECT_TRUE(logs_.Has(Level::Info, "Already in whitelist. client_id: c1 Pid: " + kPidText +
                                         "(RequestInvoke::VerifyProcess)"));
  std::lock_guard lock(gates_.mutex);
  EXPECT_EQ(std::vector<std::string>{"c1"}, gates_.lastChecked);
}

TEST_F(Pipeline, ProcessClaimingAnotherClientIdIsVerifiedAgain) {
  SignatureManager::GetInstance()->AddSignatureWhiteList(kPid, "old");
  std::string response;
  ASSERT_EQ(0, Send(43, Request("new"), response));
  EXPECT_TRUE(logs_.Has(Level::Error,
                        "Wrong clientId: new Pid: " + kPidText + "(RequestInvoke::VerifyProcess)"));
  EXPECT_EQ(1, verifier_.calls.load());
  EXPECT_EQ(0, SignatureManager::GetInstance()->FindSignatured(kPid, "new"));

  // Refused this time: the old entry is gone and no new one is made.
  SignatureManager::GetInstance()->AddSignatureWhiteList(kPid, "old");
  verifier_.result = 7;
  ASSERT_EQ(0, Send(44, Request("new"), response));
  EXPECT_EQ("907135004", Parse(response)["header"]["status_code"].asString());
  EXPECT_EQ(2, SignatureManager::GetInstance()->FindSignatured(kPid, "new"));
}

TEST_F(Pipeline, RefusalsOfSignatureAndFingerprint) {
  std::string response;
  verifier_.result = 3;
  ASSERT_EQ(0, Send(50, Request("c1"), response));
  EXPECT_EQ("907135004", Parse(response)["header"]["status_code"].asString());
  EXPECT_EQ("API is illegal. ", Parse(response)["header"]["error_reason"].asString());
  EXPECT_TRUE(logs_.Has(Level::Error,
                        "SignatureVerifyer failed. msgIdentify = 50(RequestInvoke::VerifySignatured)"));
  EXPECT_EQ(0, gates_.fingerprintCalls.load());

  verifier_.result = 0;
  gates_.fingerprint = 2000;
  ASSERT_EQ(0, Send(51, Request("c1"), response));
  EXPECT_EQ("907135017", Parse(response)["header"]["status_code"].asString());
  EXPECT_EQ("API is illegal with network disconnect. ",
            Parse(response)["header"]["error_reason"].asString());
  EXPECT_TRUE(logs_.Has(Level::Error, "Verify fail client_id:c1 Pid:" + kPidText +
                                          " ret:2000(RequestInvoke::CheckCertFingerprint)"));

  gates_.fingerprint = 1;
  ASSERT_EQ(0, Send(52, Request("c1"), response));
  EXPECT_EQ("907135004", Parse(response)["header"]["status_code"].asString());

  // 1000 lets the caller through without listing it: the next request checks again.
  gates_.fingerprint = 1000;
  ASSERT_EQ(0, Send(53, Request("c1"), response));
  EXPECT_EQ("907135001", Parse(response)["header"]["status_code"].asString());
  EXPECT_TRUE(logs_.Has(Level::Info, "Verify success not add whitelist. clientId:c1 Pid:" +
                                         kPidText + "(RequestInvoke::CheckCertFingerprint)"));
  EXPECT_EQ(2, SignatureManager::GetInstance()->FindSignatured(kPid, "c1"));
  ASSERT_EQ(0, Send(54, Request("c1"), response));
  EXPECT_EQ(4, gates_.fingerprintCalls.load());
}

TEST_F(Pipeline, PlatformCallerSkipsTheFingerprintAndVerificationCanBeOff) {
  std::atomic<bool> flagged{false};
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest&, ServerResCallBack* cb,
                        ResponseStatus& status) {
    flagged = cb->isTarnCoreRequest;
    SetResponseStatus(status, TarnStatus::kApiNotSupported);
  });
  gates_.tarnCoreCaller = true;
  std::string response;
  ASSERT_EQ(0, Send(60, Request("core"), response));
  EXPECT_TRUE(flagged.load());
  EXPECT_EQ(0, gates_.fingerprintCalls.load());
  EXPECT_EQ(0, SignatureManager::GetInstance()->FindSignatured(kPid, "core"));

  SignatureManager::GetInstance()->Clear();
  gates_.verifyEnabled = false;
  verifier_.result = 9;
  ASSERT_EQ(0, Send(61, Request("any"), response));
  EXPECT_EQ("907135001", Parse(response)["header"]["status_code"].asString());
  EXPECT_EQ(1, verifier_.calls.load());  // only the first request's
  EXPECT_FALSE(flagged.load());
  EXPECT_EQ(2, SignatureManager::GetInstance()->FindSignatured(kPid, "any"));
}

TEST_F(Pipeline, BareResultIsWrappedInTheRequestsHeaderWithoutTheId) {
  std::string seenHeader;
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest& request,
                        ServerResCallBack* cb, ResponseStatus&) {
    seenHeader = request.header;
    std::string result = "{\"v\":1}";
    cb->Excute(result);
  });
  std::string response;
  ASSERT_EQ(0, Send(70, Request("c1"), response));
  EXPECT_NE(std::string::npos, seenHeader.find("\"syncMessageId\":\"70\""));
  EXPECT_EQ(std::string::npos, response.find("syncMessageId"));
  EXPECT_EQ(
      "{\"header\":{\"api_name\":\"Demo.Echo\",\"app_id\":\"app\",\"error_code\":\"0\","
      "\"error_reason\":\"success\",\"pkg_name\":\"pkg\",\"resolution\":\"\",\"session_id\":\"s1\","
      "\"srv_name\":\"Demo\",\"status_code\":\"0\",\"transaction_id\":\"t1\",\"version\":\"1.0\"}\n"
      ",\"body\":{\"v\":1}}",
      response);
  ASSERT_TRUE(Eventually([&] { return gates_.Records().size() == 2; }));
  auto records = gates_.Records();
  EXPECT_EQ("res", records[1].direction);
  EXPECT_EQ("Demo.Echo", records[1].apiName);
  EXPECT_TRUE(Eventually(
      [&] { return logs_.Has(Level::Info, "RequestInvoke.excute end. (RequestInvoke::Excute)"); }));

  // An empty result is wrapped as it is, though that is no JSON.
  gates_.SetInvoke([](const RequestHeader&, const ConvertedRequest&, ServerResCallBack* cb,
                       ResponseStatus&) {
    std::string empty;
    cb->Excute(empty);
  });
  ASSERT_EQ(0, Send(71, Request("c1"), response));
  EXPECT_EQ(",\"body\":}", response.substr(response.size() - 9));
}

TEST_F(Pipeline, KitAnswerWithItsOwnHeaderGoesOutUnchanged) {
  const std::string own = "{\"header\":{\"status_code\":\"5\"},\"body\":{\"x\":2}}";
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest&, ServerResCallBack* cb,
                        ResponseStatus&) {
    std::string copy = own;
    cb->Excute(copy);
  });
  std::string response;
  ASSERT_EQ(0, Send(72, Request("c1"), response));
  EXPECT_EQ(own, response);
}

TEST_F(Pipeline, LateAnswerFromAnotherThreadFindsItsCallbackById) {
  std::promise<std::string> taken;
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest& request,
                        ServerResCallBack*, ResponseStatus&) {
    Json::Value header = Parse(request.header);
    taken.set_value(header["syncMessageId"].asString());  // as a kit would keep it
  });
  auto reply = std::async(std::launch::async, [&] {
    std::string response;
    int code = Send(-80, Request("c1"), response);
    return std::make_pair(code, response);
  });
  auto idFuture = taken.get_future();
  ASSERT_EQ(std::future_status::ready, idFuture.wait_for(std::chrono::milliseconds(kLong)));
  const std::string id = idFuture.get();
  EXPECT_EQ("-80", id);
  // Answer only after the delivering thread has left OnMsgCallback.
  ASSERT_TRUE(Eventually([&] {
    return logs_.Has(Level::Info, "ServerManager.OnMsgCallback end.(ServerManager::OnMsgCallback)");
  }));
  std::thread kit([&] {
    EXPECT_EQ(nullptr, ServerManager::GetInstance().GetServerResCallBackByMessageId("81"));
    ServerResCallBack* cb = ServerManager::GetInstance().GetServerResCallBackByMessageId(id);
    ASSERT_NE(nullptr, cb);
    std::string result = "{\"late\":true}";
    cb->Excute(result);
  });
  kit.join();
  auto [code, response] = reply.get();
  ASSERT_EQ(0, code);
  Json::Value r = Parse(response);
  EXPECT_EQ("0", r["header"]["status_code"].asString());
  EXPECT_EQ("Demo.Echo", r["header"]["api_name"].asString());
  EXPECT_TRUE(r["body"]["late"].asBool());
  auto records = gates_.Records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("res", records[1].direction);
  EXPECT_EQ("Demo.Echo", records[1].apiName);  // the callback's own header, still alive
  EXPECT_EQ(0u, ServerManager::GetInstance().CallbackCount());
}

TEST_F(Pipeline, ConcurrentRequestsEachGetTheirOwnAnswer) {
  std::mutex m;
  std::condition_variable cv;
  int inside = 0;
  gates_.SetInvoke([&](const RequestHeader&, const ConvertedRequest&, ServerResCallBack* cb,
                        ResponseStatus&) {
    {
      std::unique_lock lock(m);
      ++inside;
      cv.notify_all();
      cv.wait_for(lock, std::chrono::milliseconds(kLong), [&] { return inside == 2; });
    }
    std::string result = "{\"id\":\"" + cb->msgIdentify + "\"}";
    cb->Excute(result);
  });
  TarnCoreIPCMessageClient other(IpcAddressClientSide, true, false);
  auto a = std::async(std::launch::async, [&] {
    std::string r;
    Send(client_, 101, Request("c1"), r);
    return r;
  });
  auto b = std::async(std::launch::async, [&] {
    std::string r;
    Send(other, 202, Request("c1"), r);
    return r;
  });
  EXPECT_EQ("101", Parse(a.get())["body"]["id"].asString());
  EXPECT_EQ("202", Parse(b.get())["body"]["id"].asString());
  EXPECT_EQ(2, inside);
}

TEST_F(Pipeline, DepartedClientLosesItsAnswerAndOthersCarryOn) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> entered;
  gates_.SetInvoke([&](const RequestHeader& header, const ConvertedRequest&,
                        ServerResCallBack* cb, ResponseStatus&) {
    if (header.client_id == "slow") {
      entered.set_value();
      released.wait();
    }
    std::string result = "{}";
    cb->Excute(result);
  });
  {
    TarnCoreIPCMessageClient leaver(IpcAddressClientSide, true, false);
    auto gone = std::async(std::launch::async, [&] {
      std::string r;
      return Send(leaver, 90, Request("slow"), r, 300);
    });
    EXPECT_EQ(9003, gone.get());
    ASSERT_EQ(std::future_status::ready,
              entered.get_future().wait_for(std::chrono::milliseconds(kLong)));
  }  // the client goes away while its request is still being served
  ASSERT_TRUE(Eventually([] { return g_tarnCoreIpcServer->ConnectionCount() == 0; }));
  std::string response;
  ASSERT_EQ(0, Send(91, Request("fast"), response));
  EXPECT_EQ("0", Parse(response)["header"]["status_code"].asString());
  release.set_value();
  ASSERT_TRUE(Eventually([] { return ServerManager::GetInstance().CallbackCount() == 0; }));
  EXPECT_TRUE(logs_.Has(Level::Error, "PostIPCMessage failed!(ServerManager::SendIpcMessage)"));
  ASSERT_EQ(0, Send(92, Request("fast"), response));
}

TEST_F(Pipeline, InitWaitPollsSeventeenTimesThenRefuses) {
  tarn::os::FakeClock clock(1000);
  tarn::os::SetClockForTesting(&clock);
  gates_.initComplete = [] { return false; };
  std::string response;
  ASSERT_EQ(0, Send(110, Request("c1"), response));
  tarn::os::SetClockForTesting(nullptr);
  Json::Value r = Parse(response);
  EXPECT_EQ("907135011", r["header"]["status_code"].asString());
  EXPECT_EQ("TarnCore is not inited completely ", r["header"]["error_reason"].asString());
  EXPECT_EQ(1000u + 17 * 50, clock.TickCount());
  EXPECT_TRUE(logs_.Has(Level::Info, "TarnCore is not init completely. msgIdentify = 110 Wait "
                                     "it.(RequestInvoke::IsInitComplite)"));
  EXPECT_TRUE(logs_.Has(Level::Error, "TarnCore still not init complete after 1s. msgIdentify = "
                                      "110(RequestInvoke::IsInitComplite)"));
  EXPECT_FALSE(logs_.Contains("RequestInvoke.excute end."));
}

TEST_F(Pipeline, InitCompletingDuringTheWaitLetsTheRequestOn) {
  tarn::os::FakeClock clock(0);
  tarn::os::SetClockForTesting(&clock);
  std::atomic<int> polls{0};
  gates_.initComplete = [&] { return ++polls > 3; };
  std::string response;
  ASSERT_EQ(0, Send(111, Request("c1"), response));
  tarn::os::SetClockForTesting(nullptr);
  EXPECT_EQ("907135001", Parse(response)["header"]["status_code"].asString());
  EXPECT_EQ(150u, clock.TickCount());
}

TEST_F(Pipeline, BroadcastsReachListenersWithTheirOwnRandomId) {
  ServerManager& sm = ServerManager::GetInstance();
  sm.BroadcastMessage("nobody hears this");
  EXPECT_TRUE(logs_.Has(Level::Error,
                        "ClientManager.BroadcastMessage fail.(ServerManager::BroadcastMessage)"));

  std::mutex m;
  std::condition_variable cv;
  std::vector<TagIPCMessageItem> items;
  std::vector<std::string> texts;
  TarnCoreIPCMessageClient listener(IpcAddressClientSide, true, false);
  listener.RegisterMessageCallback(IpcBroadcastMessageCode, [&](TagIPCMessageItem& item) {
    std::lock_guard lock(m);
    items.push_back(item);
    texts.emplace_back(item.body);
    cv.notify_all();
  });
  ASSERT_TRUE(Eventually([] { return g_tarnCoreIpcServer->ConnectionCount() == 1; }));

  char kitText[] = "{\"kit\":\"news\"}";
  sm.broadcastSendHandle(kitText);
  sm.SendServiceStartBroadcast();
  sm.SendUpdateFailedBroadcast("boom");
  std::unique_lock lock(m);
  ASSERT_TRUE(cv.wait_for(lock, std::chrono::milliseconds(kLong), [&] { return items.size() == 3; }));
  EXPECT_EQ("{\"kit\":\"news\"}", texts[0]);
  EXPECT_EQ(
      "{\"header\":{\"action\":\"com.vantrel.tarn.updateKit\"},\"notifyMsg\":{\"isUserAgree\":\"0\","
      "\"level\":\"\",\"version\":\"\"}}\n",
      texts[1]);
  EXPECT_NE(std::string::npos, texts[2].find("\"updateKitResult\":\"boom\""));
  for (std::size_t i = 0; i < items.size(); ++i) {
    EXPECT_EQ(0u, items[i].target);
    EXPECT_EQ(IpcAddressContainer, items[i].source);
    EXPECT_EQ(IpcBroadcastMessageCode, items[i].subCode);
    EXPECT_EQ(-1, items[i].reserved);
    EXPECT_EQ(texts[i].size() + 1, items[i].bodySize);
    EXPECT_EQ(1, items[i].bodyIsHeld);
  }
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerManager.broadcastSendHandle start.("
                                     "ServerManager::broadcastSendHandle)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerManager.broadcastSendHandle end.("
                                     "ServerManager::broadcastSendHandle)"));
  EXPECT_TRUE(logs_.Has(Level::Info, "For forceUpdate failed, broadcastMsg = " + texts[2] +
                                         "(ServerManager::SendUpdateFailedBroadcast)"));
  EXPECT_TRUE(logs_.Has(Level::Debug,
                        "ClientManager.BroadcastMessage success(ServerManager::BroadcastMessage)"));
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
  EXPECT_EQ(0u, ServerManager::GetInstance().CallbackCount());
  EXPECT_TRUE(logs_.Has(Level::Info, "ServerManager.OnMsgCallback syncMessageId = 4711 callerPid = "
                                     "0(ServerManager::OnMsgCallback)"));
  EXPECT_EQ(2u, logs_.Count(Level::Info,
                            "ServerManager.OnMsgCallback end.(ServerManager::OnMsgCallback)"));
  EXPECT_FALSE(logs_.Contains("RequestInvoke.excute begin."));
}

TEST(BroadcastId, NineRandomDecimalDigits) {
  std::set<int32_t> seen;
  for (int i = 0; i < 50; ++i) {
    int32_t id = MakeBroadcastSyncMessageId();
    EXPECT_GE(id, 0);
    EXPECT_LE(id, 999999999);
    seen.insert(id);
  }
  EXPECT_GT(seen.size(), 40u);
}

}  // namespace
