#pragma once
// Session and network changes, fanned out to the kits that declare
// "<kitName>.OnWinSessionChanged" or "<kitName>.OnWinNetworkChanged".
#include <cstdint>
#include <string>

// Calls every kit whose dispatch map entry is "<kitName>.<eventName>" (case
// ignored) with the two texts as the request's header and body.
void NotifytoKit(const std::string& eventName, const std::string& first, const std::string& second);
// Waits for "init complete" first: events during start-up arrive late, not never.
bool NotifyWinEventToKit(std::uint32_t eventType, std::uint32_t sessionId);
bool NotifyNetworkChangeToKit(std::int32_t status);
// Wakes the configuration check whose first run after start-up failed.
void NetworkConnectForUpdate();
