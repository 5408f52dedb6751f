#pragma once
// The update UI's two windows. The display must be open.
#include <functional>

#include "framework_request.h"
#include "ui_texts.h"

namespace tarn::ui {

// Asks whether to update now. Closing the window is "not now".
tools::Choice AskToUpdate(const UiTexts& texts);

// Shows progress while work runs on a thread of its own, then its outcome
// (true: updated) until the person closes the window, which can't be closed
// before. Returns what work returned.
bool ShowUpgrade(const UiTexts& texts, const std::function<bool()>& work);

}  // namespace tarn::ui
