// The manifest test after the load: the library's verification string against
// the digest of the manifest read beside it.
#include <cstdint>
#include <string>

#include "config/ConfigManager.h"
#include "kit/KitLibrary.h"
#include "kit/LoadManger.h"
#include "platform/log/tarn_log.h"
#include "tarnkit/tarn_kit.h"

bool LoadManger::CompareVerifyCode(void*& module, const std::string& kitManifVerify) {
  if (!ConfigManager::GetInstance().verifyEnabled) {
    CLOGI("LoadManger::CompareVerifyCode", "Not Verify version.");
    return true;
  }
  char16_t buffer[tarn::kit::kVerifyStringChars] = {};
  const int lenRet = tarn::kit::LoadKitString(module, kTarnKitVerifyStringId, buffer, tarn::kit::kVerifyStringChars);
  std::size_t length = 0;
  while (length < tarn::kit::kVerifyStringChars && buffer[length] != 0) ++length;
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
  const std::string dllPluginVerify = tarn::kit::FoldVerifyString(buffer);
  CLOGI("LoadManger::CompareVerifyCode", "dllPluginVerify = " << dllPluginVerify);
  CLOGI("LoadManger::CompareVerifyCode", "SubKitConfig kitManifVerify = " << kitManifVerify);
  // Only the library's side is folded: the manifest digest comes in upper case.
  if (tarn::kit::MatchVerifyCode(dllPluginVerify, kitManifVerify) != tarn::kit::VerifyCodeMatch::kDifferent) {
    return true;
  }
  CLOGE("LoadManger::CompareVerifyCode", "dllPluginVerify is not equal to kitManifVerify!");
  return false;
}
