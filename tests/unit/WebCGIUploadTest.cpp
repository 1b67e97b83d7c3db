// Where uploads go: the appliance's temporary directory, on the first
// usable volume or on one with room, from a mount table written under the
// appliance root.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "ApplianceRootEnv.h"
#include "merocore.h"
#include "webapi/WebCGI.h"

namespace {

using webapi_test::WriteRootFile;
using WebCGIUploadTest = webapi_test::ApplianceRootTest;
constexpr int kNoCode = 12345;  // left in place by a chooser that records nothing

TEST_F(WebCGIUploadTest, FirstUsableVolumeOrOneWithRoomOrTheCodeOfWhyNot) {
  const std::string root = this->root().string();
  std::filesystem::create_directories(this->root() / "rw");
  std::filesystem::create_directories(this->root() / "ro");
  MERO::WebCGI cgi("zel", false);
  // `bytes` 0 asks for the first usable volume. "@" in `table` stands for
  // the root; the volumes are every mount under it and under /mnt.
  const struct {
    const char* table;  // null: none
    int size;
    unsigned long long bytes;
    std::string dir;  // empty: none found
    int code;
  } cases[] = {
      {"a @/one ext4 ro 0 0\nb @/two ext4 rw 0 0\n", 128, 0, root + "/two/@tmp", kNoCode},
      {"a /mnt/data ext4 rw 0 0\n", 5, 0, "/mnt", kNoCode},  // cut to fit
      {"a @/one ext4 ro 0 0\n", 128, 0, "", MERO_ERR_NONE},
      {nullptr, 128, 0, "", 0x8300},
      {"a @/ro ext4 ro 0 0\nb @/rw ext4 rw 0 0\n", 128, 1, root + "/rw/@tmp", kNoCode},
      {"a @/ro ext4 ro 0 0\nb @/rw ext4 rw 0 0\n", 128, 1ULL << 62, "", 0xDD00},  // full
      {"a @/ro ext4 ro 0 0\n", 128, 1, "", 0x2900},                              // none writable
      {"a @/gone ext4 rw 0 0\n", 128, 1, "", 0x8300},  // cannot be examined
      {nullptr, 128, 1, "", MERO_ERR_IO},  // VolumeAvailGet failed: its own code stays
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.table ? c.table : "no table") + " for " + std::to_string(c.bytes));
    std::string table = c.table ? c.table : "";
    for (size_t at = table.find('@'); at != std::string::npos; at = table.find('@', at + root.size()))
      table.replace(at, 1, root);
    WriteRootFile("proc-mounts", table);
    WriteRootFile("etc/meroinfo.conf", "mount_table=\"" + root + "/proc-mounts\"\n" +
                                           "storage_volumes=\"" + root + "/* /mnt/*\"\n");
    if (!c.table) std::filesystem::remove(this->root() / "proc-mounts");
    MLIBCErrSetEx(kNoCode, "test", 0);
    char dir[128] = "unchanged";
    EXPECT_EQ(c.bytes ? cgi.FindUploadTmpPath(dir, c.size, c.bytes) : cgi.FindUploadTmpPath(dir, c.size),
              !c.dir.empty());
    EXPECT_EQ(std::string(dir), c.dir.empty() ? "unchanged" : c.dir);
    if (c.code != kNoCode) {
      EXPECT_EQ(MLIBCErrGet(), c.code);
    }
  }
  char dir[128] = "unchanged";
  EXPECT_FALSE(cgi.FindUploadTmpPath(nullptr, 128));
  EXPECT_FALSE(cgi.FindUploadTmpPath(dir, 0));
  EXPECT_FALSE(cgi.FindUploadTmpPath(dir, 0, 1));
  EXPECT_STREQ(dir, "unchanged");

  // An appliance without disks uses /tmp, whatever the volumes and the size.
  WriteRootFile("etc.defaults/meroinfo.conf", "maxdisks=\"0\"\n");
  EXPECT_TRUE(cgi.FindUploadTmpPath(dir, sizeof dir));
  EXPECT_EQ(std::string(dir), root + "/tmp");
  dir[0] = '\0';
  EXPECT_TRUE(cgi.FindUploadTmpPath(dir, sizeof dir, 1ULL << 62));
  EXPECT_EQ(std::string(dir), root + "/tmp");
}

}  // namespace
