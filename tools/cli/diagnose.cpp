#include "diagnose.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>

#include "config/ConfigManager.h"
#include "config/ConfigReaders.h"
#include "config/ConfigText.h"
#include "kit/KitLibrary.h"
#include "kit_image.h"
#include "platform/commonutil/de.h"
#include "platform/ipc/ipc_message.h"
#include "platform/os/places.h"
#include "platform/os/process.h"
#include "platform/os/registry.h"
#include "platform/security/signature.h"
#include "platform/zbrf/service_manager.h"
#include "scope_policy.h"
#include "tarncore/client.h"
#include "tarnkit/tarn_kit.h"

namespace tarn::diagnose {

bool Report::HasErrors() const {
  return std::any_of(findings.begin(), findings.end(),
                     [](const Finding& f) { return f.severity == Severity::kError; });
}

namespace {

// Names and values from the root may hold anything; a finding stays one line.
void PrintText(std::ostream& out, const std::string& text) {
  static const char* digits = "0123456789abcdef";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      out << "\\x" << digits[byte >> 4] << digits[byte & 15];
    } else {
      out << c;
    }
  }
}

}  // namespace

void Print(const Report& report, std::ostream& out) {
  for (const Finding& f : report.findings) {
    const char* label = f.severity == Severity::kOk        ? "OK     "
                        : f.severity == Severity::kNote    ? "NOTE   "
                        : f.severity == Severity::kWarning ? "WARNING"
                                                           : "ERROR  ";
    out << label << ' ';
    PrintText(out, f.subject);
    out << ": ";
    PrintText(out, f.text);
    if (!f.fix.empty()) {
      out << " Fix: ";
      PrintText(out, f.fix);
    }
    out << '\n';
  }
  out.flush();
}

namespace {

namespace ts = tarn::security;
using ZServiceManager = tarn::zbrf::ZServiceManager;

// A kit library larger than this is not read.
constexpr std::size_t kMaxLibrarySize = 256u * 1024 * 1024;
// How long the socket may take to answer.
constexpr int kSocketTimeoutMs = 3000;

// The services the scope proxy asks for.
constexpr const char* kScopeServices[] = {"wasm.scopeService", "dll.scopeService"};

// Answers of the container that the findings quote.
constexpr const char* kLoadKitFailed = "907135002 \"load kit failed. \"";
constexpr const char* kApiNotSupported = "907135001 \"API is not supported. \"";

std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

bool ReadFile(const std::string& path, std::string& out, std::size_t limit) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out.clear();
  char buffer[65536];
  while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
    out.append(buffer, static_cast<std::size_t>(in.gcount()));
    if (out.size() > limit) return false;
  }
  return !in.bad();
}

bool IsHex64(const std::string& text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c); });
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string Count(std::size_t n, const char* thing) {
  return std::to_string(n) + " " + thing + (n == 1 ? "" : "s");
}

class Checker {
 public:
  explicit Checker(const Options& options) : options_(options) {}

  Report Run() {
    if (CheckRegistry()) {
      CheckPrograms();
      CheckTrustedKeys();
      const PackageInfoList packages = RemoteConfigPackages();
      for (const auto& package : packages) CheckPackage(*package);
      if (packageListWhole_) CheckUnlistedFolders(packages);
      CheckScopeService();
    } else {
      CheckTrustedKeys();
    }
    CheckPolicy();
    if (options_.online) CheckOnline();
    return std::move(report_);
  }

 private:
  void Add(Severity severity, std::string subject, std::string text, std::string fix = {}) {
    report_.findings.push_back({severity, std::move(subject), std::move(text), std::move(fix)});
  }

