#pragma once
// Transaction codes of the test services.
#include <cstdint>

namespace zbrf_test {

enum : uint32_t {
  kEcho = 1,             // reply: 1 the request's field 1, 2 the server's pid, 3 the flags,
                         //        4 the field 1 of the echo before
  kHang = 2,             // never answers
  kGarbage = 3,          // writes bytes that are no frame
  kTrailingGarbage = 4,  // a good reply followed by unasked bytes
  kRefuse = 6,           // OnTransact says false
  kOpenRead = 10,        // reply 1: 0 or errno of opening field 1 read-only
  kOpenWrite = 11,       // ... for writing, creating it
  kSocket = 12,          // ... of making an internet socket
  kExec = 13,            // ... of running /bin/true
};

}  // namespace zbrf_test
