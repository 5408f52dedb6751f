#pragma once
// The appended-signature scheme underneath security.h, for programs that need
// more than a yes or no: the signing tool, loaders that verify an open file and
// then use that same file, installers of trusted keys.
//
// A signed file is  payload || public key (32) || signature (64) || "~TarnCoreSigned~" (16),
// the signature being Ed25519 over SHA-256(payload). Nothing here throws.
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::security {

inline constexpr std::size_t kPublicKeySize = 32;
inline constexpr std::size_t kSignatureSize = 64;
inline constexpr std::string_view kMagic = "~TarnCoreSigned~";
inline constexpr std::size_t kTrailerSize = kPublicKeySize + kSignatureSize + 16;

using PublicKey = std::array<std::uint8_t, kPublicKeySize>;
using Signature = std::array<std::uint8_t, kSignatureSize>;

// What a look at a file's trailer found. Only kValid means that the embedded
// key signed the payload; whether that key is trusted is a separate question.
enum class Status {
  kValid,
  kUnreadable,      // missing, no permission, or a read failed part-way
  kNotRegularFile,  // directory, device, pipe...
  kUnsigned,        // no trailer at the end
  kTruncated,       // ends in the magic but is too short, or the trailer is doubled
  kBadSignature,    // trailer present, signature does not match the payload
  kUntrusted,       // valid, but the key is not in the trust store (for the kind asked)
  kProcessGone,     // the process exited or its pid now names another process
};
// A short English description for messages ("no signature", ...).
const char* StatusText(Status status);

struct Inspection {
  Status status = Status::kUnreadable;
  PublicKey signer{};          // meaningful when status is kValid (or kUntrusted)
  std::uint64_t payloadSize = 0;
};

// Reads the open descriptor once, from offset 0 to the size fstat gives, with
// pread (the descriptor's own offset is left alone), and checks the trailer's
// signature against the key it carries.
Inspection InspectFd(int fd);
Inspection InspectFile(const std::string& path);

// Which keys of the trust store count.
enum class Trust {
  kPlatformOrMaker,  // the embedded-signature test
  kMakerOnly,        // the maker's signature
};

enum class KeyKind { kPlatform, kMaker };

// One file of the trust store: its key, or none when the file holds no key
// (such a file is passed over).
struct TrustedKeyFile {
  std::string path;
  KeyKind kind = KeyKind::kPlatform;
  std::optional<PublicKey> key;
};
// Every "*.pub" of trusted-keys/ (platform) and trusted-keys/maker/ (maker), by name.
std::vector<TrustedKeyFile> ListTrustedKeyFiles();

// The machine's trusted keys, read from tarn::os::TrustedKeysDir():
// "*.pub" are platform keys, "maker/*.pub" maker keys; each file holds one key
// as 64 hex digits (surrounding whitespace ignored). Malformed files are skipped.
struct TrustStore {
  std::vector<PublicKey> platform;
  std::vector<PublicKey> maker;

  static TrustStore Load();
  bool Trusts(const PublicKey& key, Trust trust) const;
};

// Inspection plus the trust decision against the current machine root:
// kValid only when the signer is trusted for `trust`; kUntrusted otherwise.
Inspection VerifyFd(int fd, Trust trust);
Inspection VerifyFile(const std::string& path, Trust trust);

// Opens path read-only (close-on-exec) and verifies the open file. Returns the
// descriptor, which the caller owns and closes, or -1. Use the descriptor for
// what follows (fexecve, or dlopen followed by MappedFromFile) so that the file
// that was tested is the file that is used.
int OpenVerified(const std::string& path, Trust trust, Status* status = nullptr);

// True when the memory at `address` (any address inside a loaded library or
// the program) is mapped from the same device and inode as fd.
bool MappedFromFile(const void* address, int fd);

// Processes, through /proc/<pid>/exe opened once per request (see
// tarn::os::CallerScope) and confirmed against the process's pidfd. A process
// that has ended, or whose pid names another process now, is kProcessGone.
Inspection VerifyProcess(pid_t pid, Trust trust);
Inspection InspectProcess(pid_t pid);
// VerifyProcess that also gives the executable's path, when that path still
// names the file that was verified (else the path is left empty).
Inspection VerifyProcessWithPath(pid_t pid, Trust trust, std::string* exePath);

// The fingerprint of a key: SHA-256 of its 32 bytes, 64 upper-case hex digits.
std::string Fingerprint(const PublicKey& key);
// The fingerprint of a file's signer; empty unless the file carries a valid
// signature (trusted or not: fingerprints identify third-party callers too).
std::string FileFingerprint(const std::string& path);

// Hex text of a key, lower case, as the .pub files hold it.
std::string KeyToHex(const PublicKey& key);
// Parses 64 hex digits (either case), ignoring surrounding whitespace.
std::optional<PublicKey> KeyFromHex(std::string_view text);
std::optional<PublicKey> ReadPublicKeyFile(const std::string& path);

// Writes key into the current machine root's trust store as
// trusted-keys/<name>.pub (platform) or trusted-keys/maker/<name>.pub (maker).
bool InstallTrustedKey(const PublicKey& key, KeyKind kind, const std::string& name);

// An Ed25519 private key for signing.
class SigningKey {
 public:
  ~SigningKey();
  SigningKey(SigningKey&&) noexcept;
  SigningKey& operator=(SigningKey&&) noexcept;
  SigningKey(const SigningKey&) = delete;
  SigningKey& operator=(const SigningKey&) = delete;

  static std::optional<SigningKey> Generate();
  // A PEM private key (as keygen or `openssl genpkey -algorithm ed25519`
  // write it) or a raw 32-byte seed as 64 hex digits. On failure, error says why.
  static std::optional<SigningKey> Load(const std::string& path, std::string* error = nullptr);
  // Writes the PEM private key with mode 0600.
  bool SavePem(const std::string& path, std::string* error = nullptr) const;

  PublicKey Public() const;
  // Ed25519 signature of the given bytes (the scheme passes SHA-256(payload)).
  std::optional<Signature> Sign(const std::uint8_t* data, std::size_t size) const;

 private:
  explicit SigningKey(void* pkey) : pkey_(pkey) {}
  void* pkey_ = nullptr;  // EVP_PKEY*
};

// Signs a file in place: an existing trailer (or several) is replaced. Refuses
// a file that ends in the magic but is too short to hold a trailer.
bool SignFile(const std::string& path, const SigningKey& key, std::string* error = nullptr);

// The key a file was signed with, when its signature is valid.
std::optional<PublicKey> ReadSignerKey(const std::string& path);

}  // namespace tarn::security
