#pragma once
// The DE:: file, text and digest helpers the container expects of its utility library.
#include <cstdint>
#include <string>

namespace DE {

// SHA-256 of a file's bytes as 64 upper-case hex digits; empty when unreadable.
std::string GetFileSha256Hex(const std::string& path);

bool FileExists(const char* path);
bool FileExists(const std::string& path);
// Removes a file; true when it is gone afterwards.
bool FileDelete(const std::string& path);
// Folder of the running executable, with a trailing '/'.
std::string GetCurrentPathA();

// New zero-ended narrow copy of a wide string (caller frees with delete[]); null for null.
char* WcharToChar(const wchar_t* text);
std::wstring ANSIToUnicode(const std::string& text);

// The digest classes of the library: identifier and length only.
class CryptBase {
 public:
  CryptBase(std::uint32_t algorithm, std::uint32_t length) : algorithm_(algorithm), length_(length) {}
  CryptBase(const CryptBase&) = default;
  CryptBase& operator=(const CryptBase&) = default;
  virtual ~CryptBase() { Reset(); }
  std::uint32_t DigestLen() const { return length_; }
  std::uint32_t Algorithm() const { return algorithm_; }
  void Reset() { handle_ = nullptr; }

 private:
  void* handle_ = nullptr;
  std::uint32_t algorithm_;
  std::uint32_t length_;
};

class CryptMD5 : public CryptBase {
 public:
  CryptMD5() : CryptBase(0x8003, 16) {}
};
class CryptSHA1 : public CryptBase {
 public:
  CryptSHA1() : CryptBase(0x8004, 20) {}
};
class CryptSHA256 : public CryptBase {
 public:
  CryptSHA256() : CryptBase(0x800C, 32) {}
};

class Registry {
 public:
  virtual ~Registry() = default;
  // Reads a REG_SZ value below HKEY_LOCAL_MACHINE (root 0x80000002); false when
  // the key or value is missing or the root is another one.
  static bool GetValue(std::uintptr_t root, const std::wstring& subKey, const std::wstring& name,
                       std::wstring& out, std::uint32_t access);
};

constexpr std::uintptr_t kHKeyLocalMachine = 0x80000002;

}  // namespace DE
