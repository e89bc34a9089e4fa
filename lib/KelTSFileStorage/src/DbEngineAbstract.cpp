// The alarm change-log names are inline members; taking their addresses here
// makes the library define (and so export) both symbols.

#include "DbEngineAbstract.h"

namespace {
[[maybe_unused]] const QString* const changeLogNames[] = {
    &DbEngineAbstract::CHANGELOG_NAME_HIST_ALARM,
    &DbEngineAbstract::CHANGELOG_NAME_CURRENT_ALARMS,
};
}
