// The client library over the platform's IPC client: requests are framed,
// sent and awaited by TarnCoreIPCMessageClient; this adds the JSON, the
// header defaults, asynchronous calls and broadcast listening.
#include "tarncore/client.h"

#include <json/reader.h>
#include <json/writer.h>

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ipc/ipc_client.h"
#include "platform/ipc/ipc_message.h"
#include "platform/os/random.h"

namespace tarncore {

// The public codes are the IPC library's own.
constexpr bool SameCode(int a, int b) { return a == b; }
static_assert(SameCode(kDataFormatError, tarn::ipc::kClientDataFormatError) &&
              SameCode(kServiceNotUsed, tarn::ipc::kClientServiceNotUsed) &&
              SameCode(kResponseError, tarn::ipc::kClientResponseError) &&
              SameCode(kTimeout, tarn::ipc::kClientTimeout) && SameCode(kBadTimeout, tarn::ipc::kClientBadTimeout) &&
              SameCode(kInnerError, tarn::ipc::kClientInnerError));

const char* ClientCodeText(int code) { return tarn::ipc::ClientCodeText(code); }

std::string Response::StatusCode() const {
  if (!json.isObject()) return {};
  const Json::Value& header = json["header"];
  if (!header.isObject()) return {};
  const Json::Value& status = header["status_code"];
  return status.isString() ? status.asString() : std::string();
}

bool Response::Ok() const { return clientCode == kOk && StatusCode() == "0"; }

namespace {

std::string RandomHex(std::size_t bytes) {
  std::vector<std::uint8_t> buffer(bytes);
  tarn::os::CryptGenRandom(static_cast<std::uint32_t>(bytes), buffer.data());
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (std::uint8_t b : buffer) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

Response Exchange(TarnCoreIPCMessageClient& ipc, const std::string& text, int timeoutMs) {
  Response response;
  TagIPCMessageItem item = tarn::ipc::ClientRequest(text, tarn::ipc::RandomSyncMessageId());
  response.clientCode = ipc.SendMessageSync(item, response.text, timeoutMs);
  if (response.clientCode != kOk) return response;
  std::string errors;
  std::istringstream in(response.text);
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &response.json, &errors)) {
    response.json = Json::Value();
    response.clientCode = kResponseError;
  }
  return response;
}

}  // namespace

struct Client::Impl {
  // Outstanding asynchronous calls; shared with their threads, which may
  // still be leaving when the client is gone.
  struct Pending {
    std::mutex mutex;
    std::condition_variable idle;
    int count = 0;
  };

  Header defaults;
  const std::string sessionId = RandomHex(8);
  std::shared_ptr<Pending> pending = std::make_shared<Pending>();

  mutable std::mutex mutex;
  // Replaced by Connect when the old one lost its connection; calls keep the
  // one they started on.
  std::shared_ptr<TarnCoreIPCMessageClient> ipc;
  std::shared_ptr<BroadcastHandler> listener;

  std::shared_ptr<TarnCoreIPCMessageClient> Current() {
    std::lock_guard lock(mutex);
    if (!ipc) ipc = std::make_shared<TarnCoreIPCMessageClient>(IpcAddressClientSide, false, true);
    return ipc;
  }

  // A client connected now, with the listener on it. The one it replaces is
  // left in `replaced`, for the caller to silence once the lock is released
  // (a handler running on it may be waiting for that lock).
  int ConnectLocked(std::shared_ptr<TarnCoreIPCMessageClient>& replaced) {
    if (ipc && ipc->IsConnected()) return kOk;
    replaced = std::move(ipc);
    ipc = std::make_shared<TarnCoreIPCMessageClient>(IpcAddressClientSide, true, true);
    if (listener) ListenOn(*ipc, listener);
    return ipc->IsConnected() ? kOk : kServiceNotUsed;
  }

  static void Silence(const std::shared_ptr<TarnCoreIPCMessageClient>& client) {
    if (client) client->UnRegisterMessageCallbackAll();
  }