  // The registry's values; false when the installation can't be found.
  bool CheckRegistry() {
    auto& registry = tarn::os::Registry();
    const std::string key = tarn::os::FileRegistryStore::KeyDirectory(tarn::os::kVtidKey);
    if (registry.OpenKey(tarn::os::kVtidKey) != tarn::os::kRegSuccess) {
      Add(Severity::kError, "registry",
          "the key " + key + " is missing: the platform isn't installed in this root, and the container "
          "can neither read its values nor write them (a write never makes a key)",
          "install the platform in this root (its package makes the key with Install_Path and Version), "
          "or point TARNCORE_ROOT at the root it is installed in");
      return false;
    }
    struct Value {
      const char* name;
      Severity missing;
      const char* unset;  // what the container does without it
      const char* fix;
    };
    static const Value kValues[] = {
        {"Install_Path", Severity::kError,
         "the container adds no firewall rule, and this check can't find the installation",
         "write the install directory, with its trailing '/', into the value's file"},
        {"Version", Severity::kWarning,
         "the container takes the installed version as empty, so no forceUpdate list condemns it unless "
         "the list has an empty entry",
         "write the installed version (for example 5.3.0) into the value's file"},
        {"ShareAnalysis", Severity::kNote, "usage analysis is shared (only \"false\" turns it off)", ""},
        {"AutoUpgrade", Severity::kNote, "silent upgrades stay off (only \"true\" turns them on)", ""},
        {"PrivacyNotice", Severity::kNote, "the privacy notice is shown at the next start", ""},
        {"PrivacyAgree", Severity::kNote, "the agreement counts as given for the current privacy version", ""},
        {"AAID", Severity::kNote, "the container makes the anonymous id at its next start", ""},
    };
    std::optional<std::string> installPath;
    for (const Value& v : kValues) {
      std::string text;
      if (registry.GetValue(tarn::os::kVtidKey, v.name, text, 4096) != tarn::os::kRegSuccess) {
        Add(v.missing, "registry", std::string(v.name) + " is not set (" + key + "/" + v.name + "): " + v.unset,
            v.fix);
        continue;
      }
      if (text.size() > tarn::os::kRegValueReadLimit) {
        Add(Severity::kWarning, "registry",
            std::string(v.name) + " is " + std::to_string(text.size()) + " bytes long: the container reads only "
            "its first " + std::to_string(tarn::os::kRegValueReadLimit),
            "shorten it");
        text.resize(tarn::os::kRegValueReadLimit);
      } else {
        Add(Severity::kOk, "registry", std::string(v.name) + " = " + Quoted(text));
      }
      if (std::string(v.name) == "Install_Path") installPath = text;
    }
    return installPath && FindInstallation(*installPath);
  }

  bool FindInstallation(std::string path) {
    if (path.empty()) {
      Add(Severity::kError, "installation", "Install_Path is empty, so the installation can't be found",
          "write the directory that holds TarnCoreContainer into Install_Path");
      return false;
    }
    if (path.back() != '/') path += '/';
    if (IsDirectory(path)) {
      install_ = path;
      return true;
    }
    // A root laid out for another machine names its places as that machine sees them.
    const std::string underRoot = tarn::os::MachinePath(path.substr(path.find_first_not_of('/')));
    if (!tarn::os::MachineRoot().empty() && IsDirectory(underRoot)) {
      Add(Severity::kNote, "installation",
          "Install_Path " + Quoted(path) + " is found under the machine root as " + underRoot + "; checked there");
      install_ = underRoot.back() == '/' ? underRoot : underRoot + "/";
      return true;
    }
    Add(Severity::kError, "installation", "Install_Path " + Quoted(path) + " is not a directory",
        "write the directory that holds TarnCoreContainer into Install_Path");
    return false;
  }

  void CheckPrograms() {
    for (const char* name : {"TarnCoreContainer", "TarnCoreService"}) {
      if (Exists(install_ + name)) {
        Add(Severity::kOk, "installation", std::string(name) + " is in " + install_);
      } else {
        Add(Severity::kError, "installation", std::string(name) + " is missing from " + install_,
            "install the platform again");
      }
    }
    // The container starts these only when a maker signed them.
    const std::pair<const char*, const char*> started[] = {
        {"TarnCoreNotice", "the privacy notice can't be shown"},
        {"TarnCoreUI", "the update dialogs can't be shown"},
        {"TarnCoreUpdater", "an update agreed to at a person's desktop can't install"}};
    for (const auto& [name, lost] : started) {
      const std::string path = install_ + name;
      if (!Exists(path)) {
        Add(Severity::kWarning, "installation", std::string(name) + " is missing from " + install_ + ": " + lost,
            "install the platform again");
        continue;
      }
      CheckSignature("installation", name, path, ts::Trust::kMakerOnly,
                     std::string("the container doesn't start it, so ") + lost);
    }
  }

  void CheckTrustedKeys() {
    const std::string dir = tarn::os::TrustedKeysDir();
    for (ts::TrustedKeyFile& file : ts::ListTrustedKeyFiles()) {
      const char* kind = file.kind == ts::KeyKind::kMaker ? "maker key" : "platform key";
      if (!file.key) {
        Add(Severity::kWarning, "trusted keys",
            std::string(kind) + " file " + file.path + " holds no key, so it is passed over",
            "put the key's 64 hexadecimal digits in it, as tarncore-sign keygen writes them");
        continue;
      }
      Add(Severity::kOk, "trusted keys",
          std::string(kind) + " " + file.path.substr(dir.size() + 1) + ", fingerprint " + ts::Fingerprint(*file.key));
      keys_.push_back(std::move(file));
    }
    if (keys_.empty()) {
      Add(Severity::kError, "trusted keys",
          "no key is trusted in " + dir + ": no kit, service file or client passes its signature check",
          "trust the key that signed them: tarncore-sign trust --name NAME KEY.pub");
    }
  }

