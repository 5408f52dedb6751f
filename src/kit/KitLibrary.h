#pragma once
// The system's library loader as the kit loader uses it: load with the kit's
// own folder searched for its dependencies (kits carry runpath $ORIGIN), find
// an export of that library alone, read its string table, and tie a loaded
// library to the file whose signature was tested.
#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn::kit {

// Entries of a string table looked at before giving up on its terminator.
inline constexpr std::size_t kMaxKitStrings = 4096;
// Characters of the buffer the verification string is read into, its
// terminator included.
inline constexpr std::size_t kVerifyStringChars = 1024;

// dlopen with every symbol bound now; null with the loader's message in error.
void* OpenLibrary(const std::string& path, std::string& error);
void CloseLibrary(void* module);
// The library's own export of that exact name; null when the library doesn't
// define it (a dependency's symbol of the same name doesn't count).
void* FindExport(void* module, const std::string& name);
// Copies string `id` of the library's TarnKitStrings into buffer (UTF-16, at
// most capacity - 1 characters, zero-ended). Returns the characters copied,
// 0 when the table or the id is missing, as the system's string lookup does.
int LoadKitString(void* module, std::uint32_t id, char16_t* buffer, std::size_t capacity);

// The manifest test on a library's verification string. The library's side is
// folded to upper case (FoldVerifyString); the manifest's digest is compared
// as it stands, so a lower-case digest never matches.
enum class VerifyCodeMatch {
  kNoString,   // the library has none: the test passes
  kNoDigest,   // the manifest's digest is empty: the test passes
  kEqual,
  kDifferent,  // the only failure
};
std::string FoldVerifyString(const char16_t* text);
VerifyCodeMatch MatchVerifyCode(const std::string& folded, const std::string& kitManifVerify);

// A kit library opened for its signature test.
class KitFile {
 public:
  KitFile() = default;
  ~KitFile();
  KitFile(const KitFile&) = delete;
  KitFile& operator=(const KitFile&) = delete;

  // Opens the file and tests its embedded signature (platform or maker key).
  bool OpenVerified(const std::string& path);
  bool IsOpen() const { return fd_ >= 0; }
  // True when the loaded module is mapped from this very file.
  bool IsMappedAs(void* module) const;
  void Close();

 private:
  int fd_ = -1;
};

}  // namespace tarn::kit
