// The fixture family of the tests that drive a simulated device: a private
// folder, the simulator serving the device, and a library handle on it.
// Each area's fixture adds only how it builds its image.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "images.h"
#include "simulator.h"
#include "test_util.h"
#include "tarn/tarn_device.h"

namespace tarn::testing {

class SimulatedDeviceTest : public ::testing::Test {
 protected:
  explicit SimulatedDeviceTest(std::string udid) : udid_(std::move(udid)) {}
  void TearDown() override {
    if (device != nullptr) FreePodDevice(device);
    device = nullptr;
  }

  // Serves the image at `image` as this test's device.
  void Serve(const std::string &image, const std::vector<std::string> &options = {}) {
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{image, udid_, options}});
  }

  // Every connection, file handle and lock of the device released.
  void ExpectIdle(const std::string &after) { tarn::testing::ExpectIdle(*sim, udid_, after); }

  TempDir dir;
  std::unique_ptr<Simulator> sim;
  PodDevice *device = nullptr;

 private:
  std::string udid_;
};

}  // namespace tarn::testing
