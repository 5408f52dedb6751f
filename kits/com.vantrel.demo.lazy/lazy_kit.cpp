// The lazy demo kit: not loaded at start, but by the first request for Hello.
#include <string>

#include "tarnkit/tarn_kit.h"

TARN_KIT_API void Init(TarnKitCallback) {}

TARN_KIT_API void Hello(const char*, const char* body, TarnKitCallback callback) {
  std::string answer = std::string("{\"hello\":\"from com.vantrel.demo.lazy\",\"request\":") +
                       (body && *body ? body : "{}") + "}";
  callback(answer.data());
}
