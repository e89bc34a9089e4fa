// The listener of the disk steps: none in the library; tests set one.

#include "DiskSteps.h"

namespace Kel::detail {

DiskStepListener diskStepListener = nullptr;

} // namespace Kel::detail
