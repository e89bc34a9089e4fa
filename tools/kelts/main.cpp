// kelts: the command-line tool of the time-series storage. main finds the
// command, runs it, and turns its outcome into the exit status.

#include "Commands.h"
#include "Terminal.h"

#include "KelLogger.h"

#include <QByteArray>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace kelts {

namespace {

QString theProgramPath = QStringLiteral("kelts");

const char* const kToolHelp = R"(Usage: kelts COMMAND [DIR] [options]

Keeps time series of process values in plain files and reads them back, raw
or condensed into intervals. A series is a directory and a value type:
  DIR --type T   T is one of bool, char, uchar, short, ushort, int, uint,
                 long, ulong, float, double, string, variant

Commands:
)";

const char* const kToolHelpEnd = R"(
Times are milliseconds since 1970 or ISO 8601 UTC (2024-05-07T09:03:00Z);
now, first and last work as range bounds. "kelts COMMAND --help" tells more.
New here? Run "kelts demo". "kelts --version" prints the version.

Exit status: 0 done, 1 nothing found (or check found problems), 2 bad usage,
bad input, or the storage refused the work, 3 a read met damage (what it
printed may be incomplete: run kelts check), 4 the output could not be
written (full disk, closed pipe).
)";

void printToolHelp(std::FILE* out)
{
    std::fputs(kToolHelp, out);
    for (const Command& c : commands())
        std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fputs(kToolHelpEnd, out);
}

const Command* commandNamed(const QString& name)
{
    for (const Command& c : commands())
        if (name == QLatin1String(c.name))
            return &c;
    return nullptr;
}

QString outputFailure(int error)
{
    return QStringLiteral("%1: the output could not be written: %2; stopped")
        .arg(programName(), QString::fromLocal8Bit(std::strerror(error)));
}

int runCommand(const Command& command, const QStringList& args)
{
    try {
        return command.run(args);
    } catch (const UsageError& e) {
        printErrorLine(e.message);
        if (!e.message.contains(u'\n'))
            printErrorLine(QStringLiteral("(%1 %2 --help shows the options)").arg(programName(), QLatin1String(command.name)));
        return EXIT_BAD_INPUT;
    } catch (const NothingFound& e) {
        printErrorLine(e.message);
        return EXIT_NOTHING;
    } catch (const OutputFailed& e) {
        printErrorLine(outputFailure(e.error));
        return EXIT_OUTPUT;
    }
}

// What stdout kept to the end: a short write or a failed flush turns any
// outcome into EXIT_OUTPUT, for a report cut short is no report.
int withOutputChecked(int status)
{
    if (status == EXIT_OUTPUT)
        return status;
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        printErrorLine(outputFailure(errno));
        return EXIT_OUTPUT;
    }
    return status;
}

} // namespace

const std::vector<Command>& commands()
{
    static const std::vector<Command> all = {
        writeCommand, readCommand, tailCommand, countCommand, firstCommand,     lastCommand,
        findCommand,  prevCommand, deleteCommand, lsCommand, infoCommand,     checkCommand,
        gapsCommand, plotCommand, serveCommand, shipCommand, templatesCommand, demoCommand,
    };
    return all;
}

QString programName()
{
    return QFileInfo(theProgramPath).fileName();
}

QString programPath()
{
    return theProgramPath;
}

void setProgramPath(const QString& path)
{
    theProgramPath = path;
}

} // namespace kelts

int main(int argc, char** argv)
{
    using namespace kelts;
    QStringList args;
    for (int i = 1; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    if (argc > 0 && argv[0][0] != '\0')
        setProgramPath(QString::fromLocal8Bit(argv[0]));

    if (args.isEmpty()) {
        printToolHelp(stderr);
        return EXIT_BAD_INPUT;
    }
    if (args.first() == u"--version") {
        std::printf("%s %s\n", qPrintable(programName()), KELTS_VERSION);
        return withOutputChecked(EXIT_DONE);
    }
    if (args.first() == u"--help" || args.first() == u"-h" || args.first() == u"help") {
        printToolHelp(stdout);
        return EXIT_DONE;
    }
    const Command* command = commandNamed(args.first());
    if (!command) {
        printErrorLine(QStringLiteral("%1: unknown command '%2' (%1 --help lists the commands)")
                           .arg(programName(), args.first()));
        return EXIT_BAD_INPUT;
    }
    // A closed pipe shows as a failed write, which stops the command, rather
    // than as a signal that ends it without a word.
    std::signal(SIGPIPE, SIG_IGN);
    // Likewise a file-size limit (ulimit -f) fails the write that passes it,
    // which the tool reports with what was stored, instead of killing it.
    std::signal(SIGXFSZ, SIG_IGN);
    const int status = withOutputChecked(runCommand(*command, args));
    reportSuppressedLogLines();
    Kel::Logger::instance().setSink({});
    return status;
}
