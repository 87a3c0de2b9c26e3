// The interface that callers were built with: the ABI of the library as libabigail sees it, and the constants of the
// headers, beside what abi/update has written down.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "program.h"
#include "sandbox.h"

namespace {

const std::string kSource = ZEBCS_SOURCE_DIR;

ProgramResult Compare(const std::string &abi) {
  return RunProgram({ZEBCS_ABIDIFF, "--exported-interfaces-only", abi, ZEBCS_LIBRARY});
}

// The report of a comparison with the ABI after a change to what is written down.
std::string ReportOfChange(const std::string &from, const std::string &to) {
  const sandbox::TemporaryDirectory directory;
  std::string abi = sandbox::ReadFile(kSource + "/abi/libzebcs.abi");
  const size_t place = abi.find(from);
  EXPECT_NE(place, std::string::npos) << from;
  if (place == std::string::npos) return {};
  abi.replace(place, from.size(), to);
  sandbox::WriteFile(directory.path() + "/changed.abi", abi);
  const ProgramResult result = Compare(directory.path() + "/changed.abi");
  EXPECT_NE(result.status, 0);
  return result.output;
}

}  // namespace

TEST(ABI, IsTheOneThatCallersWereBuiltWith) {
  const ProgramResult result = Compare(kSource + "/abi/libzebcs.abi");
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
}

TEST(ABI, ChangedStructureIsReportedByName) {
  const std::string report = ReportOfChange("<class-decl name='KCSECInfo' size-in-bits='32'",
                                            "<class-decl name='KCSECInfo' size-in-bits='64'");
  EXPECT_NE(report.find("KCSECInfo"), std::string::npos) << report;
  EXPECT_NE(report.find("size changed from 64 to 32"), std::string::npos) << report;
}

TEST(ABI, ChangedParameterIsReportedByName) {
  const std::regex number("typedef-decl name='s64' type-id='[^']+'[^>]* id='([^']+)'");
  const std::string abi = sandbox::ReadFile(kSource + "/abi/libzebcs.abi");
  std::smatch type;
  ASSERT_TRUE(std::regex_search(abi, type, number));
  const size_t function = abi.find("<function-decl name='HashTableBytesNeeded'");
  const size_t start = abi.find("<parameter type-id='", function);
  const size_t end = abi.find("/>", start);
  ASSERT_NE(end, std::string::npos);
  const std::string report = ReportOfChange(
      abi.substr(function, end - function),
      abi.substr(function, start - function) + "<parameter type-id='" + type[1].str() + "' name='maxHashID'");
  EXPECT_NE(report.find("HashTableBytesNeeded"), std::string::npos) << report;
}

TEST(ABI, MissingFunctionIsReportedByName) {
  const std::string report = ReportOfChange("<elf-symbol name='KCSMD5Hash'", "<elf-symbol name='KCSMD5HashOfBefore'");
  EXPECT_NE(report.find("KCSMD5HashOfBefore"), std::string::npos) << report;
}

TEST(Constants, AreTheOnesThatCallersWereBuiltWith) {
  const ProgramResult compiler = RunProgram(
      {ZEBCS_C_COMPILER, "-std=c11", "-E", "-dM", "-I" + kSource + "/include", kSource + "/include/zebcs/zebcs.h"});
  ASSERT_EQ(compiler.status, 0) << compiler.errors;
  const std::regex constant("#define ((?:SM_STATUS|ZEBCS|KCX|KCSDAS)_\\w+ .+)");
  std::set<std::string> now;
  std::istringstream lines(compiler.output);
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (std::regex_match(line, match, constant) && !line.starts_with("#define ZEBCS_API")) now.insert(match[1]);
  }
  std::set<std::string> before;
  std::istringstream written(sandbox::ReadFile(kSource + "/abi/constants.txt"));
  for (std::string line; std::getline(written, line);) before.insert(line);
  EXPECT_GT(before.size(), 50u);
  for (const std::string &line : before) EXPECT_TRUE(now.contains(line)) << "missing or changed: " << line;
  for (const std::string &line : now) EXPECT_TRUE(before.contains(line)) << "not written down: " << line;
}
