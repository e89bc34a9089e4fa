// Replacing a file safely, in the manner of QSaveFile: the new contents are
// written beside the file and renamed over it, so that the file holds its
// old or its new contents whenever the process stops. A storage file and
// its side file are replaced as a pair that a later access completes or
// undoes. Within a batch, the replaced file's blocks are passed on to the
// next replacement through a spare.
#pragma once

#include <QString>
#include <QByteArray>

#include <vector>

namespace Kel::detail {

// Where a rewritten file's new contents are written before they replace it.
QString rewritePath(const QString& path);

// A piece of a file's new contents, written from where it lies.
struct Piece {
    const void* data;
    qint64 size;
};

// The replaced contents of one rewritten file, passed on to the next file a
// batch rewrites: kept under a hidden name in the series' directory and
// written over with that file's new contents. Freeing a file's blocks and
// allocating them again costs more than copying its megabyte where the file
// system discards what it frees; a spare costs neither. A spare is written
// over only when it is nothing but the old contents: no other name links to
// it and no one has it open (a write lease can be taken), so a reader still
// reading a replaced file keeps its records intact. Removed when the batch
// ends; one left by a stopped process is removed by the next batch that
// writes among stored records (appends leave the name alone).
class SpareFile {
public:
    explicit SpareFile(const QString& seriesDir);
    ~SpareFile();
    SpareFile(const SpareFile&) = delete;
    SpareFile& operator=(const SpareFile&) = delete;

    // Moves the spare to `to`, opened for writing over; -1 when there is
    // none that may be written over.
    int takeAs(const QString& to);
    // Keeps the file at `path`, about to be replaced, as the next spare.
    void keep(const QString& path);
    // Gives up the spare kept by keep() when the replacement did not happen.
    void drop();
    // Makes the batch remove whatever spare stands there at its end.
    void claim() { used = true; }

private:
    QByteArray path;
    bool used = false;
};

// Writes the pieces, one after the other, to rewritePath(path) and renames
// it over path, so that the file holds either its old or its new contents,
// whenever the process stops. With a spare, the new contents go into the
// spare's blocks and the old file becomes the next spare.
bool replaceFile(const QString& path, const std::vector<Piece>& pieces, SpareFile* spare = nullptr);
bool replaceFile(const QString& path, const char* data, qint64 size);

// Replaces a storage file and its side file together: both new contents are
// written beside them first, then the storage file is renamed into place and
// the side file after it. recoverRewrite() undoes a replacement stopped before
// the first rename and completes one stopped after it, so that the pair always
// comes back as either the old or the new one. finishRewrite() only completes.
// Both answer whether the pair is settled (false, logged, when the system
// could not tell which step the replacement stopped at).
bool replaceFileAndSideFile(const QString& path, const QByteArray& data, const QByteArray& varData);
bool recoverRewrite(const QString& path);
bool finishRewrite(const QString& path);

} // namespace Kel::detail
