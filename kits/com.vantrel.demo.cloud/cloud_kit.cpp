// The cloud demo kit: installed with the others, but only the cloud's copy of
// the remote configuration lists its package, so it runs once a refresh has
// brought that copy in.
#include <string>

#include "tarnkit/tarn_kit.h"

TARN_KIT_API void Init(TarnKitCallback) {}

TARN_KIT_API void Hello(const char*, const char*, TarnKitCallback callback) {
  std::string answer = R"({"hello":"from com.vantrel.demo.cloud, listed by the cloud's configuration"})";
  callback(answer.data());
}
