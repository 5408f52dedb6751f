#pragma once
// The security library: appended Ed25519 signatures, the machine's trust store,
// process verification through /proc/<pid>/exe, and caller fingerprints.
//
// A signed file is  payload || public key (32) || signature (64) || "~TarnCoreSigned~"
// where the signature is Ed25519 over SHA-256(payload).
#include <sys/types.h>

#include <cstdint>
#include <string>

// True when the file's trailer is present, its key is a platform or maker key
// of the trust store, and the signature verifies.
bool VerifyEmbeddedSignature(const char* path);
// The same with a maker key only.
bool VerifyVantrelDigitalSignature(const std::wstring& path);
// The caller's fingerprint: upper-case hex SHA-256 of the signer's public key;
// empty when the file is unsigned or unreadable.
std::string CalcFileThumb(const std::wstring& path);

class SignatureVerifyer {
 public:
  virtual ~SignatureVerifyer() = default;
  // The process-wide verifier (or the one a test installed).
  static SignatureVerifyer* GetInstance();
  // Tests replace the verifier; nullptr restores the real one.
  static void SetInstanceForTesting(SignatureVerifyer* verifier);

  // 0 when the process's executable passes VerifyEmbeddedSignature.
  virtual int Verify(uint32_t processId);
  // Fills path with the process's executable after testing its signature; 0 on success.
  virtual int GetAndVerifyTarnCoreExePath(uint32_t processId, std::string& path);
  // Non-zero on success, giving the fingerprint of the executable the process
  // runs (empty when it is unsigned), read through the same descriptor as the
  // other checks of the request; 0 when the process has gone.
  virtual int ProcessGetFileThumb(uint32_t processId, std::string& thumb);
  // 0 if the process's executable bears a maker's signature.
  virtual int VerifyVantrelExe(uint32_t processId);
};

namespace tarn::security {

// What the two signature checks above ask; tests install their own. The
// non-zero results of SignatureVerifyer's int methods (except
// ProcessGetFileThumb, where non-zero means success) are tarn::security::Status
// values from platform/security/signature.h.
class FileSignatureChecker {
 public:
  virtual ~FileSignatureChecker() = default;
  static FileSignatureChecker* GetInstance();
  // Tests replace the checker; nullptr restores the real one.
  static void SetInstanceForTesting(FileSignatureChecker* checker);

  virtual bool VerifyEmbedded(const std::string& path);
  virtual bool VerifyMaker(const std::string& path);
};

}  // namespace tarn::security
