#pragma once
// What the update dialogs say, in the two languages the platform has texts for.
#include <string>

namespace tarn::ui {

struct UiTexts {
  const char* title;       // common_tip_prompting
  const char* heading;
  const char* needUpdate;  // apilevel_needupdate
  const char* updating;    // apilevel_updating
  const char* updated;
  const char* failed;
  const char* updateNow;
  const char* notNow;
  const char* close;
};

inline constexpr UiTexts kEnglish{
    "prompting",
    "Tarn Core update",
    "Tarn Core service components need to be updated. Update now?",
    "Tarn Core service components are being updated.",
    "Tarn Core service components have been updated.",
    "Tarn Core service components could not be updated. Please try again later.",
    "_Update now",
    "_Not now",
    "_Close",
};

inline constexpr UiTexts kChinese{
    "提示",
    "Tarn Core 升级",
    "Tarn Core 服务相关组件版本过低。是否立即升级？",
    "Tarn Core 服务相关组件正在升级，请稍候。",
    "Tarn Core 服务相关组件已升级。",
    "Tarn Core 服务相关组件升级失败，请稍后重试。",
    "立即升级(_U)",
    "暂不升级(_N)",
    "关闭(_C)",
};

// zh-CN for a Chinese locale (LC_ALL, LC_MESSAGES or LANG, the first set), en-US otherwise.
const UiTexts& TextsForLocale();

}  // namespace tarn::ui
