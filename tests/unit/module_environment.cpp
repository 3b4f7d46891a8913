// The unit tests link the library's code into the test program, which lies beside our UI library.
// For the whole run, "this library's module" is a stand-in in a folder without one, so that a
// password prompt is a missing one unless a test places a UI library of its own.
//
// The resource library is left alone unless the CTest registration sets DXTEST_OUR_STRINGS: the
// holder keeps what it found first for good, and the log's tests count on a program without strings.
// Where it is set, the holder is initialised as the entry routine does at attach, and our strings
// come through the suite library beside the program.
#include <gtest/gtest.h>

#include <cstdlib>

#include "lifecycle.h"
#include "log.h"
#include "module_files.h"
#include "suite_library.h"

namespace {

class StandInModule : public ::testing::Environment {
public:
    void SetUp() override {
        module = LoadLibraryA(dxtest::BesideProgram("..\\doubles\\standin\\standin.dll").c_str());
        ASSERT_NE(module, nullptr);
        g_hModule = module;
        // As the entry routine does at attach.
        if (std::getenv("DXTEST_OUR_STRINGS") != nullptr) g_resourceLibrary.Initialise(module, "DXSOCKS.DLL");
        SetReportFormatSource(LoadReportFormat);
    }
    void TearDown() override {
        SetReportFormatSource(nullptr);
        g_hModule = nullptr;
        FreeLibrary(module);
    }

private:
    HMODULE module = nullptr;
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new StandInModule);

}  // namespace
