#pragma once
// Ties a caller's process to the client id it claims: the fingerprint of the
// process's executable is judged by the scope service. Also the start-up
// refresh of the scope cache.
#include <cstdint>
#include <string>

class ScopeUtil {
 public:
  // Fingerprint of the process's executable; empty when it can't be read.
  static std::string CalcProcessExe(uint32_t pid);
  // The scope service's verdict on this caller (ScopeProxy's codes: 0 accepted,
  // 1000 accepted but not to be whitelisted, 2000 busy limit, others refused).
  // Without a client id only "Account.Request" from a maker-signed program
  // outside the framework package passes, with 0.
  static int32_t CheckCertFingerprint(std::string clientId, uint32_t pid, std::string transactionId,
                                      std::string pkgName, std::string apiName);
  // Calls ScopeProxy::InvokeOpenGateway for each file that `pattern`
  // ("<folder>/<glob>") matches, with the file name up to its first dot.
  static void ListFiles(const std::string& pattern);
  // The start-up step: ListFiles on <common app data>/Vantrel/TARNCORE/cache/*.
  static void RefreshScopeCache();
};
