// The storage that holds the records of one marker: the series itself for
// the empty marker, or a companion ("P", "O") made for one call and deleted
// with it.
#pragma once

#include "TSFileStorage.h"

#include <memory>

namespace Kel::detail {

class MarkerStorage {
public:
    MarkerStorage(TSFileStorage& series, const QString& marker)
        : storage(series.getReadFilestorageForMarker(marker)),
          owned(storage != &series ? storage : nullptr)
    {
    }
    TSFileStorage* get() const { return storage; }
    TSFileStorage* operator->() const { return storage; }
    explicit operator bool() const { return storage != nullptr; }

private:
    TSFileStorage* storage;
    std::unique_ptr<TSFileStorage> owned;
};

} // namespace Kel::detail
