#include <gtest/gtest.h>

#include <filesystem>

#include "container/FirewallUtils.h"
#include "platform/log/log_capture.h"
#include "support/temp_root.h"

using tarn::log::Level;
using tarn::log::LogCapture;

namespace {

class FirewallTest : public ::testing::Test {
 protected:
  std::string Rule(const std::string& name) const { return root.ReadFile("etc/tarncore/firewall.d/" + name + ".rule"); }
  static std::string Expected(const std::string& name, const std::string& program) {
    return "name=" + name + "\ndescription=" + name + "\ngrouping=" + name + "Group\napplicationName=" + program +
           "\nprofiles=2147483647\naction=1\nenabled=true\n";
  }

  tarn::test::TempRoot root;
};

TEST_F(FirewallTest, AddsBothRulesOnceWhateverSeparatorsTheDirectoryEndsIn) {
  root.MakeDir("opt/tarncore");
  const std::string install = root.At("opt/tarncore");
  // One trailing separator is taken off the caller's text; the rules never hold "//".
  const struct { std::string given, left, program; } cases[] = {
      {install, install, install}, {install + "/", install, install}, {install + "//", install + "/", install},
      {"/", "/", ""}};
  LogCapture log;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.given);
    std::filesystem::remove_all(root.At("etc/tarncore/firewall.d"));
    std::wstring directory(c.given.begin(), c.given.end());
    EXPECT_TRUE(FirewallUtils::AddContainerUIRule(directory));
    EXPECT_EQ(directory, std::wstring(c.left.begin(), c.left.end()));
    EXPECT_EQ(Rule("TarnCoreContainerRule"), Expected("TarnCoreContainerRule", c.program + "/TarnCoreContainer"));
    EXPECT_EQ(Rule("TarnCoreUIRule"), Expected("TarnCoreUIRule", c.program + "/TarnCoreUI"));
  }
  EXPECT_TRUE(log.Has(Level::Info, "Windows firewall not have ruleName: TarnCoreUIRule, errorcode: -2147024894(AddFwRule)"));
  EXPECT_TRUE(log.Has(Level::Info, "Firewall Rule Add successfully. ruleName = TarnCoreContainerRule, retcode = 0(AddFwRule)"));

  // Second start, from a moved installation: the look-up is by name, so the old rules stay.
  root.MakeDir("srv/moved");
  const std::string moved = root.At("srv/moved");
  std::wstring movedDirectory(moved.begin(), moved.end());
  log.Clear();
  EXPECT_TRUE(FirewallUtils::AddContainerUIRule(movedDirectory));
  EXPECT_EQ(log.Count(Level::Info, "Windows firewall have already exist ruleName: TarnCoreContainerRule(AddFwRule)"), 1u);
  EXPECT_EQ(log.Count(Level::Info, "Windows firewall have already exist ruleName: TarnCoreUIRule(AddFwRule)"), 1u);
  EXPECT_EQ(Rule("TarnCoreContainerRule"), Expected("TarnCoreContainerRule", "/TarnCoreContainer"));
}

TEST_F(FirewallTest, NoDirectoryNoRuleAndUnreachableFirewall) {
  std::wstring missing = L"/no/such/tarncore/";
  EXPECT_TRUE(FirewallUtils::AddContainerUIRule(missing));
  EXPECT_EQ(Rule("TarnCoreContainerRule"), "");
  EXPECT_EQ(Rule("TarnCoreUIRule"), "");

  // A file where the rule directory belongs: the firewall can't be reached.
  std::filesystem::remove_all(root.At("etc/tarncore/firewall.d"));
  root.WriteFile("etc/tarncore/firewall.d", "");
  root.MakeDir("opt/tarncore");
  const std::string install = root.At("opt/tarncore");
  std::wstring directory(install.begin(), install.end());
  LogCapture log;
  EXPECT_FALSE(FirewallUtils::AddContainerUIRule(directory));
  EXPECT_TRUE(log.Contains("WFCOMInitialize failed: "));
}

}  // namespace
