#include "platform/commonutil/aaid.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <fstream>

#include "platform/log/tarn_log.h"
#include "platform/os/places.h"
#include "platform/os/random.h"
#include "platform/os/registry.h"

namespace {

constexpr const char* kAaidValue = "AAID";
// Keeps the machine id itself out of what is reported: the id is specific to
// this use and can't be turned back into the machine's.
constexpr const char* kSalt = "TarnCore.AAID.2f6b1c0e";
constexpr std::size_t kIdLength = 64;

bool IsId(const std::string& text) {
  return text.size() == kIdLength &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

std::string Sha256Hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1) return {};
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xF];
  }
  return hex;
}

std::string MachineId() {
  std::ifstream in(tarn::os::MachinePath("etc/machine-id"));
  std::string line;
  std::getline(in, line);
  while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
  return line;
}

}  // namespace

std::string AAID::ComputeAAID() {
  std::string material = MachineId();
  if (material.empty()) {
    std::uint8_t random[32];
    if (!tarn::os::CryptGenRandom(sizeof(random), random)) return {};
    material.assign(reinterpret_cast<const char*>(random), sizeof(random));
  }
  return Sha256Hex(material + kSalt);
}

bool AAID::HandleRegAAID() {
  std::string current;
  if (tarn::os::Registry().GetValue(tarn::os::kVtidKey, kAaidValue, current, tarn::os::kRegValueReadLimit) ==
          tarn::os::kRegSuccess &&
      IsId(current)) {
    return true;
  }
  const std::string id = ComputeAAID();
  if (id.empty()) {
    CLOGE("AAID::HandleRegAAID", "HandleRegAAID compute id failed.");
    return false;
  }
  const long rc = tarn::os::Registry().SetValue(tarn::os::kVtidKey, kAaidValue, id);
  if (rc != tarn::os::kRegSuccess) {
    CLOGE("AAID::HandleRegAAID", "HandleRegAAID write AAID failed, error = " << rc);
    return false;
  }
  CLOGI("AAID::HandleRegAAID", "HandleRegAAID write AAID success.");
  return true;
}
