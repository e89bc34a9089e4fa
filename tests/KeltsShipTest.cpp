// kelts ship against a real VictoriaMetrics: the binary of the Debian
// package started on a free loopback port with a scratch storage, the
// series shipped and read back through its export API, record for record.
// Skipped, with the reason, where victoria-metrics is not installed.

#include "KeltsProcess.h"

#include <gtest/gtest.h>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/StreamCopier.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <map>

namespace {

using namespace Kel::test;

constexpr long long kT0 = 1714521600000LL;   // 2024-05-01T00:00:00Z
const char* const kVictoriaMetrics = "/usr/bin/victoria-metrics";

class KeltsShip : public KeltsTool {
protected:
    void SetUp() override
    {
        if (!QFileInfo::exists(QLatin1String(kVictoriaMetrics)))
            GTEST_SKIP() << kVictoriaMetrics << " is not installed (make test installs the package victoria-metrics)";
        Poco::Net::ServerSocket probe(Poco::Net::SocketAddress("127.0.0.1", 0));
        port = probe.address().port();
        probe.close();
        startTarget();
    }

    void TearDown() override { stopTarget(); }

    void startTarget()
    {
        target.start(QLatin1String(kVictoriaMetrics),
                     {"-storageDataPath", dir("vm"), "-httpListenAddr", QStringLiteral("127.0.0.1:%1").arg(port),
                      "-retentionPeriod", "100y", "-loggerLevel", "ERROR"});
        ASSERT_TRUE(target.waitForStarted());
        for (int i = 0; i < 100 && http("GET", "/health").first != 200; ++i)
            QThread::msleep(100);   // the target's own start-up
        ASSERT_EQ(http("GET", "/health").first, 200);
    }

    void stopTarget()
    {
        if (target.state() == QProcess::Running) {
            target.terminate();
            target.waitForFinished(30000);
        }
    }

    std::pair<int, QByteArray> http(const std::string& method, const std::string& uri) const
    {
        try {
            Poco::Net::HTTPClientSession session("127.0.0.1", Poco::UInt16(port));
            Poco::Net::HTTPRequest request(method, uri, Poco::Net::HTTPMessage::HTTP_1_1);
            session.sendRequest(request);
            Poco::Net::HTTPResponse response;
            std::string body;
            Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
            return {int(response.getStatus()), QByteArray::fromStdString(body)};
        } catch (const Poco::Exception&) {
            return {0, QByteArray()};
        }
    }

    // Every sample of the series the target holds, by time.
    std::map<long long, double> exported(const QString& series)
    {
        http("GET", "/internal/force_flush");
        const QByteArray match = QByteArray("{series=\"" + series.toUtf8() + "\"}").toPercentEncoding();
        const auto [status, body] = http("GET", "/api/v1/export?match[]=" + match.toStdString());
        EXPECT_EQ(status, 200);
        std::map<long long, double> samples;
        for (const QByteArray& line : body.split('\n')) {
            const QJsonObject o = QJsonDocument::fromJson(line).object();
            const QJsonArray t = o["timestamps"].toArray(), v = o["values"].toArray();
            for (qsizetype i = 0; i < t.size(); ++i)
                samples[(long long)t[i].toDouble()] = v[i].toDouble();
        }
        return samples;
    }

    // What kelts read gives of the series, by time.
    std::map<long long, double> stored(const QString& seriesDir, const char* type)
    {
        std::map<long long, double> samples;
        for (const QString& row : lines(kelts({"read", seriesDir, "--type", QLatin1String(type), "--time", "ms"}).out).mid(1))
            samples[row.section(u',', 0, 0).toLongLong()] = row.section(u',', 1).toDouble();
        return samples;
    }

    void writeRows(const QString& series, const char* type, long long from, int n, long long stepMs,
                   const QStringList& extra = {})
    {
        QByteArray csv;
        for (int i = 0; i < n; ++i)
            csv += QByteArray::number(from + i * stepMs) + ',' +
                   (QByteArray(type) == "int" ? QByteArray::number(i * 7 - 3) : QByteArray::number(double(i) * 0.25 - 3.0, 'g', 17)) +
                   '\n';
        write(series, type, csv, extra);
    }

    QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(port); }

    QProcess target;
    int port = 0;
};

