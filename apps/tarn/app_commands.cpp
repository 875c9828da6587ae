// tarn apps: the apps installed on the device, and which of them share files.
#include <cstdio>

#include "apps/common/app_list.h"
#include "apps/common/plist_view.h"
#include "console.h"
#include "render.h"
#include "cli.h"

namespace tarn::cli {

int CmdApps(Session &session, const Args &args) {
  const PlistPtr list = AppList(session, false);
  std::FILE *out = Out();
  if (args.has("--xml")) {
    std::fputs(PlistToXml(list.get()).c_str(), out);
    return kExitOk;
  }
  if (args.has("--json")) {
    std::fprintf(out, "%s\n", PlistToJson(list.get()).dump(2).c_str());
    return kExitOk;
  }
  // Files last and the identifier first, so that scripts (and the shell's
  // completion) can take both with cut or awk whatever the names hold.
  Table table({{"Identifier", Table::kLeft}, {"Name", Table::kLeft}, {"Version", Table::kLeft}, {"Files", Table::kLeft}});
  for (const AppEntry &app : AppEntries(list.get()))
    table.AddRow({app.identifier, app.name, app.version, app.file_sharing ? "yes" : "no"});
  table.Print(out);
  return kExitOk;
}

}  // namespace tarn::cli
