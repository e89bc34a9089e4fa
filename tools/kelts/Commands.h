// The commands of kelts: how main finds them, what each one is called with,
// and the ways a command ends (done, nothing found, bad usage or input, a
// read that met damage, output that could not be written).
#pragma once

#include <QString>
#include <QStringList>

#include <vector>

namespace kelts {

enum ExitCode : int {
    EXIT_DONE = 0,        // the command did what was asked
    EXIT_NOTHING = 1,     // nothing found (no record, a problem found by check)
    EXIT_BAD_INPUT = 2,   // bad usage, bad input, or the storage refused the work
    EXIT_DAMAGED = 3,     // done, but the read met damage: what it printed may be incomplete
    EXIT_OUTPUT = 4,      // the output could not be written (full disk, closed pipe): stopped
};

// Thrown by a command for bad usage or bad input: main prints the message
// as one line on stderr and exits with EXIT_BAD_INPUT.
struct UsageError {
    QString message;
};

// Thrown when there is nothing to show: main prints the message and exits
// with EXIT_NOTHING.
struct NothingFound {
    QString message;
};

// Thrown when stdout refuses what is written to it: main says why (errno)
// and exits with EXIT_OUTPUT at once.
struct OutputFailed {
    int error;
};

struct Command {
    const char* name;
    const char* summary;   // one line for the tool's own help
    const char* help;      // the command's --help text
    int (*run)(const QStringList& args);   // args start with the command's name
};

const std::vector<Command>& commands();


// The name the tool was started by, for messages ("kelts").
QString programName();
// The path it was started by, for commands the demo suggests.
QString programPath();
void setProgramPath(const QString& path);

// Defined in the command files, next to the code they describe.
extern const Command writeCommand;
extern const Command deleteCommand;
extern const Command readCommand;
extern const Command countCommand;
extern const Command firstCommand;
extern const Command lastCommand;
extern const Command findCommand;
extern const Command prevCommand;
extern const Command infoCommand;
extern const Command lsCommand;
extern const Command gapsCommand;
extern const Command tailCommand;
extern const Command serveCommand;
extern const Command shipCommand;
extern const Command checkCommand;
extern const Command templatesCommand;
extern const Command plotCommand;
extern const Command demoCommand;

} // namespace kelts