TEST_F(KeltsShip, EveryRecordArrivesAndBackfillsAreCaughtUp)
{
    writeRows(dir("plant/boiler1"), "double", kT0, 250000, 1000);   // more than one batch
    writeRows(dir("plant/pump"), "int", kT0, 48, 3600000);
    write(dir("plant/pump"), "string", QByteArray::number(kT0) + ",on\n");
    const Outcome first = kelts({"ship", dir("plant"), "--to", url()});
    ASSERT_EQ(first.status, 0) << qPrintable(first.err);
    EXPECT_TRUE(first.out.contains("2 series, 250048 records")) << qPrintable(first.out);
    EXPECT_TRUE(first.err.contains("pump.variant holds variant values, which are not shipped")) << qPrintable(first.err);
    EXPECT_EQ(exported("boiler1"), stored(dir("plant/boiler1"), "double"));
    EXPECT_EQ(exported("pump.int"), stored(dir("plant/pump"), "int"));

    // Nothing new: nothing sent. A back-fill into the past and new records
    // at the end: both arrive.
    EXPECT_TRUE(kelts({"ship", dir("plant"), "--to", url()}).out.contains("0 records"));
    write(dir("plant/boiler1"), "double", QByteArray::number(kT0 - 5000) + ",42.5\n", {"--backfill"});
    writeRows(dir("plant/boiler1"), "double", kT0 + 250000 * 1000LL, 10, 1000);
    const Outcome second = kelts({"ship", dir("plant"), "--to", url()});
    EXPECT_TRUE(second.out.contains("11 records")) << qPrintable(second.out);
    EXPECT_EQ(exported("boiler1"), stored(dir("plant/boiler1"), "double"));
}

TEST_F(KeltsShip, ATargetDownDuringFollowLosesNothing)
{
    writeRows(dir("plant/boiler1"), "double", kT0, 1000, 1000);
    QProcess ship;
    ship.start(QStringLiteral(KELTS_BINARY), {"ship", dir("plant"), "--to", url(), "--follow", "--interval", "1"});
    ASSERT_TRUE(ship.waitForStarted());
    const auto waitFor = [&](size_t records) {
        for (int i = 0; i < 300 && exported("boiler1").size() < records; ++i)
            QThread::msleep(200);   // the shipper's interval and its backoff
        return exported("boiler1").size();
    };
    EXPECT_EQ(waitFor(1000), 1000u);
    stopTarget();
    writeRows(dir("plant/boiler1"), "double", kT0 + 1000 * 1000LL, 500, 1000);
    QThread::msleep(2500);   // at least one failed try while the target is down
    startTarget();
    EXPECT_EQ(waitFor(1500), 1500u);
    ship.terminate();
    ASSERT_TRUE(ship.waitForFinished(30000));
    EXPECT_EQ(ship.exitCode(), 0) << ship.readAllStandardError().constData();
    EXPECT_TRUE(ship.readAllStandardError().contains("trying again"));
    EXPECT_EQ(exported("boiler1"), stored(dir("plant/boiler1"), "double"));
}

TEST_F(KeltsShip, ADamagedSeriesShipsWhatCanBeReadAndSaysSo)
{
    writeRows(dir("plant/boiler1"), "double", kT0, 1000, 1000);
    QFile year(dir("plant/boiler1/D/2024"));
    ASSERT_TRUE(year.open(QIODevice::ReadWrite));
    year.seek(500 * 13);   // the 501st record's offset: far after the file's period
    year.write(QByteArray::fromHex("FFFFFFFFFF"));
    year.close();
    const Outcome r = kelts({"ship", dir("plant"), "--to", url()});
    EXPECT_EQ(r.status, 3) << qPrintable(r.err);
    EXPECT_TRUE(r.err.contains("500 of the 1000 records")) << qPrintable(r.err);
    EXPECT_TRUE(r.err.contains("check " + dir("plant/boiler1"))) << qPrintable(r.err);
    const std::map<long long, double> arrived = exported("boiler1");
    EXPECT_EQ(arrived, stored(dir("plant/boiler1"), "double"));   // what kelts read gives
    EXPECT_EQ(arrived.size(), 500u);
    EXPECT_EQ(kelts({"ship", dir("nothing"), "--to", url()}).status, 2);
    EXPECT_EQ(kelts({"ship", dir("plant"), "--to", "ftp://x"}).status, 2);
}

} // namespace