  // "maker key maker/tarn-dev.pub", or the fingerprint of a key nobody trusts.
  std::string SignerName(const ts::PublicKey& signer) const {
    const std::string dir = tarn::os::TrustedKeysDir();
    for (const auto& file : keys_) {
      if (*file.key == signer) {
        return std::string(file.kind == ts::KeyKind::kMaker ? "maker key " : "platform key ") +
               file.path.substr(dir.size() + 1);
      }
    }
    return "key " + ts::Fingerprint(signer);
  }

  // The signature check the container makes before it loads or starts a file.
  bool CheckSignature(const std::string& subject, const std::string& what, const std::string& path,
                      ts::Trust trust, const std::string& refused) {
    const ts::Inspection found = ts::VerifyFile(path, trust);
    const char* signFix = "sign it with a trusted key: tarncore-sign sign --key KEY FILE (tarn_add_kit signs "
                          "what it builds with the build's key)";
    switch (found.status) {
      case ts::Status::kValid:
        Add(Severity::kOk, subject, what + " is signed by " + SignerName(found.signer));
        return true;
      case ts::Status::kUnsigned:
        Add(Severity::kError, subject, what + " carries no signature: " + refused, signFix);
        return false;
      case ts::Status::kUntrusted: {
        const bool trustedAsPlatform =
            trust == ts::Trust::kMakerOnly && SignerName(found.signer).rfind("platform key", 0) == 0;
        Add(Severity::kError, subject,
            what + " is signed by " + (trustedAsPlatform ? SignerName(found.signer) + ", not a maker key"
                                                         : "key " + ts::Fingerprint(found.signer) +
                                                               ", which this machine doesn't trust") +
                ": " + refused,
            trustedAsPlatform ? signFix
                              : "trust the signer's public key as a maker key (tarncore-sign trust --name NAME "
                                "KEY.pub), or sign it with a key that is trusted");
        return false;
      }
      case ts::Status::kBadSignature:
      case ts::Status::kTruncated:
        Add(Severity::kError, subject,
            what + " has a signature that doesn't match its contents (" + ts::StatusText(found.status) +
                "): it changed after it was signed, and " + refused,
            "sign it again, or install the signed file again");
        return false;
      default:
        Add(Severity::kError, subject, what + " can't be read (" + path + "): " + refused,
            "install it again");
        return false;
    }
  }

