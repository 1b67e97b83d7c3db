// Demo.SystemInfo: a read-only API. Everything a handler needs is in
// HandleRequest: the base class has already checked the request against
// sysinfo.api and the caller's session against demo.auth.
//
//   GET /api/sysinfo?api=Demo.SystemInfo&method=get&version=1
//   -> {"data":{"hostname":"nas","load":[0.1,0.2,0.3],"uptime":1234,
//               "volumes":[{"free":..,"mount":"/","size":..,"type":"ext4"}]},
//       "success":true}
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <unistd.h>
#include <webapi/Serve.h>
#include <webapi/WebAPI.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

// File systems that hold data; everything else in the mount table (proc,
// sysfs, tmpfs, overlay layers...) is left out of the volume list.
bool IsDataFileSystem(const std::string& type) {
  for (const char* data : {"ext2", "ext3", "ext4", "xfs", "btrfs", "zfs", "f2fs", "vfat", "exfat"})
    if (type == data) return true;
  return false;
}

Json::Value Volumes() {
  Json::Value volumes(Json::arrayValue);
  FILE* mounts = std::fopen("/proc/self/mounts", "re");
  if (!mounts) return volumes;
  char device[512], mountPoint[512], type[64];
  while (std::fscanf(mounts, "%511s %511s %63s %*[^\n]", device, mountPoint, type) == 3) {
    struct statvfs space;
    if (!IsDataFileSystem(type) || statvfs(mountPoint, &space) != 0) continue;
    Json::Value volume;
    volume["mount"] = mountPoint;
    volume["type"] = type;
    volume["size"] = Json::UInt64(space.f_blocks) * space.f_frsize;
    volume["free"] = Json::UInt64(space.f_bavail) * space.f_frsize;
    volumes.append(volume);
  }
  std::fclose(mounts);
  return volumes;
}

class SystemInfoApi : public MERO::WebAPI {
 public:
  // The description file and the session name: both resolve under
  // /usr/mero/meroman/webapi/ (below the appliance root).
  SystemInfoApi() : WebAPI("sysinfo.api", "demo") {
    // Every answer carries the standard security headers (HSTS on https,
    // frame and content-type protection, a strict content security policy).
    cgi.AddSecurityHeaders("default");
  }

  void HandleRequest() override {
    Json::Value data;
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    data["hostname"] = host;
    struct sysinfo info;
    if (sysinfo(&info) == 0) {
      data["uptime"] = Json::Int64(info.uptime);
      for (unsigned long load : info.loads)
        data["load"].append(double(load) / (1 << SI_LOAD_SHIFT));
    }
    data["volumes"] = Volumes();
    SetResponse(data);
  }
};

}  // namespace

int main(int argc, char** argv) { return MERO::Serve<SystemInfoApi>(argc, argv); }
