// The steps by which the storage changes its files: each write, cut, rename
// and removal on disk reports itself here once it is done. Nothing listens
// in the library; the crash tests set a listener that kills the process
// after a chosen step, to show that every step leaves the series readable.
// Unused, a step costs one load and one branch that is never taken.
#pragma once

namespace Kel::detail {

using DiskStepListener = void (*)();
extern DiskStepListener diskStepListener;

inline void diskStepDone()
{
    if (__builtin_expect(diskStepListener != nullptr, 0))
        diskStepListener();
}

} // namespace Kel::detail