  // The remote configuration as the container reads it; its packages.
  PackageInfoList RemoteConfigPackages() {
    const std::string subject = "remote configuration";
    const tarn::config::RemoteConfigChoice choice = tarn::config::ChooseRemoteConfig(install_);
    const std::string installed = install_ + tarn::config::kRemoteConfigFile;
    const std::string cached = install_ + tarn::config::kCachedRemoteConfigFile;
    const bool cacheRead = choice.cache == tarn::config::RemoteConfigChoice::Cache::kChosen;

    Json::Value root;
    bool opened = false;
    int error = 0;
    std::string errors;
    if (!tarn::config::ParseConfigFile(installed, root, opened, error, &errors)) {
      const std::string problem = opened ? "isn't JSON (" + OneLine(errors) + ")"
                                         : "can't be read (" + std::string(std::strerror(error)) + ")";
      if (cacheRead) {
        Add(Severity::kWarning, subject,
            installed + " " + problem + ": the container runs on the cached copy alone and stops the service "
            "should that one go bad",
            "install the platform's config/remoteConfig.json again");
      } else {
        Add(Severity::kError, subject,
            installed + " " + problem + " and there is no sound cached copy: the container stops TarnCoreService "
            "at start (\"" + (opened ? "get remoteConfig faield, data parse error." : "Remoteconfig ... invalid, cannot start") +
            "\")",
            "install the platform's config/remoteConfig.json again");
        return {};
      }
    }
    switch (choice.cache) {
      case tarn::config::RemoteConfigChoice::Cache::kAbsent:
        Add(Severity::kOk, subject, installed + " is read (there is no cached copy)");
        break;
      case tarn::config::RemoteConfigChoice::Cache::kUnsound:
        Add(Severity::kNote, subject,
            "the cached copy " + cached + " isn't a JSON object with a packageInfo array: it is passed over and " +
                installed + " is read",
            "delete it; the next refresh fetches a new one");
        break;
      case tarn::config::RemoteConfigChoice::Cache::kChosen:
        Add(Severity::kOk, subject, "the cached copy " + cached + " is read (it wins over " + installed + ")");
        tarn::config::ParseConfigFile(cached, root, opened, error);
        break;
    }

    std::string version;
    ReadVtidRegistryValue("Version", version);
    PackageInfoList packages;
    tarn::config::PackageListSink quiet;
    const char* place = tarn::config::kKeyTimerPeriodTarnCoreUpdate;
    try {
      const tarn::config::KeyValue period =
          tarn::config::ReadKeyValue(root, tarn::config::kKeyTimerPeriodTarnCoreUpdate, 86400000, 60000);
      if (period.problem != tarn::config::KeyValue::Problem::kNone) {
        Add(Severity::kWarning, subject,
            std::string(tarn::config::kKeyTimerPeriodTarnCoreUpdate) +
                " isn't a number of at least 60000 ms: the container takes the default " +
                std::to_string(period.value),
            "write a number of milliseconds of at least 60000");
      }
      place = tarn::config::kKeyPackageInfo;
      tarn::config::ReadPackageList(root, version, packages, quiet);
    } catch (const Json::LogicError& e) {
      std::string where = place;
      if (!packages.empty()) {
        where += "[" + std::to_string(packages.size() - 1) + "]";
        if (!packages.back()->packageName.empty()) where += " (" + packages.back()->packageName + ")";
        packages.pop_back();
      }
      Add(Severity::kError, subject,
          choice.path + " has a value of the wrong JSON type in " + where + " (" + e.what() +
              "): the container stops reading its configuration there, so its start ends without kits "
              "and no kit api is served (" + kApiNotSupported + ")",
          cacheRead ? "delete the cached file " + cached + " (the installed copy is read then) and look at what wrote it"
                    : "correct it: every value the container reads there is a string or a number");
      return packages;
    }
    packageListWhole_ = true;
    if (packages.empty()) {
      Add(Severity::kError, subject,
          choice.path + " names no package in packageInfo: the container's start fails "
          "(\"ConstuctApiDispathMap failed.\") and no kit runs",
          "list the installed packages in packageInfo, each with the kits that may run in its subKits");
    }
    for (const auto& package : packages) {
      if (package->forceUpdate == "1") {
        Add(Severity::kWarning, "package " + package->packageName,
            "forceUpdate \"1\" lists the installed version " + Quoted(version) +
                ": its kits don't load and their requests answer 907135016 \"TARNCORE Need force update. \"",
            "install a platform version the list doesn't name, or take the version out of invalidVersionCode");
      } else if (package->forceUpdate == "2") {
        Add(Severity::kNote, "package " + package->packageName,
            "forceUpdate \"2\" lists the installed version " + Quoted(version) +
                ": its kits run, and clients that ask are told to update");
      }
    }
    return packages;
  }

  void CheckPackage(const PackageInfo& package) {
    const std::string subject = "package " + package.packageName;
    if (package.packageName.empty()) {
      Add(Severity::kError, "remote configuration", "an entry of packageInfo has no packageName: none of it runs",
          "give it the name of its folder under kits/");
      return;
    }
    const std::string folder = install_ + tarn::config::kKitsDir + package.packageName;
    if (!IsDirectory(folder)) {
      Add(Severity::kError, subject, "the remote configuration names it, but " + folder + " is missing",
          "install the package, or take it out of packageInfo");
      return;
    }
    const std::string serviceInfo = folder + tarn::config::kServiceInfoFile;
    if (Exists(serviceInfo)) CheckServiceInfo(subject, serviceInfo);

    SubKitConfigList kits;
    const std::string manifest = folder + tarn::config::kKitManifestFile;
    if (!ReadManifest(subject, package, manifest, kits)) return;
    if (kits.empty()) return;

    const std::string fileName = kits.front()->fileName;
    if (fileName.empty()) {
      Add(Severity::kError, subject, "kitManifest.json has no fileName: the container can't find the kit library",
          "name the library in the manifest's fileName");
      return;
    }
    const std::string library = folder + "/" + fileName;
    const std::string what = "library " + fileName;
    if (!Exists(library)) {
      Add(Severity::kError, subject,
          what + " is missing: the container can't load it (\"LoadKit sign verify failed.\") and requests for its "
                 "apis answer " + kLoadKitFailed,
          "install the library beside kitManifest.json, or correct fileName");
      return;
    }
    CheckSignature(subject, what, library, ts::Trust::kPlatformOrMaker,
                   std::string("the container refuses to load it (\"LoadKit sign verify failed.\") and requests "
                               "for its apis answer ") + kLoadKitFailed);
    KitImage image;
    if (!ReadImage(subject, what, library, image)) return;
    CheckVerifyString(subject, what, image, kits.front()->kitManifVerify);
    for (const auto& kit : kits) CheckExports(subject, what, *kit, image);
  }

