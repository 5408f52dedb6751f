#pragma once
// The registry store: one file per value under the machine root. Key paths
// are written with '\' or '/' ("SOFTWARE\\Tarn Core\\VTID\\").
#include <cstddef>
#include <string>

namespace tarn::os {

// Windows error numbers, as the callers compare them.
constexpr long kRegSuccess = 0;
constexpr long kRegFileNotFound = 2;
constexpr long kRegAccessDenied = 5;
constexpr long kRegMoreData = 234;

// Read limit of the narrow and wide VTID readers.
constexpr std::size_t kRegValueReadLimit = 254;

class RegistryStore {
 public:
  virtual ~RegistryStore() = default;
  // 0 on success, a Windows error number otherwise. A missing key is
  // kRegFileNotFound; so is a missing value in an existing key.
  virtual long OpenKey(const std::string& keyPath) = 0;
  // Reads at most maxBytes bytes of the value. The output is left unchanged on failure.
  virtual long GetValue(const std::string& keyPath, const std::string& name, std::string& out,
                        std::size_t maxBytes) = 0;
  // Replaces the value atomically. The key must exist: a write never creates one.
  virtual long SetValue(const std::string& keyPath, const std::string& name,
                        const std::string& value) = 0;
};

// The file-per-value store under <root>/etc/tarncore/registry/HKEY_LOCAL_MACHINE.
class FileRegistryStore : public RegistryStore {
 public:
  long OpenKey(const std::string& keyPath) override;
  long GetValue(const std::string& keyPath, const std::string& name, std::string& out,
                std::size_t maxBytes) override;
  long SetValue(const std::string& keyPath, const std::string& name,
                const std::string& value) override;

  // Directory of a key ("SOFTWARE\\Tarn Core\\VTID\\" -> .../SOFTWARE/Tarn Core/VTID).
  static std::string KeyDirectory(const std::string& keyPath);
};

// The process-wide store; tests may install their own (nullptr restores the file store).
RegistryStore& Registry();
void SetRegistryForTesting(RegistryStore* store);

// Key of the platform's values.
inline constexpr const char* kVtidKey = "SOFTWARE\\Tarn Core\\VTID\\";

}  // namespace tarn::os

// Reads a value under HKEY_LOCAL_MACHINE "SOFTWARE\Tarn Core\VTID\" (at most 254 bytes).
// Returns 0 or the error; on error the output is left as it was.
long ReadVtidRegistryValue(const std::string& name, std::string& out);

// The same through the wide interface.
long ReadRegistryWideValue(const std::wstring& name, std::wstring& out);
