// The kelts tool driven as an operator drives it: a separate process on
// scratch directories, checked by its output and exit status. The fixture
// of the tool's tests.
#pragma once

#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>

namespace Kel::test {

struct Outcome {
    int status = -1;
    QString out;
    QString err;
};

inline QStringList lines(const QString& text)
{
    return text.split(u'\n', Qt::SkipEmptyParts);
}

class KeltsTool : public ::testing::Test {
protected:
    Outcome kelts(const QStringList& args, const QByteArray& input = QByteArray(),
              const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment())
    {
        QProcess p;
        p.setProcessEnvironment(env);
        p.start(QStringLiteral(KELTS_BINARY), args);
        EXPECT_TRUE(p.waitForStarted());
        p.write(input);
        p.closeWriteChannel();
        EXPECT_TRUE(p.waitForFinished(120000));
        return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1,
                QString::fromUtf8(p.readAllStandardOutput()), QString::fromUtf8(p.readAllStandardError())};
    }

    // Writes CSV into a series and expects success.
    void write(const QString& series, const char* type, const QByteArray& csv, const QStringList& extra = {})
    {
        const Outcome r = kelts(QStringList{"write", series, "--type", QLatin1String(type)} + extra, csv);
        ASSERT_EQ(r.status, 0) << qPrintable(r.err);
    }

    QStringList readLines(const QString& series, const char* type, const QStringList& extra = {})
    {
        const Outcome r = kelts(QStringList{"read", series, "--type", QLatin1String(type), "--time", "ms"} + extra);
        EXPECT_EQ(r.status, 0) << qPrintable(r.err);
        return lines(r.out);
    }

    QString dir(const QString& name = QStringLiteral("s")) const { return tmp.path() + u'/' + name; }

    // Three days of hourly readings, each day written separately, so that
    // a small size limit gives one file per day.
    void writeThreeDays(const QString& d)
    {
        for (const char* day : {"06", "07", "08"}) {
            QByteArray csv;
            for (int h = 10; h < 18; ++h)
                csv += QStringLiteral("2024-05-%1T%2:00:00Z,%3\n").arg(day).arg(h).arg(h).toUtf8();
            write(d, "int", csv, {"--max-file-size", "64"});
        }
    }

    QTemporaryDir tmp;
};

} // namespace Kel::test
