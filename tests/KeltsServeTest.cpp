// kelts serve as Grafana and a browser use it: a server process on a free
// loopback port over scratch series, asked over HTTP. Its answers are
// checked against kelts read of the same series and range; what it must
// refuse, it refuses; it writes nothing; fifty clients at once all get
// their answers; the trend page draws in headless Chromium.

#include "KeltsProcess.h"

#include <gtest/gtest.h>

#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStandardPaths>

#include <algorithm>
#include <cctype>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

namespace {

using namespace Kel::test;

struct Reply {
    int status = 0;
    QByteArray body;
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
};

class KeltsServe : public KeltsTool {
protected:
    void SetUp() override
    {
        // Two days of minute readings of a temperature, an hourly counter,
        // a text series, and a series outside the root behind a link.
        QByteArray temperature, pump, text;
        for (int i = 0; i < 2 * 1440; ++i)
            temperature += QByteArray::number(kT0 + i * 60000LL) + ',' + QByteArray::number(20 + std::sin(i / 60.0), 'f', 4) + '\n';
        for (int i = 0; i < 48; ++i)
            pump += QByteArray::number(kT0 + i * 3600000LL) + ',' + QByteArray::number(i * 7) + '\n';
        text = QByteArray::number(kT0) + ",started\n";
        write(dir("plant/boiler1"), "double", temperature);
        write(dir("plant/area2/pump"), "int", pump);
        write(dir("plant/area2/pump"), "string", text);
        write(dir("outside/secret"), "double", QByteArray::number(kT0) + ",42\n");
        QFile::link(dir("outside/secret"), dir("plant/linked"));
    }

    void TearDown() override
    {
        if (server.state() == QProcess::Running) {
            server.terminate();   // SIGTERM: a clean stop
            EXPECT_TRUE(server.waitForFinished(20000));
            EXPECT_EQ(server.exitStatus(), QProcess::NormalExit);
            EXPECT_EQ(server.exitCode(), 0) << server.readAllStandardError().constData();
        }
    }

    void start(const QStringList& extra = {})
    {
        server.start(QStringLiteral(KELTS_BINARY), QStringList{"serve", dir("plant"), "--listen", "127.0.0.1:0"} + extra);
        ASSERT_TRUE(server.waitForStarted());
        QByteArray line;
        while (!line.contains('\n') && server.waitForReadyRead(20000))
            line += server.readAllStandardOutput();
        const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("http://127\\.0\\.0\\.1:(\\d+)/")).match(QString::fromUtf8(line));
        ASSERT_TRUE(m.hasMatch()) << line.constData() << server.readAllStandardError().constData();
        port = m.captured(1).toInt();
    }

    Reply get(const std::string& uri, const std::string& token = "") const
    {
        Poco::Net::HTTPClientSession session("127.0.0.1", Poco::UInt16(port));
        session.setTimeout(Poco::Timespan(60, 0));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, uri, Poco::Net::HTTPMessage::HTTP_1_1);
        if (!token.empty())
            request.set("Authorization", "Bearer " + token);
        session.sendRequest(request);
        return receive(session);
    }

    Reply post(const std::string& uri, const std::vector<std::pair<std::string, std::string>>& fields) const
    {
        Poco::Net::HTTPClientSession session("127.0.0.1", Poco::UInt16(port));
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, uri, Poco::Net::HTTPMessage::HTTP_1_1);
        Poco::Net::HTMLForm form;
        for (const auto& [k, v] : fields)
            form.add(k, v);
        form.prepareSubmit(request);
        form.write(session.sendRequest(request));
        return receive(session);
    }

    static Reply receive(Poco::Net::HTTPClientSession& session)
    {
        Poco::Net::HTTPResponse response;
        std::istream& in = session.receiveResponse(response);
        std::string body;
        Poco::StreamCopier::copyToString(in, body);
        return {int(response.getStatus()), QByteArray::fromStdString(body)};
    }

    static std::string query(const std::string& text)
    {
        std::string out;
        for (const unsigned char c : text)
            out += std::isalnum(c) || c == '.' || c == '-' || c == '_' ? std::string(1, char(c))
                                                                         : QByteArray(1, char(c)).toPercentEncoding().toStdString();
        return out;
    }

    // The values kelts read gives for the request, as Graphite datapoints.
    QJsonArray keltsRead(const QString& series, const char* type, const QString& method, long long interval, long long from,
                         long long until)
    {
        const Outcome r = kelts({"read", series, "--type", QLatin1String(type), "--method", method + "AlignFillNull", "--interval", QString::number(interval),
                                 "--align", "--label-start", "--time", "ms", "--from", QString::number(from), "--to",
                                 QString::number(until)});
        EXPECT_EQ(r.status, 0) << qPrintable(r.err);
        QJsonArray points;
        for (const QString& row : lines(r.out).mid(1)) {
            const QString value = row.section(u',', 1);
            points.append(QJsonArray{value.isEmpty() ? QJsonValue() : QJsonValue(value.toDouble()),
                                     row.section(u',', 0, 0).toLongLong() / 1000});
        }
        return points;
    }

    // Every file and its size: what a read-only server must leave as it is.
    QStringList treeState() const
    {
        QStringList state;
        QDirIterator it(tmp.path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            state << path + u' ' + QString::number(it.fileInfo().size());
        }
        state.sort();
        return state;
    }

    static constexpr long long kT0 = 1714521600000LL;   // 2024-05-01T00:00:00Z
    QProcess server;
    int port = 0;
};

