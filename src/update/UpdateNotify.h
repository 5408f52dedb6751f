#pragma once
// Notify broadcasts of the update cycle: the notify template filled from the
// remote configuration's version and level and the configured kits.
#include <string>

namespace tarn::update {

// "com.vantrel.tarn.updateKit" / "com.vantrel.tarn.updateKitUserConfirm" with
// isUserAgree, version, level and kits. out stays empty if the template fails.
void GetNotifyMsg(const std::string& action, int isUserAgree, std::string& out);
// "com.vantrel.tarn.updateKitResult" with updateKitResult, version and level.
void GetUpdateKitResultMsg(const std::string& result, std::string& out);

}  // namespace tarn::update
