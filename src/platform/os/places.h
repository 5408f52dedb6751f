#pragma once
// Machine-wide places. Everything lives under one machine root, TARNCORE_ROOT
// (default "/"), so tests and the demo can run a whole machine in a directory.
#include <string>
#include <string_view>

namespace tarn::os {

// The machine root without a trailing '/', or "" for the real root.
std::string MachineRoot();

// Joins the machine root and a path relative to it ("etc/tarncore/...").
std::string MachinePath(std::string_view relative);

// Folder of the running executable, with a trailing '/'. Empty if unknown.
std::string InstallDirectory();

// Common application data folder: <root>/var/lib (no trailing '/').
std::string CommonAppDataPath();

// <root>/etc/tarncore/registry/HKEY_LOCAL_MACHINE
std::string RegistryRoot();

// <root>/run/tarncore: IPC socket, lock files.
std::string RuntimeDir();

// <root>/etc/tarncore/trusted-keys
std::string TrustedKeysDir();

// <root>/etc/tarncore/firewall.d
std::string FirewallDir();

// PRETTY_NAME of <root>/etc/os-release, empty when absent.
std::string OperatingSystemName();

// Creates a directory tree (mode 0755); true when it exists afterwards.
bool MakeDirectories(const std::string& path);

}  // namespace tarn::os
