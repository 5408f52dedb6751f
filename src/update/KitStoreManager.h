#pragma once
// The one switch of a client-requested self-update: whether one runs and since
// when; starts the update UI and lets go when the UI reports the end or has died.
#include <cstdint>
#include <list>
#include <mutex>
#include <string>

#include "pipeline/Records.h"

class KitStoreManager {
 public:
  static KitStoreManager& GetInstance();

  // True while an update runs. After a minute, only while a "TarnCoreUI.exe"
  // process lives; a dead UI's update is dropped here.
  bool IsUpdating();
  // Check-and-start as one step. Writes 907135009 (running), 907135008 (no
  // newer version) or 907135007 (UI didn't start). True if an update runs on return.
  bool StartSelfUpdate(ResponseStatus& status, const std::string& sdkVersion);
  // Back to idle; harmless when idle.
  void CompleteUpdate();
  // Starts the UI with "Dialog_ApiLevel" (ask the user first).
  bool CheckUserAgree();
  // Starts the UI with "Upgrade" (the update itself).
  bool ShowScrollAndUpdate();

  // Test helper: back to idle without log lines.
  void ResetForTesting();

  std::list<std::string> updatingKits;
  std::uint32_t updateStartTick = 0;

 private:
  void RemoveUpdatingAll();
};

// Guards updatingKits and updateStartTick.
extern std::mutex updateLock;
