// Folders and module files for tests of how the library finds its companion files.
#pragma once

#include <windows.h>

#include <string>

namespace dxtest {

// The folder of this test program, with a trailing backslash.
std::string ProgramDirectory();
// `relative` resolved against the program's folder, as a full path.
std::string BesideProgram(const std::string& relative);
// A new empty folder under the temporary folder, named after `tag`; removed by RemoveTree.
std::string MakeTempDirectory(const std::string& tag);
void RemoveTree(const std::string& directory);
bool CopyInto(const std::string& file, const std::string& directory, const std::string& name);
bool FileExists(const std::string& path);
std::string ModulePath(HMODULE module);

}  // namespace dxtest
