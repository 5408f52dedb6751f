#include "platform/security/signature.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <utility>

#include "platform/os/places.h"
#include "platform/os/process_identity.h"

namespace tarn::security {
namespace {

// Bytes kept from the end of a file: the trailer and the 16 bytes before it,
// which must not be a second magic (a doubled trailer).
constexpr std::size_t kTailKeep = kTrailerSize + kMagic.size();
constexpr std::size_t kChunk = 64 * 1024;
constexpr off_t kMaxKeyFile = 4096;

struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int Release() { return std::exchange(fd, -1); }
};

struct MdCtx {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  ~MdCtx() { EVP_MD_CTX_free(ctx); }
};

struct PKey {
  EVP_PKEY* key = nullptr;
  ~PKey() { EVP_PKEY_free(key); }
};

// Full pread: false on error or when the file ends early.
bool ReadAt(int fd, std::uint8_t* out, std::size_t size, off_t offset) {
  while (size > 0) {
    ssize_t n = ::pread(fd, out, size, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    size -= static_cast<std::size_t>(n);
    offset += n;
  }
  return true;
}

bool WriteAll(int fd, const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool EndsWithMagic(const std::uint8_t* end) {
  return std::memcmp(end - kMagic.size(), kMagic.data(), kMagic.size()) == 0;
}

std::string UpperHex(const std::uint8_t* data, std::size_t size) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    out += kHex[data[i] >> 4];
    out += kHex[data[i] & 0xF];
  }
  return out;
}

bool VerifyEd25519(const PublicKey& key, const std::uint8_t* digest, std::size_t digestSize,
                   const std::uint8_t* signature) {
  PKey pkey;
  pkey.key = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.data(), key.size());
  if (!pkey.key) return false;
  MdCtx md;
  if (!md.ctx || EVP_DigestVerifyInit(md.ctx, nullptr, nullptr, nullptr, pkey.key) != 1) return false;
  return EVP_DigestVerify(md.ctx, signature, kSignatureSize, digest, digestSize) == 1;
}

std::string ProcPath(pid_t pid, const char* leaf) {
  return "/proc/" + std::to_string(pid) + "/" + leaf;
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::optional<std::string> ReadLink(const std::string& link) {
  std::string buf(4096, '\0');
  ssize_t n = ::readlink(link.c_str(), buf.data(), buf.size());
  if (n <= 0 || static_cast<std::size_t>(n) >= buf.size()) return std::nullopt;
  buf.resize(static_cast<std::size_t>(n));
  return buf;
}

void ListKeyFiles(const std::string& dir, KeyKind kind, std::vector<TrustedKeyFile>& out) {
  DIR* d = ::opendir(dir.c_str());
  if (!d) return;
  std::vector<std::string> names;
  while (dirent* e = ::readdir(d)) {
    std::string_view name = e->d_name;
    if (name.size() > 4 && name.substr(name.size() - 4) == ".pub") names.emplace_back(name);
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    const std::string path = dir + "/" + name;
    out.push_back({path, kind, ReadPublicKeyFile(path)});
  }
}

}  // namespace

const char* StatusText(Status status) {
  switch (status) {
    case Status::kValid: return "valid signature";
    case Status::kUnreadable: return "cannot be read";
    case Status::kNotRegularFile: return "not a regular file";
    case Status::kUnsigned: return "no signature";
    case Status::kTruncated: return "truncated or doubled signature trailer";
    case Status::kBadSignature: return "signature does not match the contents";
    case Status::kUntrusted: return "signed by a key that is not trusted";
    case Status::kProcessGone: return "process is gone";
  }
  return "unknown";
}

