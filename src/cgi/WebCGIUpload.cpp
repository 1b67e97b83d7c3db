// File upload: where an upload goes (the appliance's temporary directory on
// a storage volume), and the forwards to the platform that receives it.
#include <syslog.h>

#include <cstdio>
#include <string>

#include "../util/AppliancePath.h"
#include "../util/LogSource.h"
#include "WebCGIPrivate.h"
#include "merocgi.h"
#include "merocore.h"
#include "merosdk.h"
#include "webapi/WebCGI.h"

namespace MERO {
namespace {

using detail::kWebCgiSource;

constexpr char kDefaultsConf[] = "/etc.defaults/meroinfo.conf";
constexpr char kNoDiskDir[] = "/tmp";
constexpr int kLoadInPathBytes = 128;
constexpr int kNoPathForUpload = -9;

// Platform error codes the choosers record (MLIBCErrGet).
constexpr int kErrorVolumes = 0x8300;        // the volumes could not be listed, or other
constexpr int kErrorNoUsableVolume = 0x2900; // none is mounted and writable
constexpr int kErrorVolumesFull = 0xDD00;    // the writable ones lack the room

bool HasNoDisks() {
  return MLIBCFileCheckKeyValue(detail::AppliancePath(kDefaultsConf).c_str(), "maxdisks", "0", 0) != 0;
}

void WriteNoDiskDir(char* buffer, int size) {
  std::snprintf(buffer, static_cast<size_t>(size), "%s", detail::AppliancePath(kNoDiskDir).c_str());
}

void WriteVolumeDir(char* buffer, int size, const char* mountPath) {
  std::snprintf(buffer, static_cast<size_t>(size), "%s/@tmp", mountPath);
}

}  // namespace

bool WebCGI::FindUploadTmpPath(char* buffer, int size) {
  if (!buffer || size < 1) return false;
  if (HasNoDisks()) {
    WriteNoDiskDir(buffer, size);
    return true;
  }
  VolumeInfo* list = MEROMountVolInfoEnum(0, 0);
  if (!list && MLIBCErrGet() != MERO_ERR_NONE) {
    MLIBCErrSetEx(kErrorVolumes, kWebCgiSource, __LINE__);
    return false;
  }
  const VolumeInfo* usable = list;
  while (usable && !(usable->mounted && usable->writable)) usable = usable->next;
  if (usable) WriteVolumeDir(buffer, size, usable->path);
  MEROMountVolInfoFree(list);
  return usable != nullptr;
}

bool WebCGI::FindUploadTmpPath(char* buffer, int size, unsigned long long bytes) {
  if (!buffer || size < 1) return false;
  if (HasNoDisks()) {
    WriteNoDiskDir(buffer, size);
    return true;
  }
  VolumeInfo volume{};
  int reason = -1;
  const int found = VolumeAvailGet(bytes, &volume, &reason, 0);
  if (found == -1) {
    syslog(LOG_ERR, "%s:%d VolumeAvailGet() failed!! meroerr=[0x%04X]", kWebCgiSource, __LINE__,
           static_cast<unsigned>(MLIBCErrGet()));
    return false;
  }
  if (found == 0) {
    const int code = (reason & MERO_VOLUME_REASON_NO_VOLUME) ? kErrorNoUsableVolume
                     : (reason & MERO_VOLUME_REASON_FULL)    ? kErrorVolumesFull
                                                             : kErrorVolumes;
    MLIBCErrSetEx(code, kWebCgiSource, __LINE__);
    return false;
  }
  WriteVolumeDir(buffer, size, volume.path);
  return true;
}

int WebCGI::LoadIn(const char* path) {
  char dir[kLoadInPathBytes];
  if (path) {
    std::snprintf(dir, sizeof dir, "%s", path);
  } else if (!FindUploadTmpPath(dir, sizeof dir)) {
    syslog(LOG_ERR, "%s:%d no path for upload", kWebCgiSource, __LINE__);
    return kNoPathForUpload;
  }
  const int result = MeroCgiLoadUploadData(priv->State(), dir, 0);
  if (result < 0) syslog(LOG_ERR, "%s:%d failed to upload to path %s", kWebCgiSource, __LINE__, dir);
  return result;
}

int WebCGI::LoadUploadParams(void (*progress)(unsigned long long, unsigned long long),
                             _tag_cgi_upload_progress_* record, char* field, int fieldSize,
                             char* fileName, int fileNameSize, char* type, int typeSize) {
  return MeroCgiLoadUploadParams(priv->State(), progress, record, field, fieldSize, fileName,
                                 fileNameSize, type, typeSize);
}

int WebCGI::LoadUploadFile(const char* path, void (*progress)(unsigned long long, unsigned long long),
                           _tag_cgi_upload_progress_* record, char* field, char* fileName,
                           char* type, const char* bandwidth) {
  return MeroCgiLoadUploadFileBW(priv->State(), path, progress, record, field, fileName, type,
                                 bandwidth);
}

int WebCGI::LoadUploadFileNoTruncate(
    const char* path, void (*progress)(unsigned long long, unsigned long long),
    _tag_cgi_upload_progress_* record,
    long long (*rate)(unsigned long long, unsigned long long, unsigned long long), char* field,
    char* fileName, char* type, unsigned long long* written, BOOL (*cancel)()) {
  return MeroCgiLoadUploadFileNoTruncate(priv->State(), path, progress, record, rate, field,
                                         fileName, type, written, cancel);
}

}  // namespace MERO
