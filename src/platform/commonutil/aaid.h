#pragma once
// AAID of the utility library: the anonymous id of this machine that the
// analytics carry, kept in the registry value "AAID" under the VTID key.
#include <string>

class AAID {
 public:
  // Makes sure "AAID" holds an id: one already there (64 hex digits) stays;
  // otherwise the SHA-256 of the machine's id (etc/machine-id under the machine
  // root) and a salt, as 64 upper-case hex digits, is written. Without a
  // machine id, random bytes stand in for it. False when nothing could be written.
  static bool HandleRegAAID();
  // The id the machine gets when it has none, or random-based ("" on failure).
  static std::string ComputeAAID();
};
