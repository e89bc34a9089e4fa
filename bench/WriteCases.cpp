// Appending the workload: through the library in batches of 100,000 and in
// one batch, and SQLite's bulk insert of the same records in one
// transaction. The last append in batches stays as the series that the
// reading cases read, and its day files are checked against the limit's
// byte for byte: both wrote the same bytes.

#include "Cases.h"
#include "DayFiles.h"

#include <QDate>
#include <QFile>

#include <cstdio>

namespace bench {

namespace {

constexpr long long kBatch = 100000;

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The day files that the library left as day files (a month not yet split
// keeps a month file) must hold exactly the limit's bytes.
std::string compareDayFiles(const Context& c)
{
    if (c.limitDir.empty())
        return "day files not compared: the limits stage did not run";
    const QString base = QString::fromStdString(c.seriesDir) + QStringLiteral("/D/");
    const QDate first(2024, 1, 1);
    long long compared = 0;
    for (long long day = 0; day < c.work.days(); ++day) {
        const QString path = base + first.addDays(day).toString(QStringLiteral("yyyy/MM/dd"));
        if (!QFile::exists(path))
            continue;
        check(fileBytes(path) == fileBytes(QString::fromStdString(dayFilePath(c.limitDir, day))),
              "the library's day file " + path.toStdString() + " differs from the limit's");
        ++compared;
    }
    return std::to_string(compared) + " of " + std::to_string(c.work.days()) +
           " day files equal the limit's byte for byte";
}

} // namespace

void runWriteCases(Context& c)
{
    const Workload& w = c.work;
    const double n = double(w.records);
    const auto seriesBatch = [&w](long long from, long long count) { return w.batch(from, count); };

    c.table.section("Appending");
    const Rates batches = repeat(c.plan, n, [&](int run) {
        if (!c.seriesDir.empty())
            removeTree(c.seriesDir);
        c.seriesDir = c.dir.path("series-" + std::to_string(run));
        return appendInBatches(*openSeries(c.seriesDir), w.records, kBatch, seriesBatch);
    });
    c.table.add({"append-batches", "append, batches of 100,000", batches, "write-limit", "sqlite-insert",
                 compareDayFiles(c), ""});

    const std::string oneBatchDir = c.dir.path("one-batch");
    c.table.add({"append-one", "append, one batch", repeat(c.plan, n, [&](int) {
                     removeTree(oneBatchDir);
                     auto series = openSeries(oneBatchDir);
                     Records all = w.batch(0, w.records);
                     Stopwatch clock;
                     clock.start();
                     const bool written = series->writeDataRecords(std::move(all), false, false);
                     clock.stop();
                     check(written, "append in one batch");
                     return clock.seconds();
                 }),
                 "write-limit", "sqlite-insert", "", ""});
    removeTree(oneBatchDir);

    const std::string dbPath = c.dir.path("sqlite.db");
    c.table.add({"sqlite-insert", "SQLite: insert, one transaction", repeat(c.plan, n, [&](int) {
                     c.sqlite.reset();
                     for (const char* suffix : {"", "-wal", "-shm"})
                         std::remove((dbPath + suffix).c_str());
                     c.sqlite = std::make_unique<SqliteSeries>(dbPath);
                     return c.sqlite->insertAll(w);
                 }),
                 "write-limit", "", "", "SQLite insert"});
}

} // namespace bench
