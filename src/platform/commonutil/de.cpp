#include "platform/commonutil/de.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

#include "platform/os/places.h"
#include "platform/os/registry.h"
#include "platform/os/text.h"

namespace DE {

std::string GetFileSha256Hex(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rbe"), &std::fclose);
  if (!file) return {};
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return {};
  unsigned char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), file.get())) > 0) {
    if (EVP_DigestUpdate(ctx.get(), buf, n) != 1) return {};
  }
  if (std::ferror(file.get())) return {};
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &len) != 1) return {};
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(len * 2);
  for (unsigned int i = 0; i < len; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xF];
  }
  return hex;
}

bool FileExists(const char* path) {
  struct stat st {};
  return path && ::stat(path, &st) == 0;
}

bool FileExists(const std::string& path) { return FileExists(path.c_str()); }

bool FileDelete(const std::string& path) {
  return ::unlink(path.c_str()) == 0 || !FileExists(path);
}

std::string GetCurrentPathA() { return tarn::os::InstallDirectory(); }

char* WcharToChar(const wchar_t* text) {
  if (!text) return nullptr;
  std::string narrow = tarn::os::WideToUtf8(text);
  char* out = new char[narrow.size() + 1];
  std::memcpy(out, narrow.c_str(), narrow.size() + 1);
  return out;
}

std::wstring ANSIToUnicode(const std::string& text) { return tarn::os::Utf8ToWide(text); }

bool Registry::GetValue(std::uintptr_t root, const std::wstring& subKey, const std::wstring& name,
                        std::wstring& out, std::uint32_t /*access*/) {
  if (root != kHKeyLocalMachine) return false;
  std::string value;
  long rc = tarn::os::Registry().GetValue(tarn::os::WideToUtf8(subKey), tarn::os::WideToUtf8(name),
                                          value, 4096);
  if (rc != tarn::os::kRegSuccess) return false;
  out = tarn::os::Utf8ToWide(value);
  return true;
}

}  // namespace DE
