// A simulated device mounted with ifuse behaves like a file system for the
// ordinary tools. Skipped where FUSE cannot mount.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "sim_client.h"
#include "images.h"
#include "simulator.h"

using namespace tarn::testing;
namespace fs = std::filesystem;

namespace {

// Unmounts on scope exit, whatever the test did.
struct Mount {
  std::string dir;
  bool mounted = false;
  ~Mount() {
    if (mounted) run_command("fusermount3 -u " + dir + " || fusermount -u " + dir + " || umount " + dir);
  }
};

TEST(IfuseTest, CopyListMoveRemoveAndDf) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable here";
  if (run_command("command -v ifuse").empty()) GTEST_SKIP() << "ifuse is not installed";

  TempDir img, work;
  build_image(nlohmann::ordered_json::parse(R"({
    "device": {"UniqueDeviceID": "fuse-dev", "FSTotalBytes": 16000000000, "FSFreeBytes": 4000000000, "FSBlockSize": 4096},
    "files": [{"path": "/Notes/readme.txt", "content": "on the device\n"}]})"),
              img.path());
  Simulator sim({{img.path(), "", {}}});
  Mount m{work.path() + "/mnt"};
  fs::create_directories(m.dir);
  int status = 0;
  std::string out = run_command("ifuse -u fuse-dev " + m.dir, &status);
  if (status != 0) GTEST_SKIP() << "ifuse cannot mount here: " << out;
  m.mounted = true;

  const std::string local = work.path() + "/big.bin";
  WriteAll(local, Bytes(6u * 1024 * 1024 + 77));
  auto sh = [&](const std::string& cmd) {
    int st = -1;
    std::string o = run_command(cmd, &st);
    EXPECT_EQ(st, 0) << cmd << "\n" << o;
    return o;
  };
  sh("cp " + local + " " + m.dir + "/big.bin");
  sh("cmp " + local + " " + img.path() + "/media/big.bin");
  sh("cp " + m.dir + "/big.bin " + work.path() + "/back.bin");
  sh("cmp " + local + " " + work.path() + "/back.bin");
  EXPECT_EQ(sh("cat " + m.dir + "/Notes/readme.txt"), "on the device\n");

  std::string ls = sh("ls " + m.dir);
  EXPECT_NE(ls.find("Notes"), std::string::npos) << ls;
  EXPECT_NE(ls.find("big.bin"), std::string::npos) << ls;

  sh("mkdir " + m.dir + "/Music");
  sh("mv " + m.dir + "/big.bin " + m.dir + "/Music/moved.bin");
  EXPECT_TRUE(fs::exists(img.path() + "/media/Music/moved.bin"));
  EXPECT_FALSE(fs::exists(img.path() + "/media/big.bin"));
  sh("rm " + m.dir + "/Music/moved.bin");
  sh("rmdir " + m.dir + "/Music");
  EXPECT_FALSE(fs::exists(img.path() + "/media/Music"));

  // df reports the described capacity: 16e9 bytes in 1K blocks.
  std::string df = sh("df -k " + m.dir);
  EXPECT_NE(df.find("15625000"), std::string::npos) << df;
  // ifuse came in through an encrypted lockdown session, as on a phone.
  EXPECT_GT(sim.stats("fuse-dev").tls_sessions, 0u);
}

}  // namespace
