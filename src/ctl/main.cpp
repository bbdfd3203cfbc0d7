// quillbase-ctl: the operator's commands on a running Quillbase server, through
// its control socket (quillbase.sock in the installation folder). The server
// runs each command through the same code as its window and sends back the
// outcome, the texts of its boxes and the data to show; this program only
// parses the command line and prints.
#include "label/label.h"
#include "shell/controlprotocol.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QLockFile>
#include <QRegularExpression>
#include <QSysInfo>
#include <QTextStream>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <functional>

namespace control = quill::control;

namespace {

enum Exit { Success = 0, Refused = 1, Usage = 2, NoServer = 3, NoAnswer = 4 };

// --json anywhere on the line: failures of this program come as JSON too.
bool jsonMode = false;

QTextStream out(stdout);
QTextStream err(stderr);

struct Option {
    const char* name;
    const char* value; // nullptr for a flag
    const char* help;
    const char* key;   // the request's argument
    enum Kind { Text, Number, Switch, Flag } kind;
};

const QList<Option> printerOptions{
    {"name", "TEXT", "printer name", "name", Option::Text},
    {"type", "NAME|ID", "printer type (as listed in the database)", "type", Option::Text},
    {"connection", "serial|network", "how it is attached (add: network when --address is given)", "connection",
     Option::Text},
    {"com", "1..4", "serial port (COM1..COM4)", "com", Option::Text},
    {"rate", "9600|57600", "serial rate", "rate", Option::Text},
    {"address", "ADDR", "network box address", "address", Option::Text},
    {"net-port", "PORT", "network box port (the box's default is 23)", "netPort", Option::Text},
    {"connect-only", "on|off", "the network box is set up already: configure over the network", "connectOnly",
     Option::Switch},
    {"darkness", "1..10", "print darkness", "darkness", Option::Text},
    {"speed", "1..8", "print speed", "speed", Option::Text},
    {"passive", "on|off", "registered but not used", "passive", Option::Switch},
    {"cutter", "on|off", "a cutter is fitted", "cutter", Option::Switch},
    {"feed", "N", "dispensing feed after a label, 1/10 mm", "feed", Option::Text},
    {"reverse-feed", "N", "back-feed before a label, 1/10 mm", "reverseFeed", Option::Text},
};

const QList<Option> settingsOptions{
    {"port", "N", "TCP port of the print requests", "port", Option::Text},
    {"auto-start-service", "on|off", "start the print service with the server", "autoStartService", Option::Switch},
    {"start-minimized", "on|off", "the window starts minimised", "startMinimized", Option::Switch},
    {"silent", "on|off", "silent mode: error boxes are only logged", "silent", Option::Switch},
    {"log", "on|off", "event log", "log", Option::Switch},
    {"traffic-log", "on|off", "traffic log of the received requests", "trafficLog", Option::Switch},
    {"quit-question", "on|off", "the window asks before quitting", "quitQuestion", Option::Switch},
};

struct Command {
    QString name;      // "printer edit"
    QString request;   // "printer-edit"
    QString synopsis;  // after the name
    QString summary;
    QList<Option> options;
    int minArgs = 0, maxArgs = 0; // positional arguments after the name (-1: any number)
    bool idArg = false;           // the first argument is a printer id
    bool device = false;          // a device operation: the answer may take long
};

const QList<Command>& commands()
{
    static const QList<Command> list{
        {"status", control::command::Status, "", "Service state, listener, every printer with its status and queue length.", {}},
        {"jobs", control::command::Jobs, "[--printer N]", "The queue in print order.",
         {{"printer", "N", "only the jobs of printer N", "printer", Option::Number}}},
        {"delete", control::command::Delete, "ID... | --all",
         "Delete queued jobs (only while the print service is stopped). Every id is checked before any is deleted.",
         {{"all", nullptr, "delete every queued job", "all", Option::Flag}}, 0, -1},
        {"start", control::command::Start, "", "Start the print service.", {}},
        {"stop", control::command::Stop, "", "Stop the print service.", {}},
        {"refresh", control::command::Refresh, "[--full]", "Check every printer now.",
         {{"full", nullptr, "reconfigure the serial printers first", "full", Option::Flag}}},
        {"printer add", control::command::PrinterAdd, "[OPTIONS]",
         "Register a printer in the lowest free slot (1..5); it is checked at once.", printerOptions},
        {"printer edit", control::command::PrinterEdit, "ID [OPTIONS]",
         "Change printer ID; options not given keep their stored values. It is checked at once.", printerOptions, 1,
         1, true},
        {"printer remove", control::command::PrinterRemove, "ID", "Remove printer ID (its queued jobs stay).", {}, 1, 1, true},
        {"printer configure", control::command::PrinterConfigure, "ID",
         "Send printer ID its stored configuration (connection, darkness, speed, feeds).", {}, 1, 1, true, true},
        {"printer test", control::command::PrinterTest, "ID", "Print a test label on printer ID.", {}, 1, 1, true, true},
        {"printer clear", control::command::PrinterClear, "ID", "Clear the memory of printer ID.", {}, 1, 1, true, true},
        {"printer calibrate", control::command::PrinterCalibrate, "ID", "Calibrate printer ID.", {}, 1, 1, true, true},
        {"settings", control::command::Settings, "", "Show the TCP port and the switches ('settings set' changes them).", {}},
        {"preview", control::command::Preview, "ID -o FILE",
         "Draw queued job ID as its printer would print it (its layout and fields) into a PNG file.",
         {{"output", "FILE", "the PNG file to write (-o FILE)", "output", Option::Text}}, 1, 1},
        {"move", control::command::Move, "ID... --to N | --from N --to N",
         "Give queued jobs to printer N (registered, not passive); each keeps its place in the queue. "
         "--from moves every queued job of a printer but the one being printed. One transaction.",
         {{"to", "N", "the printer that gets the jobs", "to", Option::Number},
          {"from", "N", "move every queued job of printer N", "from", Option::Number}},
         0, -1},
        {"cancel", control::command::Cancel, "ID",
         "Cancel queued job ID while the print service runs (not one being printed); it goes into the history.", {}, 1,
         1},
        {"history", control::command::History, "[--limit N]",
         "Jobs printed or cancelled, newest first (the history keeps the last 10,000 of at most 30 days, or as set).",
         {{"limit", "N", "show at most N entries (default 50)", "limit", Option::Number}}},
        {"reprint", control::command::Reprint, "ID [--printer N]",
         "Queue a copy of history entry ID as a new job, on its printer or printer N.",
         {{"printer", "N", "print it on printer N instead", "printer", Option::Number}}, 1, 1},
        {"settings set", control::command::SettingsSet, "OPTIONS",
         "Change the port and switches. A running print service is stopped first, as the settings dialog does; "
         "start it again with 'start'.",
         settingsOptions},
    };
    return list;
}

QString commonHelp()
{
    return QStringLiteral("Common options:\n"
                          "  --home DIR   installation folder of the server (default: this program's folder,\n"
                          "               or /var/lib/quillbase for the installed service)\n"
                          "  --json       print the server's answer as one JSON object (on failure too:\n"
                          "               {\"ok\":false,\"reason\":...,\"error\":...})\n"
                          "  --timeout S  wait at most S seconds for the answer (default 120; 300 for the\n"
                          "               printer's device commands)\n"
                          "  --help       this help\n"
                          "  --version    the program's version\n");
}

QString exitHelp()
{
    return QStringLiteral("Exit status: 0 done, 1 the server refused (the reason on stderr), 2 bad usage,\n"
                          "3 no server runs in that folder, 4 a server runs there but does not answer.\n");
}

// The first sentence of a summary ("1..5" is no sentence end).
QString firstSentence(const QString& summary)
{
    const qsizetype end = summary.indexOf(QRegularExpression(QStringLiteral("\\.(\\s|$)")));
    return end < 0 ? summary : summary.left(end + 1);
}

QString usage(const Command& c)
{
    QString t = QStringLiteral("Usage: quillbase-ctl [--home DIR] [--json] [--timeout S] %1 %2\n\n%3\n")
                    .arg(c.name, c.synopsis, c.summary);
    if (!c.options.isEmpty()) {
        t += QStringLiteral("\nOptions:\n");
        for (const Option& o : c.options) {
            const QString left = QStringLiteral("--%1%2").arg(QLatin1String(o.name),
                                                             o.value ? QStringLiteral(" ") + QLatin1String(o.value)
                                                                     : QString());
            t += QStringLiteral("  %1  %2\n").arg(left, -30).arg(QLatin1String(o.help));
        }
    }
    return t + QLatin1Char('\n') + commonHelp() + QLatin1Char('\n') + exitHelp();
}

QString mainUsage()
{
    QString t = QStringLiteral("Usage: quillbase-ctl [--home DIR] [--json] [--timeout S] COMMAND [ARGUMENTS]\n\n"
                               "The operator's commands on a running Quillbase server, through its control socket\n"
                               "(quillbase.sock in the installation folder).\n\nCommands:\n");
    for (const Command& c : commands())
        t += QStringLiteral("  %1  %2\n").arg(c.name + QLatin1Char(' ') + c.synopsis, -36).arg(firstSentence(c.summary));
    return t + QStringLiteral("\n'quillbase-ctl COMMAND --help' describes a command.\n\n") + commonHelp()
        + QLatin1Char('\n') + exitHelp();
}

// `quillbase-ctl printer --help`: the commands that start with `group`.
QString groupUsage(const QString& group)
{
    QString t = QStringLiteral("Usage: quillbase-ctl [--home DIR] [--json] [--timeout S] %1 SUBCOMMAND [ARGUMENTS]\n\n"
                               "Subcommands:\n")
                    .arg(group);
    for (const Command& c : commands())
        if (c.name.startsWith(group + QLatin1Char(' ')))
            t += QStringLiteral("  %1  %2\n").arg(c.name + QLatin1Char(' ') + c.synopsis, -36).arg(firstSentence(c.summary));
    return t + QStringLiteral("\n'quillbase-ctl %1 SUBCOMMAND --help' describes one.\n\n").arg(group) + commonHelp();
}

bool isGroup(const QString& word)
{
    for (const Command& c : commands())
        if (c.name.startsWith(word + QLatin1Char(' ')) && c.name != word)
            return true;
    return false;
}

// A failure of this program (not the server's refusal): stderr, and with
// --json one object on stdout.
int failure(int code, const QString& reason, const QString& message)
{
    err << "quillbase-ctl: " << message << Qt::endl;
    if (jsonMode)
        out << QJsonDocument(QJsonObject{{QStringLiteral("ok"), false},
                                         {QStringLiteral("reason"), reason},
                                         {QStringLiteral("error"), message},
                                         {QStringLiteral("exitStatus"), code}})
                   .toJson(QJsonDocument::Compact)
            << Qt::endl;
    return code;
}

int usageError(const QString& message, const Command* c = nullptr)
{
    const QString hint = c ? QStringLiteral("Try 'quillbase-ctl %1 --help'.").arg(c->name)
                           : QStringLiteral("Try 'quillbase-ctl --help'.");
    failure(Usage, QStringLiteral("usage"), message);
    err << hint << Qt::endl;
    return Usage;
}

// ------------------------------------------------------------------ printing

QString duration(qint64 s)
{
    if (s < 60)
        return QStringLiteral("%1s").arg(s);
    if (s < 3600)
        return QStringLiteral("%1m %2s").arg(s / 60).arg(s % 60, 2, 10, QLatin1Char('0'));
    if (s < 86400)
        return QStringLiteral("%1h %2m").arg(s / 3600).arg((s % 3600) / 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1d %2h").arg(s / 86400).arg((s % 86400) / 3600);
}

void table(const QStringList& headers, const QList<QStringList>& rows)
{
    QList<int> width;
    for (const QString& h : headers)
        width << int(h.size());
    for (const QStringList& r : rows)
        for (int i = 0; i < r.size(); ++i)
            width[i] = qMax(width[i], int(r[i].size()));
    const auto line = [&](const QStringList& cells) {
        QString l;
        for (int i = 0; i < cells.size(); ++i)
            l += i + 1 < cells.size() ? cells[i].leftJustified(width[i] + 2) : cells[i];
        out << l << '\n';
    };
    line(headers);
    for (const QStringList& r : rows)
        line(r);
}

QString onOff(bool on)
{
    return on ? QStringLiteral("on") : QStringLiteral("off");
}

QString statusCell(const QJsonObject& p)
{
    const QString word = p[QLatin1String("statusWord")].toString();
    const QString text = p[QLatin1String("statusText")].toString();
    return text.isEmpty() || text == word ? word : word.isEmpty() ? text : word + QStringLiteral(": ") + text;
}

void printPrinters(const QJsonArray& printers)
{
    QList<QStringList> rows;
    for (const QJsonValue& v : printers) {
        const QJsonObject p = v.toObject();
        rows << QStringList{QString::number(p[QLatin1String("id")].toInt()), p[QLatin1String("name")].toString(),
                            p[QLatin1String("connection")].toString() + (p[QLatin1String("passive")].toBool()
                                                                             ? QStringLiteral(" (passive)")
                                                                             : QString()),
                            statusCell(p), duration(p[QLatin1String("seconds")].toInteger()),
                            QString::number(p[QLatin1String("queued")].toInt())};
    }
    table({"ID", "PRINTER", "CONNECTION", "STATUS", "FOR", "QUEUED"}, rows);
}

void printStatus(const QJsonObject& r)
{
    const QJsonObject service = r[QLatin1String("service")].toObject();
    const QJsonObject l = r[QLatin1String("listener")].toObject();
    out << "Print service: " << service[QLatin1String("text")].toString()
        << (service[QLatin1String("running")].toBool() ? " (running)" : " (stopped)") << '\n';
    if (l[QLatin1String("listening")].toBool())
        out << "Listener:      " << l[QLatin1String("address")].toString() << " port "
            << l[QLatin1String("port")].toInt() << ", " << l[QLatin1String("connections")].toInt() << " of "
            << l[QLatin1String("maxConnections")].toInt() << " connections in use\n";
    else
        out << "Listener:      not listening (port " << l[QLatin1String("port")].toInt()
            << " could not be opened; change it with 'settings set --port N')\n";
    out << "Jobs queued:   " << r[QLatin1String("queued")].toInt() << "\n\n";
    const QJsonArray printers = r[QLatin1String("printers")].toArray();
    if (printers.isEmpty())
        out << "No printers. Add one with 'quillbase-ctl printer add'.\n";
    else
        printPrinters(printers);
}

void printJobs(const QJsonObject& r)
{
    QList<QStringList> rows;
    for (const QJsonValue& v : r[QLatin1String("jobs")].toArray()) {
        const QJsonObject j = v.toObject();
        rows << QStringList{QString::number(j[QLatin1String("id")].toInt()), j[QLatin1String("copies")].toVariant().toString(),
                            QStringLiteral("%1 %2").arg(j[QLatin1String("printerId")].toInt()).arg(j[QLatin1String("printer")].toString()),
                            j[QLatin1String("sender")].toString(), j[QLatin1String("caption")].toString()};
    }
    if (rows.isEmpty())
        out << "No jobs queued.\n";
    else
        table({"ID", "COPIES", "PRINTER", "SENDER", "CAPTION"}, rows);
}

void printSettings(const QJsonObject& r)
{
    const QJsonObject s = r[QLatin1String("settings")].toObject();
    const QJsonObject labels = r[QLatin1String("labels")].toObject();
    QList<QStringList> rows;
    rows << QStringList{"--port", s[QLatin1String("port")].toVariant().toString(), labels[QLatin1String("port")].toString()};
    for (const Option& o : settingsOptions) {
        if (QLatin1String(o.key) == QLatin1String("port"))
            continue;
        rows << QStringList{QStringLiteral("--") + QLatin1String(o.name), onOff(s[QLatin1String(o.key)].toBool()),
                            labels[QLatin1String(o.key)].toString()};
    }
    rows << QStringList{"(start at logon)", onOff(s[QLatin1String("autoStartAtLogon")].toBool()),
                        labels[QLatin1String("autoStartAtLogon")].toString()};
    table({"SETTING", "VALUE", "SHOWN AS"}, rows);
}

// The option a refused field belongs to.
QString optionOf(const QString& field)
{
    static const QHash<QString, QString> operatorFields{{"PrinterName", "--name"},
                                                        {"NetAddress", "--address"},
                                                        {"NetPort", "--net-port"},
                                                        {"ServerPort", "--port"}};
    if (operatorFields.contains(field))
        return operatorFields.value(field);
    for (const Option& o : printerOptions)
        if (QLatin1String(o.key) == field)
            return QStringLiteral("--") + QLatin1String(o.name);
    return field;
}

QString reasonText(const Command& c, const QJsonObject& r, const QStringList& args)
{
    const QString name = r[QLatin1String("reason")].toString();
    using control::Reason;
    const Reason reason = control::reasonFromName(name);
    // The printer a refusal is about: the command's argument, or the one jobs were to go to.
    const QString id = r.contains(QLatin1String("targetPrinter")) && r[QLatin1String("targetPrinter")].toInt() > 0
        ? QString::number(r[QLatin1String("targetPrinter")].toInt())
        : args.value(0);
    if (reason == Reason::UnknownJob && c.request != control::command::Delete)
        return args.isEmpty() ? QStringLiteral("no job ids given")
                              : QStringLiteral("no queued job with id %1").arg(args.join(QStringLiteral(", ")));
    if (reason == Reason::JobPrinting)
        return QStringLiteral("the job is being printed; it cannot be moved or cancelled now");
    if (reason == Reason::PrinterPassive)
        return QStringLiteral("printer %1 is passive; it takes no jobs").arg(id);
    if (reason == Reason::NotInHistory)
        return QStringLiteral("no history entry %1 (the history keeps the last 10,000 jobs of at most 30 days; "
                              "see 'quillbase-ctl history')")
            .arg(args.value(0));
    if (reason == Reason::NoLayout)
        return QStringLiteral("the job's layout %1 cannot be read").arg(r[QLatin1String("layoutFile")].toString());
    if (reason == Reason::Starting)
        return QStringLiteral("the server is still starting; try again in a moment");
    if (reason == Reason::Busy)
        return QStringLiteral("a printer operation (configure, test...) is under way; try again when it is over");
    if (reason == Reason::DialogOpen)
        return QStringLiteral("a printer dialog is open in the server's window; close it first");
    if (reason == Reason::ServiceRunning)
        return QStringLiteral("jobs can only be deleted while the print service is stopped ('quillbase-ctl stop')");
    if (reason == Reason::NoListener)
        return QStringLiteral("the print service cannot start while the server has no TCP listener "
                              "(see 'quillbase-ctl status'; change the port with 'settings set --port N')");
    if (reason == Reason::UnknownJob) {
        QStringList ids;
        for (const QJsonValue& v : r[QLatin1String("ids")].toArray())
            ids << QString::number(v.toInt());
        return ids.isEmpty() ? QStringLiteral("no job ids given")
                             : QStringLiteral("no queued job with id %1; nothing was deleted").arg(ids.join(", "));
    }
    if (reason == Reason::PrinterRange)
        return QStringLiteral("printer id %1 is outside 1..5").arg(id);
    if (reason == Reason::NoPrinter)
        return QStringLiteral("there is no printer %1").arg(id);
    if (reason == Reason::PrinterWorking)
        return QStringLiteral("printer %1 is printing or being checked; try again shortly").arg(id);
    if (reason == Reason::PrintersFull)
        return QStringLiteral("all five printer slots are in use");
    if (reason == Reason::BadValue) {
        QStringList allowed;
        for (const QJsonValue& v : r[QLatin1String("allowed")].toArray())
            allowed << v.toString();
        return QStringLiteral("%1: '%2' is not %3; nothing was changed")
            .arg(optionOf(r[QLatin1String("field")].toString()), r[QLatin1String("value")].toString(),
                 allowed.isEmpty() ? QStringLiteral("a number of digits only")
                                   : QStringLiteral("one of: ") + allowed.join(QStringLiteral(", ")));
    }
    if (reason == Reason::Invalid)
        return QStringLiteral("%1 was not accepted; nothing was changed").arg(optionOf(r[QLatin1String("field")].toString()));
    if (reason == Reason::RebindFailed)
        return QStringLiteral("the new port could not be opened: the server has no TCP listener until a port "
                              "change works or it restarts (the stored port is unchanged)");
    if (reason == Reason::NoDeviceSupport)
        return QStringLiteral("this printer type has no device support");
    if (reason == Reason::Failed)
        return QStringLiteral("the command failed; the server's event log has the details");
    if (reason == Reason::BadRequest)
        return QStringLiteral("the server did not understand the request (is it another version?)");
    return QStringLiteral("refused (%1)").arg(name);
}

void printMessages(const QJsonObject& r, QTextStream& to)
{
    for (const QJsonValue& v : r[QLatin1String("messages")].toArray()) {
        QString text = v.toObject()[QLatin1String("text")].toString();
        text.replace(QLatin1String("\r\n"), QLatin1String("\n")).replace(QLatin1Char('\r'), QLatin1Char('\n'));
        to << text.trimmed() << Qt::endl;
    }
}

void printResult(const Command& c, const QJsonObject& r, const QStringList& args)
{
    const bool nothing = r[QLatin1String("outcome")].toString() == QLatin1String("NothingToDo");
    const QString req = c.request;
    if (req == control::command::Status)
        printStatus(r);
    else if (req == control::command::Jobs)
        printJobs(r);
    else if (req == control::command::Settings || req == control::command::SettingsSet) {
        if (req == control::command::SettingsSet && !r[QLatin1String("serviceRunning")].toBool())
            out << "Settings saved; the print service is stopped.\n";
        else if (req == control::command::SettingsSet)
            out << "Settings saved.\n";
        if (req == control::command::Settings)
            printSettings(r);
    } else if (req == control::command::Start || req == control::command::Stop) {
        out << "Print service: " << r[QLatin1String("service")].toObject()[QLatin1String("text")].toString()
            << (nothing ? QStringLiteral(" (no change)") : QString()) << '\n';
    } else if (req == control::command::Delete) {
        if (nothing)
            out << "The queue is empty.\n";
        else if (r.contains(QLatin1String("deleted"))) {
            QStringList ids;
            for (const QJsonValue& v : r[QLatin1String("deleted")].toArray())
                ids << QString::number(v.toInt());
            out << "Deleted job " << ids.join(", ") << ".\n";
        } else
            out << "Deleted every job.\n";
    } else if (req == control::command::Preview) {
        out << "Job " << r[QLatin1String("job")].toInt() << " (layout " << r[QLatin1String("layoutFile")].toString()
            << "): " << r[QLatin1String("file")].toString() << ", " << r[QLatin1String("width")].toInt() << " x "
            << r[QLatin1String("height")].toInt() << " dots.\n";
    } else if (req == control::command::Move) {
        const int moved = r[QLatin1String("moved")].toInt();
        if (nothing)
            out << "Nothing to move: the jobs are printer " << r[QLatin1String("targetPrinter")].toInt() << "'s already.\n";
        else
            out << "Moved " << moved << (moved == 1 ? " job" : " jobs") << " to printer "
                << r[QLatin1String("targetPrinter")].toInt() << ".\n";
    } else if (req == control::command::Cancel) {
        out << "Cancelled job " << r[QLatin1String("id")].toInt() << ".\n";
    } else if (req == control::command::Reprint) {
        out << "Queued job " << r[QLatin1String("job")].toInt() << ", a reprint of history entry " << args.value(0)
            << ".\n";
    } else if (req == control::command::History) {
        QList<QStringList> rows;
        for (const QJsonValue& v : r[QLatin1String("history")].toArray()) {
            const QJsonObject h = v.toObject();
            const QDateTime at = QDateTime::fromString(h[QLatin1String("finished")].toString(), Qt::ISODate).toLocalTime();
            rows << QStringList{QString::number(h[QLatin1String("id")].toInt()),
                                QString::number(h[QLatin1String("job")].toInt()),
                                QStringLiteral("%1 %2").arg(h[QLatin1String("printerId")].toInt())
                                    .arg(h[QLatin1String("printer")].toString()).trimmed(),
                                at.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")), h[QLatin1String("outcome")].toString(),
                                h[QLatin1String("workstation")].toString(), h[QLatin1String("caption")].toString()};
        }
        if (rows.isEmpty())
            out << "The history is empty.\n";
        else
            table({"ID", "JOB", "PRINTER", "FINISHED", "OUTCOME", "SENDER", "CAPTION"}, rows);
    } else if (req == control::command::Refresh) {
        out << "Status check started; 'quillbase-ctl status' shows the results.\n";
    } else if (req == control::command::PrinterRemove) {
        out << "Printer " << r[QLatin1String("removed")].toInt() << " removed.\n";
    } else if (r.contains(QLatin1String("printer"))) {
        const QJsonObject p = r[QLatin1String("printer")].toObject();
        if (req == control::command::PrinterAdd || req == control::command::PrinterEdit)
            out << "Printer " << p[QLatin1String("id")].toInt() << " saved.\n";
        else
            out << "Done.\n";
        printPrinters({p});
    }
}

// ------------------------------------------------------------------ request

// The server's default is its own folder; an installed server (the package's
// service) keeps its installation in /var/lib/quillbase instead.
QString defaultHome()
{
    const QString own = QCoreApplication::applicationDirPath();
    const QString service = QStringLiteral("/var/lib/quillbase");
    // brixa.mda, which every installation has (one on PostgreSQL has no brixa.mdb).
    if (!QFileInfo::exists(own + QStringLiteral("/brixa.mda")) && QFileInfo::exists(service + QStringLiteral("/brixa.mda")))
        return service;
    return own;
}

// Whether a live process on this machine holds the folder's single-instance
// lock: then a server runs there even when its socket does not answer.
bool serverHoldsLock(const QString& home)
{
    qint64 pid = 0;
    QString host, app;
    QLockFile lock(QDir(home).filePath(QStringLiteral("quillbase.lock")));
    if (!lock.getLockInfo(&pid, &host, &app) || pid <= 0)
        return false;
    if (!host.isEmpty() && host != QSysInfo::machineHostName())
        return false;
    // EPERM: it runs, as another user (the service's).
    return ::kill(pid_t(pid), 0) == 0 || errno == EPERM;
}

int send(const QString& home, const Command& c, QJsonObject args, bool json, const QStringList& positional,
         int timeoutSeconds)
{
    const QString path = QDir(home).filePath(QStringLiteral("quillbase.sock"));
    const QString folder = QDir::toNativeSeparators(home);
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(5000)) {
        if (socket.error() == QLocalSocket::SocketAccessError)
            return failure(Refused, QStringLiteral("not-allowed"),
                           QStringLiteral("not allowed to connect to %1 (only the server's user and group may)")
                               .arg(path));
        const QString why = QFileInfo::exists(path) ? socket.errorString() : QStringLiteral("no quillbase.sock there");
        if (serverHoldsLock(home))
            return failure(NoAnswer, QStringLiteral("no-answer"),
                           QStringLiteral("the server in %1 does not answer (%2); it runs but may be overloaded or "
                                          "out of file descriptors: see its event log")
                               .arg(folder, why));
        return failure(NoServer, QStringLiteral("no-server"),
                       QStringLiteral("no Quillbase server runs in %1 (%2)").arg(folder, why));
    }
    const QJsonObject request{{QStringLiteral("command"), c.request}, {QStringLiteral("args"), args}};
    socket.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    // A device operation talks to the printer with its own bounded waits.
    const int limitMs = timeoutSeconds > 0 ? timeoutSeconds * 1000 : c.device ? 300000 : 120000;
    QElapsedTimer waited;
    waited.start();
    while (!socket.canReadLine() && socket.state() == QLocalSocket::ConnectedState && waited.elapsed() < limitMs)
        socket.waitForReadyRead(int(qMin<qint64>(1000, limitMs - waited.elapsed())));
    if (!socket.canReadLine())
        return failure(NoAnswer, QStringLiteral("no-answer"),
                       socket.state() == QLocalSocket::ConnectedState
                           ? QStringLiteral("the server in %1 did not answer within %2 s").arg(folder).arg(limitMs / 1000)
                           : QStringLiteral("the server in %1 closed the connection without an answer").arg(folder));
    QJsonParseError parseError;
    QJsonObject reply = QJsonDocument::fromJson(socket.readLine(), &parseError).object();
    if (parseError.error != QJsonParseError::NoError)
        return failure(Refused, QStringLiteral("unreadable-answer"),
                       QStringLiteral("unreadable answer from the server: ") + parseError.errorString());
    const bool ok = reply[QLatin1String("ok")].toBool();
    if (ok && c.request == control::command::Preview) {
        // Drawn here by the label renderer the emulator prints with.
        quill::LabelLayout layout;
        QString why;
        if (!quill::ParseLabelLayout(reply[QLatin1String("layout")].toString(), &layout, &why))
            return failure(Refused, QStringLiteral("bad-layout"),
                           QStringLiteral("layout %1: %2").arg(reply[QLatin1String("layoutFile")].toString(), why));
        QMap<int, QString> variables;
        const QJsonObject vars = reply[QLatin1String("variables")].toObject();
        for (auto it = vars.begin(); it != vars.end(); ++it)
            variables.insert(it.key().toInt(), it.value().toString());
        const QString file = args[QLatin1String("output")].toString();
        const QImage label = quill::RenderLabel(layout, variables);
        if (!label.save(file, "PNG"))
            return failure(Refused, QStringLiteral("cannot-write"), QStringLiteral("cannot write %1").arg(file));
        reply[QLatin1String("file")] = QFileInfo(file).absoluteFilePath();
        reply[QLatin1String("width")] = label.width();
        reply[QLatin1String("height")] = label.height();
        reply.remove(QLatin1String("layout"));
        reply.remove(QLatin1String("variables"));
    }
    if (json) {
        out << QJsonDocument(reply).toJson(QJsonDocument::Compact) << Qt::endl;
    } else {
        // The server's boxes first, as they came; on success to stdout.
        printMessages(reply, ok ? out : err);
        if (ok)
            printResult(c, reply, positional);
    }
    out.flush();
    if (!ok) {
        err << "quillbase-ctl: " << reasonText(c, reply, positional) << Qt::endl;
        return control::reasonFromName(reply[QLatin1String("reason")].toString()) == control::Reason::BadRequest ? Usage
                                                                                                            : Refused;
    }
    return Success;
}

int run(const QStringList& arguments)
{
    // The command is the first word that is not a common option.
    QStringList words;
    bool help = false;
    for (int i = 1; i < arguments.size(); ++i) {
        const QString a = arguments[i];
        if (a == QLatin1String("--home") || a == QLatin1String("--timeout")) {
            ++i;
        } else if (a == QLatin1String("--json")) {
            jsonMode = true;
        } else if (a == QLatin1String("--version")) {
            out << "quillbase-ctl " << QUILL_VERSION << Qt::endl;
            return Success;
        } else if (a == QLatin1String("--help") || a == QLatin1String("-h")) {
            help = true;
        } else if (!a.startsWith(QLatin1Char('-'))) {
            words << a;
            if (words.size() == 2)
                break;
        }
    }
    const Command* command = nullptr;
    for (const Command& c : commands()) {
        const QStringList name = c.name.split(QLatin1Char(' '));
        if (words.mid(0, name.size()) == name && (!command || name.size() > command->name.count(QLatin1Char(' ')) + 1))
            command = &c;
    }
    if (!command) {
        if (words.isEmpty() && help) {
            out << mainUsage();
            return Success;
        }
        if (words.isEmpty())
            return usageError(QStringLiteral("no command given"));
        if (isGroup(words[0]) && words.size() == 1) {
            if (help) {
                out << groupUsage(words[0]);
                return Success;
            }
            return usageError(QStringLiteral("'%1' needs a subcommand; see 'quillbase-ctl %1 --help'").arg(words[0]));
        }
        if (isGroup(words[0]))
            return usageError(QStringLiteral("unknown %1 subcommand '%2'; see 'quillbase-ctl %1 --help'")
                                  .arg(words[0], words[1]));
        return usageError(QStringLiteral("unknown command '%1'").arg(words.join(QLatin1Char(' '))));
    }

    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addOption({QStringLiteral("home"), QString(), QStringLiteral("DIR")});
    parser.addOption({QStringLiteral("json"), QString()});
    parser.addOption({QStringLiteral("timeout"), QString(), QStringLiteral("S")});
    parser.addOption({{QStringLiteral("help"), QStringLiteral("h")}, QString()});
    for (const Option& o : command->options) {
        QStringList names{QLatin1String(o.name)};
        if (names[0] == QLatin1String("output"))
            names.prepend(QStringLiteral("o"));
        parser.addOption(o.value ? QCommandLineOption(names, QString(), QLatin1String(o.value))
                                 : QCommandLineOption(names, QString()));
    }
    if (!parser.parse(arguments))
        return usageError(parser.errorText(), command);
    if (parser.isSet(QStringLiteral("help"))) {
        out << usage(*command);
        return Success;
    }
    QStringList positional = parser.positionalArguments().mid(command->name.count(QLatin1Char(' ')) + 1);
    if (positional.size() < command->minArgs)
        return usageError(QStringLiteral("missing argument"), command);
    if (command->maxArgs >= 0 && positional.size() > command->maxArgs)
        return usageError(QStringLiteral("unexpected argument '%1'").arg(positional.value(command->maxArgs)), command);

    QJsonObject args;
    bool ok = true;
    if (command->idArg) {
        const int id = positional[0].toInt(&ok);
        if (!ok)
            return usageError(QStringLiteral("printer id '%1' is not a number").arg(positional[0]), command);
        args[QStringLiteral("id")] = id;
    }
    const bool jobIds = command->request == control::command::Delete || command->request == control::command::Move;
    if (command->request == control::command::Preview || command->request == control::command::Cancel
        || command->request == control::command::Reprint) {
        const int id = positional[0].toInt(&ok);
        if (!ok)
            return usageError(QStringLiteral("id '%1' is not a number").arg(positional[0]), command);
        args[QStringLiteral("id")] = id;
    }
    if (command->request == control::command::Preview && !parser.isSet(QStringLiteral("output")))
        return usageError(QStringLiteral("give the PNG file to write with -o FILE"), command);
    if (command->request == control::command::Move) {
        if (!parser.isSet(QStringLiteral("to")))
            return usageError(QStringLiteral("give the printer that gets the jobs with --to N"), command);
        if (parser.isSet(QStringLiteral("from")) == !positional.isEmpty())
            return usageError(QStringLiteral("give job ids or --from N"), command);
    }
    if (jobIds) {
        if (command->request == control::command::Delete && parser.isSet(QStringLiteral("all")) == !positional.isEmpty())
            return usageError(QStringLiteral("give job ids or --all"), command);
        QJsonArray ids;
        for (const QString& p : positional) {
            const int id = p.toInt(&ok);
            if (!ok)
                return usageError(QStringLiteral("job id '%1' is not a number").arg(p), command);
            ids.append(id);
        }
        args[QStringLiteral("ids")] = ids;
    }
    for (const Option& o : command->options) {
        const QString name = QLatin1String(o.name);
        if (!parser.isSet(name))
            continue;
        const QString v = o.value ? parser.value(name) : QString();
        switch (o.kind) {
        case Option::Flag:
            args[QLatin1String(o.key)] = true;
            break;
        case Option::Number: {
            const int n = v.toInt(&ok);
            if (!ok)
                return usageError(QStringLiteral("--%1: '%2' is not a number").arg(name, v), command);
            args[QLatin1String(o.key)] = n;
            break;
        }
        case Option::Switch:
            if (v != QLatin1String("on") && v != QLatin1String("off"))
                return usageError(QStringLiteral("--%1 takes on or off, not '%2'").arg(name, v), command);
            args[QLatin1String(o.key)] = v == QLatin1String("on");
            break;
        case Option::Text:
            if (name == QLatin1String("connection") && v != QLatin1String("serial") && v != QLatin1String("network"))
                return usageError(QStringLiteral("--connection takes serial or network, not '%1'").arg(v), command);
            args[QLatin1String(o.key)] = v;
            break;
        }
    }
    if (command->request == QLatin1String("settings-set") && args.isEmpty())
        return usageError(QStringLiteral("no setting given"), command);

    // Absolute: a relative socket path is not a name QLocalSocket accepts.
    const QString home = QDir(parser.isSet(QStringLiteral("home")) ? parser.value(QStringLiteral("home")) : defaultHome())
                             .absolutePath();
    int timeout = 0;
    if (parser.isSet(QStringLiteral("timeout"))) {
        timeout = parser.value(QStringLiteral("timeout")).toInt(&ok);
        if (!ok || timeout < 1 || timeout > 86400)
            return usageError(QStringLiteral("--timeout takes whole seconds, 1 to 86400"), command);
    }
    return send(home, *command, args, parser.isSet(QStringLiteral("json")), positional, timeout);
}

} // namespace

int main(int argc, char** argv)
{
    // A preview is drawn here, which needs fonts: a GUI application without a display.
    bool preview = false;
    for (int i = 1; i < argc; ++i)
        preview = preview || std::strcmp(argv[i], "preview") == 0;
    if (preview && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    std::unique_ptr<QCoreApplication> owned = preview ? std::make_unique<QGuiApplication>(argc, argv)
                                                      : std::make_unique<QCoreApplication>(argc, argv);
    QCoreApplication& app = *owned;
    Q_UNUSED(app);
    QCoreApplication::setApplicationName(QStringLiteral("quillbase-ctl"));
    return run(QCoreApplication::arguments());
}
