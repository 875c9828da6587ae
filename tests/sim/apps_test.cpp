// The simulator's app services as unmodified libimobiledevice clients meet
// them: house_arrest's answers to each command, ideviceinstaller's list, and
// an app's Documents mounted with ifuse.
#include <gtest/gtest.h>
#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <unistd.h>

#include <filesystem>

#include "images.h"
#include "sim_client.h"
#include "simulator.h"

using namespace tarn::testing;
namespace fs = std::filesystem;

namespace {

constexpr const char *kUdid = "apps-sim-dev";

nlohmann::ordered_json Description() {
  return nlohmann::ordered_json::parse(R"({
    "device": {"UniqueDeviceID": "apps-sim-dev"},
    "apps": [
      {"identifier": "org.example.player", "name": "Player", "version": "2.4", "file_sharing": true,
       "documents": [{"path": "/hello.txt", "content": "from the phone\n"}]},
      {"identifier": "org.example.notes", "name": "Notes", "version": "1.0"},
      {"identifier": "org.example.devbuild", "name": "Dev Build", "version": "0.1", "developer": true}]})");
}

// One house_arrest command on a fresh connection: the device's "Status" or
// "Error" answer.
std::string Vend(const std::string &command, const std::string &app) {
  idevice_t device = nullptr;
  if (idevice_new(&device, kUdid) != IDEVICE_E_SUCCESS) return "no device";
  house_arrest_client_t client = nullptr;
  std::string answer = "no service";
  if (house_arrest_client_start_service(device, &client, "tarn-test") == HOUSE_ARREST_E_SUCCESS) {
    plist_t result = nullptr;
    answer = "no answer";
    if (house_arrest_send_command(client, command.c_str(), app.c_str()) == HOUSE_ARREST_E_SUCCESS &&
        house_arrest_get_result(client, &result) == HOUSE_ARREST_E_SUCCESS) {
      char *text = nullptr;
      plist_t node = plist_dict_get_item(result, "Error");
      if (node == nullptr) node = plist_dict_get_item(result, "Status");
      if (node != nullptr) plist_get_string_val(node, &text);
      answer = text ? text : "";
      free(text);
    }
    plist_free(result);
    house_arrest_client_free(client);
  }
  idevice_free(device);
  return answer;
}

TEST(AppServicesTest, HouseArrestAnswersAsAPhoneSince8_3) {
  TempDir img;
  build_image(Description(), img.path());
  Simulator sim({{img.path(), "", {}}});
  struct Case {
    const char *command, *app, *answer;
  } const cases[] = {
      {"VendDocuments", "org.example.player", "Complete"},
      {"VendDocuments", "org.example.notes", "InstallationLookupFailed"},     // shares no files
      {"VendDocuments", "org.example.missing", "InstallationLookupFailed"},   // not installed
      {"VendContainer", "org.example.player", "InstallationLookupFailed"},    // not a developer's install
      {"VendContainer", "org.example.devbuild", "Complete"},
      {"VendEverything", "org.example.player", "UnknownCommand"},
  };
  for (const Case &c : cases) EXPECT_EQ(Vend(c.command, c.app), c.answer) << c.command << " " << c.app;
  EXPECT_GT(sim.stats(kUdid).tls_sessions, 0u) << "the services were started over an encrypted session";
}

TEST(AppServicesTest, IdeviceinstallerListsTheApps) {
  if (run_command("command -v ideviceinstaller").empty()) GTEST_SKIP() << "ideviceinstaller is not installed";
  TempDir img;
  build_image(Description(), img.path());
  // Pages of one app: the client has to read the whole list across them.
  Simulator sim({{img.path(), "", {"browse_page=1"}}});
  int status = -1;
  const std::string out = run_command("ideviceinstaller -u " + std::string(kUdid) + " -l 2>&1", &status);
  EXPECT_EQ(status, 0) << out;
  for (const char *line : {"org.example.player, \"2.4\", \"Player\"", "org.example.notes, \"1.0\", \"Notes\"",
                           "org.example.devbuild, \"0.1\", \"Dev Build\""})
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
}

struct Mount {
  std::string dir;
  bool mounted = false;
  ~Mount() {
    if (mounted) run_command("fusermount3 -u " + dir + " || fusermount -u " + dir + " || umount " + dir);
  }
};

TEST(AppServicesTest, IfuseMountsAnAppsDocumentsByteExactBothWays) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable here";
  if (run_command("command -v ifuse").empty()) GTEST_SKIP() << "ifuse is not installed";
  TempDir img, work;
  build_image(Description(), img.path());
  Simulator sim({{img.path(), "", {}}});
  Mount m{work.path() + "/mnt"};
  fs::create_directories(m.dir);
  int status = 0;
  std::string out = run_command("ifuse -u " + std::string(kUdid) + " --documents org.example.player " + m.dir, &status);
  if (status != 0) GTEST_SKIP() << "ifuse cannot mount here: " << out;
  m.mounted = true;
  const fs::path documents = fs::path(img.path()) / "apps/org.example.player/Documents";
  const std::string local = work.path() + "/film.bin";
  WriteAll(local, Bytes(3u * 1024 * 1024 + 5));
  auto sh = [&](const std::string &cmd) {
    int st = -1;
    std::string o = run_command(cmd, &st);
    EXPECT_EQ(st, 0) << cmd << "\n" << o;
    return o;
  };
  sh("cp " + local + " " + m.dir + "/film.bin");
  sh("cmp " + local + " " + (documents / "film.bin").string());
  sh("cp " + m.dir + "/film.bin " + work.path() + "/back.bin");
  sh("cmp " + local + " " + work.path() + "/back.bin");
  EXPECT_EQ(sh("cat " + m.dir + "/hello.txt"), "from the phone\n");
  EXPECT_FALSE(fs::exists(fs::path(img.path()) / "media/film.bin")) << "nothing lands on the media partition";

  // An app that shares nothing cannot be mounted.
  Mount refused{work.path() + "/refused"};
  fs::create_directories(refused.dir);
  run_command("ifuse -u " + std::string(kUdid) + " --documents org.example.notes " + refused.dir + " 2>&1", &status);
  refused.mounted = status == 0;
  EXPECT_NE(status, 0);
}

}  // namespace
