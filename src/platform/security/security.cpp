#include "platform/security/security.h"

#include <atomic>
#include <climits>

#include "platform/log/tarn_log.h"
#include "platform/os/text.h"
#include "platform/security/signature.h"

namespace {

using tarn::security::Inspection;
using tarn::security::Status;
using tarn::security::Trust;

std::atomic<SignatureVerifyer*> g_testVerifier{nullptr};
std::atomic<tarn::security::FileSignatureChecker*> g_testChecker{nullptr};

// Rejections are logged at debug level only: the callers log their own lines.
void LogRejection(const char* what, const std::string& subject, Status status) {
  TARN_LOG(tarn::log::Level::Debug, "SIGN", what, subject << ": " << tarn::security::StatusText(status));
}

bool ToPid(uint32_t processId, pid_t& pid) {
  if (processId == 0 || processId > static_cast<uint32_t>(INT_MAX)) return false;
  pid = static_cast<pid_t>(processId);
  return true;
}

int CodeOf(Status status) { return static_cast<int>(status); }

int VerifyPid(uint32_t processId, Trust trust, const char* what) {
  try {
    pid_t pid;
    if (!ToPid(processId, pid)) return CodeOf(Status::kProcessGone);
    Inspection r = tarn::security::VerifyProcess(pid, trust);
    if (r.status != Status::kValid) LogRejection(what, "pid " + std::to_string(processId), r.status);
    return CodeOf(r.status);
  } catch (...) {
    return CodeOf(Status::kUnreadable);
  }
}

}  // namespace

namespace tarn::security {

FileSignatureChecker* FileSignatureChecker::GetInstance() {
  static auto* real = new FileSignatureChecker;
  FileSignatureChecker* test = g_testChecker.load(std::memory_order_acquire);
  return test ? test : real;
}

void FileSignatureChecker::SetInstanceForTesting(FileSignatureChecker* checker) {
  g_testChecker.store(checker, std::memory_order_release);
}

bool FileSignatureChecker::VerifyEmbedded(const std::string& path) {
  Inspection r = VerifyFile(path, Trust::kPlatformOrMaker);
  if (r.status != Status::kValid) LogRejection("VerifyEmbeddedSignature", path, r.status);
  return r.status == Status::kValid;
}

bool FileSignatureChecker::VerifyMaker(const std::string& path) {
  Inspection r = VerifyFile(path, Trust::kMakerOnly);
  if (r.status != Status::kValid) LogRejection("VerifyVantrelDigitalSignature", path, r.status);
  return r.status == Status::kValid;
}

}  // namespace tarn::security

bool VerifyEmbeddedSignature(const char* path) {
  if (!path) return false;
  try {
    return tarn::security::FileSignatureChecker::GetInstance()->VerifyEmbedded(path);
  } catch (...) {
    return false;
  }
}

bool VerifyVantrelDigitalSignature(const std::wstring& path) {
  try {
    return tarn::security::FileSignatureChecker::GetInstance()->VerifyMaker(tarn::os::WideToUtf8(path));
  } catch (...) {
    return false;
  }
}

std::string CalcFileThumb(const std::wstring& path) {
  try {
    return tarn::security::FileFingerprint(tarn::os::WideToUtf8(path));
  } catch (...) {
    return {};
  }
}

SignatureVerifyer* SignatureVerifyer::GetInstance() {
  static auto* real = new SignatureVerifyer;
  SignatureVerifyer* test = g_testVerifier.load(std::memory_order_acquire);
  return test ? test : real;
}

void SignatureVerifyer::SetInstanceForTesting(SignatureVerifyer* verifier) {
  g_testVerifier.store(verifier, std::memory_order_release);
}

int SignatureVerifyer::Verify(uint32_t processId) {
  return VerifyPid(processId, Trust::kPlatformOrMaker, "SignatureVerifyer::Verify");
}

int SignatureVerifyer::VerifyVantrelExe(uint32_t processId) {
  return VerifyPid(processId, Trust::kMakerOnly, "SignatureVerifyer::VerifyVantrelExe");
}

int SignatureVerifyer::GetAndVerifyTarnCoreExePath(uint32_t processId, std::string& path) {
  try {
    pid_t pid;
    if (!ToPid(processId, pid)) return CodeOf(Status::kProcessGone);
    std::string found;
    Inspection r = tarn::security::VerifyProcessWithPath(pid, Trust::kPlatformOrMaker, &found);
    // The path is handed back even when the signature fails, for the caller's log.
    if (!found.empty()) path = found;
    if (r.status != Status::kValid) {
      LogRejection("SignatureVerifyer::GetAndVerifyTarnCoreExePath", "pid " + std::to_string(processId), r.status);
      return CodeOf(r.status);
    }
    // A verified executable whose path no longer names it (replaced or deleted)
    // gives no path to judge by.
    return found.empty() ? CodeOf(Status::kUnreadable) : 0;
  } catch (...) {
    return CodeOf(Status::kUnreadable);
  }
}

int SignatureVerifyer::ProcessGetFileThumb(uint32_t processId, std::string& thumb) {
  try {
    pid_t pid;
    if (!ToPid(processId, pid)) return 0;
    Inspection r = tarn::security::InspectProcess(pid);
    if (r.status == Status::kProcessGone || r.status == Status::kUnreadable) return 0;
    thumb = r.status == Status::kValid ? tarn::security::Fingerprint(r.signer) : std::string();
    return 1;
  } catch (...) {
    return 0;
  }
}
