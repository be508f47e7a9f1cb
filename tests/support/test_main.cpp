// Test programs run in the multithreaded apartment, so that COM classes the
// tests register are seen by the library on every thread.
#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
