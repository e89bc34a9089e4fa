// kelts serve: the series under a root over HTTP, read-only. Graphite's
// find, render and functions requests for Grafana's built-in Graphite data
// source, a JSON API of its own, and the trend page. Listens on loopback
// unless told otherwise; with a token file every request must carry the
// token. Requests are refused with a one-line JSON error where they are
// malformed, too large or take too long.

#include "Commands.h"
#include "CommandLine.h"
#include "Csv.h"
#include "GraphiteQuery.h"
#include "ServedSeries.h"
#include "Series.h"
#include "Terminal.h"
#include "TimeText.h"
#include "TrendPage.h"
#include "ValueText.h"

#include "MethodKeywords.h"
#include "RecordCodec.h"

#include <Poco/Net/HTMLForm.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/URI.h>

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <pthread.h>

namespace kelts {

namespace {

using Kel::Interpolate;
using Kel::TSFileStorage;
using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

constexpr std::streamsize kMaxBodyBytes = 64 * 1024;
constexpr int kMaxTargets = 50;
constexpr int kMaxSeriesPerRequest = 200;
constexpr long long kDefaultDataPoints = 1000;
constexpr long long kMaxDataPoints = 20000;
constexpr long long kMaxRawRecords = 1000000;
constexpr qint64 kMaxRequestMs = 30000;

// How a request went wrong: its status and a one-line reason.
struct Refusal {
    HTTPResponse::HTTPStatus status;
    QString message;
};

[[noreturn]] void refuse(HTTPResponse::HTTPStatus status, const QString& message)
{
    throw Refusal{status, message};
}

struct ServeConfig {
    QString root;
    QByteArray token;
    bool verbose = false;
};

QByteArray jsonString(const QString& text)
{
    return jsonValue(QVariant(text), QMetaType::QString).toUtf8();
}

QByteArray jsonNumber(double v)
{
    return std::isfinite(v) ? QByteArray::number(v, 'g', 17) : QByteArrayLiteral("null");
}

// One series' values as Graphite gives them.
struct RenderedSeries {
    QString target;
    std::vector<std::pair<double, long long>> points;   // value (NaN: null), unix seconds
};

// The time a request may take: series are read until it runs out.
class Deadline {
public:
    Deadline() { clock.start(); }
    void check() const
    {
        if (clock.elapsed() > kMaxRequestMs)
            refuse(HTTPResponse::HTTP_SERVICE_UNAVAILABLE,
                   QStringLiteral("the request took longer than %1 s: ask for fewer series or a shorter range").arg(kMaxRequestMs / 1000));
    }

private:
    QElapsedTimer clock;
};

// Graphite's consolidation functions as the storage's methods.
QString methodOfGraphite(const QString& function)
{
    static const std::pair<const char*, const char*> methods[] = {
        {"avg", "meanA"}, {"average", "meanA"}, {"mean", "meanA"}, {"min", "min"},     {"max", "max"},
        {"sum", "sum"},   {"total", "sum"},     {"last", "prev"},  {"median", "median"}, {"count", "count"},
    };
    for (const auto& [name, method] : methods)
        if (function == QLatin1String(name))
            return QLatin1String(method);
    refuse(HTTPResponse::HTTP_BAD_REQUEST,
           QStringLiteral("'%1' is not a consolidation this server knows (avg, min, max, sum, last, median, count)").arg(function));
}

// The values of a render: a range, a point budget and the series offered.
class Render {
public:
    Render(const std::vector<ServedSeries>& series, long long fromMs, long long untilMs, long long maxPoints)
        : series(series), fromMs(fromMs), untilMs(untilMs), maxPoints(maxPoints)
    {
    }

    struct Context {
        QString method = QStringLiteral("meanA");
        long long interval = 0;   // 0: the range over the point budget
    };

