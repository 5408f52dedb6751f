// The manifest test after the load: the library's verification string against
// the digest of the manifest read beside it.
#include <cctype>
#include <cstdint>
#include <string>

#include "config/ConfigManager.h"
#include "kit/KitLibrary.h"
#include "kit/LoadManger.h"
#include "platform/log/tarn_log.h"
#include "tarnkit/tarn_kit.h"

namespace {

// Characters of the string buffer, its terminator included.
constexpr std::size_t kVerifyBufferChars = 1024;

// The narrow form of the string as the OEM code page gives it: hexadecimal
// digits pass unchanged, anything beyond ASCII has no place in a digest.
std::string ToOemText(const char16_t* text) {
  std::string out;
  for (; *text != 0; ++text) out.push_back(*text < 0x80 ? static_cast<char>(*text) : '?');
  return out;
}

}  // namespace

bool LoadManger::CompareVerifyCode(void*& module, const std::string& kitManifVerify) {
  if (!ConfigManager::GetInstance().verifyEnabled) {
    CLOGI("LoadManger::CompareVerifyCode", "Not Verify version.");
    return true;
  }
  char16_t buffer[kVerifyBufferChars] = {};
  const int lenRet = tarn::kit::LoadKitString(module, kTarnKitVerifyStringId, buffer, kVerifyBufferChars);
  std::size_t length = 0;
  while (length < kVerifyBufferChars && buffer[length] != 0) ++length;
  if (lenRet == 0 || length == 0) {
    // A library without the string passes; this line is the only mark of it.
    CLOGE("LoadManger::CompareVerifyCode",
          "Get kitManifestVerifyStr from plugin failed. lenRet, lenWDllPlugin = " << lenRet << ", "
                                                                                   << length);
    return true;
  }
  CLOGI("LoadManger::CompareVerifyCode",
        "Get kitManifestVerifyStr from plugin success. lenRet, lenWPluginStr = " << lenRet << ", "
                                                                                 << length);
  std::string dllPluginVerify = ToOemText(buffer);
  for (char& c : dllPluginVerify) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  CLOGI("LoadManger::CompareVerifyCode", "dllPluginVerify = " << dllPluginVerify);
  CLOGI("LoadManger::CompareVerifyCode", "SubKitConfig kitManifVerify = " << kitManifVerify);
  // Only the library's side is folded: the manifest digest comes in upper case.
  if (kitManifVerify.empty()) return true;
  if (dllPluginVerify == kitManifVerify) return true;
  CLOGE("LoadManger::CompareVerifyCode", "dllPluginVerify is not equal to kitManifVerify!");
  return false;
}
