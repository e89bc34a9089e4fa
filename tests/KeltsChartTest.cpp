// Charts an operator reads, drawn by kelts plot as a process: lines that
// break at gaps, on/off signals as steps, consumption as bars, several
// series in one chart, a unit, a local time axis, and no label cut off.
// Each chart is also opened in headless Chromium where it is installed; its
// screenshot is kept beside the tests (chart-screenshots/) and must show
// the drawing.

#include "KeltsProcess.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QXmlStreamReader>

#include <cmath>

namespace {

using namespace Kel::test;

// The elements of an SVG file: name and attributes, with text for <text>.
struct SvgElement {
    QString name;
    QXmlStreamAttributes attributes;
    QString text;
    double number(const char* key) const { return attributes.value(QLatin1String(key)).toDouble(); }
};

std::vector<SvgElement> elementsOf(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
    QXmlStreamReader xml(&file);
    std::vector<SvgElement> out;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        SvgElement e{xml.name().toString(), xml.attributes(), QString()};
        if (e.name == u"text")
            e.text = xml.readElementText();
        out.push_back(e);
    }
    EXPECT_FALSE(xml.hasError()) << qPrintable(xml.errorString());
    return out;
}

long long countOf(const std::vector<SvgElement>& elements, const char* name)
{
    return std::count_if(elements.begin(), elements.end(), [name](const SvgElement& e) { return e.name == QLatin1String(name); });
}

class KeltsChart : public KeltsTool {
protected:
    static void SetUpTestSuite() { QDir().mkpath(screenshotDir()); }
    static QString screenshotDir() { return QStringLiteral(KELTS_TEST_OUTPUT_DIR "/chart-screenshots"); }

    // Draws the chart; returns the SVG's path.
    QString plot(const QString& name, const QStringList& args)
    {
        const QString path = dir(name + ".svg");
        const Outcome r = kelts(QStringList{"plot"} + args + QStringList{"--out", path});
        EXPECT_EQ(r.status, 0) << qPrintable(r.err);
        return path;
    }

    // Every label lies inside the chart, by the width the chart estimates
    // for it, and no two labels of the time axis overlap.
    void expectNoLabelCutOff(const std::vector<SvgElement>& elements)
    {
        const double width = elements.front().number("width");
        for (const SvgElement& e : elements) {
            if (e.name != u"text" || e.attributes.hasAttribute(QLatin1String("transform")))
                continue;
            const double w = 7.0 * double(e.text.size()) * (e.attributes.value(QLatin1String("font-size")) == u"16" ? 1.3 : 1.0);
            const QStringView anchor = e.attributes.value(QLatin1String("text-anchor"));
            const double x = e.number("x");
            const double left = anchor == u"end" ? x - w : anchor == u"middle" ? x - w / 2 : x;
            EXPECT_GE(left, 0.0) << qPrintable(e.text);
            EXPECT_LE(left + w, width + 0.5) << qPrintable(e.text);
        }
    }

    // The screenshot of the chart in Chromium, kept for people to look at,
    // must show the drawing: many pixels that are not the background, some
    // of them in the colour of the first line.
    void expectChromiumShows(const QString& svg, const QString& name)
    {
        const QString chromium = QStandardPaths::findExecutable(QStringLiteral("chromium"));
        if (chromium.isEmpty())
            GTEST_SKIP() << "chromium is not installed: the screenshot of " << qPrintable(name) << " was not taken";
        const QString png = screenshotDir() + u'/' + name + QStringLiteral(".png");
        QFile::remove(png);
        QProcess browser;
        browser.start(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                                 "--screenshot=" + png, "--window-size=960,440", "file://" + svg});
        ASSERT_TRUE(browser.waitForFinished(120000));
        const QImage image(png);
        ASSERT_FALSE(image.isNull()) << qPrintable(png);
        long long drawn = 0;
        long long lineColoured = 0;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x) {
                const QColor c = image.pixelColor(x, y);
                drawn += c != Qt::white ? 1 : 0;
                lineColoured += std::abs(c.red() - 0x1f) + std::abs(c.green() - 0x5f) + std::abs(c.blue() - 0xa8) < 60 ? 1 : 0;
            }
        EXPECT_GT(drawn, image.width() * image.height() / 50) << qPrintable(png);
        EXPECT_GT(lineColoured, 200) << qPrintable(png);
    }

    void writeSeries(const QString& name, const char* type, const std::function<QByteArray(int)>& value, int n,
                     long long stepMs, const std::function<bool(int)>& skip = {})
    {
        QByteArray csv;
        for (int i = 0; i < n; ++i)
            if (!skip || !skip(i))
                csv += QByteArray::number(1714521600000LL + i * stepMs) + ',' + value(i) + '\n';
        write(dir(name), type, csv);
    }
};