  // The manifest's kits that the remote configuration lets run; false when
  // none can be read.
  bool ReadManifest(const std::string& subject, const PackageInfo& package, const std::string& path,
                    SubKitConfigList& kits) {
    Json::Value root;
    bool opened = false;
    int error = 0;
    std::string errors;
    if (!tarn::config::ParseConfigFile(path, root, opened, error, &errors)) {
      if (!opened) {
        Add(Severity::kError, subject,
            "kitManifest.json can't be read (" + std::string(std::strerror(error)) +
                "): the package has no kits (\"Open kit config failed\")",
            "install the package's kitManifest.json");
      } else {
        Add(Severity::kError, subject,
            "kitManifest.json isn't valid JSON (" + OneLine(errors) +
                "): the container reads no kit of it (\"init config,data parse error.\")",
            "correct the manifest's JSON (comments are allowed) and build the kit again: the library carries "
            "its manifest's digest");
      }
      return false;
    }
    tarn::config::ManifestSink quiet;
    try {
      tarn::config::ReadManifestKits(root, package.packageName, DE::GetFileSha256Hex(path), kits, quiet);
    } catch (const Json::LogicError& e) {
      Add(Severity::kError, subject,
          "kitManifest.json has a value of the wrong JSON type " +
              (kits.empty() ? std::string("at its top or in kits[0]") : "in kits[" + std::to_string(kits.size()) + "]") +
              " (" + e.what() + "): the container stops reading its configuration there, so its start ends "
              "without kits and no kit api is served (" + kApiNotSupported + ")",
          "correct it: every value the container reads there is a string or a number");
      return false;
    }
    for (const auto& kit : kits) {
      if (!tarn::config::IsKitListed(kit->kitName, package.subKits.get())) {
        Add(Severity::kWarning, subject,
            "kit " + Quoted(kit->kitName) + " isn't in the remote configuration's subKits: it doesn't run",
            "add {\"kitName\": " + Quoted(kit->kitName) + "} to the package's subKits");
      }
    }
    for (const auto& listed : *package.subKits) {
      const bool inManifest = std::any_of(kits.begin(), kits.end(),
                                          [&](const auto& kit) { return kit->kitName == listed->kitName; });
      if (!inManifest) {
        Add(Severity::kWarning, subject,
            "the remote configuration names kit " + Quoted(listed->kitName) + ", which kitManifest.json doesn't have",
            "correct the kitName in subKits or in the manifest");
      }
    }
    tarn::config::FilterSubKits(kits, package.subKits.get());
    return true;
  }

  bool ReadImage(const std::string& subject, const std::string& what, const std::string& path, KitImage& image) {
    std::string bytes;
    std::string error;
    if (!ReadFile(path, bytes, kMaxLibrarySize)) {
      error = "can't be read";
    } else if (image.Parse(std::move(bytes), error)) {
      return true;
    }
    Add(Severity::kError, subject,
        what + " isn't a kit library (" + error + "): loading it fails (\"LoadLibraryEx failed\") and requests for "
               "its apis answer " + kLoadKitFailed,
        "build it as a shared library for x86-64 with tarn_add_kit");
    return false;
  }