Inspection InspectFd(int fd) {
  Inspection result;
  try {
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) return result;
    if (!S_ISREG(st.st_mode)) {
      result.status = Status::kNotRegularFile;
      return result;
    }
    const std::uint64_t size = static_cast<std::uint64_t>(st.st_size);
    if (size < kMagic.size()) {
      result.status = Status::kUnsigned;
      return result;
    }
    // Cheap look at the end first, so an unsigned file costs one small read.
    std::uint8_t last[kMagic.size()];
    if (!ReadAt(fd, last, sizeof(last), static_cast<off_t>(size - sizeof(last)))) return result;
    if (!EndsWithMagic(last + sizeof(last))) {
      result.status = Status::kUnsigned;
      return result;
    }
    if (size < kTrailerSize) {
      result.status = Status::kTruncated;
      return result;
    }

    // One pass over the whole file: the payload goes into the digest and the
    // tail is kept. Every decision below rests on the bytes of this pass.
    const std::uint64_t payloadSize = size - kTrailerSize;
    const std::uint64_t tailStart = size - std::min<std::uint64_t>(size, kTailKeep);
    std::uint8_t tail[kTailKeep];
    const std::size_t tailSize = static_cast<std::size_t>(size - tailStart);
    MdCtx md;
    if (!md.ctx || EVP_DigestInit_ex(md.ctx, EVP_sha256(), nullptr) != 1) return result;
    std::vector<std::uint8_t> buf(kChunk);
    for (std::uint64_t off = 0; off < size;) {
      const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size - off));
      if (!ReadAt(fd, buf.data(), n, static_cast<off_t>(off))) return result;
      if (off < payloadSize) {
        const std::size_t h = static_cast<std::size_t>(std::min<std::uint64_t>(n, payloadSize - off));
        if (EVP_DigestUpdate(md.ctx, buf.data(), h) != 1) return result;
      }
      const std::uint64_t end = off + n;
      if (end > tailStart) {
        const std::uint64_t from = std::max(off, tailStart);
        std::memcpy(tail + (from - tailStart), buf.data() + (from - off), static_cast<std::size_t>(end - from));
      }
      off = end;
    }
    std::uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    if (EVP_DigestFinal_ex(md.ctx, digest, &digestLen) != 1) return result;

    const std::uint8_t* tailEnd = tail + tailSize;
    if (!EndsWithMagic(tailEnd)) {  // changed under us since the first look
      result.status = Status::kUnsigned;
      return result;
    }
    const std::uint8_t* trailer = tailEnd - kTrailerSize;
    if (tailSize == kTailKeep && EndsWithMagic(trailer)) {
      result.status = Status::kTruncated;
      return result;
    }
    std::memcpy(result.signer.data(), trailer, kPublicKeySize);
    result.payloadSize = payloadSize;
    result.status = VerifyEd25519(result.signer, digest, digestLen, trailer + kPublicKeySize)
                        ? Status::kValid
                        : Status::kBadSignature;
  } catch (...) {
    result = Inspection{};
  }
  return result;
}

Inspection InspectFile(const std::string& path) {
  // O_NONBLOCK so that a FIFO does not hang the open; InspectFd rejects it.
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.fd < 0) return Inspection{};
  return InspectFd(fd.fd);
}

std::vector<TrustedKeyFile> ListTrustedKeyFiles() {
  std::vector<TrustedKeyFile> files;
  const std::string dir = tarn::os::TrustedKeysDir();
  ListKeyFiles(dir, KeyKind::kPlatform, files);
  ListKeyFiles(dir + "/maker", KeyKind::kMaker, files);
  return files;
}

TrustStore TrustStore::Load() {
  TrustStore store;
  try {
    for (const TrustedKeyFile& file : ListTrustedKeyFiles()) {
      if (file.key) (file.kind == KeyKind::kMaker ? store.maker : store.platform).push_back(*file.key);
    }
  } catch (...) {
    store = TrustStore{};
  }
  return store;
}

bool TrustStore::Trusts(const PublicKey& key, Trust trust) const {
  if (std::find(maker.begin(), maker.end(), key) != maker.end()) return true;
  return trust == Trust::kPlatformOrMaker && std::find(platform.begin(), platform.end(), key) != platform.end();
}

Inspection VerifyFd(int fd, Trust trust) {
  Inspection result = InspectFd(fd);
  if (result.status == Status::kValid && !TrustStore::Load().Trusts(result.signer, trust)) {
    result.status = Status::kUntrusted;
  }
  return result;
}

Inspection VerifyFile(const std::string& path, Trust trust) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.fd < 0) return Inspection{};
  return VerifyFd(fd.fd, trust);
}

int OpenVerified(const std::string& path, Trust trust, Status* status) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  Status s = Status::kUnreadable;
  if (fd.fd >= 0) s = VerifyFd(fd.fd, trust).status;
  if (status) *status = s;
  if (s != Status::kValid) return -1;
  // Back to blocking for whoever reads it next.
  int flags = ::fcntl(fd.fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd.fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd.Release();
}

