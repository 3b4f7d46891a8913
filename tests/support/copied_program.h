// Runs cases of this test program in a copy of it, in a new folder beside files of the test's
// choosing: for what binds for the life of a process, or finds its files beside the executable.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

namespace dxtest {

struct CopiedRun {
    bool started = false;
    bool ended = false;  // within the time allowed; a child that overran was ended
    DWORD exitCode = 0;
    std::string output;
};

// Copies this program and each (file, name) of `beside` into a new folder, runs the cases of
// `filter` there (disabled ones too) from this program's working folder, waits at most `ms`, and
// removes the folder.
CopiedRun RunInCopiedProgram(const std::vector<std::pair<std::string, std::string>>& beside,
                             const std::string& filter, DWORD ms = 30000);

// The same for one case, which must pass: started, ended in time with 0, and reported as passed.
void ExpectCopiedCasePasses(const std::vector<std::pair<std::string, std::string>>& beside,
                            const std::string& filter, DWORD ms = 30000);

// Runs the cases of `filter` (disabled ones too) in a new process of this program itself, in its own
// folder, waiting at most `ms`: for what a process reads once, at its start.
CopiedRun RunInFreshProcess(const std::string& filter, DWORD ms = 30000);
// The same for one case, which must pass.
void ExpectFreshCasePasses(const std::string& filter, DWORD ms = 30000);

}  // namespace dxtest
