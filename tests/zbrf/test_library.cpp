// An in-process test service, built twice with different marks.
#include <unistd.h>

#include <memory>

#include "platform/zbrf/zobject.h"
#include "zbrf_test_codes.h"

namespace {

class MarkedService : public tarn::zbrf::ZObject {
 public:
  bool OnTransact(uint32_t code, const std::shared_ptr<tarn::zbrf::ZParcel>&,
                  const std::shared_ptr<tarn::zbrf::ZParcel>& reply, uint32_t) override {
    if (code != zbrf_test::kEcho) return false;
    reply->WriteStatus(0);
    reply->WriteString(1, TEST_LIBRARY_MARK);
    reply->WriteInt32(2, static_cast<int32_t>(::getpid()));
    return true;
  }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) bool getTestService(std::shared_ptr<tarn::zbrf::ZObject>* out) {
  *out = std::make_shared<MarkedService>();
  return true;
}

extern "C" __attribute__((visibility("default"))) bool getFailingService(std::shared_ptr<tarn::zbrf::ZObject>*) {
  return false;
}