bool MappedFromFile(const void* address, int fd) {
  try {
    struct stat want {};
    if (!address || fd < 0 || ::fstat(fd, &want) != 0) return false;
    const auto addr = reinterpret_cast<std::uintptr_t>(address);
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
      std::uintptr_t start = 0, end = 0;
      unsigned major_ = 0, minor_ = 0;
      unsigned long long offset = 0, inode = 0;
      char perms[8] = {};
      if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %7s %llx %x:%x %llu", &start, &end, perms,
                      &offset, &major_, &minor_, &inode) != 7) {
        continue;
      }
      if (addr < start || addr >= end) continue;
      // map_files gives the mapped file as the filesystem presents it, which is
      // what fstat sees (overlay filesystems show lower-layer numbers in maps).
      char name[64];
      std::snprintf(name, sizeof(name), "/proc/self/map_files/%" PRIxPTR "-%" PRIxPTR, start, end);
      struct stat mapped {};
      if (::stat(name, &mapped) == 0) return SameFile(mapped, want);
      return inode == static_cast<unsigned long long>(want.st_ino) && major_ == major(want.st_dev) &&
             minor_ == minor(want.st_dev);
    }
  } catch (...) {
  }
  return false;
}

namespace {

// A process is judged by the executable that its caller scope holds open: the
// scope of the request being served when pid is its caller, else a scope of
// the process that has pid now. So every check of one request reads the same
// file, and only a file of the process that was pinned; a process that has
// ended is kProcessGone. The path, when asked for, is given only while it
// still names the file that was read.
Inspection CheckProcess(pid_t pid, bool verify, Trust trust, std::string* exePath) {
  Inspection result;
  try {
    std::shared_ptr<const tarn::os::PeerProcess> process;
    std::optional<tarn::os::CallerScope> ownScope;
    tarn::os::CallerScope* scope = tarn::os::CallerScope::Current();
    if (!scope || scope->Caller().Pid() != pid) {
      process = tarn::os::PeerProcess::OfPid(pid);
      scope = process ? &ownScope.emplace(*process) : nullptr;
    }
    const int fd = scope ? scope->ExecutableFd() : -1;
    if (fd < 0) {
      result.status = Status::kProcessGone;
      return result;
    }
    result = verify ? VerifyFd(fd, trust) : InspectFd(fd);
    if (exePath) {
      exePath->clear();
      struct stat opened {}, named {};
      auto link = ReadLink(ProcPath(pid, "exe"));
      if (link && ::fstat(fd, &opened) == 0 && ::stat(link->c_str(), &named) == 0 && SameFile(opened, named)) {
        *exePath = *link;
      }
    }
  } catch (...) {
    result = Inspection{};
  }
  return result;
}

}  // namespace

Inspection VerifyProcess(pid_t pid, Trust trust) { return CheckProcess(pid, true, trust, nullptr); }

Inspection InspectProcess(pid_t pid) { return CheckProcess(pid, false, Trust::kPlatformOrMaker, nullptr); }

Inspection VerifyProcessWithPath(pid_t pid, Trust trust, std::string* exePath) {
  return CheckProcess(pid, true, trust, exePath);
}

std::string Fingerprint(const PublicKey& key) {
  std::uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(key.data(), key.size(), digest, &len, EVP_sha256(), nullptr) != 1) return {};
  return UpperHex(digest, len);
}

std::string FileFingerprint(const std::string& path) {
  Inspection r = InspectFile(path);
  return r.status == Status::kValid ? Fingerprint(r.signer) : std::string();
}

std::string KeyToHex(const PublicKey& key) {
  std::string hex = UpperHex(key.data(), key.size());
  std::transform(hex.begin(), hex.end(), hex.begin(), [](char c) { return static_cast<char>(std::tolower(c)); });
  return hex;
}

std::optional<PublicKey> KeyFromHex(std::string_view text) {
  auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  if (text.size() != kPublicKeySize * 2) return std::nullopt;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  PublicKey key{};
  for (std::size_t i = 0; i < key.size(); ++i) {
    int hi = nibble(text[2 * i]), lo = nibble(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    key[i] = static_cast<std::uint8_t>(hi << 4 | lo);
  }
  return key;
}

namespace {

std::optional<std::string> ReadSmallFile(const std::string& path) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat st {};
  if (fd.fd < 0 || ::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxKeyFile) {
    return std::nullopt;
  }
  std::string text(static_cast<std::size_t>(st.st_size), '\0');
  if (!text.empty() && !ReadAt(fd.fd, reinterpret_cast<std::uint8_t*>(text.data()), text.size(), 0)) {
    return std::nullopt;
  }
  return text;
}

// Writes content to path through a temporary file in the same folder.
bool WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode) {
  std::string temp = path + ".XXXXXX";
  int raw = ::mkstemp(temp.data());
  if (raw < 0) return false;
  Fd fd(raw);
  bool ok = ::fchmod(fd.fd, mode) == 0 &&
            WriteAll(fd.fd, reinterpret_cast<const std::uint8_t*>(content.data()), content.size()) &&
            ::fsync(fd.fd) == 0;
  ok = (::close(fd.Release()) == 0) && ok;
  if (ok) ok = ::rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) ::unlink(temp.c_str());
  return ok;
}

}  // namespace

