// Replacing files: gathered writes beside the file, renames over it, the
// spare that passes blocks on, and the recovery of a replaced pair.

#include "FileReplace.h"

#include "DiskSteps.h"
#include "Logging.h"
#include "PathKind.h"
#include "StorageNames.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Kel::detail {

QString rewritePath(const QString& path)
{
    return names::withSuffix(path, names::kRewriteSuffix);
}

namespace {

// Gathers the pieces into the file with writev(2), so that each byte is
// copied once, from wherever it lies, straight into the file.
bool writePieces(int fd, const std::vector<Piece>& pieces)
{
    std::vector<iovec> chunk;
    for (size_t first = 0; first < pieces.size(); first += IOV_MAX) {
        chunk.clear();
        for (size_t i = first; i < std::min(pieces.size(), first + IOV_MAX); ++i)
            chunk.push_back({const_cast<void*>(pieces[i].data), size_t(pieces[i].size)});
        iovec* next = chunk.data();
        int left = int(chunk.size());
        while (left > 0) {
            ssize_t put = ::writev(fd, next, left);
            if (put < 0 && errno == EINTR)
                continue;
            if (put <= 0)
                return false;
            // A short write: skip what was written and go on from there.
            while (left > 0 && size_t(put) >= next->iov_len) {
                put -= ssize_t(next->iov_len);
                ++next;
                --left;
            }
            if (left > 0) {
                next->iov_base = static_cast<char*>(next->iov_base) + put;
                next->iov_len -= size_t(put);
            }
        }
    }
    return true;
}

bool writeWhole(const QString& path, const std::vector<Piece>& pieces)
{
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered))
        return false;
    const bool written = writePieces(out.handle(), pieces);
    out.close();
    diskStepDone();
    return written;
}

// Writes the pieces over what the open file holds and cuts it behind them.
bool writeOver(int fd, const std::vector<Piece>& pieces)
{
    qint64 size = 0;
    for (const Piece& piece : pieces)
        size += piece.size;
    const bool written = writePieces(fd, pieces) && ::ftruncate(fd, off_t(size)) == 0;
    ::close(fd);
    diskStepDone();
    return written;
}

bool writeWhole(const QString& path, const QByteArray& data)
{
    return writeWhole(path, {{data.constData(), data.size()}});
}

bool renameOver(const QString& from, const QString& to)
{
    const bool renamed = std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
    diskStepDone();
    return renamed;
}


} // namespace

namespace {

// Whether the open file is a regular file with no other name and no other
// opener: only then is a write lease granted. It is given up at once; under
// its hidden name, nobody who reads the tree can open the file after that.
bool heldHereOnly(int fd)
{
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1)
        return false;
    return ::fcntl(fd, F_SETLEASE, F_WRLCK) == 0 && ::fcntl(fd, F_SETLEASE, F_UNLCK) == 0;
}

} // namespace

SpareFile::SpareFile(const QString& seriesDir)
    : path(QFile::encodeName(seriesDir + QLatin1String(names::kSpareName)))
{
}

SpareFile::~SpareFile()
{
    if (used)
        ::unlink(path.constData());
}

int SpareFile::takeAs(const QString& to)
{
    const int fd = ::open(path.constData(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return -1;
    if (heldHereOnly(fd) && std::rename(path.constData(), QFile::encodeName(to).constData()) == 0) {
        diskStepDone();
        return fd;
    }
    ::close(fd);
    ::unlink(path.constData());
    return -1;
}

void SpareFile::keep(const QString& replaced)
{
    if (::link(QFile::encodeName(replaced).constData(), path.constData()) == 0)
        diskStepDone();
}

void SpareFile::drop()
{
    ::unlink(path.constData());
}

bool replaceFile(const QString& path, const std::vector<Piece>& pieces, SpareFile* spare)
{
    const QString temp = rewritePath(path);
    const int fd = spare ? spare->takeAs(temp) : -1;
    const bool written = fd >= 0 ? writeOver(fd, pieces) : writeWhole(temp, pieces);
    if (written && spare)
        spare->keep(path);
    if (written && renameOver(temp, path))
        return true;
    if (spare)
        spare->drop();
    QFile::remove(temp);
    return false;
}

bool replaceFile(const QString& path, const char* data, qint64 size)
{
    return replaceFile(path, {{data, size}});
}

bool replaceFileAndSideFile(const QString& path, const QByteArray& data, const QByteArray& varData)
{
    const QString temp = rewritePath(path);
    const QString tempVar = names::sideFile(temp);
    // The storage file is written first: while it exists beside the old one,
    // the replacement has not begun and recovery throws both away.
    if (!writeWhole(temp, data) || !writeWhole(tempVar, varData) || !renameOver(temp, path)) {
        QFile::remove(temp);
        QFile::remove(tempVar);
        return false;
    }
    // A reader that met the pair half renamed may have finished the rename.
    return renameOver(tempVar, names::sideFile(path)) || pathKind(tempVar) == PathKind::Missing;
}

// Which step a replacement stopped at is told by the names that stand; where
// the system cannot tell whether one stands, nothing is undone or finished.
bool recoverRewrite(const QString& path)
{
    const QString temp = rewritePath(path);
    const QString tempVar = names::sideFile(temp);
    switch (pathKind(temp)) {
    case PathKind::Missing:
        return finishRewrite(path);
    case PathKind::Unknown:
        return false;
    default:
        QFile::remove(temp);
        QFile::remove(tempVar);
        return pathKind(temp) == PathKind::Missing;
    }
}

bool finishRewrite(const QString& path)
{
    const PathKind temp = pathKind(rewritePath(path));
    if (temp != PathKind::Missing)
        return temp != PathKind::Unknown;  // not begun: the writer's to finish or undo
    const QString tempVar = names::sideFile(rewritePath(path));
    switch (pathKind(tempVar)) {
    case PathKind::Missing:
        return true;
    case PathKind::Unknown:
        return false;
    default:
        return renameOver(tempVar, names::sideFile(path));
    }
}

} // namespace Kel::detail
