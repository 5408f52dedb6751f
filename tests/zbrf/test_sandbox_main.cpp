// A sandboxed test service: "getTestService" behaves per transaction code;
// "getScopeService" stands in for the scope service and makes a process at
// each call, which the sandbox forbids.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/zbrf/sandbox_frame.h"
#include "platform/zbrf/sandbox_host.h"
#include "zbrf_test_codes.h"

namespace {

using tarn::zbrf::ZParcel;
namespace frame = tarn::zbrf::frame;

void HangForever() {
  for (timespec t{3600, 0};;) ::nanosleep(&t, nullptr);  // a call the sandbox allows
}

void WriteRaw(const std::string& bytes) { (void)!::write(frame::kChannelFd, bytes.data(), bytes.size()); }

std::string FirstString(ZParcel& data) {
  std::string text;
  data.ReadHeader();
  for (uint32_t tag = data.ReadTag(); tag != 0; tag = data.ReadTag()) {
    (void)(data.TagField(tag) == 1 ? data.ReadString(text) : data.SkipField(tag));
  }
  return text;
}

void ReplyErrno(ZParcel& reply, int result) {
  reply.WriteStatus(0);
  reply.WriteInt32(1, result < 0 ? errno : 0);
}

class TestService : public tarn::zbrf::ZObject {
 public:
  bool OnTransact(uint32_t code, const std::shared_ptr<ZParcel>& data, const std::shared_ptr<ZParcel>& reply,
                  uint32_t flags) override {
    using namespace zbrf_test;
    switch (code) {
      case kEcho: {
        std::string text = FirstString(*data);
        reply->WriteStatus(0);
        reply->WriteString(1, text);
        reply->WriteInt32(2, static_cast<int32_t>(::getpid()));
        reply->WriteInt32(3, static_cast<int32_t>(flags));
        reply->WriteString(4, previous_);
        previous_ = std::move(text);
        return true;
      }
      case kHang: HangForever(); return false;
      case kGarbage: WriteRaw("\x07garbage that is no frame"); return true;
      case kTrailingGarbage: WriteRaw(frame::EncodeReply(true, "ok") + "unasked"); return true;
      case kRefuse: return false;
      case kOpenRead:
      case kOpenWrite:
      case kSocket: {
        const int mode = code == kOpenRead ? O_RDONLY | O_CLOEXEC : O_WRONLY | O_CREAT | O_CLOEXEC;
        int fd = code == kSocket ? ::socket(AF_INET, SOCK_STREAM, 0) : ::open(FirstString(*data).c_str(), mode, 0644);
        ReplyErrno(*reply, fd);
        if (fd >= 0) ::close(fd);
        return true;
      }
      case kExec: {
        char* argv[] = {const_cast<char*>("true"), nullptr};
        ReplyErrno(*reply, ::execv("/bin/true", argv));
        return true;
      }
      default: return false;
    }
  }

 private:
  std::string previous_;  // the text of the echo before
};

// Makes a process, which the sandbox forbids, then refuses whatever it is asked.
class ForkingService : public tarn::zbrf::ZObject {
 public:
  bool OnTransact(uint32_t, const std::shared_ptr<ZParcel>&, const std::shared_ptr<ZParcel>& reply,
                  uint32_t) override {
    if (::fork() == 0) _exit(0);
    reply->WriteStatus(0);
    reply->WriteInt32(1, 1);
    return true;
  }
};

}  // namespace

int main(int argc, char** argv) {
  tarn::zbrf::SandboxSpec spec;
  spec.methods.emplace_back("getTestService", [](std::shared_ptr<tarn::zbrf::ZObject>* out) {
    *out = std::make_shared<TestService>();
    return true;
  });
  spec.methods.emplace_back("getScopeService", [](std::shared_ptr<tarn::zbrf::ZObject>* out) {
    *out = std::make_shared<ForkingService>();
    return true;
  });
  // Tests name a folder the service may read.
  if (const char* readable = std::getenv("ZBRF_TEST_READABLE")) spec.readableDirs.emplace_back(readable);
  return tarn::zbrf::SandboxMain(argc, argv, spec);
}
