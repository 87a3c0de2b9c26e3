// What is installed, and that programs find it there: into an empty folder, which is then moved to another place.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

namespace fs = std::filesystem;

const std::string kClients = std::string(ZEBCS_SOURCE_DIR) + "/tests/install";

// The installed tree, at another place than the one it was installed to.
class Install : public testing::Test {
 protected:
  Install() {
    sandbox::RequireSandbox();
    const std::string first = m_directory.path() + "/first";
    Run({ZEBCS_CMAKE, "--install", ZEBCS_BUILD_DIR, "--prefix", first});
    fs::rename(first, Prefix());
  }

  std::string Prefix() const { return m_directory.path() + "/moved"; }
  std::string Library() const { return Prefix() + "/" + ZEBCS_LIBDIR; }
  std::string At(const std::string &name) const { return m_directory.path() + "/" + name; }

  // The output of a program that must succeed.
  static std::string Run(const std::vector<std::string> &arguments) {
    const ProgramResult result = RunProgram(arguments);
    EXPECT_EQ(result.status, 0) << arguments.front() << ":\n" << result.output << result.errors;
    return result.output;
  }

  std::set<std::string> Files() const {
    std::set<std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator(Prefix())) {
      if (!entry.is_directory()) files.insert(entry.path().lexically_relative(Prefix()));
    }
    return files;
  }

 private:
  sandbox::TemporaryDirectory m_directory;
};

}  // namespace

TEST_F(Install, PutsEveryFileInItsPlace) {
  const std::string lib = ZEBCS_LIBDIR;
  std::set<std::string> wanted = {lib + "/libzebcs.so.1",
                                  lib + "/libzebcs.so",
                                  lib + "/pkgconfig/zebcs.pc",
                                  lib + "/cmake/zebcs/zebcsConfig.cmake",
                                  lib + "/cmake/zebcs/zebcsConfigVersion.cmake",
                                  "lib/tmpfiles.d/zebcs.conf",
                                  "bin/zebctl",
                                  "share/man/man1/zebctl.1",
                                  "share/man/man3/libzebcs.3",
                                  "share/man/man5/zebrolemap.5",
                                  "share/man/man5/zeb.properties.5",
                                  "share/doc/zebcs/samples/pam-qxauth",
                                  "share/doc/zebcs/samples/zeb.properties",
                                  "share/doc/zebcs/samples/zebrolemap"};
  for (const auto &header : fs::directory_iterator(std::string(ZEBCS_SOURCE_DIR) + "/include/zebcs")) {
    wanted.insert("include/zebcs/" + header.path().filename().string());
  }
  std::set<std::string> files = Files();
  // CMake names one more file after the build's configuration.
  const size_t ofConfiguration = std::erase_if(
      files, [&lib](const std::string &file) { return file.starts_with(lib + "/cmake/zebcs/zebcsConfig-"); });
  EXPECT_EQ(ofConfiguration, 1u);
  EXPECT_EQ(files, wanted);
  EXPECT_EQ(fs::read_symlink(Library() + "/libzebcs.so"), "libzebcs.so.1");
}

TEST_F(Install, CProgramFindsTheLibraryByPkgConfig) {
  ASSERT_EQ(setenv("PKG_CONFIG_PATH", (Library() + "/pkgconfig").c_str(), 1), 0);
  EXPECT_EQ(Run({ZEBCS_PKG_CONFIG, "--modversion", "zebcs"}), ZEBCS_VERSION "\n");
  Run({"/bin/sh", "-c",
       std::string("exec " ZEBCS_C_COMPILER " -std=c11 -Wall -Wextra -Werror -pedantic ") + kClients + "/client.c -o " +
           At("client") + " $(" ZEBCS_PKG_CONFIG " --cflags --libs zebcs)"});
  ASSERT_EQ(setenv("LD_LIBRARY_PATH", Library().c_str(), 1), 0);
  EXPECT_EQ(Run({At("client")}), "caf\xC3\xA9\n");
}

TEST_F(Install, CxxProgramFindsTheLibraryByFindPackage) {
  Run({ZEBCS_CMAKE, "-S", kClients, "-B", At("build"), "-G", "Ninja", "-DCMAKE_PREFIX_PATH=" + Prefix(),
       "-DCMAKE_CXX_COMPILER=" ZEBCS_CXX_COMPILER});
  Run({ZEBCS_CMAKE, "--build", At("build")});
  EXPECT_EQ(Run({At("build/client")}), "7\n");
}

TEST_F(Install, ProgramFindsTheLibraryBesideItself) {
  EXPECT_EQ(Run({Prefix() + "/bin/zebctl", "--version"}), "zebctl " ZEBCS_VERSION "\n");
}

TEST_F(Install, ProductDirectoriesAreThoseOfTheLibrary) {
  const std::string text = sandbox::ReadFile(Prefix() + "/lib/tmpfiles.d/zebcs.conf");
  for (const char *directory : {sandbox::kLockDirectory, sandbox::kLogDirectory, sandbox::kIniDirectory,
                                "/opt/vorn/fleetops/etc", "/opt/vorn/fleetops/var/lib/kelvestane/xslroot"}) {
    EXPECT_NE(text.find("\nd " + std::string(directory) + " "), std::string::npos) << directory;
  }
}
