// A whole laptop beneath Torvex.dll, for the lifetime of a FakeLaptop: an
// Intel processor, two memory modules, a battery on AC, two disks, an
// integrated Intel and a discrete NVIDIA GPU with the graphics-driver server,
// a Realtek codec, a device with a driver problem, a connected Wi-Fi interface
// and the OEM firmware method. What is not faked (CPUID, the screen, Core
// Audio, the disk devices themselves) is Wine's own.
#pragma once

#include <cstdint>
#include <vector>

#include "support/fake_com.h"
#include "support/fake_graphics.h"
#include "support/fake_setupapi.h"
#include "support/fake_wlan.h"
#include "support/fake_wmi.h"

namespace torvex::test {

class FakeLaptop {
public:
    FakeLaptop();
    // No WMI object referenced, device-information set open or Wlan block unfreed.
    void ExpectNothingLeft() const;

    FakeWmi wmi;
    FakeDeviceTree tree;
    FakeWlan wlan;
    FakePower power;
    std::vector<uint8_t> firmwareAnswer = std::vector<uint8_t>(256, 0);  // byte 0 is the status
    int firmwareCalls = 0;

private:
    ComClassRegistration server_;
};

}  // namespace torvex::test
