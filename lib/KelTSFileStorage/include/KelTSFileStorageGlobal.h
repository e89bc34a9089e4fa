// Symbol visibility of the storage library: the library is built with hidden
// visibility, so only what carries KELTS_EXPORT is part of its ABI.
#pragma once

#if defined(KELTSFILESTORAGE_BUILDING)
#  define KELTS_EXPORT __attribute__((visibility("default")))
#else
#  define KELTS_EXPORT
#endif