    void evaluate(const Target& t, const Context& context, std::vector<RenderedSeries>& out)
    {
        deadline.check();
        // A glob that matches nothing gives no series, as Graphite does.
        if (t.kind == Target::Kind::Path) {
            for (const ServedSeries& s : series)
                if (s.numeric && globMatches(t.text, s.name)) {
                    if (++seriesRead > kMaxSeriesPerRequest)
                        refuse(HTTPResponse::HTTP_BAD_REQUEST,
                               QStringLiteral("the request names more than %1 series").arg(kMaxSeriesPerRequest));
                    out.push_back(read(s, context));
                }
            return;
        }
        if (t.kind != Target::Kind::Call)
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("'%1' is not a series or a function").arg(t.text));
        const QString& f = t.text;
        if (f == u"constantLine") {
            const double v = numberArg(t, 0);
            const long long a = fromMs / 1000, b = untilMs / 1000;
            out.push_back({QString::fromUtf8(jsonNumber(v)), {{v, a}, {v, (a + b) / 2}, {v, b}}});
            return;
        }
        if (f == u"alias") {
            std::vector<RenderedSeries> inner;
            evaluate(seriesArg(t), context, inner);
            const QString name = stringArg(t, 1);
            for (RenderedSeries& s : inner) {
                s.target = name;
                out.push_back(std::move(s));
            }
            return;
        }
        if (f == u"consolidateBy") {
            Context c = context;
            c.method = methodOfGraphite(stringArg(t, 1));
            return evaluate(seriesArg(t), c, out);
        }
        if (f == u"summarize") {
            Context c = context;
            QString why;
            if (!parseGraphiteInterval(stringArg(t, 1), true, c.interval, why))
                refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("summarize: %1").arg(why));
            c.method = methodOfGraphite(t.args.size() > 2 ? stringArg(t, 2) : QStringLiteral("sum"));
            std::vector<RenderedSeries> inner;
            evaluate(seriesArg(t), c, inner);
            for (RenderedSeries& s : inner) {
                s.target = QStringLiteral("summarize(%1, \"%2\", \"%3\")").arg(s.target, stringArg(t, 1),
                                                                                t.args.size() > 2 ? stringArg(t, 2) : QStringLiteral("sum"));
                out.push_back(std::move(s));
            }
            return;
        }
        refuse(HTTPResponse::HTTP_BAD_REQUEST,
               QStringLiteral("%1() is not supported (alias, consolidateBy, summarize, constantLine; see /functions)").arg(f));
    }

private:
    const Target& seriesArg(const Target& t) const
    {
        if (t.args.empty())
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("%1() needs a series").arg(t.text));
        return t.args[0];
    }
    QString stringArg(const Target& t, size_t i) const
    {
        if (i >= t.args.size() || (t.args[i].kind != Target::Kind::String && t.args[i].kind != Target::Kind::Number))
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("%1() needs a quoted text as argument %2").arg(t.text).arg(i + 1));
        return t.args[i].text;
    }
    double numberArg(const Target& t, size_t i) const
    {
        if (i >= t.args.size() || t.args[i].kind != Target::Kind::Number)
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("%1() needs a number as argument %2").arg(t.text).arg(i + 1));
        return t.args[i].number;
    }

    RenderedSeries read(const ServedSeries& s, const Context& context)
    {
        deadline.check();
        Interpolate::InterpolateParam param;
        param.method = context.method + QStringLiteral("AlignFillNull");
        param.interval = context.interval != 0 ? context.interval
                                               : std::max(1LL, ((untilMs - fromMs) / 1000 + maxPoints - 1) / maxPoints);
        param.alignStartEndTimestamp = true;
        auto storage = makeStorage(s.dir, s.type);
        std::vector<Interpolate::DataRecord> records;
        int count = 0;
        storage->readDataRecords(param, {}, fromMs, untilMs, records, true, count);
        RenderedSeries out{s.name, {}};
        out.points.reserve(records.size());
        for (const Interpolate::DataRecord& r : records)
            out.points.push_back({r.value.isValid() ? r.value.toDouble() : NAN, r.timestamp / 1000});
        return out;
    }

    const std::vector<ServedSeries>& series;
    long long fromMs;
    long long untilMs;
    long long maxPoints;
    int seriesRead = 0;
    Deadline deadline;
};

QByteArray renderJson(const std::vector<RenderedSeries>& all)
{
    QByteArray body = "[";
    for (size_t i = 0; i < all.size(); ++i) {
        body += (i ? ",{\"target\":" : "{\"target\":") + jsonString(all[i].target) + ",\"datapoints\":[";
        for (size_t k = 0; k < all[i].points.size(); ++k)
            body += (k ? ",[" : "[") + jsonNumber(all[i].points[k].first) + ',' + QByteArray::number(all[i].points[k].second) + ']';
        body += "]}";
    }
    return body + ']';
}

