// What a path names, asked with one stat; a refusal is logged, never taken
// for an absent file.

#include "PathKind.h"

#include "Logging.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace Kel::detail {

PathKind pathKind(const QString& path)
{
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0) {
        const int error = errno;
        if (error != ENOENT && error != ENOTDIR)
            storageLog(LOG_FAILURE, QStringLiteral("Could not look up '%1': %2"), __LINE__)
                .arg(path)
                .arg(QString::fromLocal8Bit(std::strerror(error)))
                .endl();
        return error == ENOENT || error == ENOTDIR ? PathKind::Missing : PathKind::Unknown;
    }
    if (S_ISREG(st.st_mode))
        return PathKind::File;
    return S_ISDIR(st.st_mode) ? PathKind::Directory : PathKind::Other;
}

} // namespace Kel::detail
