#include "copied_program.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "module_files.h"

namespace dxtest {

namespace {

// Runs `program` with the cases of `filter`, its output into a file of `folder`.
CopiedRun RunProgram(const std::string& program, const std::string& folder, const std::string& filter, DWORD ms) {
    CopiedRun run;
    const std::string outputPath = folder + "output.txt";
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE output = CreateFileA(outputPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    std::string command = "\"" + program + "\" --gtest_also_run_disabled_tests --gtest_filter=" + filter;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION child = {};
    run.started = output != INVALID_HANDLE_VALUE &&
                  CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                 &child) != FALSE;
    if (output != INVALID_HANDLE_VALUE) CloseHandle(output);
    if (run.started) {
        run.ended = WaitForSingleObject(child.hProcess, ms) == WAIT_OBJECT_0;
        if (!run.ended) {
            TerminateProcess(child.hProcess, 1);
            WaitForSingleObject(child.hProcess, 10000);
        }
        GetExitCodeProcess(child.hProcess, &run.exitCode);
        CloseHandle(child.hThread);
        CloseHandle(child.hProcess);
    }
    std::ifstream file(outputPath, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    run.output = text.str();
    return run;
}

void ExpectPassed(const CopiedRun& run) {
    ASSERT_TRUE(run.started);
    EXPECT_TRUE(run.ended) << run.output;
    EXPECT_EQ(run.exitCode, 0u) << run.output;
    EXPECT_NE(run.output.find("[  PASSED  ] 1 test."), std::string::npos) << run.output;
}

}  // namespace

CopiedRun RunInCopiedProgram(const std::vector<std::pair<std::string, std::string>>& beside,
                             const std::string& filter, DWORD ms) {
    CopiedRun run;
    const std::string folder = MakeTempDirectory("copied");
    if (folder.empty()) return run;
    const std::string program = ModulePath(nullptr);
    const std::string name = program.substr(program.find_last_of('\\') + 1);
    bool copied = CopyInto(program, folder, name);
    for (const auto& file : beside) copied = copied && CopyInto(file.first, folder, file.second);
    if (copied) run = RunProgram(folder + name, folder, filter, ms);
    RemoveTree(folder);
    return run;
}

CopiedRun RunInFreshProcess(const std::string& filter, DWORD ms) {
    CopiedRun run;
    const std::string folder = MakeTempDirectory("fresh");
    if (folder.empty()) return run;
    run = RunProgram(ModulePath(nullptr), folder, filter, ms);
    RemoveTree(folder);
    return run;
}

void ExpectFreshCasePasses(const std::string& filter, DWORD ms) { ExpectPassed(RunInFreshProcess(filter, ms)); }

void ExpectCopiedCasePasses(const std::vector<std::pair<std::string, std::string>>& beside,
                            const std::string& filter, DWORD ms) {
    ExpectPassed(RunInCopiedProgram(beside, filter, ms));
}

}  // namespace dxtest