// What /functions tells Grafana: the supported functions with their
// parameters, in Graphite's own description format.
QByteArray functionsJson()
{
    return R"({
"alias":{"name":"alias","group":"Alias","description":"Names the series.","module":"graphite.render.functions","params":[{"name":"seriesList","type":"seriesList","required":true},{"name":"newName","type":"string","required":true}]},
"consolidateBy":{"name":"consolidateBy","group":"Special","description":"How values are condensed to the points asked for: the storage's condensed read with this method.","module":"graphite.render.functions","params":[{"name":"seriesList","type":"seriesList","required":true},{"name":"consolidationFunc","type":"string","required":true,"options":["average","sum","min","max","last","median","count"]}]},
"summarize":{"name":"summarize","group":"Transform","description":"One value per interval: the storage's condensed read; 1d, 1w, 1mon and 1y are calendar units.","module":"graphite.render.functions","params":[{"name":"seriesList","type":"seriesList","required":true},{"name":"intervalString","type":"interval","required":true},{"name":"func","type":"aggFunc","default":"sum","options":["sum","avg","min","max","last","median","count"]}]},
"constantLine":{"name":"constantLine","group":"Special","description":"A horizontal line at the value.","module":"graphite.render.functions","params":[{"name":"value","type":"float","required":true}]}
})";
}

// The nodes of the series tree at the level a find query names.
QByteArray findJson(const std::vector<ServedSeries>& series, const QString& query)
{
    const QStringList querySegments = query.split(u'.');
    const qsizetype level = querySegments.size();
    QStringList seen;
    QByteArray body = "[";
    for (const ServedSeries& s : series) {
        const QStringList name = s.name.split(u'.');
        if (!s.numeric || name.size() < level)
            continue;
        bool matches = true;
        for (qsizetype i = 0; i < level && matches; ++i)
            matches = segmentMatches(querySegments[i], name[i]);
        const QString id = name.mid(0, level).join(u'.');
        if (!matches || seen.contains(id))
            continue;
        seen << id;
        const bool leaf = name.size() == level;
        const QByteArray flag = leaf ? "0" : "1";
        body += (seen.size() > 1 ? ",{\"text\":" : "{\"text\":") + jsonString(name[level - 1]) + ",\"id\":" + jsonString(id) +
                ",\"leaf\":" + (leaf ? "1" : "0") + ",\"expandable\":" + flag + ",\"allowChildren\":" + flag + '}';
    }
    return body + ']';
}

QByteArray seriesJson(const std::vector<ServedSeries>& series, const QString& root)
{
    QByteArray body = "[";
    for (size_t i = 0; i < series.size(); ++i) {
        const ServedSeries& s = series[i];
        auto storage = makeStorage(s.dir, s.type);
        Interpolate::DataRecord first, last;
        const bool any = storage->getFirstDataRecord(first) && storage->getLastDataRecord(last);
        const long long records = storage->getCount({}, {}, TSFileStorage::TS_FIRST_RECORD, TSFileStorage::TS_LAST_RECORD,
                                                    true, false, false);
        const QString relative = s.dir == QDir::cleanPath(root) ? QStringLiteral(".") : s.dir.mid(QDir::cleanPath(root).size() + 1);
        body += (i ? ",{" : "{") + QByteArray("\"name\":") + jsonString(s.name) + ",\"path\":" + jsonString(relative) +
                ",\"type\":" + jsonString(valueTypeName(s.type)) + ",\"numeric\":" + (s.numeric ? "true" : "false") +
                ",\"records\":" + QByteArray::number(records) + ",\"first\":" + (any ? QByteArray::number(first.timestamp) : "null") +
                ",\"last\":" + (any ? QByteArray::number(last.timestamp) : "null") + '}';
    }
    return body + ']';
}

// A method string of the JSON API: it must start with a method name, as
// kelts read insists, for the storage would read anything else as linear
// interpolation.
void checkMethodString(const QString& method)
{
    const QString rest = Kel::detail::withoutDifference(method);
    if (rest.isEmpty())
        return;
    for (const Kel::detail::MethodKeyword& k : Kel::detail::kMethodKeywords)
        if (rest.startsWith(QLatin1String(k.keyword)))
            return;
    refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("method '%1' starts with no method name (meanA, minMax, max, ...)").arg(method));
}

class RequestHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit RequestHandler(const ServeConfig& config) : config(config) {}

    void handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) override
    {
        QElapsedTimer clock;
        clock.start();
        HTTPResponse::HTTPStatus status = HTTPResponse::HTTP_OK;
        try {
            status = route(request, response);
        } catch (const Refusal& r) {
            status = r.status;
            sendError(response, r.status, r.message);
        } catch (const UsageError& e) {
            status = HTTPResponse::HTTP_BAD_REQUEST;
            sendError(response, status, e.message);
        } catch (const NothingFound& e) {
            status = HTTPResponse::HTTP_NOT_FOUND;
            sendError(response, status, e.message);
        } catch (const Poco::Exception& e) {
            status = HTTPResponse::HTTP_BAD_REQUEST;
            sendError(response, status, QString::fromStdString(e.displayText()));
        } catch (const std::exception& e) {
            status = HTTPResponse::HTTP_INTERNAL_SERVER_ERROR;
            sendError(response, status, QString::fromLocal8Bit(e.what()));
        }
        if (config.verbose)
            printErrorLine(QStringLiteral("%1 serve: %2 %3 %4 %5 ms")
                               .arg(programName(), QString::fromStdString(request.getMethod()),
                                    QString::fromStdString(request.getURI()).left(200))
                               .arg(int(status))
                               .arg(clock.elapsed()));
    }

