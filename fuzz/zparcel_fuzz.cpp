// What comes back from the sandboxed scope service, which runs untrusted: the
// bytes on its channel after a request, read by the host's sandbox object as
// a reply frame, and the reply parcel in it, read by the container's stub for
// one of the six transactions. The same bytes are also a request parcel as
// the serving side reads it.
//
// Input: one byte choosing the transaction, then the child's bytes.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <list>
#include <string>
#include <thread>

#include "access/scope_service.h"
#include "fuzz_support.h"
#include "platform/zbrf/sandbox_channel.h"
#include "platform/zbrf/sandbox_frame.h"
#include "platform/zbrf/zparcel.h"
#include "scope_service_object.h"

namespace {

using tarn::fuzz::Check;
namespace frame = tarn::zbrf::frame;

// The child: takes one request frame, answers with the given bytes and hangs up.
void Child(int fd, std::string answer) {
  unsigned char head[frame::kRequestHead];
  std::size_t got = 0;
  while (got < sizeof(head)) {
    ssize_t n = ::recv(fd, head + got, sizeof(head) - got, 0);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  std::string body(got == sizeof(head) ? frame::GetU32(head + 8) : 0, '\0');
  for (std::size_t at = 0; at < body.size();) {
    ssize_t n = ::recv(fd, body.data() + at, body.size() - at, 0);
    if (n <= 0) break;
    at += static_cast<std::size_t>(n);
  }
  ::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
  ::close(fd);
}

// Whether the bytes open with a whole reply frame that says ok.
bool WholeOkFrame(const std::string& bytes) {
  if (bytes.size() < frame::kReplyHead || bytes[0] != 1) return false;
  const uint32_t length = frame::GetU32(reinterpret_cast<const unsigned char*>(bytes.data()) + 1);
  return length <= frame::kMaxPayload && bytes.size() - frame::kReplyHead >= length;
}

// One call of the stub; true when the exchange took place.
bool Call(service::ZpScopeService& stub, uint32_t code) {
  int32_t result = -7;
  bool allowed = false;
  std::vector<std::shared_ptr<service::ScopeItem>> items;
  switch (code) {
    case 1: return stub.CheckCertFingerprint("app", "FINGERPRINT", result);
    case 2: return stub.CheckApiPermission("app", "perm", "https://scope", allowed);
    case 3: return stub.CheckPermission("app", "perm", allowed);
    case 4: return stub.SetLastCheckTime("app");
    case 5: {
      const bool ok = stub.GetScopeByAppId("app", items);
      for (const auto& item : items) Check(item != nullptr, "every scope item is made");
      return ok;
    }
    default: return stub.InvokeOpenGateway("app");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto& root = tarn::fuzz::Machine();
  static const std::string policyPath = [&] {
    root.WriteFile("etc/tarncore/scope-policy.json",
                   "{\"clients\":{\"app\":{\"fingerprints\":[\"FINGERPRINT\"],\"permissions\":[\"perm\"],"
                   "\"scopes\":[{\"id\":7,\"name\":\"n\",\"url\":\"https://scope\",\"permissions\":[\"x\"]}]}}}");
    return root.At("etc/tarncore/scope-policy.json");
  }();
  if (size < 1) return 0;
  const uint32_t code = data[0] % 6 + 1;
  const std::string bytes(tarn::fuzz::Bytes(data + 1, size - 1));

  int fds[2], notes[2];
  Check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
  Check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, notes) == 0, "socketpair");
  std::thread child(Child, fds[1], bytes);
  {
    service::ZpScopeService stub(
        tarn::zbrf::SandboxOverChannel({fds[0], notes[0]}, 0, "fuzz", std::chrono::milliseconds(1000)));
    // SetLastCheckTime and InvokeOpenGateway are sent one-way: whatever comes
    // back is never read.
    const bool oneWay = code == 4 || code == 6;
    Check(Call(stub, code) == (oneWay || WholeOkFrame(bytes)),
          "a transaction goes through exactly on a whole ok frame, or one-way");
  }
  child.join();
  ::close(notes[1]);

  // The serving side, over the same bytes as a request.
  tarn::scope::ScopeServiceObject service(std::make_shared<tarn::scope::ScopePolicy>(policyPath));
  auto reply = tarn::zbrf::ZParcel::CreateInstance();
  if (service.OnTransact(code, tarn::zbrf::ZParcel::FromBytes(bytes), reply, 0)) {
    int32_t status = -1;
    Check(reply->ReadStatus(status) && status == 0, "a served request has a reply status");
  }
  return 0;
}