  void CheckVerifyString(const std::string& subject, const std::string& what, const KitImage& image,
                         const std::string& digest) {
    std::u16string text;
    const KitImage::Lookup lookup = image.KitString(kTarnKitVerifyStringId, text);
    if (lookup == KitImage::Lookup::kBroken) {
      Add(Severity::kError, subject,
          what + " has a damaged string table (TarnKitStrings points outside the library)",
          "build the kit again with tarn_add_kit");
      return;
    }
    const std::string folded =
        lookup == KitImage::Lookup::kFound ? tarn::kit::FoldVerifyString(text.c_str()) : std::string();
    switch (tarn::kit::MatchVerifyCode(folded, digest)) {
      case tarn::kit::VerifyCodeMatch::kNoString:
        Add(Severity::kWarning, subject,
            what + " has no verification string (entry 199 of TarnKitStrings): the container loads it without "
                   "tying it to its manifest",
            "build the kit with tarn_add_kit, which writes the manifest's digest into the library");
        break;
      case tarn::kit::VerifyCodeMatch::kNoDigest:
        Add(Severity::kWarning, subject, "the digest of kitManifest.json can't be taken: the library's string isn't compared");
        break;
      case tarn::kit::VerifyCodeMatch::kEqual:
        Add(Severity::kOk, subject, what + ": string 199 equals the SHA-256 of kitManifest.json");
        break;
      case tarn::kit::VerifyCodeMatch::kDifferent:
        Add(Severity::kError, subject,
            what + ": string 199 (" + folded + ") differs from the SHA-256 of kitManifest.json (" + digest +
                "): the manifest isn't the one the library was built with, so the container unloads it right "
                "after loading (\"dllPluginVerify is not equal to kitManifVerify!\") and requests for its apis "
                "answer " + kLoadKitFailed,
            "build the kit again with this manifest (tarn_add_kit writes its digest), or put back the manifest "
            "it was built with");
        break;
    }
  }

  void CheckExports(const std::string& subject, const std::string& what, const SubKitConfig& kit,
                    const KitImage& image) {
    const std::string name = "kit " + Quoted(kit.kitName);
    if (kit.type != "app") {
      Add(Severity::kWarning, subject,
          name + " has type " + Quoted(kit.type) + ": the container never loads it, and requests for its apis "
                 "answer " + kLoadKitFailed,
          "set its type to \"app\" or leave it out");
    }
    if (kit.apiLevel.empty()) {
      Add(Severity::kWarning, subject,
          name + " has no apiLevel: the container reports its apis as not there (" + kApiNotSupported + ")",
          "give the kit the api level it serves");
    }
    bool complete = true;
    if (!image.Exports(kit.entry)) {
      complete = false;
      Add(Severity::kError, subject,
          what + " doesn't export the entry function " + Quoted(kit.entry) + " of " + name +
              ": the container loads it, finds no entry and gives the package up until it restarts "
              "(\"LoadKit method init invoke failed.\"); requests for its apis answer " + kApiNotSupported,
          "export it as TARN_KIT_API void " + kit.entry + "(TarnKitCallback broadcast), or name the right "
          "function in the manifest's entry");
    }
    std::size_t apis = 0;
    for (const auto& api : *kit.apis) {
      if (api->apiName.empty() || !image.Exports(api->apiName)) {
        complete = false;
        Add(Severity::kError, subject,
            what + " doesn't export the function " + Quoted(api->apiName) + " of api " + Quoted(api->uri) +
                ": requests for it answer " + kApiNotSupported,
            "export it as TARN_KIT_API void " + (api->apiName.empty() ? std::string("Name") : api->apiName) +
                "(const char* header, const char* body, TarnKitCallback callback), or correct apiName");
      } else {
        ++apis;
      }
    }
    if (complete) {
      Add(Severity::kOk, subject,
          name + ": entry " + Quoted(kit.entry) + " and " + Count(apis, "api function") + " exported" +
              (kit.startup == "true" ? "" : ", loaded on its first request"));
    }
  }

  void CheckServiceInfo(const std::string& subject, const std::string& path) {
    const ZServiceManager::ServiceInfoFile file = ZServiceManager::ReadServiceInfo(path);
    if (file.state != ZServiceManager::ServiceInfoFile::State::kRead) {
      Add(Severity::kError, subject,
          "ServiceInfo.json " +
              (file.state == ZServiceManager::ServiceInfoFile::State::kUnreadable
                   ? std::string("can't be read")
                   : "isn't a service description (" + OneLine(file.error) + ")") +
              ": none of its services is registered",
          "write it as {\"services\": [{\"name\": ..., \"kind\": \"library\" or \"sandbox\", \"path\": ..., "
          "\"methods\": [...]}]}");
      return;
    }
    for (const auto& entry : file.entries) {
      const std::string service = "service " + Quoted(entry.info.name);
      switch (entry.problem) {
        case ZServiceManager::ServiceEntry::Problem::kMalformed:
          Add(Severity::kError, subject,
              "an entry of ServiceInfo.json lacks a text name, kind or path or a methods array: it is passed over",
              "complete the entry");
          break;
        case ZServiceManager::ServiceEntry::Problem::kUnknownKind:
          Add(Severity::kError, subject, service + " has kind " + Quoted(entry.kindText) + ": it is passed over",
              "use \"library\" or \"sandbox\"");
          break;
        case ZServiceManager::ServiceEntry::Problem::kBadPath:
          Add(Severity::kError, subject,
              service + " has no name or its path " + Quoted(entry.pathText) +
                  " leaves the package folder: it is passed over",
              "give a path relative to the package folder");
          break;
        case ZServiceManager::ServiceEntry::Problem::kBadSignature:
          if (!Exists(entry.info.path)) {
            Add(Severity::kError, subject, service + ": " + entry.info.path + " is missing, so it isn't registered",
                "install the file, or correct the path");
          } else {
            CheckSignature(subject, service + " (" + entry.pathText + ")", entry.info.path,
                           ts::Trust::kPlatformOrMaker, "the service isn't registered");
          }
          break;
        case ZServiceManager::ServiceEntry::Problem::kNone:
          CheckSignature(subject, service + " (" + entry.pathText + ")", entry.info.path, ts::Trust::kPlatformOrMaker,
                         "the service isn't registered");
          if (CheckServiceMethods(subject, service, entry.info) &&
              std::find(std::begin(kScopeServices), std::end(kScopeServices), entry.info.name) !=
                  std::end(kScopeServices)) {
            scopeService_ = true;
          }
          break;
      }
    }
  }

