// tarn import photos: the camera roll's new pictures into a folder by date.
#include <cstdio>

#include "apps/common/import.h"
#include "apps/common/text.h"
#include "console.h"
#include "progress.h"
#include "cli.h"

namespace tarn::cli {

int CmdImport(Session &session, const Args &args) {
  ImportRequest request;
  request.host_dir = args.positional[1];
  request.heic_to_jpeg = args.has("--jpeg");
  ImportReport report;
  {
    TransferUi ui;
    report = ImportPhotos(session, request, ui.hooks());
  }
  for (const auto &note : report.notes) PrintWarning(note);
  if (report.nothing_listed) {
    std::fprintf(Out(), "No camera roll on this device.\n");
    return kExitOk;
  }
  if (report.cancelled) Fail(kExitCancelled, "import cancelled; run it again to go on");
  for (const auto &failure : report.failed) PrintError("could not copy " + failure.message);
  std::fprintf(Out(), "%zu pictures and videos: %zu files copied (%s), %zu imported before", report.listed,
               report.copied, HumanSize(report.bytes).c_str(), report.already);
  if (report.converted > 0) std::fprintf(Out(), ", %zu converted to JPEG", report.converted);
  if (report.in_cloud > 0) std::fprintf(Out(), ", %zu only in iCloud", report.in_cloud);
  std::fprintf(Out(), "\n");
  if (!report.failed.empty()) Fail(kExitFailed, std::to_string(report.failed.size()) + " file(s) could not be copied");
  return kExitOk;
}

}  // namespace tarn::cli