TEST_F(KeltsChart, ASetpointBesideItsMeasuredValueOnALocalTimeAxisBreaksAtTheGap)
{
    writeSeries("temperature", "double", [](int i) { return QByteArray::number(20 + 3 * std::sin(i / 120.0), 'f', 3); },
                2 * 1440, 60000, [](int i) { return i >= 500 && i < 660; });
    writeSeries("setpoint", "double", [](int i) { return QByteArray(i % 24 < 18 ? "21" : "19"); }, 48, 3600000);
    const QString svg = plot("setpoint-and-temperature",
                             {dir("setpoint"), dir("temperature"), "--unit", "degC", "--tz", "Europe/Berlin"});
    const std::vector<SvgElement> e = elementsOf(svg);
    EXPECT_EQ(countOf(e, "polyline"), 3);   // the setpoint, and the temperature in two pieces
    QStringList texts;
    for (const SvgElement& x : e)
        texts << x.text;
    EXPECT_TRUE(texts.contains("degC"));
    EXPECT_TRUE(texts.contains("time (Europe/Berlin)"));
    EXPECT_TRUE(texts.contains("setpoint: values"));
    EXPECT_TRUE(texts.contains("temperature: values"));
    EXPECT_TRUE(texts.contains("06:00"));   // round local hours: 04:00 UTC
    expectNoLabelCutOff(e);
    expectChromiumShows(svg, "setpoint-and-temperature");
}

TEST_F(KeltsChart, OnOffSignalsAreStepsAndConsumptionIsBars)
{
    writeSeries("pump", "bool", [](int i) { return QByteArray(i % 5 < 2 ? "true" : "false"); }, 96, 900000);
    const QString steps = plot("pump-steps", {dir("pump")  , "--type", "bool"});
    const std::vector<SvgElement> s = elementsOf(steps);
    ASSERT_EQ(countOf(s, "polyline"), 1);
    // Every segment of a step line is level or upright.
    const auto polyline = std::find_if(s.begin(), s.end(), [](const SvgElement& e) { return e.name == u"polyline"; });
    const QStringList points = polyline->attributes.value(QLatin1String("points")).toString().split(u' ');
    for (qsizetype i = 1; i < points.size(); ++i) {
        const QStringList a = points[i - 1].split(u','), b = points[i].split(u',');
        EXPECT_TRUE(a[0] == b[0] || a[1] == b[1]) << qPrintable(points[i - 1] + " " + points[i]);
    }
    expectNoLabelCutOff(s);
    expectChromiumShows(steps, "pump-steps");

    writeSeries("meter", "double", [](int i) { return QByteArray::number(1000000.0 + i * 25.0 + (i / 144) * 900.0, 'f', 1); },
                14 * 144, 600000);
    const QString bars = plot("meter-bars", {dir("meter"), "--method", "diffCtrUpCleaned", "--interval", "day", "--align",
                                             "--bars", "--unit", "kWh", "--title",
                                             "Heat consumption of building 7, wing B, all floors and radiators, per day"});
    const std::vector<SvgElement> b = elementsOf(bars);
    EXPECT_EQ(countOf(b, "polyline"), 0);
    EXPECT_GE(countOf(b, "rect"), 13 + 3);   // a bar a day beside the background, the frame and the swatch
    expectNoLabelCutOff(b);
    expectChromiumShows(bars, "meter-bars");
    EXPECT_EQ(kelts({"plot", dir("meter"), "--bars", "--out", dir("x.svg")}).status, 2);   // bars need intervals
}

} // namespace