std::optional<PublicKey> ReadPublicKeyFile(const std::string& path) {
  try {
    auto text = ReadSmallFile(path);
    if (!text) return std::nullopt;
    return KeyFromHex(*text);
  } catch (...) {
    return std::nullopt;
  }
}

bool InstallTrustedKey(const PublicKey& key, KeyKind kind, const std::string& name) {
  try {
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return false;
    std::string dir = tarn::os::TrustedKeysDir();
    if (kind == KeyKind::kMaker) dir += "/maker";
    if (!tarn::os::MakeDirectories(dir)) return false;
    return WriteFileAtomically(dir + "/" + name + ".pub", KeyToHex(key) + "\n", 0644);
  } catch (...) {
    return false;
  }
}

SigningKey::~SigningKey() { EVP_PKEY_free(static_cast<EVP_PKEY*>(pkey_)); }

SigningKey::SigningKey(SigningKey&& other) noexcept : pkey_(std::exchange(other.pkey_, nullptr)) {}

SigningKey& SigningKey::operator=(SigningKey&& other) noexcept {
  if (this != &other) {
    EVP_PKEY_free(static_cast<EVP_PKEY*>(pkey_));
    pkey_ = std::exchange(other.pkey_, nullptr);
  }
  return *this;
}

std::optional<SigningKey> SigningKey::Generate() {
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr);
  if (!ctx) return std::nullopt;
  EVP_PKEY* pkey = nullptr;
  bool ok = EVP_PKEY_keygen_init(ctx) == 1 && EVP_PKEY_keygen(ctx, &pkey) == 1;
  EVP_PKEY_CTX_free(ctx);
  if (!ok || !pkey) return std::nullopt;
  return SigningKey(pkey);
}

std::optional<SigningKey> SigningKey::Load(const std::string& path, std::string* error) {
  auto fail = [&](const char* why) -> std::optional<SigningKey> {
    if (error) *error = why;
    return std::nullopt;
  };
  try {
    auto text = ReadSmallFile(path);
    if (!text) return fail("cannot read the private key file");
    EVP_PKEY* pkey = nullptr;
    if (text->find("-----BEGIN") != std::string::npos) {
      BIO* bio = BIO_new_mem_buf(text->data(), static_cast<int>(text->size()));
      if (!bio) return fail("out of memory");
      pkey = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
      BIO_free(bio);
      if (!pkey) return fail("not a PEM private key");
    } else {
      auto seed = KeyFromHex(*text);  // 32 bytes, same shape as a public key
      if (!seed) return fail("neither a PEM private key nor 64 hex digits");
      pkey = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed->data(), seed->size());
      if (!pkey) return fail("not a usable Ed25519 seed");
    }
    if (EVP_PKEY_get_id(pkey) != EVP_PKEY_ED25519) {
      EVP_PKEY_free(pkey);
      return fail("not an Ed25519 key");
    }
    return SigningKey(pkey);
  } catch (...) {
    return fail("cannot load the private key");
  }
}

