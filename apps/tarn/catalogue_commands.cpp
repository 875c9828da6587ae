// Commands over the catalogue: devices, info, list and export.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "apps/common/catalogue.h"
#include "apps/common/export.h"
#include "apps/common/plist_view.h"
#include "apps/common/text.h"
#include "console.h"
#include "progress.h"
#include "render.h"

namespace tarn::cli {
namespace {

// ---------------------------------------------------------------- info

struct Share {
  const char *name;
  uint64_t bytes;
  const char *colour;  // ANSI background colour
  char letter;         // stands in for the colour off a terminal
};

// Cells per share by largest remainder, so the bar is always full width.
std::vector<int> Cells(const std::vector<Share> &shares, uint64_t capacity, int width) {
  std::vector<int> cells(shares.size(), 0);
  std::vector<std::pair<double, size_t>> remainders;
  int used = 0;
  for (size_t i = 0; i < shares.size(); ++i) {
    const double exact = capacity == 0 ? 0.0 : static_cast<double>(shares[i].bytes) / static_cast<double>(capacity) * width;
    cells[i] = static_cast<int>(exact);
    used += cells[i];
    remainders.emplace_back(exact - cells[i], i);
  }
  std::sort(remainders.begin(), remainders.end(), [](auto &a, auto &b) { return a.first > b.first; });
  for (size_t k = 0; used < width && k < remainders.size(); ++k, ++used) ++cells[remainders[k].second];
  return cells;
}

void PrintStorage(std::FILE *out, plist_t info) {
  const bool has_capacity = plist_dict_get_item(info, "Catacity") != nullptr;
  const uint64_t capacity = DictUint(info, "Catacity");
  const uint64_t free_bytes = std::min(DictUint(info, "Available"), capacity);
  const uint64_t audio = DictUint(info, "Audio"), video = DictUint(info, "Video"), photos = DictUint(info, "Photos");
  uint64_t others = DictUint(info, "Others");
  // The library subtracts without a floor: media totals larger than the
  // used space wrap "Others" round to nearly 2^64. Nothing is the truth.
  if (!has_capacity || others > capacity) others = 0;
  std::vector<Share> shares = {{"Audio", audio, "44", 'A'},   {"Video", video, "45", 'V'},
                               {"Photos", photos, "43", 'P'}, {"Others", others, "46", 'O'},
                               {"Free", free_bytes, "47", '.'}};
  if (!has_capacity) shares.pop_back();
  if (has_capacity) {
    std::fprintf(out, "Storage         %s, %s free\n", HumanSize(capacity).c_str(), HumanSize(free_bytes).c_str());
  } else {
    std::fprintf(out, "Storage         (capacity not reported)\n");
  }
  const bool colour = OutIsTerminal();
  if (has_capacity && capacity > 0) {
    const std::vector<int> cells = Cells(shares, capacity, 50);
    std::string bar;
    for (size_t i = 0; i < shares.size(); ++i) {
      if (cells[i] == 0) continue;
      if (colour) bar += "\033[" + std::string(shares[i].colour) + "m" + std::string(cells[i], ' ') + "\033[0m";
      else bar += std::string(static_cast<size_t>(cells[i]), shares[i].letter);
    }
    std::fprintf(out, "  [%s]\n", bar.c_str());
  }
  for (const auto &share : shares) {
    const std::string swatch =
        colour ? "\033[" + std::string(share.colour) + "m  \033[0m" : std::string(1, share.letter);
    std::string percent;
    if (has_capacity && capacity > 0) {
      char text[16];
      std::snprintf(text, sizeof text, "%5.1f%%", 100.0 * static_cast<double>(share.bytes) / static_cast<double>(capacity));
      percent = text;
    }
    std::fprintf(out, "  %s %-7s %11s  %s\n", swatch.c_str(), share.name, HumanSize(share.bytes).c_str(),
                 percent.c_str());
  }
}

// ---------------------------------------------------------------- list

// A list the device does not have is an empty list for scripts, not null.
void Render(std::FILE *out, const Args &args, plist_t list) {
  PlistPtr empty(list == nullptr ? plist_new_array() : nullptr);
  if (list == nullptr) list = empty.get();
  if (args.has("--xml")) std::fputs(PlistToXml(list).c_str(), out);
  else std::fprintf(out, "%s\n", PlistToJson(list).dump(2).c_str());
}

}  // namespace

int CmdDevices(const GlobalOptions &, const Args &) {
  std::string why_none;
  const std::vector<std::string> ids = AttachedDevices(&why_none);
  if (ids.empty() && !why_none.empty()) Fail(kExitNoUsbmuxd, why_none);
  if (ids.empty()) Fail(kExitNoDevice, "no device attached");
  for (const auto &id : ids) {
    // A device that refuses us is still listed, with its identifier.
    const std::string name = DeviceName(id);
    std::fprintf(Out(), "%s  %s\n", Printable(id).c_str(), Printable(name.empty() ? "(cannot be reached)" : name).c_str());
  }
  return kExitOk;
}

int CmdInfo(Session &session, const Args &args) {
  PlistPtr info(GetDeviceInfo(session.device()));
  if (!info) FailWithReason(kExitUnreachable, "cannot reach " + DeviceLabel(session.udid()));
  std::FILE *out = Out();
  if (args.has("--json") || args.has("--xml")) {
    Render(out, args, info.get());
    return kExitOk;
  }
  std::fprintf(out, "%s\n", Printable(DictString(info.get(), "DeviceName")).c_str());
  std::fprintf(out, "  Identifier    %s\n", Printable(DictString(info.get(), "UniqueDeviceID")).c_str());
  std::fprintf(out, "  Type          %s\n", Printable(DictString(info.get(), "Type")).c_str());
  std::fprintf(out, "  Version       %s\n", Printable(DictString(info.get(), "Version")).c_str());
  std::fprintf(out, "  Serial number %s\n", Printable(DictString(info.get(), "SerialNumber")).c_str());
  PrintStorage(out, info.get());
  return kExitOk;
}

int CmdList(Session &session, const Args &args) {
  const KindInfo &kind = FindKind(args.positional[0]);
  PlistPtr list = FetchList(session.device(), kind.kind);
  std::FILE *out = Out();
  // A database that is there but cannot be read is not an empty library.
  if (TarnLastError()->code == TARN_E_DATABASE_UNREADABLE) {
    const std::string why = LastReason();
    if (CountItems(list.get(), kind.kind) == 0) Fail(kExitFailed, "the " + std::string(kind.noun) + " could not be read: " + why);
    PrintWarning(why + " Showing only what could be read.");
  }
  // A phone that keeps these in an app (voice memos, books on current
  // phones) has none here for another reason than having none at all.
  const std::string unreachable = TarnLastError()->code == TARN_E_NOT_REACHABLE ? LastReason() : "";
  if (args.has("--json") || args.has("--xml")) {
    if (!unreachable.empty()) PrintWarning(unreachable);
    Render(out, args, list.get());
    return kExitOk;
  }
  if (CountItems(list.get(), kind.kind) == 0) {
    if (!unreachable.empty()) std::fprintf(out, "%s\n", unreachable.c_str());
    else std::fprintf(out, "No %s on this device.\n", kind.noun);
    return kExitOk;
  }
  Rows rows = RowsOf(list.get(), kind.kind);
  Table table(rows.columns);
  for (auto &row : rows.cells) table.AddRow(std::move(row));
  table.Print(out);
  std::fprintf(out, "%s\n", rows.summary.c_str());
  return kExitOk;
}

int CmdExport(Session &session, const Args &args) {
  const KindInfo &kind = FindKind(args.positional[0]);
  const std::string noun = kind.kind == Kind::kPlaylists ? "playlist tracks" : kind.noun;
  ExportReport report;
  {
    TransferUi ui;
    report = Export(session, {kind.kind, args.positional[1], args.has("--match") ? args.flags.at("--match") : "", {}},
                    ui.hooks());
  }
  for (const auto &note : report.notes) PrintWarning(note);
  if (report.nothing_listed) {
    std::fprintf(Out(), "No %s on this device.\n", kind.noun);
    return kExitOk;
  }
  if (report.cancelled) Fail(kExitCancelled, "export cancelled; run it again to go on");
  for (const auto &failure : report.failed) PrintError("could not copy " + failure.message);
  std::fprintf(Out(), "%zu %s: %zu copied (%s), %zu already there", report.wanted, noun.c_str(), report.copied,
               HumanSize(report.bytes).c_str(), report.skipped);
  if (!report.missing.empty()) std::fprintf(Out(), ", %zu missing on the device", report.missing.size());
  if (report.in_cloud > 0) std::fprintf(Out(), ", %zu only in iCloud (not on the phone)", report.in_cloud);
  if (report.playlists > 0)
    std::fprintf(Out(), ", %zu playlist%s written", report.playlists, report.playlists == 1 ? "" : "s");
  std::fprintf(Out(), "\n");
  if (!report.failed.empty()) Fail(kExitFailed, std::to_string(report.failed.size()) + " file(s) could not be copied");
  return kExitOk;
}

}  // namespace tarn::cli
