#include "kit/KitLibrary.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/security/security.h"
#include "tarnkit/tarn_kit.h"

namespace tarn::kit {

namespace {

// Bounds for reading a library's dynamic section; real ones are far smaller.
constexpr std::size_t kMaxProgramHeaders = 256;
constexpr std::size_t kMaxDynamicEntries = 4096;
constexpr std::size_t kMaxDynamicStrings = 1 << 20;

const link_map* LinkMapOf(void* module) {
  link_map* map = nullptr;
  if (!module || ::dlinfo(module, RTLD_DI_LINKMAP, &map) != 0) return nullptr;
  return map;
}

std::string FdPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool ReadAt(int fd, void* out, std::size_t size, std::uint64_t offset) {
  auto* to = static_cast<char*>(out);
  while (size > 0) {
    const ssize_t n = ::pread(fd, to, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    to += n;
    size -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
  return true;
}

// What a library's dynamic section asks of the loader: the libraries it needs
// and the folders it wants them looked for in (its runpath, else its rpath).
struct DynamicNeeds {
  std::vector<std::string> needed;
  std::vector<std::string> searchPath;
};

std::optional<DynamicNeeds> ReadDynamicNeeds(int fd) {
  Elf64_Ehdr header{};
  if (!ReadAt(fd, &header, sizeof(header), 0) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr) ||
      header.e_phnum > kMaxProgramHeaders) {
    return std::nullopt;
  }
  std::vector<Elf64_Phdr> segments(header.e_phnum);
  if (!ReadAt(fd, segments.data(), segments.size() * sizeof(Elf64_Phdr), header.e_phoff)) return std::nullopt;
  std::vector<Elf64_Dyn> entries;
  for (const Elf64_Phdr& segment : segments) {
    if (segment.p_type != PT_DYNAMIC) continue;
    entries.resize(std::min<std::size_t>(segment.p_filesz / sizeof(Elf64_Dyn), kMaxDynamicEntries));
    if (!ReadAt(fd, entries.data(), entries.size() * sizeof(Elf64_Dyn), segment.p_offset)) return std::nullopt;
  }
  std::uint64_t stringsAddress = 0, stringsSize = 0;
  std::vector<std::uint64_t> needed;
  std::optional<std::uint64_t> runpath, rpath;
  for (const Elf64_Dyn& entry : entries) {
    if (entry.d_tag == DT_NULL) break;
    switch (entry.d_tag) {
      case DT_STRTAB: stringsAddress = entry.d_un.d_ptr; break;
      case DT_STRSZ: stringsSize = entry.d_un.d_val; break;
      case DT_NEEDED: needed.push_back(entry.d_un.d_val); break;
      case DT_RUNPATH: runpath = entry.d_un.d_val; break;
      case DT_RPATH: rpath = entry.d_un.d_val; break;
      default: break;
    }
  }
  DynamicNeeds needs;
  if (needed.empty()) return needs;
  // The string table is given by address: the loaded segment that holds it
  // tells where it lies in the file.
  std::optional<std::uint64_t> stringsOffset;
  for (const Elf64_Phdr& segment : segments) {
    if (segment.p_type == PT_LOAD && stringsAddress >= segment.p_vaddr &&
        stringsAddress - segment.p_vaddr < segment.p_filesz) {
      stringsOffset = stringsAddress - segment.p_vaddr + segment.p_offset;
    }
  }
  if (!stringsOffset || stringsSize == 0 || stringsSize > kMaxDynamicStrings) return std::nullopt;
  std::string strings(stringsSize, '\0');
  if (!ReadAt(fd, strings.data(), strings.size(), *stringsOffset)) return std::nullopt;
  auto text = [&](std::uint64_t at) {
    return at < strings.size() ? std::string(strings.data() + at, ::strnlen(strings.data() + at, strings.size() - at))
                               : std::string();
  };
  for (std::uint64_t at : needed) needs.needed.push_back(text(at));
  if (auto path = runpath ? runpath : rpath) {
    const std::string list = text(*path);
    for (std::size_t from = 0; from <= list.size();) {
      const std::size_t colon = std::min(list.find(':', from), list.size());
      needs.searchPath.push_back(list.substr(from, colon - from));
      from = colon + 1;
    }
  }
  return needs;
}

// The entry with $ORIGIN (or ${ORIGIN}) replaced by folder; nullopt for an
// entry that doesn't name it.
std::optional<std::string> ExpandOrigin(std::string entry, const std::string& folder) {
  bool named = false;
  for (const char* token : {"${ORIGIN}", "$ORIGIN"}) {
    for (std::size_t at; (at = entry.find(token)) != std::string::npos; named = true) {
      entry.replace(at, std::strlen(token), folder);
    }
  }
  if (!named) return std::nullopt;
  return entry;
}

bool IsFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Mapped through /proc/self/fd/<n>, a library's $ORIGIN is /proc/self/fd, not
// its folder. So each library it needs that its search path would find
// through $ORIGIN is loaded from its folder first, by that path; the loader
// then finds it under the name the library asks for. Libraries already in the
// process, and those the search path finds elsewhere first, are left to the
// loader, as they would be in a load by path.
std::vector<void*> LoadFromOrigin(int fd, const std::string& folder) {
  std::vector<void*> loaded;
  const std::optional<DynamicNeeds> needs = ReadDynamicNeeds(fd);
  if (!needs) return loaded;
  for (const std::string& name : needs->needed) {
    if (name.empty() || name.find('/') != std::string::npos) continue;
    if (void* known = ::dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
      ::dlclose(known);
      continue;
    }
    for (const std::string& entry : needs->searchPath) {
      const std::optional<std::string> origin = ExpandOrigin(entry, folder);
      const std::string candidate = origin.value_or(entry) + "/" + name;
      if (!IsFile(candidate)) continue;
      if (origin) {
        if (void* module = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL)) loaded.push_back(module);
      }
      break;
    }
  }
  return loaded;
}

}  // namespace

KitFile::KitFile(std::string path) : path_(std::move(path)) {
  fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) openError_ = errno;
}

KitFile::~KitFile() {
  if (fd_ < 0) return;
  if (void* still = ::dlopen(FdPath(fd_).c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
    ::dlclose(still);
    return;  // the descriptor stays open for the life of the process
  }
  ::close(fd_);
}

bool KitFile::Verified() const { return fd_ >= 0 && VerifyEmbeddedSignature(FdPath(fd_).c_str()); }

void* KitFile::Load(std::string& error) {
  if (fd_ < 0) {
    error = path_ + ": " + std::strerror(openError_);
    return nullptr;
  }
  const std::size_t slash = path_.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
  const std::vector<void*> dependencies = LoadFromOrigin(fd_, folder);
  void* module = ::dlopen(FdPath(fd_).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) {
    const char* text = ::dlerror();
    error = text ? text : "";
  }
  // A loaded library holds its dependencies itself.
  for (void* dependency : dependencies) ::dlclose(dependency);
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

}  // namespace tarn::kit
