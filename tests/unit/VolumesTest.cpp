// Storage volumes from a mount table in the format of /proc/self/mounts,
// written under the appliance root and named by its settings file.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ApplianceRootEnv.h"
#include "merocore.h"
#include "merosdk.h"

namespace {

using webapi_test::WriteRootFile;

class VolumesTest : public webapi_test::ApplianceRootTest {
 protected:
  // Mount points are absolute: "@" in `table` and `patterns` stands for the root.
  void Configure(std::string table, std::string patterns) {
    const std::string root = this->root().string();
    for (std::string* text : {&table, &patterns})
      for (size_t at = text->find('@'); at != std::string::npos; at = text->find('@', at + root.size()))
        text->replace(at, 1, root);
    WriteRootFile("proc-mounts", table);
    WriteRootFile("etc/meroinfo.conf", "mount_table=\"" + root + "/proc-mounts\"\nstorage_volumes=\"" +
                                           patterns + "\"\n");
  }

  // "path mounted writable fstype" per volume, the root written as "@".
  std::vector<std::string> Listed() {
    std::vector<std::string> listed;
    VolumeInfo* list = MEROMountVolInfoEnum(0, 0);
    for (const VolumeInfo* at = list; at; at = at->next) {
      std::string path = at->path;
      if (path.rfind(root().string(), 0) == 0) path = "@" + path.substr(root().string().size());
      listed.push_back(path + " " + std::to_string(at->mounted) + " " +
                       std::to_string(at->writable) + " " + at->fsType);
    }
    MEROMountVolInfoFree(list);
    return listed;
  }
};

TEST_F(VolumesTest, ListsMatchingMountsLastMountWinsConfiguredButAbsentLast) {
  Configure("proc /proc proc rw,nosuid 0 0\n"
            "/dev/sda1 / ext4 rw,relatime 0 0\n"
            "/dev/sdb1 @/vol1 ext4 ro,relatime 0 0\n"
            "/dev/sdc1 @/vol\\0402 xfs rw 0 0\n"
            "/dev/sdd1 @/vol1 btrfs rw,noatime 0 0\n"
            "/dev/sde1 @/vol1/deeper ext4 rw 0 0\n"
            "/dev/sdf1 @/volume4 ext4 rw,ro-looking=x 0 0\n"
            "short line\n",
            "@/vol* @/missing @/vol1");
  EXPECT_EQ(Listed(), (std::vector<std::string>{"@/vol 2 1 1 xfs", "@/vol1 1 1 btrfs",
                                                "@/volume4 1 1 ext4", "@/missing 0 0 "}));
  Configure("", "@/vol*");
  EXPECT_TRUE(Listed().empty());
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_NONE);  // none matched is no failure
}

TEST_F(VolumesTest, WithoutSettingsThePlainServerHasItsRootFileSystem) {
  const std::vector<std::string> listed = Listed();
  ASSERT_FALSE(listed.empty());
  EXPECT_EQ(listed[0].rfind("/ 1 ", 0), 0u) << listed[0];
}

TEST_F(VolumesTest, AvailableVolumeIsTheFirstWritableWithRoomElseTheReasons) {
  std::filesystem::create_directories(root() / "ro");
  std::filesystem::create_directories(root() / "rw");
  const unsigned long long huge = 1ULL << 62;
  struct Case {
    const char* table;
    unsigned long long bytes;
    int result;
    int reason;
    const char* chosen;
  } cases[] = {
      {"a @/ro ext4 ro 0 0\nb @/rw ext4 rw 0 0\n", 1, 1, 0, "@/rw"},
      {"a @/ro ext4 ro 0 0\nb @/rw ext4 rw 0 0\n", huge, 0,
       MERO_VOLUME_REASON_READ_ONLY | MERO_VOLUME_REASON_FULL, nullptr},
      {"a @/ro ext4 ro 0 0\n", 1, 0, MERO_VOLUME_REASON_READ_ONLY | MERO_VOLUME_REASON_NO_VOLUME,
       nullptr},
      {"a @/gone ext4 rw 0 0\nb @/rw ext4 rw 0 0\n", 1, 1, 0, "@/rw"},
      {"a @/gone ext4 rw 0 0\n", 1, 0, MERO_VOLUME_REASON_STAT_FAILED, nullptr},
      {"", 1, 0, MERO_VOLUME_REASON_NO_VOLUME, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.table);
    Configure(c.table, "@/*");
    VolumeInfo volume{};
    volume.path[0] = 'x';
    int reason = -1;
    EXPECT_EQ(VolumeAvailGet(c.bytes, &volume, &reason, 0), c.result);
    EXPECT_EQ(reason, c.reason);
    const std::string want = c.chosen ? root().string() + (c.chosen + 1) : "x";
    EXPECT_EQ(std::string(volume.path), want);
    EXPECT_EQ(volume.next, nullptr);
  }
}

TEST_F(VolumesTest, UnreadableMountTableOrNoRecordIsAFailure) {
  WriteRootFile("etc/meroinfo.conf", "mount_table=\"" + root().string() + "/none\"\n");
  EXPECT_EQ(MEROMountVolInfoEnum(0, 0), nullptr);
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_IO);
  VolumeInfo volume{};
  int reason = -1;
  EXPECT_EQ(VolumeAvailGet(1, &volume, &reason, 0), -1);
  EXPECT_EQ(reason, -1);
  Configure("", "@/*");
  EXPECT_EQ(VolumeAvailGet(1, nullptr, &reason, 0), -1);
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_INVALID_ARGUMENT);
}

}  // namespace
