#pragma once
// Makes sure the firewall lets the platform's two programs accept connections.
// The firewall's rules are files: firewall.d/<rule name>.rule under the machine
// root, one "key=value" line per property in the order they are set:
//
//   name=TarnCoreContainerRule
//   description=TarnCoreContainerRule
//   grouping=TarnCoreContainerRuleGroup
//   applicationName=/opt/tarncore/TarnCoreContainer
//   profiles=2147483647
//   action=1
//   enabled=true
//
// Properties not written keep the firewall's defaults (inbound, any protocol).
// A rule exists when its file does; what it holds is not looked at.
#include <cstdint>
#include <memory>
#include <string>

namespace tarn::container {

// A rule as the firewall stores it.
struct FirewallRule {
  std::string name;
  std::string description;
  std::string grouping;
  std::string applicationName;
  std::int32_t profiles = 0x7FFFFFFF;  // all profiles
  std::int32_t action = 1;             // allow
  bool enabled = true;
};

// The rule store; results are 0 or an HRESULT made of the errno.
class FirewallRules {
 public:
  explicit FirewallRules(std::string directory) : directory_(std::move(directory)) {}
  // 0 when a rule of that name exists.
  std::int32_t Item(const std::string& name) const;
  // Writes the rule's file atomically; an existing one is replaced.
  std::int32_t Add(const FirewallRule& rule) const;
  const std::string& directory() const { return directory_; }

 private:
  std::string directory_;
};

// The firewall's policy: its rule directory, made when missing.
class FirewallPolicy {
 public:
  explicit FirewallPolicy(std::string directory) : directory_(std::move(directory)) {}
  // The rules collection; 0 when the directory can be opened.
  std::int32_t get_Rules(std::unique_ptr<FirewallRules>* rules) const;

 private:
  std::string directory_;
};

// Text of a rule's file.
std::string RenderFirewallRule(const FirewallRule& rule);

}  // namespace tarn::container

// Opens the firewall's policy under the machine root. 0 or the error.
std::int32_t WFCOMInitialize(std::unique_ptr<tarn::container::FirewallPolicy>* policy);

// Adds the rule unless one of that name exists. False only when no rule could be made.
bool AddFwRule(const std::wstring& ruleName, const std::wstring& ruleDescription,
               const std::wstring& ruleGroup, const std::wstring& programPath,
               tarn::container::FirewallRules& rules);

class FirewallUtils {
 public:
  // Rules for <dir>/TarnCoreContainer and <dir>/TarnCoreUI. A trailing '/' is
  // removed from installDirectory. True unless the firewall couldn't be reached;
  // a directory that doesn't exist gets no rule and still gives true.
  static bool AddContainerUIRule(std::wstring& installDirectory);
};