TEST_F(KeltsServe, GraphiteFindAndRenderAnswerWhatKeltsReadGives)
{
    start();
    EXPECT_EQ(get("/metrics/find?query=*").json().array(),
              QJsonDocument::fromJson(R"([{"text":"area2","id":"area2","leaf":0,"expandable":1,"allowChildren":1},
                                          {"text":"boiler1","id":"boiler1","leaf":1,"expandable":0,"allowChildren":0}])").array());
    const QJsonArray pumps = post("/metrics/find", {{"query", "area2.pump.*"}}).json().array();
    ASSERT_EQ(pumps.size(), 1);   // the text series is not drawn
    EXPECT_EQ(pumps[0].toObject()["id"].toString(), "area2.pump.int");

    const long long from = (kT0 + 3600000) / 1000, until = (kT0 + 13 * 3600000) / 1000;
    const std::string range = "&from=" + std::to_string(from) + "&until=" + std::to_string(until);
    const Reply mean = get("/render?format=json&maxDataPoints=60&target=boiler1" + range);
    ASSERT_EQ(mean.status, 200) << mean.body.constData();
    const QJsonArray series = mean.json().array();
    ASSERT_EQ(series.size(), 1);
    EXPECT_EQ(series[0].toObject()["target"].toString(), "boiler1");
    EXPECT_EQ(series[0].toObject()["datapoints"].toArray(), keltsRead(dir("plant/boiler1"), "double", "meanA", 720, from * 1000, until * 1000));

    const Reply functions = post("/render", {{"target", "alias(consolidateBy(boiler1, 'max'), 'hot')"},
                                             {"target", "summarize(area2.pump.{int,long}, '1h', 'sum')"},
                                             {"target", "constantLine(100)"}, {"from", std::to_string(from)},
                                             {"until", std::to_string(until)}, {"maxDataPoints", "24"}, {"format", "json"}});
    ASSERT_EQ(functions.status, 200) << functions.body.constData();
    const QJsonArray three = functions.json().array();
    ASSERT_EQ(three.size(), 3);
    EXPECT_EQ(three[0].toObject()["target"].toString(), "hot");
    EXPECT_EQ(three[0].toObject()["datapoints"].toArray(), keltsRead(dir("plant/boiler1"), "double", "max", 1800, from * 1000, until * 1000));
    EXPECT_EQ(three[1].toObject()["datapoints"].toArray(),
              keltsRead(dir("plant/area2/pump"), "int", "sum", 3600, from * 1000, until * 1000));
    EXPECT_EQ(three[2].toObject()["target"].toString(), "100");
    for (const QJsonValue& p : three[2].toObject()["datapoints"].toArray())
        EXPECT_EQ(p.toArray()[0].toDouble(), 100.0);

    // Grafana's "Save & test", relative times, and the functions it offers.
    EXPECT_EQ(get("/render?target=constantLine(100)&from=-10min&until=now&format=json").status, 200);
    EXPECT_EQ(get("/render?target=b*e%3F1&from=00:00_20240501&until=20240502&format=json").json().array().size(), 1);
    const QJsonObject offered = get("/functions").json().object();
    EXPECT_EQ(offered.keys(), (QStringList{"alias", "consolidateBy", "constantLine", "summarize"}));
}

