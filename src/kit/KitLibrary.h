#pragma once
// The system's library loader as the kit loader uses it: a kit library is
// opened once, its signature is tested on that descriptor, and the loader maps
// that same descriptor, so no other file can take its place in between. Also:
// find an export of that library alone, read its string table, and judge its
// verification string.
#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn::kit {

// Entries of a string table looked at before giving up on its terminator.
inline constexpr std::size_t kMaxKitStrings = 4096;
// Characters of the buffer the verification string is read into, its
// terminator included.
inline constexpr std::size_t kVerifyStringChars = 1024;

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

class KitFile {
 public:
  // Opens the library read-only.
  explicit KitFile(std::string path);
  // Closes the descriptor, unless a library loaded from it is still mapped:
  // the loader knows that library by the name /proc/self/fd/<n>, and were <n>
  // reused, a later load by that name would be handed the earlier library.
  ~KitFile();
  KitFile(const KitFile&) = delete;
  KitFile& operator=(const KitFile&) = delete;

  // The open file carries a valid signature of a platform or maker key.
  bool Verified() const;
  // Maps the open file with every symbol bound now; null with the loader's
  // message in error. The dependencies that the library looks for in its own
  // folder ($ORIGIN in its search path) are loaded from there first.
  void* Load(std::string& error);

 private:
  std::string path_;
  int fd_ = -1;
  int openError_ = 0;
};

}  // namespace tarn::kit
