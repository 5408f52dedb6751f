#pragma once
// The update library: asks the update service whether a newer platform exists
// and installs it silently. The service is the address book's
// "com.vantrel.appupdate" / "ROOT".
//
// Check:   GET <ROOT>/tarncore/update/check?version=<installed>&force=<0|1>
//          The answer is JSON text, handed on as it is. A newer version is
//          announced as {"updateAppInfo": {"version": "...", "packageUrl": "...",
//          "sha256": "<64 hex>", "installer": "<file name>", "arguments": "..."}}.
// Upgrade: the package is downloaded to <common app data>/Vantrel/TARNCORE/Download/
//          <installer>, must match the announced SHA-256 and bear a maker's
//          signature, and is then started with the announced arguments.
#include <cstddef>
#include <string>

namespace tarn::appupdate {
inline constexpr std::size_t kCheckBufferSize = 8192;
inline constexpr const char* kServiceName = "com.vantrel.appupdate";
}  // namespace tarn::appupdate

class UpgradeAPI {
 public:
  UpgradeAPI();
  virtual ~UpgradeAPI();

  // Reads the service address and the installed version.
  virtual void Init();
  // buffer: kCheckBufferSize bytes, zeroed by the caller. Writes the service's
  // answer as a zero-terminated text (cut to fit). True on a 2xx answer.
  virtual bool CheckTarnCoreUpdate(char* buffer);
  // Checks, downloads, verifies and starts the installer. True when it started.
  virtual bool TarnCoreAppSilentUpgrade(bool force);

 protected:
  bool Check(bool force, std::string& answer);
  std::string serviceRoot_;
  std::string installedVersion_;
};
