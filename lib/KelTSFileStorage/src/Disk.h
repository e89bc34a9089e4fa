// The disk as the storage's files meet it: every storage file and side file
// is opened here, with the retries that a file another process holds for a
// moment needs. Reads and writes then go through the opened file.
#pragma once

#include <QFile>

namespace Kel::detail {

// Opens the file, trying up to six times a second apart; each failed
// attempt is logged at level 4 ("File open failed (...) on '...', attempt
// N"). The caller logs the failure that ends the attempts.
bool openRetrying(QFile& file, QIODevice::OpenMode mode);

} // namespace Kel::detail
