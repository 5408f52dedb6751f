#pragma once
// A service object. Transact sends a request and fills a reply; OnTransact is
// the serving side. A plain object has no transport: its Transact fails, and
// a caller in the same process drives OnTransact through a local proxy instead.
#include <cstdint>
#include <memory>

#include "platform/zbrf/zparcel.h"

namespace tarn::zbrf {

// Transact flag: the caller reads no reply. A transport may then return once
// the request is on its way, and the service sends no reply back.
inline constexpr uint32_t kFlagOneWay = 0x1;

class ZObject {
 public:
  virtual ~ZObject();
  // Serves one transaction; false when the code isn't served.
  virtual bool OnTransact(uint32_t code, const std::shared_ptr<ZParcel>& data,
                          const std::shared_ptr<ZParcel>& reply, uint32_t flags);
  // True when the exchange took place; the reply then holds the answer.
  virtual bool Transact(uint32_t code, const std::shared_ptr<ZParcel>& data,
                        const std::shared_ptr<ZParcel>& reply, uint32_t flags);
};

}  // namespace tarn::zbrf