  bool CheckServiceMethods(const std::string& subject, const std::string& service,
                           const ZServiceManager::ServiceInfo& info) {
    if (info.kind == ZServiceManager::Kind::Sandbox) {
      if (::access(info.path.c_str(), X_OK) == 0) return true;
      Add(Severity::kError, subject, service + ": " + info.path + " isn't executable, so the service can't start",
          "chmod +x it");
      return false;
    }
    KitImage image;
    if (!ReadImage(subject, service + " library", info.path, image)) return false;
    bool all = true;
    for (const auto& method : info.methods) {
      if (image.Exports(method)) continue;
      all = false;
      Add(Severity::kError, subject,
          service + ": " + info.path + " doesn't export the factory " + Quoted(method) +
              ", so no instance can be made through it",
          "export extern \"C\" bool " + method + "(std::shared_ptr<tarn::zbrf::ZObject>* out)");
    }
    return all;
  }

  // Kit folders the remote configuration doesn't name are never read.
  void CheckUnlistedFolders(const PackageInfoList& packages) {
    std::set<std::string> named;
    for (const auto& package : packages) named.insert(package->packageName);
    std::error_code error;
    std::vector<std::string> folders;
    for (const auto& entry : std::filesystem::directory_iterator(install_ + tarn::config::kKitsDir, error)) {
      if (entry.is_directory(error) && !named.count(entry.path().filename().string())) {
        folders.push_back(entry.path().filename().string());
      }
    }
    std::sort(folders.begin(), folders.end());
    for (const auto& folder : folders) {
      Add(Severity::kWarning, "package " + folder,
          "kits/" + folder + " isn't named in the remote configuration's packageInfo: the container never reads it",
          "add {\"packageName\": " + Quoted(folder) + ", \"subKits\": [{\"kitName\": ...}]} to packageInfo");
    }
  }

  void CheckScopeService() {
    if (scopeService_) return;
    Add(Severity::kError, "scope service",
        "no package of the remote configuration registers wasm.scopeService or dll.scopeService: the container "
        "can't ask who a caller is or what it may do, so it refuses requests (\"API is illegal. \")",
        "install the scope service package (kits/com.vantrel.scopeservice with its ServiceInfo.json) and list it "
        "in the remote configuration's packageInfo");
  }

