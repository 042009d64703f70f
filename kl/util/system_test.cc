#include "kl/util/system.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "kl/testing/temp_root.h"

namespace {

using kl::testing::TempRootTest;

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

TEST(NormalizePath, Table) {
  const struct {
    const char* in;
    bool ok;
    const char* out;
  } cases[] = {
      {"", true, ""},
      {"a/./b/../c", true, "/a/c"},
      {"//x//", true, "/x"},
      {"/..", false, ""},
      {"a/..", true, "/"},
      {"../a", false, ""},
      {"/a/b/../../", true, "/"},
      {"/a/b/c/../../d", true, "/a/d"},
      {".", true, "/"},
      {"a/../..", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in);
    std::string out = "stale";
    EXPECT_EQ(normalizePath(c.in, out), c.ok);
    EXPECT_EQ(out, c.out);
  }
}

TEST(SensitiveFile, BackupSuffix) {
  EXPECT_TRUE(isSensitiveFile(".backup"));
  EXPECT_TRUE(isSensitiveFile("config.backup"));
  EXPECT_FALSE(isSensitiveFile("backup"));
  EXPECT_FALSE(isSensitiveFile("x.backup.txt"));
}

TEST(KernelModules, NameOfTheModuleToUnload) {
  EXPECT_EQ(kernelModuleName("ip-foo.ko"), "ip_foo");
  EXPECT_EQ(kernelModuleName("/a/b/nat"), "nat");
  EXPECT_EQ(kernelModuleName("/lib/modules/x/foo-bar.ko"), "foo_bar");
  EXPECT_EQ(kernelModuleName("a.b.c"), "a");
  // Unloading a module that is not loaded changes nothing and reports failure.
  EXPECT_EQ(rmmod("kl_test_no_such_module.ko"), -1);
}

class FilesTest : public TempRootTest {};

TEST_F(FilesTest, InsmodOfAMissingModuleFails) {
  EXPECT_EQ(inChild([] { return insmod("kl-no-such-module.ko", "") == -1; }), 0);
}

TEST_F(FilesTest, CopyFileKeepsModeAndAnOldTail) {
  writeFile("/src", std::string(10000, 'a'));
  chmod(path("/src").c_str(), 0640);
  ASSERT_TRUE(copyFile(path("/src"), path("/dst")));
  EXPECT_EQ(readAll(path("/dst")), std::string(10000, 'a'));
  struct stat st;
  ASSERT_EQ(stat(path("/dst").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);

  writeFile("/short", "bb");
  ASSERT_TRUE(copyFile(path("/short"), path("/dst")));
  EXPECT_EQ(readAll(path("/dst")), "bb" + std::string(9998, 'a'));  // not truncated

  EXPECT_FALSE(copyFile(path("/missing"), path("/x")));
  makeDir("/dir");
  EXPECT_FALSE(copyFile(path("/dir"), path("/x")));          // not a regular file
  EXPECT_FALSE(copyFile(path("/src"), path("/no/such/x")));  // dst cannot be opened
}

TEST_F(FilesTest, FileExists) {
  writeFile("/here", "x");
  EXPECT_TRUE(fileExists(path("/here")));
  EXPECT_FALSE(fileExists(path("/gone")));
  EXPECT_FALSE(fileExists(""));
}

TEST_F(FilesTest, PackagesAreActiveUnlessDisabled) {
  makeDir("/var/pdb/routing");
  makeDir("/var/pdb/wireless");
  writeFile("/var/pdb/wireless/disabled", "");
  writeFile("/var/pdb/flatfile", "");
  EXPECT_EQ(inChild([] { return kl::isPackageActive("routing"); }), 0);
  EXPECT_EQ(inChild([] { return !kl::isPackageActive("wireless"); }), 0);
  EXPECT_EQ(inChild([] { return !kl::isPackageActive("flatfile"); }), 0);
  EXPECT_EQ(inChild([] { return !kl::isPackageActive("absent"); }), 0);
  EXPECT_EQ(inChild([] { return !kl::isPackageActive(nullptr); }), 0);
}

TEST_F(FilesTest, FreeMemoryFromMeminfo) {
  writeFile("/meminfo",
            "MemTotal: 1000 kB\nMemFree: 100 kB\nBuffers: 20 kB\nCached: 3 kB\n"
            "MemTotal: 2000 kB\nMemFree: 200 kB\nBuffers: 40 kB\nCached: 6 kB\n"
            "SwapTotal: 0 kB\n");
  unsigned total = 0;
  EXPECT_EQ(kl::getFreeMemory(path("/meminfo").c_str(), path("/ramcc").c_str(), &total), 246u);
  EXPECT_EQ(total, 2000u);

  // Lines out of the expected order end the reading before a complete group.
  writeFile("/meminfo", "MemTotal: 1000 kB\nMemFree: 100 kB\nMemAvailable: 500 kB\n");
  total = 7;
  EXPECT_EQ(kl::getFreeMemory(path("/meminfo").c_str(), path("/ramcc").c_str(), &total),
            0xFFFFFFFFu);
  EXPECT_EQ(total, 7u);
  EXPECT_EQ(kl::getFreeMemory(path("/none").c_str(), path("/ramcc").c_str(), nullptr), 0xFFFFFFFFu);
}

TEST(Uptime, FollowsTheTickClock) {
  const unsigned uptime = kl::getUptime();
  EXPECT_GE(uptime, 300u);  // the clock starts at 30000 ticks
}

}  // namespace