TEST_F(KeltsServe, TheNativeApiListsAndReadsLikeTheTool)
{
    start();
    const QJsonArray all = get("/api/series").json().array();
    ASSERT_EQ(all.size(), 3);
    EXPECT_EQ(all[2].toObject()["name"].toString(), "boiler1");
    EXPECT_EQ(all[2].toObject()["records"].toInt(), 2880);
    EXPECT_EQ(all[2].toObject()["first"].toDouble(), double(kT0));

    const Reply csv = get("/api/read?series=boiler1&from=2024-05-01T01:00:00Z&to=2024-05-01T05:00:00Z&method=minMax&interval=1h&format=csv");
    ASSERT_EQ(csv.status, 200) << csv.body.constData();
    EXPECT_EQ(QString::fromUtf8(csv.body),
              kelts({"read", dir("plant/boiler1"), "--from", "2024-05-01T01:00:00Z", "--to", "2024-05-01T05:00:00Z",
                     "--method", "minMax", "--interval", "1h"}).out);
    // A directory shared by string and variant is read as variant: JSON.
    const QJsonArray text = get("/api/read?series=area2.pump.variant").json().object()["records"].toArray();
    ASSERT_EQ(text.size(), 1);
    EXPECT_EQ(text[0].toArray()[1].toString(), "started");
    EXPECT_EQ(get("/api/read?series=boiler1&method=mean&interval=1h").status, 400);   // no method name
}

TEST_F(KeltsServe, NothingOutsideTheRootIsReachedAndBadRequestsAreRefusedWithoutHarm)
{
    QFile tokenFile(dir("token"));
    ASSERT_TRUE(tokenFile.open(QIODevice::WriteOnly));
    tokenFile.write("s3cret\n");
    tokenFile.close();
    start({"--token-file", dir("token")});
    const QStringList before = treeState();

    EXPECT_EQ(get("/api/series").status, 401);
    EXPECT_EQ(get("/api/series", "wrong").status, 401);
    ASSERT_EQ(get("/api/series", "s3cret").status, 200);
    const QString listed = QString::fromUtf8(get("/api/series", "s3cret").body);
    EXPECT_FALSE(listed.contains("linked")) << qPrintable(listed);   // a link out of the root is not a series here

    for (const std::string& name : {std::string("linked"), std::string(".."), std::string("../outside/secret"),
                                    dir("outside/secret").toStdString(), std::string("%2e%2e%2foutside%2fsecret"),
                                    std::string("boiler1/../../outside/secret")}) {
        const Reply r = get("/api/read?series=" + query(name), "s3cret");
        EXPECT_EQ(r.status, 404) << name;
        EXPECT_TRUE(r.json().object().contains("error")) << name;
    }
    EXPECT_EQ(get("/render?target=..%2Foutside.*&format=json", "s3cret").json().array().size(), 0);

    const std::pair<std::string, int> bad[] = {
        {"/render?target=sum(boiler1)", 400},           {"/render?target=alias(boiler1", 400},
        {"/render?target=boiler1&from=yesterday", 400}, {"/render?target=boiler1&maxDataPoints=999999999", 400},
        {"/render?target=boiler1&format=png", 400},     {"/render?target=" + std::string(3000, 'a'), 400},
        {"/nothing", 404},                               {"/render?target=" + query(std::string(40, '(')), 400},
    };
    for (const auto& [uri, status] : bad) {
        const Reply r = get(uri, "s3cret");
        EXPECT_EQ(r.status, status) << uri;
        EXPECT_TRUE(r.json().object().contains("error")) << uri << " " << r.body.constData();
    }
    std::string many = "/render?format=json";
    for (int i = 0; i < 60; ++i)
        many += "&target=boiler1";
    EXPECT_EQ(get(many, "s3cret").status, 400);

    Poco::Net::HTTPClientSession session("127.0.0.1", Poco::UInt16(port));
    Poco::Net::HTTPRequest put(Poco::Net::HTTPRequest::HTTP_PUT, "/api/series", Poco::Net::HTTPMessage::HTTP_1_1);
    put.set("Authorization", "Bearer s3cret");
    put.setContentLength(0);
    session.sendRequest(put);
    EXPECT_EQ(receive(session).status, 405);
    Poco::Net::HTTPRequest huge(Poco::Net::HTTPRequest::HTTP_POST, "/render", Poco::Net::HTTPMessage::HTTP_1_1);
    huge.set("Authorization", "Bearer s3cret");
    huge.setContentType("application/x-www-form-urlencoded");
    huge.setContentLength(1 << 20);
    session.sendRequest(huge);   // refused on its header, before the body
    EXPECT_EQ(receive(session).status, 413);

    EXPECT_EQ(get("/api/series", "s3cret").status, 200);   // still serving
    EXPECT_EQ(treeState(), before);
}

