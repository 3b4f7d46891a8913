/* "add NAME" adds the global atom NAME and exits, leaving it behind; "find NAME" exits with 0 when the
   atom exists, else 1: how another process sees the configuration dialogs' guard. */
#include <string.h>
#include <windows.h>

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    if (strcmp(argv[1], "add") == 0) return GlobalAddAtomA(argv[2]) != 0 ? 0 : 1;
    if (strcmp(argv[1], "find") == 0) return GlobalFindAtomA(argv[2]) != 0 ? 0 : 1;
    return 2;
}
