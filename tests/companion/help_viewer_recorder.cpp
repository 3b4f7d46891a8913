// Stands in for a browser in the help tests: writes its one argument, the page's path, to the file
// named by DXTEST_HELP_RECORD. The file appears whole, by a rename, so that a waiting test never
// reads half of it.
#include <windows.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    char record[MAX_PATH] = {};
    DWORD length = GetEnvironmentVariableA("DXTEST_HELP_RECORD", record, MAX_PATH);
    if (length == 0 || length >= MAX_PATH || argc != 2) return 2;
    std::string part = std::string(record) + ".part";
    FILE* file = std::fopen(part.c_str(), "wb");
    if (file == nullptr) return 3;
    std::fputs(argv[1], file);
    std::fclose(file);
    return MoveFileExA(part.c_str(), record, MOVEFILE_REPLACE_EXISTING) ? 0 : 4;
}
