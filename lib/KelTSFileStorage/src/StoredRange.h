// The range of a delete, resolved and clamped as adjustTimestamps does it,
// but against the last record as it is stored. For every type but Float the
// two are the same. A Float series' last-record lookup steps back by the
// declared record length and answers with a timestamp made of other bytes;
// a delete clamped by it could take a range inside the series for one that
// reaches its end, and remove whole files, or the whole series, past the
// range asked for.
#pragma once

#include "TSFileStorage.h"

namespace Kel::detail {

bool adjustToStoredRecords(TSFileStorage& storage, long long& start, long long& end, bool& coversFirst,
                           bool& coversLast);

} // namespace Kel::detail
