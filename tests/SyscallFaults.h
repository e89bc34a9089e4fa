// Makes the Nth file-system call of an operation fail, the way a failing
// disk, a full file system, a permission change or a process out of file
// descriptors would. Linked into a test program (which must export its
// symbols), it stands in front of the C library for every call that reaches
// the disk: the library's own and those made inside Qt alike.
//
// Counting runs only while a plan is armed, on every thread. Sleeps return at
// once while armed, so that the storage's open retries cost no time.
#pragma once

#include <map>
#include <string>

namespace Kel::test::faults {

enum class Fault {
    Eio,         // the call fails with EIO
    Enospc,      // ... ENOSPC
    Eacces,      // ... EACCES
    Emfile,      // ... EMFILE
    ShortWrite,  // the Nth write-like call writes half of what it was given
};

const char* faultName(Fault fault);

struct Plan {
    Fault fault = Fault::Eio;
    long long failAt = 0;     // the call to fail, counted from 1; 0 fails none
    bool persistent = false;  // every call from failAt on fails, not only that one
    // When set, instead: every open of a path that contains this fails.
    const char* openOf = nullptr;
};

// Starts counting calls from 0 under the plan.
void arm(const Plan& plan);
// Stops counting; returns the number of calls counted while armed.
long long disarm();
// Whether a call was made to fail since arm().
bool fired();
// The name of the call that was made to fail first ("" when none).
std::string firedCall();
// How often each function was called while armed, over the program's life.
const std::map<std::string, long long>& callsSeen();

// Arms for the lifetime of a scope.
class Armed {
public:
    explicit Armed(const Plan& plan) { arm(plan); }
    ~Armed() { calls = disarm(); }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
    long long calls = 0;
};

} // namespace Kel::test::faults
