#pragma once
// The configuration's readers without the process-wide state: which copy of
// remoteConfig.json counts, its number keys, its package list and a kit
// manifest's records, read exactly as the container reads them. ConfigManager
// runs them with its log lines and side effects; other programs (the
// `tarncore diagnose` checks) run them to learn what the container will make
// of a machine.
//
// Like the container, the readers let Json::LogicError out where a value of
// the wrong kind stands (an object where a scalar belongs, an array read by
// key, ...). What was read before the throw stays in the output.
#include <cstdint>
#include <string>

#include <json/json.h>

#include "config/ConfigRecords.h"

namespace tarn::config {

// Which copy of the remote configuration is read: the cached copy when it is a
// JSON object with a "packageInfo" array, else the installed copy.
struct RemoteConfigChoice {
  enum class Cache { kAbsent, kUnsound, kChosen };
  std::string path;
  Cache cache = Cache::kAbsent;
};
// installDirectory ends with '/'.
RemoteConfigChoice ChooseRemoteConfig(const std::string& installDirectory);

// A number key of the remote configuration, the way GetKeyValue takes it.
struct KeyValue {
  enum class Problem { kNone, kInvalid, kOutOfRange, kTooSmall };
  std::int32_t value = 0;  // what counts: the read value, or the default
  Problem problem = Problem::kNone;
  std::int32_t read = 0;   // the converted value, for kTooSmall
  std::string what;        // the conversion's exception text, for kInvalid and kOutOfRange
};
KeyValue ReadKeyValue(const Json::Value& root, const char* key, std::int32_t defaultValue,
                      std::int32_t minKeyValue);

// What reading the package list does beside building it; the container logs
// and reads each package's manifest here. Every step is optional.
class PackageListSink {
 public:
  virtual ~PackageListSink() = default;
  // Each invalidVersionCode entry of a package asking for "1" or "2", as read.
  virtual void VersionCodeRead(const std::string& code) { (void)code; }
  // After the codes of such a package, with its flag settled.
  virtual void ForceUpdateSettled(const PackageInfo& info) { (void)info; }
  // A package whose flag came out "1": the text of forceUpgradeTimeInterval.
  virtual void ForcedPackage(const std::string& intervalText) { (void)intervalText; }
  // The entry is read whole (its subKits included).
  virtual void PackageRead(const PackageInfo& info) { (void)info; }
};
// Reads root's "packageInfo" into list, each entry appended before it is read.
// A package is condemned ("1" or "2") only when installedVersion is listed.
void ReadPackageList(const Json::Value& root, const std::string& installedVersion,
                     PackageInfoList& list, PackageListSink& sink);

// The defaults of a kit and of an api: empty type "app", entry "Init", startup
// "true"; empty verifyCaller "true".
void SupplySubKitDefaults(SubKitConfig& subKit);
void SupplyKitApiDefaults(KitApiInfo& api);

// What reading a manifest does beside building the records (the container's log lines).
class ManifestSink {
 public:
  virtual ~ManifestSink() = default;
  virtual void SubKitSupplied(const SubKitConfig& subKit) { (void)subKit; }
  virtual void ApiSupplied(const KitApiInfo& api) { (void)api; }
};
// Fills one record from one element of a manifest's "kits".
void ReadSubKitElement(SubKitConfig& subKit, const std::string& kitName, const Json::Value& element,
                       ManifestSink& sink);
// Reads a parsed kitManifest.json of packageName into out, one record per
// element of "kits", each appended when it is read whole; digest is the
// manifest file's SHA-256 as every record's kitManifVerify.
void ReadManifestKits(const Json::Value& root, const std::string& packageName,
                      const std::string& digest, SubKitConfigList& out, ManifestSink& sink);

// True if a record of the remote configuration's subKits has that kitName
// (exact bytes; a null list names nothing).
bool IsKitListed(const std::string& kitName, const SubKitConfigList* remoteSubKits);
// Removes the records the remote configuration doesn't name.
void FilterSubKits(SubKitConfigList& subKits, const SubKitConfigList* remoteSubKits);

}  // namespace tarn::config