TEST_F(KeltsServe, ADamagedSeriesAnswersWithWhatCanBeRead)
{
    start();
    const QString day = dir("plant/boiler1/D/2024");
    QFile file(day);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.seek(file.size() / 2 / 12 * 12);   // a record in the middle: weeks after the file's period
    file.write(QByteArray::fromHex("FFFFFFFF"));
    file.close();
    const Reply r = get("/api/read?series=boiler1");
    ASSERT_EQ(r.status, 200) << r.body.constData();
    const qsizetype records = r.json().object()["records"].toArray().size();
    EXPECT_GT(records, 0);
    EXPECT_LT(records, 2880);
    EXPECT_EQ(get("/render?target=boiler1&from=20240501&until=20240503&format=json").status, 200);
}

TEST_F(KeltsServe, FiftyClientsAtOnceAllGetTheirAnswers)
{
    start();
    constexpr int kClients = 50;
    constexpr int kRequestsEach = 10;
    std::atomic<int> errors{0};
    std::vector<double> latencies(kClients * kRequestsEach);
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c)
        clients.emplace_back([&, c] {
            for (int k = 0; k < kRequestsEach; ++k) {
                const bool day = (c + k) % 2 == 0;
                const long long from = (kT0 / 1000) + (c * 600) % 86400;
                const std::string target = (c % 3 == 0) ? "area2.pump.int" : "boiler1";
                const std::string uri = "/render?format=json&maxDataPoints=300&target=" + target + "&from=" +
                                        std::to_string(from) + "&until=" + std::to_string(from + (day ? 86400 : 600));
                const auto t = std::chrono::steady_clock::now();
                try {
                    const Reply r = get(uri);
                    if (r.status != 200 || r.json().array().size() != 1)
                        ++errors;
                } catch (...) {
                    ++errors;
                }
                latencies[size_t(c * kRequestsEach + k)] =
                    std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
            }
        });
    for (std::thread& t : clients)
        t.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::sort(latencies.begin(), latencies.end());
    EXPECT_EQ(errors.load(), 0);
    std::printf("50 clients: %.0f requests/s, p50 %.1f ms, p99 %.1f ms\n", latencies.size() / seconds,
                latencies[latencies.size() / 2], latencies[latencies.size() * 99 / 100]);
}

TEST_F(KeltsServe, TheTrendPageDrawsTheSeriesInChromium)
{
    const QString chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
    if (chromium.isEmpty())
        GTEST_SKIP() << "chromium is not installed: the trend page was not opened";
    start();
    const QString url = QStringLiteral("http://127.0.0.1:%1/?series=boiler1&series=area2.pump.int").arg(port);
    QProcess dom;
    dom.start(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--virtual-time-budget=15000",
                         "--window-size=1200,600", "--dump-dom", url});
    ASSERT_TRUE(dom.waitForFinished(120000));
    const QString page = QString::fromUtf8(dom.readAllStandardOutput());
    EXPECT_TRUE(page.contains(R"(data-drawn="2")")) << qPrintable(page.left(3000));
    EXPECT_TRUE(page.contains(R"(class="series-line" data-series="boiler1")")) << qPrintable(page.left(3000));
    EXPECT_TRUE(page.contains(R"(class="band" data-series="boiler1")"));
    EXPECT_TRUE(page.contains(R"(data-series="area2.pump.int")"));
    EXPECT_TRUE(page.contains(R"(<li data-series="boiler1">)"));   // the tree

    const QString png = QStringLiteral(KELTS_TEST_OUTPUT_DIR "/chart-screenshots/trend-page.png");
    QDir().mkpath(QFileInfo(png).path());
    QProcess shot;
    shot.start(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--virtual-time-budget=15000",
                          "--window-size=1200,600", "--screenshot=" + png, url});
    ASSERT_TRUE(shot.waitForFinished(120000));
    const QImage image(png);
    ASSERT_FALSE(image.isNull());
    long long blue = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            blue += std::abs(c.red() - 0x1f) + std::abs(c.green() - 0x5f) + std::abs(c.blue() - 0xa8) < 60 ? 1 : 0;
        }
    EXPECT_GT(blue, 300) << qPrintable(png);
}

} // namespace