  void CheckPolicy() {
    const std::string subject = "scope policy";
    const std::string path = tarn::scope::DefaultPolicyPath();
    const char* refused = "the scope service refuses every caller and every permission";
    const char* format = "a JSON object whose \"clients\" object maps each client_id to its \"fingerprints\" "
                         "and \"permissions\"";
    std::string text;
    if (!Exists(path)) {
      Add(Severity::kError, subject, path + " is missing: " + refused, std::string("write it: ") + format);
      return;
    }
    std::map<std::string, tarn::scope::PolicyClient> clients;
    std::string error;
    if (!tarn::scope::ReadPolicyFile(path, text)) {
      Add(Severity::kError, subject, path + " can't be read as a file of at most 4 MiB: " + refused,
          "make it a readable regular file");
      return;
    }
    if (!tarn::scope::ParsePolicy(text, clients, error)) {
      Add(Severity::kError, subject, path + " isn't a policy (" + OneLine(error) + "): " + refused,
          std::string("correct it: ") + format);
      return;
    }
    if (clients.empty()) {
      Add(Severity::kWarning, subject, path + " lists no client: every caller is refused",
          "list each client_id with the fingerprints of its programs' signers");
      return;
    }
    std::set<std::string> trusted;
    for (const auto& file : keys_) trusted.insert(ts::Fingerprint(*file.key));
    std::string names;
    for (const auto& [id, client] : clients) {
      names += (names.empty() ? "" : ", ") + id;
      const std::string who = "client " + Quoted(id);
      if (client.fingerprints.empty()) {
        Add(Severity::kWarning, subject, who + " has no fingerprint: its requests are refused (\"API is illegal. \")",
            "add the fingerprint of its signer: tarncore-sign fingerprint PROGRAM");
      }
      for (const auto& fingerprint : client.fingerprints) {
        if (!IsHex64(fingerprint)) {
          Add(Severity::kWarning, subject,
              who + ": fingerprint " + Quoted(fingerprint) + " isn't 64 hexadecimal digits, so no program matches it",
              "put the signer's fingerprint there: tarncore-sign fingerprint PROGRAM");
        } else if (!trusted.count(fingerprint)) {
          Add(Severity::kNote, subject,
              who + ": fingerprint " + fingerprint + " belongs to no trusted key, so a program signed with it "
                    "doesn't pass the signature check before the policy is asked");
        }
      }
    }
    Add(Severity::kOk, subject, path + " lists " + Count(clients.size(), "client") + ": " + names);
  }

  // A process of that name that serves this machine root: its TARNCORE_ROOT
  // is ours (an environment that can't be read counts as ours).
  static bool RunsForThisRoot(const char* name) {
    const std::string root = tarn::os::MachineRoot();
    for (pid_t pid : tarn::os::GetProcesses().FindByName(name)) {
      std::string environment;
      if (!ReadFile("/proc/" + std::to_string(pid) + "/environ", environment, 1u << 20)) return true;
      std::string theirs;
      for (std::size_t at = 0; at < environment.size();) {
        const std::size_t end = std::min(environment.find('\0', at), environment.size());
        const std::string_view entry(environment.data() + at, end - at);
        if (entry.substr(0, 14) == "TARNCORE_ROOT=") theirs = entry.substr(14);
        at = end + 1;
      }
      while (!theirs.empty() && theirs.back() == '/') theirs.pop_back();
      if (theirs == root) return true;
    }
    return false;
  }

  void CheckOnline() {
    const std::string subject = "service";
    const bool service = RunsForThisRoot("TarnCoreService");
    const bool container = RunsForThisRoot("TarnCoreContainer");
    if (service) {
      Add(Severity::kOk, subject, "TarnCoreService runs for this machine root");
    } else {
      Add(Severity::kError, subject, "TarnCoreService doesn't run for this machine root",
          "start it: systemctl start TarnCoreService (or run TarnCoreService from the install directory)");
    }
    if (container) {
      Add(Severity::kOk, subject, "TarnCoreContainer runs for this machine root");
    } else if (service) {
      Add(Severity::kError, subject,
          "TarnCoreContainer doesn't run although TarnCoreService does: the service starts it again after a pause",
          "look at TarnCoreService.log for why it ended");
    }
    const std::string socket = tarn::ipc::SocketPath();
    tarncore::Client client;
    const tarncore::Response response = client.Send("diagnose", kSocketTimeoutMs);
    if (response.clientCode == tarncore::kOk) {
      const std::string status = response.StatusCode();
      if (status == "907135011") {
        Add(Severity::kWarning, subject, socket + " answers, but the container hasn't finished its start",
            "ask again in a few seconds");
      } else {
        Add(Severity::kOk, subject, socket + " answers (status " + status + " to a request that isn't JSON)");
      }
      return;
    }
    Add(Severity::kError, subject,
        socket + " " +
            (response.clientCode == tarncore::kServiceNotUsed
                 ? std::string("takes no connection")
                 : response.clientCode == tarncore::kTimeout ? "doesn't answer within " +
                                                                   std::to_string(kSocketTimeoutMs) + " ms"
                                                             : std::string("closed the connection without an answer")) +
            " (" + std::to_string(response.clientCode) + " " + tarncore::ClientCodeText(response.clientCode) + ")",
        "start TarnCoreService, and look at TarnCoreContainer.log when it runs");
  }

  const Options& options_;
  Report report_;
  std::string install_;  // with its trailing '/'
  std::vector<ts::TrustedKeyFile> keys_;
  bool scopeService_ = false;
  bool packageListWhole_ = false;  // the remote configuration's list was read to its end
};

}  // namespace

Report Run(const Options& options) { return Checker(options).Run(); }

}  // namespace tarn::diagnose
