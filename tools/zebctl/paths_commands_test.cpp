// zebctl paths as its users run it: whole outputs and exit statuses.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

using nlohmann::json;

const std::string kIws = std::string(sandbox::kLockDirectory) + "/iws";

ProgramResult Paths(std::vector<std::string> arguments = {}) {
  arguments.insert(arguments.begin(), {ZEBCTL_PATH, "paths"});
  return RunProgram(arguments);
}

// What is printed with these values, which are what can change.
std::string Answer(const std::string &iwsTemporary, const std::string &schemaPrefix, const std::string &modular) {
  return "WHAT                 VALUE\n"
         "install path         /opt/vorn/fleetops/\n"
         "root install path    /opt/vorn/fleetops\n"
         "INI files            /opt/vorn/fleetops/etc/kelvestane/\n"
         "variable data        /opt/vorn/fleetops/var/lib/kelvestane/\n"
         "XSL root             /opt/vorn/fleetops/var/lib/kelvestane/xslroot/\n"
         "WWW root             /opt/vorn/fleetops/var/lib/kelvestane/wwwroot/\n"
         "uploads              /opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/upload\n"
         "downloads            /opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/download\n"
         "web documents        /opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/docs/en_US\n"
         "CLI documents        /opt/vorn/fleetops/var/lib/kelvestane/cliroot//zeb/docs/en_US\n"
         "IWS temporary files  " +
         iwsTemporary +
         "\n"
         "OS locale            en_US\n"
         "OS language          en\n"
         "OS country           US\n"
         "schema prefix        " +
         schemaPrefix +
         "\n"
         "modular chassis      " +
         modular + "\n";
}

const std::string kTemporary = "/opt/vorn/fleetops/var/lib/kelvestane/iws/temp";

const std::string kNotMade =
    "The directory for IWS temporary files could not be made in /opt/vorn/fleetops/var/lib/kelvestane/iws: ";

}  // namespace

TEST(ZebctlPaths, PrintsEveryPathAndSetting) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(kIws));
  const ProgramResult result = Paths();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output, Answer(kTemporary, "vorn", "no"));
}

TEST(ZebctlPaths, PrintsJSON) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(kIws));
  ASSERT_TRUE(sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/qxcli32.ini", "[blade]\nblade=true\n"));
  ASSERT_TRUE(
      sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/oem.ini", "[data]\nadschemaprefix=a\"b\xFF\n"));
  const ProgramResult result = Paths({"--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "{\n"
            "  \"install\": \"/opt/vorn/fleetops/\",\n"
            "  \"rootInstall\": \"/opt/vorn/fleetops\",\n"
            "  \"ini\": \"/opt/vorn/fleetops/etc/kelvestane/\",\n"
            "  \"var\": \"/opt/vorn/fleetops/var/lib/kelvestane/\",\n"
            "  \"xslRoot\": \"/opt/vorn/fleetops/var/lib/kelvestane/xslroot/\",\n"
            "  \"wwwRoot\": \"/opt/vorn/fleetops/var/lib/kelvestane/wwwroot/\",\n"
            "  \"upload\": \"/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/upload\",\n"
            "  \"download\": \"/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/download\",\n"
            "  \"webDocuments\": \"/opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/docs/en_US\",\n"
            "  \"cliDocuments\": \"/opt/vorn/fleetops/var/lib/kelvestane/cliroot//zeb/docs/en_US\",\n"
            "  \"iwsTemporary\": \"/opt/vorn/fleetops/var/lib/kelvestane/iws/temp\",\n"
            "  \"locale\": \"en_US\",\n"
            "  \"language\": \"en\",\n"
            "  \"country\": \"US\",\n"
            "  \"schemaPrefix\": \"a\\\"b\xEF\xBF\xBD\",\n"
            "  \"modularChassis\": true,\n"
            "  \"errors\": []\n"
            "}\n");
}

TEST(ZebctlPaths, SettingsAreThoseOfTheFiles) {
  sandbox::RequireSandbox();
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  ASSERT_TRUE(sandbox::MakeDirectories(kIws));
  ASSERT_TRUE(sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/qxcli32.ini", "[blade]\nblade=true\n"));
  ASSERT_TRUE(
      sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/oem.ini", "[data]\nadschemaprefix=my prefix\x1B\n"));
  EXPECT_EQ(Paths().output, Answer(kTemporary, "my prefix\\u001b", "yes"));
}

TEST(ZebctlPaths, AskingMakesTheDirectoryForTemporaryFiles) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(kIws));
  ASSERT_FALSE(std::filesystem::exists(kTemporary));
  EXPECT_EQ(Paths().status, 0);
  struct stat information {};
  ASSERT_EQ(stat(kTemporary.c_str(), &information), 0);
  EXPECT_TRUE(S_ISDIR(information.st_mode));
  EXPECT_EQ(information.st_mode & 07777U, 0755U);
}

TEST(ZebctlPaths, DirectoryThatCannotBeMadeIsExplained) {
  sandbox::RequireSandbox();
  const ProgramResult plain = Paths();
  EXPECT_EQ(plain.status, 1);
  EXPECT_EQ(plain.errors, "zebctl: " + kNotMade + "No such file or directory.\n");
  EXPECT_EQ(plain.output, Answer("-", "vorn", "no"));
  const ProgramResult asJSON = Paths({"--json"});
  EXPECT_EQ(asJSON.status, 1);
  EXPECT_EQ(asJSON.errors, "");
  const json answer = json::parse(asJSON.output);
  EXPECT_EQ(answer["iwsTemporary"], nullptr);
  EXPECT_EQ(answer["errors"], json::array({kNotMade + "No such file or directory."}));
  EXPECT_EQ(answer["install"], "/opt/vorn/fleetops/");

  // A dangling link in the way of the directory itself: what is above it is in order.
  ASSERT_TRUE(sandbox::MakeDirectories(kIws));
  std::filesystem::create_symlink("nowhere", kTemporary);
  EXPECT_EQ(Paths().errors,
            "zebctl: The directory for IWS temporary files could not be made in "
            "/opt/vorn/fleetops/var/lib/kelvestane/iws.\n");
}

TEST(ZebctlPaths, LibraryThatIsNotAttachedIsNamed) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/qxcli32.ini", "[blade]\nblade=true\n"));
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  const ProgramResult result = Paths();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(
      result.errors,
      "zebctl: The library is not attached, as its lock file /opt/vorn/fleetops/var/lib/kelvestane/.zebipc cannot "
      "be opened. The directory must be there, and this account must be allowed to open the file. Without it, the "
      "settings are their defaults.\n"
      "zebctl: " +
          kNotMade + "No such file or directory.\n");
  EXPECT_EQ(result.output, Answer("-", "vorn", "no"));
}

TEST(ZebctlPaths, CommandLineIsExplained) {
  sandbox::RequireSandbox();
  const ProgramResult help = Paths({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.errors, "");
  EXPECT_NE(help.output.find("Usage: zebctl paths"), std::string::npos) << help.output;
  EXPECT_NE(help.output.find("IWS temporary files makes it"), std::string::npos) << help.output;
  EXPECT_NE(help.output.find("Exit status: 0"), std::string::npos) << help.output;
  EXPECT_NE(help.output.find("\n             3  the output"), std::string::npos) << help.output;
  const ProgramResult mistake = Paths({"more"});
  EXPECT_EQ(mistake.status, 2);
  EXPECT_EQ(mistake.output, "");
  EXPECT_EQ(mistake.errors, "zebctl: \"more\" is not understood here.\nRun \"zebctl paths --help\" to see what is.\n");
}