private:
    HTTPResponse::HTTPStatus route(HTTPServerRequest& request, HTTPServerResponse& response)
    {
        if (!config.token.isEmpty() && !tokenMatches(request))
            refuse(HTTPResponse::HTTP_UNAUTHORIZED, QStringLiteral("this server needs Authorization: Bearer <token>"));
        const bool get = request.getMethod() == "GET" || request.getMethod() == "HEAD";
        if (!get && request.getMethod() != "POST")
            refuse(HTTPResponse::HTTP_METHOD_NOT_ALLOWED, QStringLiteral("only GET and POST are served"));
        if (request.hasContentLength() && request.getContentLength64() > kMaxBodyBytes)
            refuse(HTTPResponse::HTTP_REQUEST_ENTITY_TOO_LARGE, QStringLiteral("the request body is larger than 64 KiB"));
        const std::string path = Poco::URI(request.getURI()).getPath();
        Poco::Net::HTMLForm form;
        form.setFieldLimit(200);
        form.load(request, request.stream());

        if (path == "/" || path == "/index.html")
            return send(response, HTTPResponse::HTTP_OK, "text/html; charset=utf-8", QByteArray(kTrendPage));
        if (path == "/functions" || path == "/functions/")
            return send(response, HTTPResponse::HTTP_OK, "application/json", functionsJson());
        if (path == "/metrics/find" || path == "/metrics/find/")
            return send(response, HTTPResponse::HTTP_OK, "application/json",
                        findJson(servedSeries(config.root), formValue(form, "query", "*")));
        if (path == "/render" || path == "/render/")
            return render(form, response);
        if (path == "/api/series")
            return send(response, HTTPResponse::HTTP_OK, "application/json", seriesJson(servedSeries(config.root), config.root));
        if (path == "/api/read")
            return readSeries(form, response);
        refuse(HTTPResponse::HTTP_NOT_FOUND, QStringLiteral("nothing is served at %1").arg(QString::fromStdString(path).left(200)));
    }

    bool tokenMatches(const HTTPServerRequest& request) const
    {
        const QByteArray given = QByteArray::fromStdString(request.get("Authorization", ""));
        const QByteArray wanted = "Bearer " + config.token;
        unsigned char differ = given.size() == wanted.size() ? 0 : 1;
        for (qsizetype i = 0; i < std::min(given.size(), wanted.size()); ++i)
            differ |= static_cast<unsigned char>(given[i] ^ wanted[i]);
        return differ == 0;
    }

    static QString formValue(const Poco::Net::HTMLForm& form, const char* name, const char* fallback = "")
    {
        return QString::fromStdString(form.get(name, fallback));
    }

    HTTPResponse::HTTPStatus render(const Poco::Net::HTMLForm& form, HTTPServerResponse& response)
    {
        const QString format = formValue(form, "format", "json");
        if (format != u"json")
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("format=%1: only json is rendered").arg(format));
        const long long now = QDateTime::currentMSecsSinceEpoch();
        long long from = 0, until = 0;
        QString why;
        if (!parseGraphiteTime(formValue(form, "from", "-24h"), now, from, why) ||
            !parseGraphiteTime(formValue(form, "until", "now"), now, until, why))
            refuse(HTTPResponse::HTTP_BAD_REQUEST, why);
        if (until <= from)
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("until lies before from"));
        bool ok = true;
        const long long points = form.has("maxDataPoints") ? formValue(form, "maxDataPoints").toLongLong(&ok) : kDefaultDataPoints;
        if (!ok || points < 1 || points > kMaxDataPoints)
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("maxDataPoints takes 1 to %1").arg(kMaxDataPoints));
        std::vector<Target> targets;
        for (const auto& [name, value] : form) {
            if (name != "target" || value.empty())
                continue;
            if (int(targets.size()) >= kMaxTargets)
                refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("more than %1 targets").arg(kMaxTargets));
            Target t;
            if (!parseTarget(QString::fromStdString(value), t, why))
                refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("target %1: %2").arg(targets.size() + 1).arg(why));
            targets.push_back(std::move(t));
        }
        const std::vector<ServedSeries> series = servedSeries(config.root);
        Render evaluation(series, from, until, points);
        std::vector<RenderedSeries> out;
        for (const Target& t : targets)
            evaluation.evaluate(t, {}, out);
        return send(response, HTTPResponse::HTTP_OK, "application/json", renderJson(out));
    }

    HTTPResponse::HTTPStatus readSeries(const Poco::Net::HTMLForm& form, HTTPServerResponse& response)
    {
        const std::vector<ServedSeries> all = servedSeries(config.root);
        const QString name = formValue(form, "series");
        const ServedSeries* s = seriesNamed(all, name);
        if (!s)
            refuse(HTTPResponse::HTTP_NOT_FOUND, QStringLiteral("no series named '%1'").arg(name.left(200)));
        QString why;
        TimeBound fromBound{TimeBound::First, 0}, toBound{TimeBound::Last, 0};
        if ((form.has("from") && !parseBound(formValue(form, "from"), fromBound, why)) ||
            (form.has("to") && !parseBound(formValue(form, "to"), toBound, why)))
            refuse(HTTPResponse::HTTP_BAD_REQUEST, why);
        Interpolate::InterpolateParam param;
        param.method = formValue(form, "method");
        checkMethodString(param.method);
        if (form.has("interval") && !parseInterval(formValue(form, "interval"), param.interval, why))
            refuse(HTTPResponse::HTTP_BAD_REQUEST, why);
        param.alignStartEndTimestamp = formValue(form, "align") == u"true";
        if (Kel::detail::isVariableType(s->type))
            param.interval = 0;
        const QString format = formValue(form, "format", "json");
        if (format != u"json" && format != u"csv")
            refuse(HTTPResponse::HTTP_BAD_REQUEST, QStringLiteral("format takes json or csv"));
        auto storage = makeStorage(s->dir, s->type);
        long long from = 0, to = 0;
        if (!instantOf(fromBound, *storage, from) || !instantOf(toBound, *storage, to))
            return send(response, HTTPResponse::HTTP_OK, "application/json",
                        "{\"series\":" + jsonString(s->name) + ",\"records\":[]}");
        std::vector<Interpolate::DataRecord> records;
        int count = int(kMaxRawRecords + 1);
        storage->readDataRecords(param, {}, from, to, records, formValue(form, "labelStart") == u"true", count);
        if (records.size() > size_t(kMaxRawRecords))
            refuse(HTTPResponse::HTTP_BAD_REQUEST,
                   QStringLiteral("more than %1 records: condense them with method and interval").arg(kMaxRawRecords));
        QByteArray body;
        if (format == u"csv") {
            body = "timestamp,value\n";
            for (const Interpolate::DataRecord& r : records)
                body += formatTime(r.timestamp, TimeFormat::Iso).toUtf8() + ',' + csvField(formatValue(r.value, s->type)).toUtf8() + '\n';
            return send(response, HTTPResponse::HTTP_OK, "text/csv; charset=utf-8", body);
        }
        body = "{\"series\":" + jsonString(s->name) + ",\"type\":" + jsonString(valueTypeName(s->type)) + ",\"records\":[";
        for (size_t i = 0; i < records.size(); ++i)
            body += (i ? ",[" : "[") + QByteArray::number(records[i].timestamp) + ',' + jsonValue(records[i].value, s->type).toUtf8() + ']';
        return send(response, HTTPResponse::HTTP_OK, "application/json", body + "]}");
    }

    static HTTPResponse::HTTPStatus send(HTTPServerResponse& response, HTTPResponse::HTTPStatus status, const char* type,
                                         const QByteArray& body)
    {
        response.setStatus(status);
        response.setContentType(type);
        response.set("Cache-Control", "no-store");
        response.setContentLength64(body.size());
        response.send().write(body.constData(), body.size());
        return status;
    }

    static void sendError(HTTPServerResponse& response, HTTPResponse::HTTPStatus status, const QString& message)
    {
        if (response.sent())
            return;
        send(response, status, "application/json", "{\"error\":" + jsonString(message.simplified()) + "}\n");
    }

    const ServeConfig& config;
};

class HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit HandlerFactory(const ServeConfig& config) : config(config) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(const HTTPServerRequest&) override
    {
        return new RequestHandler(config);
    }

private:
    const ServeConfig& config;
};

int serve(const QStringList& args)
{
    CommandLine cl(serveCommand);
    cl.option(QStringLiteral("listen"), QStringLiteral("ADDR:PORT"));
    cl.option(QStringLiteral("token-file"), QStringLiteral("FILE"));
    if (!cl.parse(args, 1, 1))
        return EXIT_DONE;
    ServeConfig config;
    config.root = QDir::cleanPath(cl.positional().at(0));
    config.verbose = cl.isSet(QStringLiteral("verbose"));
    requireDirectory(config.root);
    const QString listen = cl.isSet(QStringLiteral("listen")) ? cl.value(QStringLiteral("listen")) : QStringLiteral("127.0.0.1:8080");
    const qsizetype colon = listen.lastIndexOf(u':');
    bool portOk = false;
    const int port = colon > 0 ? listen.mid(colon + 1).toInt(&portOk) : 0;
    if (colon <= 0 || !portOk || port < 0 || port > 65535)
        cl.fail(QStringLiteral("--listen takes ADDR:PORT, such as 127.0.0.1:8080"));
    if (cl.isSet(QStringLiteral("token-file"))) {
        QFile file(cl.value(QStringLiteral("token-file")));
        if (!file.open(QIODevice::ReadOnly))
            cl.fail(QStringLiteral("--token-file: cannot read %1").arg(file.fileName()));
        config.token = file.readAll().trimmed();
        if (config.token.isEmpty())
            cl.fail(QStringLiteral("--token-file: %1 holds no token").arg(file.fileName()));
    }

    // SIGINT and SIGTERM are waited for here; the server's threads, started
    // after, inherit the blocked signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::unique_ptr<Poco::Net::HTTPServer> server;
    try {
        Poco::Net::ServerSocket socket(Poco::Net::SocketAddress(listen.left(colon).toStdString(), Poco::UInt16(port)));
        auto* params = new Poco::Net::HTTPServerParams;
        params->setMaxThreads(16);
        params->setMaxQueued(256);
        params->setKeepAlive(true);
        server = std::make_unique<Poco::Net::HTTPServer>(new HandlerFactory(config), socket, params);
        server->start();
        std::printf("%s serve: listening on http://%s/ for %s (Ctrl-C stops)\n", qPrintable(programName()),
                    socket.address().toString().c_str(), qPrintable(config.root));
        std::fflush(stdout);
    } catch (const Poco::Exception& e) {
        throw UsageError{QStringLiteral("%1 serve: cannot listen on %2: %3")
                             .arg(programName(), listen, QString::fromStdString(e.displayText()))};
    }
    int signal = 0;
    sigwait(&stopSignals, &signal);
    server->stopAll(true);
    printErrorLine(QStringLiteral("%1 serve: stopped").arg(programName()));
    return EXIT_DONE;
}

} // namespace

const Command serveCommand = {
    "serve", "serve the series under a directory over HTTP (Grafana, browser)",
    R"(Usage: kelts serve ROOT [--listen ADDR:PORT] [--token-file FILE]

Serves every series under ROOT over HTTP, read-only:
  /                 the trend page: a tree of series, several on one time
                    axis, drag to zoom, pan, minimum-maximum band, follow
  /metrics/find     Graphite's find, for Grafana's Graphite data source
  /render           Graphite's render (json): series paths with globs,
                    alias, consolidateBy, summarize, constantLine
  /functions        the functions supported
  /api/series       the series with type, records, first and last time
  /api/read         ?series=NAME&from=&to=&method=&interval=&format=json|csv
Series are named by their directories below ROOT joined with dots
(plant.boiler1), with the type as a last segment where a directory holds
several. Nothing outside ROOT is reachable.

  --listen ADDR:PORT    where to listen (default 127.0.0.1:8080; port 0
                        picks a free one, printed on start)
  --token-file FILE     every request must carry "Authorization: Bearer
                        <token>" with the token in FILE
  -v, --verbose         one line per request on stderr

Stops on Ctrl-C (SIGINT) or SIGTERM. See docs/serve.md.
)",
    serve};

} // namespace kelts
