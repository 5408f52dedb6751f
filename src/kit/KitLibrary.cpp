#include "kit/KitLibrary.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cctype>

#include "platform/security/security.h"
#include "platform/security/signature.h"
#include "tarnkit/tarn_kit.h"

namespace tarn::kit {

namespace {

const link_map* LinkMapOf(void* module) {
  link_map* map = nullptr;
  if (!module || ::dlinfo(module, RTLD_DI_LINKMAP, &map) != 0) return nullptr;
  return map;
}

}  // namespace

void* OpenLibrary(const std::string& path, std::string& error) {
  void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    const char* text = ::dlerror();
    error = text ? text : "";
  }
  return module;
}

void CloseLibrary(void* module) {
  if (module) ::dlclose(module);
}

void* FindExport(void* module, const std::string& name) {
  if (!module) return nullptr;
  void* symbol = ::dlsym(module, name.c_str());
  if (!symbol) return nullptr;
  // dlsym also searches the library's dependencies.
  const link_map* map = LinkMapOf(module);
  Dl_info info{};
  link_map* owner = nullptr;
  if (!map || ::dladdr1(symbol, &info, reinterpret_cast<void**>(&owner), RTLD_DL_LINKMAP) == 0) {
    return nullptr;
  }
  return owner == map ? symbol : nullptr;
}

int LoadKitString(void* module, std::uint32_t id, char16_t* buffer, std::size_t capacity) {
  if (!buffer || capacity == 0) return 0;
  buffer[0] = 0;
  const auto* table = static_cast<const TarnKitString*>(FindExport(module, kTarnKitStringsSymbol));
  if (!table) return 0;
  for (std::size_t i = 0; i < kMaxKitStrings; ++i) {
    const TarnKitString& entry = table[i];
    if (entry.id == 0 && entry.text == nullptr) break;
    if (entry.id != id || entry.text == nullptr) continue;
    std::size_t n = 0;
    while (n + 1 < capacity && entry.text[n] != 0) {
      buffer[n] = entry.text[n];
      ++n;
    }
    buffer[n] = 0;
    return static_cast<int>(n);
  }
  return 0;
}

std::string FoldVerifyString(const char16_t* text) {
  // The narrow form the OEM code page gives: hexadecimal digits pass
  // unchanged, anything beyond ASCII has no place in a digest.
  std::string out;
  for (; text && *text != 0; ++text) {
    const char c = *text < 0x80 ? static_cast<char>(*text) : '?';
    out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  }
  return out;
}

VerifyCodeMatch MatchVerifyCode(const std::string& folded, const std::string& kitManifVerify) {
  if (folded.empty()) return VerifyCodeMatch::kNoString;
  if (kitManifVerify.empty()) return VerifyCodeMatch::kNoDigest;
  return folded == kitManifVerify ? VerifyCodeMatch::kEqual : VerifyCodeMatch::kDifferent;
}

KitFile::~KitFile() { Close(); }

bool KitFile::OpenVerified(const std::string& path) {
  Close();
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ >= 0 && VerifyEmbeddedSignature(("/proc/self/fd/" + std::to_string(fd_)).c_str())) return true;
  Close();
  return false;
}

bool KitFile::IsMappedAs(void* module) const {
  const link_map* map = LinkMapOf(module);
  // The dynamic section lies in a mapping of the library's file.
  return map && map->l_ld && tarn::security::MappedFromFile(map->l_ld, fd_);
}

void KitFile::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace tarn::kit
