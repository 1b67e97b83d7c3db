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

class WebCGIUploadTest : public webapi_test::ApplianceRootTest {
 protected:
  // "@" in `table` stands for the root; the volumes are every mount under it
  // and under /mnt.
  void Mounts(std::string table) {
    const std::string root = this->root().string();
    for (size_t at = table.find('@'); at != std::string::npos; at = table.find('@', at + root.size()))
      table.replace(at, 1, root);
    WriteRootFile("proc-mounts", table);
    WriteRootFile("etc/meroinfo.conf", "mount_table=\"" + root + "/proc-mounts\"\n" +
                                           "storage_volumes=\"" + root + "/* /mnt/*\"\n");
  }
  std::string Rooted(const std::string& path) const { return root().string() + path; }
};

constexpr int kNoCode = 12345;  // left in place by a chooser that records nothing

TEST_F(WebCGIUploadTest, FirstUsableVolumeOrTmpWithoutDisks) {
  MERO::WebCGI cgi("zel", false);
  const struct {
    const char* table;
    int size;
    bool found;
    std::string dir;
    int code;
  } cases[] = {
      {"a @/one ext4 ro 0 0\nb @/two ext4 rw 0 0\n", 128, true, Rooted("/two/@tmp"), kNoCode},
      {"a /mnt/data ext4 rw 0 0\n", 5, true, "/mnt", kNoCode},  // cut to fit
      {"a @/one ext4 ro 0 0\n", 128, false, "", MERO_ERR_NONE},
      {nullptr, 128, false, "", 0x8300},  // no mount table
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.table ? c.table : "no table");
    Mounts(c.table ? c.table : "");
    if (!c.table) std::filesystem::remove(root() / "proc-mounts");
    MLIBCErrSetEx(kNoCode, "test", 0);
    char dir[128] = "unchanged";
    EXPECT_EQ(cgi.FindUploadTmpPath(dir, c.size), c.found);
    EXPECT_EQ(std::string(dir), c.found ? c.dir : "unchanged");
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
  EXPECT_EQ(std::string(dir), Rooted("/tmp"));
  dir[0] = '\0';
  EXPECT_TRUE(cgi.FindUploadTmpPath(dir, sizeof dir, 1ULL << 62));
  EXPECT_EQ(std::string(dir), Rooted("/tmp"));
}

TEST_F(WebCGIUploadTest, VolumeWithRoomOrTheCodeOfWhyNot) {
  std::filesystem::create_directories(root() / "rw");
  std::filesystem::create_directories(root() / "ro");
  MERO::WebCGI cgi("zel", false);
  const unsigned long long huge = 1ULL << 62;
  const struct {
    const char* table;
    unsigned long long bytes;
    bool found;
    std::string dir;
    int code;
  } cases[] = {
      {"a @/ro ext4 ro 0 0\nb @/rw ext4 rw 0 0\n", 1, true, Rooted("/rw/@tmp"), kNoCode},
      {"a @/ro ext4 ro 0 0\nb @/rw ext4 rw 0 0\n", huge, false, "", 0xDD00},  // full
      {"a @/ro ext4 ro 0 0\n", 1, false, "", 0x2900},                           // none writable
      {"a @/gone ext4 rw 0 0\n", 1, false, "", 0x8300},                         // cannot be examined
      {nullptr, 1, false, "", MERO_ERR_IO},  // VolumeAvailGet failed: its own code stays
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.table ? c.table : "no table");
    Mounts(c.table ? c.table : "");
    if (!c.table) std::filesystem::remove(root() / "proc-mounts");
    MLIBCErrSetEx(kNoCode, "test", 0);
    char dir[128] = "unchanged";
    EXPECT_EQ(cgi.FindUploadTmpPath(dir, sizeof dir, c.bytes), c.found);
    EXPECT_EQ(std::string(dir), c.found ? c.dir : "unchanged");
    if (c.code != kNoCode) {
      EXPECT_EQ(MLIBCErrGet(), c.code);
    }
  }
}

}  // namespace