bool SigningKey::SavePem(const std::string& path, std::string* error) const {
  auto fail = [&](const char* why) {
    if (error) *error = why;
    return false;
  };
  BIO* bio = BIO_new(BIO_s_mem());
  if (!bio) return fail("out of memory");
  bool ok = PEM_write_bio_PrivateKey(bio, static_cast<EVP_PKEY*>(pkey_), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  std::string pem = ok && len > 0 ? std::string(data, static_cast<std::size_t>(len)) : std::string();
  BIO_free(bio);
  if (pem.empty()) return fail("cannot encode the private key");
  if (!WriteFileAtomically(path, pem, 0600)) return fail("cannot write the private key file");
  return true;
}

PublicKey SigningKey::Public() const {
  PublicKey key{};
  std::size_t len = key.size();
  if (!pkey_ || EVP_PKEY_get_raw_public_key(static_cast<EVP_PKEY*>(pkey_), key.data(), &len) != 1) return PublicKey{};
  return key;
}

std::optional<Signature> SigningKey::Sign(const std::uint8_t* data, std::size_t size) const {
  MdCtx md;
  Signature sig{};
  std::size_t len = sig.size();
  if (!pkey_ || !md.ctx ||
      EVP_DigestSignInit(md.ctx, nullptr, nullptr, nullptr, static_cast<EVP_PKEY*>(pkey_)) != 1 ||
      EVP_DigestSign(md.ctx, sig.data(), &len, data, size) != 1 || len != sig.size()) {
    return std::nullopt;
  }
  return sig;
}

bool SignFile(const std::string& path, const SigningKey& key, std::string* error) {
  auto fail = [&](std::string why) {
    if (error) *error = std::move(why);
    return false;
  };
  try {
    // Replace the file as a whole (a running program or a loaded library keeps
    // its old inode), following a symlink to the file it names.
    char* real = ::realpath(path.c_str(), nullptr);
    if (!real) return fail(std::string("cannot open: ") + std::strerror(errno));
    std::string target = real;
    std::free(real);
    Fd in(::open(target.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st {};
    if (in.fd < 0 || ::fstat(in.fd, &st) != 0) return fail(std::string("cannot open: ") + std::strerror(errno));
    if (!S_ISREG(st.st_mode)) return fail("not a regular file");

    // Drop every trailer at the end, so that re-signing replaces the old one.
    std::uint64_t payload = static_cast<std::uint64_t>(st.st_size);
    std::uint8_t last[kMagic.size()];
    while (payload >= kMagic.size()) {
      if (!ReadAt(in.fd, last, sizeof(last), static_cast<off_t>(payload - sizeof(last)))) return fail("read failed");
      if (!EndsWithMagic(last + sizeof(last))) break;
      if (payload < kTrailerSize) return fail("truncated signature trailer at the end of the file");
      payload -= kTrailerSize;
    }

    std::string temp = target + ".signing.XXXXXX";
    int raw = ::mkstemp(temp.data());
    if (raw < 0) return fail(std::string("cannot create a file beside it: ") + std::strerror(errno));
    Fd out(raw);
    auto abandon = [&](std::string why) {
      ::unlink(temp.c_str());
      return fail(std::move(why));
    };
    MdCtx md;
    if (!md.ctx || EVP_DigestInit_ex(md.ctx, EVP_sha256(), nullptr) != 1) return abandon("digest failed");
    std::vector<std::uint8_t> buf(kChunk);
    for (std::uint64_t off = 0; off < payload;) {
      const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, payload - off));
      if (!ReadAt(in.fd, buf.data(), n, static_cast<off_t>(off))) return abandon("read failed");
      if (EVP_DigestUpdate(md.ctx, buf.data(), n) != 1) return abandon("digest failed");
      if (!WriteAll(out.fd, buf.data(), n)) return abandon("write failed");
      off += n;
    }
    std::uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    if (EVP_DigestFinal_ex(md.ctx, digest, &digestLen) != 1) return abandon("digest failed");
    auto sig = key.Sign(digest, digestLen);
    if (!sig) return abandon("signing failed");
    PublicKey pub = key.Public();
    std::uint8_t trailer[kTrailerSize];
    std::memcpy(trailer, pub.data(), pub.size());
    std::memcpy(trailer + kPublicKeySize, sig->data(), sig->size());
    std::memcpy(trailer + kPublicKeySize + kSignatureSize, kMagic.data(), kMagic.size());
    if (!WriteAll(out.fd, trailer, sizeof(trailer))) return abandon("write failed");
    if (::fchmod(out.fd, st.st_mode & 07777) != 0 || ::fsync(out.fd) != 0) return abandon("write failed");
    if (::close(out.Release()) != 0) return abandon("write failed");
    if (::rename(temp.c_str(), target.c_str()) != 0) {
      return abandon(std::string("cannot replace the file: ") + std::strerror(errno));
    }
    return true;
  } catch (const std::bad_alloc&) {
    return fail("out of memory");
  } catch (...) {
    return fail("signing failed");
  }
}

std::optional<PublicKey> ReadSignerKey(const std::string& path) {
  Inspection r = InspectFile(path);
  if (r.status != Status::kValid) return std::nullopt;
  return r.signer;
}

}  // namespace tarn::security
