// The names of the date tree's levels.
#pragma once

#include "TSFileInfo.h"

#include <Poco/DateTime.h>

#include <QString>

namespace Kel::detail {

// The entry name of the period that holds dateTime at a depth: the year in
// four digits, the month, day, hour or minute in two.
QString levelName(const Poco::DateTime& dateTime, TSFileInfo::DirDepth depth);

} // namespace Kel::detail