  static void ListenOn(TarnCoreIPCMessageClient& client, std::shared_ptr<BroadcastHandler> handler) {
    client.RegisterMessageCallback(IpcBroadcastMessageCode, [handler](TagIPCMessageItem& item) {
      const std::size_t size = item.body ? ::strnlen(item.body, item.bodySize) : 0;
      (*handler)(std::string(item.body ? item.body : "", size));
    });
  }

  std::string RequestText(const std::string& uri, const Json::Value& body, const Header& header) const {
    Json::Value fields(Json::objectValue);
    const auto dot = uri.find('.');
    fields["version"] = "1.0";
    fields["srv_name"] = dot == std::string::npos ? uri : uri.substr(0, dot);
    fields["api_name"] = uri;
    fields["sdk_version"] = "1.0.0";
    fields["kitSdkVersion"] = "1.0.0";
    fields["apiLevel"] = "1";
    fields["session_id"] = sessionId;
    fields["transaction_id"] = RandomHex(16);
    for (const auto& [key, value] : defaults) fields[key] = value;
    for (const auto& [key, value] : header) fields[key] = value;
    Json::Value request(Json::objectValue);
    request["header"] = fields;
    request["body"] = body;
    return Compact(request);
  }
};

Client::Client(Header defaults) : impl_(std::make_unique<Impl>()) { impl_->defaults = std::move(defaults); }

Client::~Client() {
  {
    std::unique_lock lock(impl_->pending->mutex);
    impl_->pending->idle.wait(lock, [this] { return impl_->pending->count == 0; });
  }
  StopListening();
}

int Client::Connect() {
  std::shared_ptr<TarnCoreIPCMessageClient> replaced;
  int code;
  {
    std::lock_guard lock(impl_->mutex);
    code = impl_->ConnectLocked(replaced);
  }
  Impl::Silence(replaced);
  return code;
}

bool Client::IsConnected() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->ipc && impl_->ipc->IsConnected();
}

Response Client::Call(const std::string& uri, const Json::Value& body, const Header& header, int timeoutMs) {
  return Send(impl_->RequestText(uri, body, header), timeoutMs);
}

Response Client::Send(const std::string& text, int timeoutMs) {
  return Exchange(*impl_->Current(), text, timeoutMs);
}

void Client::CallAsync(const std::string& uri, const Json::Value& body, const Header& header, int timeoutMs,
                       ResponseHandler done) {
  std::string text = impl_->RequestText(uri, body, header);
  std::shared_ptr<TarnCoreIPCMessageClient> ipc = impl_->Current();
  std::shared_ptr<Impl::Pending> pending = impl_->pending;
  {
    std::lock_guard lock(pending->mutex);
    ++pending->count;
  }
  auto finish = [pending] {
    std::lock_guard lock(pending->mutex);
    --pending->count;
    pending->idle.notify_all();
  };
  try {
    std::thread([ipc, text = std::move(text), timeoutMs, done, finish] {
      const Response response = Exchange(*ipc, text, timeoutMs);
      try {
        if (done) done(response);
      } catch (...) {
        // A handler's failure is its own.
      }
      finish();
    }).detach();
  } catch (const std::system_error&) {
    finish();
    Response failed;
    failed.clientCode = kInnerError;
    if (done) done(failed);
  }
}

int Client::Listen(BroadcastHandler handler) {
  StopListening();
  std::shared_ptr<TarnCoreIPCMessageClient> replaced;
  int code = kOk;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->listener = std::make_shared<BroadcastHandler>(std::move(handler));
    if (impl_->ipc && impl_->ipc->IsConnected()) {
      Impl::ListenOn(*impl_->ipc, impl_->listener);
    } else {
      code = impl_->ConnectLocked(replaced);
    }
  }
  Impl::Silence(replaced);
  return code;
}

void Client::StopListening() {
  std::shared_ptr<TarnCoreIPCMessageClient> ipc;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->listener.reset();
    ipc = impl_->ipc;
  }
  Impl::Silence(ipc);
}

}  // namespace tarncore
