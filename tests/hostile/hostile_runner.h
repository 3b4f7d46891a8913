// Runs hostile cases in child processes of this program, so that a case that never ends, or a
// crash, takes only its child with it. The parent starts the children, reads what they report and
// ends those that outlive their bound.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "hostile_cases.h"

namespace hostile {

// What a child reported of one case.
struct Observed {
    int scriptId = 0;
    bool finished = false;  // ConnectEx returned (blocking) or FD_CONNECT was posted (non-blocking)
    bool quiet = false;     // non-blocking: nothing was posted within the bound
    int result = 0;
    int code = 0;           // what ConnectEx logged as "WinSock Error" (blocking)
    int lastError = 0;
    int canceled = 0;
    unsigned connectError = 0;
    unsigned posted = 0;    // the error word of FD_CONNECT (non-blocking)
    int posts = -1;         // FD_CONNECT messages for the socket once the hidden thread was idle
    int elapsedMs = 0;
    int closeResult = 0;    // the family's closesocket after a non-blocking case
    int loopEvents = -1;    // events of the socket in 300 ms once the proxy was done (predicted loops only)
    int asked = 0;          // calls of the password callback
    bool askedRight = true;  // the callback was given the case's user name and the proxy's address
    bool hostRead = false;
    Bytes hostData;
};

// A group of cases for one child: blocking cases run side by side, each on a thread of its own;
// non-blocking cases run one after the other on the child's main thread and the hidden thread.
struct Batch {
    Mode mode = Mode::kBlocking;
    std::vector<int> indices;
    int deadlineMs = 0;   // the child is ended this long after its start
    bool spins = false;   // holds cases that loop for ever; such children run one at a time
};

struct FamilyRun {
    std::map<int, Observed> observed;
    std::vector<std::string> problems;  // crashes and broken children, with the cases they held
};

// Runs the batches, at most `parallel` children at a time.
FamilyRun RunBatches(Family family, uint64_t seed, const std::vector<Batch>& batches, int parallel);

// The child's side: `argv` as given to the program. Returns the exit code.
bool IsChildCommand(int argc, char** argv);
int RunChild(int argc, char** argv);

}  // namespace hostile
