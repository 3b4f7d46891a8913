// The unit tests link the library's code into the test program, which lies beside our UI library.
// For the whole run, "this library's module" is a stand-in in a folder without one, so that a
// password prompt is a missing one unless a test places a UI library of its own.
#include <gtest/gtest.h>

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
