// The camera roll: the photo library database lists the files, the device
// says how big and how old each one is. Without a database, or when it
// lists nothing, the camera folder is walked instead.
#include <cstdio>

#include "catalogue/catalogue.h"
#include "catalogue/media_item.h"
#include "catalogue/photo_library.h"
#include "catalogue/pictures.h"
#include "common/connection.h"
#include "common/console.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/raii.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

constexpr const char *kCameraDir = "/DCIM/100APPLE";
constexpr const char *kCameraQuery = "select ('/' || directory || '/' || filename) as path from Photo";

}  // namespace

namespace tarn {

plist_t ReadCameraDbTypeSQLITE(PodDevice *device, const char *path) {
  const tarn::SqliteDb db = tarn::OpenDatabaseCopy(path);
  if (!db) return nullptr;
  // Phones since iOS 11 keep the roll in the photo library's asset table;
  // older ones in the Photo table read below.
  tarn::SqliteSchema schema(db.get());
  if (!schema.HasTable("Photo")) {
    const std::string assets = schema.FirstTable({"ZASSET", "ZGENERICASSET"});
    if (!assets.empty()) return tarn::ReadPhotoLibrarySQLITE(device, path, db.get(), schema, assets);
  }

  tarn::PlistPtr result(tarn::NewTrackListResult());
  CameraRowContext ctx{tarn::ListItems(result.get()), 0, nullptr};
  char *error = nullptr;
  int exec_rc = SQLITE_OK;
  {
    // The device's own sync must not remove files while they are sized.
    const tarn::DeviceCall call(device, tarn::PolicyOf("ReadCameraDbTypeSQLITE"));
    ctx.client = call.afc();
    exec_rc = sqlite3_exec(db.get(), kCameraQuery, CameraPictureCallback, &ctx, &error);
  }
  tarn::SqliteText owned_error(error);
  // Rows handed over before a failure are kept.
  if (exec_rc != SQLITE_OK) {
    tarn::Console("zErrMsg %s\n", tarn::NullSafe(error));
    tarn::SetDatabaseError(path, error ? error : "");
  }
  const uint32_t found = plist_array_get_size(ctx.items);
  if (found == 0) return nullptr;
  tarn::AddToListCounts(result.get(), found, ctx.total);
  return result.release();
}

plist_t ReadCameraDbTypeFromDevice(PodDevice *device) {
  const char *folders[] = {kCameraDir};
  return tarn::GetPictureListFromDevice(device, folders, 1);
}

plist_t GetCameraPVList(PodDevice *device) {
  tarn::ConsoleLine("GetCameraPVList");
  plist_t result = nullptr;
  const bool listed = tarn::WalkDbFiles(device, "CameraDb", [&](uint64_t type, const char *device_path) {
    if (type != 0) return false;
    result = tarn::ReadCameraDbTypeSQLITE(device, tarn::LocalCopyPath(device, device_path).c_str());
    return true;
  }, false);
  if (!listed) return tarn::ReadCameraDbTypeFromDevice(device);
  tarn::PrintPlist(result);
  if (result == nullptr) return tarn::ReadCameraDbTypeFromDevice(device);
  tarn::ConsoleLine("GetCameraPVList END");
  return result;
}

}  // namespace tarn

extern "C" {

TARN_API int CameraPictureCallback(void *context, int columns, char **values, char **) {
  const tarn::ApiCall api_call;
  auto *ctx = static_cast<CameraRowContext *>(context);
  if (ctx == nullptr || columns < 1 || values == nullptr || values[0] == nullptr) return 0;
  tarn::FileInfo info;
  {
    // A picture the database names but the device no longer has is left out.
    const tarn::KeepReason quiet;
    info.reset(tarn::GetFileInfo(ctx->client, values[0]));
  }
  tarn::AppendPictureItem(ctx->items, values[0], info.get(), &ctx->total);
  return 0;
}

TARN_API plist_t ReadCameraDbTypeSQLITE(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  return tarn::ReadCameraDbTypeSQLITE(device, path);
}

TARN_API plist_t ReadCameraDbTypeFromDevice(PodDevice *device) {
  const tarn::ApiCall api_call;
  return tarn::ReadCameraDbTypeFromDevice(device);
}

TARN_API plist_t GetCameraPVList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  return tarn::GetCameraPVList(device);
}

}  // extern "C"
