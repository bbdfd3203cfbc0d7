#pragma once
// The control socket's names, for both ends: the server (control.h) and
// quillbase-ctl, which includes this header alone (QtCore only).
//
// A request is one JSON line {"command": <name>, "args": {...}}; its answer
// has "outcome" and, for anything not done, "reason" (a name below).
#include <QString>

namespace quill::control {

namespace command {
inline const QString Status = QStringLiteral("status");
inline const QString Jobs = QStringLiteral("jobs");
inline const QString Delete = QStringLiteral("delete");
inline const QString Start = QStringLiteral("start");
inline const QString Stop = QStringLiteral("stop");
inline const QString Refresh = QStringLiteral("refresh");
inline const QString PrinterAdd = QStringLiteral("printer-add");
inline const QString PrinterEdit = QStringLiteral("printer-edit");
inline const QString PrinterRemove = QStringLiteral("printer-remove");
// Device operations: the prefix and the operation's name.
inline const QString PrinterPrefix = QStringLiteral("printer-");
inline const QString PrinterConfigure = QStringLiteral("printer-configure");
inline const QString PrinterTest = QStringLiteral("printer-test");
inline const QString PrinterClear = QStringLiteral("printer-clear");
inline const QString PrinterCalibrate = QStringLiteral("printer-calibrate");
inline const QString Settings = QStringLiteral("settings");
inline const QString SettingsSet = QStringLiteral("settings-set");
inline const QString Preview = QStringLiteral("preview");
inline const QString Move = QStringLiteral("move");
inline const QString Cancel = QStringLiteral("cancel");
inline const QString History = QStringLiteral("history");
inline const QString Reprint = QStringLiteral("reprint");
} // namespace command

// Why a command was not done. The operator's commands return it with their
// outcome; the server sends its name as is and quillbase-ctl words it.
enum class Reason {
    None,            // done, or nothing to do
    Starting,        // the server is starting or shutting down
    Busy,            // a device operation is under way
    DialogOpen,      // a printer dialog is open
    ServiceRunning,  // jobs are deleted only while the service is stopped
    NoListener,      // the service cannot start without a listener
    UnknownJob,      // no queued job with that id
    PrinterRange,    // printer id outside 1..5
    NoPrinter,       // no printer with that id
    PrinterWorking,  // the printer prints or is being checked
    PrintersFull,    // all five slots in use
    BadValue,        // a value the control command could not take
    Invalid,         // the operator's checks refused a value
    RebindFailed,    // the new port could not be opened
    NoDeviceSupport, // the printer type has no device operations
    Failed,          // it ran and failed (the event log says why)
    Declined,        // a question was answered No
    Refused,         // the server's rules do not allow it now
    JobPrinting,     // the job is being printed
    PrinterPassive,  // the printer is registered as passive
    NotInHistory,    // no history entry with that id
    NoLayout,        // the job's layout file cannot be read
    BadRequest,      // the server did not understand the request (keep last)
};

inline QString reasonName(Reason r)
{
    switch (r) {
    case Reason::None: return {};
    case Reason::Starting: return QStringLiteral("starting");
    case Reason::Busy: return QStringLiteral("busy");
    case Reason::DialogOpen: return QStringLiteral("dialog-open");
    case Reason::ServiceRunning: return QStringLiteral("service-running");
    case Reason::NoListener: return QStringLiteral("no-listener");
    case Reason::UnknownJob: return QStringLiteral("unknown-job");
    case Reason::PrinterRange: return QStringLiteral("printer-range");
    case Reason::NoPrinter: return QStringLiteral("no-printer");
    case Reason::PrinterWorking: return QStringLiteral("printer-working");
    case Reason::PrintersFull: return QStringLiteral("printers-full");
    case Reason::BadValue: return QStringLiteral("bad-value");
    case Reason::Invalid: return QStringLiteral("invalid");
    case Reason::RebindFailed: return QStringLiteral("rebind-failed");
    case Reason::NoDeviceSupport: return QStringLiteral("no-device-support");
    case Reason::Failed: return QStringLiteral("failed");
    case Reason::Declined: return QStringLiteral("declined");
    case Reason::Refused: return QStringLiteral("refused");
    case Reason::JobPrinting: return QStringLiteral("job-printing");
    case Reason::PrinterPassive: return QStringLiteral("printer-passive");
    case Reason::NotInHistory: return QStringLiteral("not-in-history");
    case Reason::NoLayout: return QStringLiteral("no-layout");
    case Reason::BadRequest: return QStringLiteral("bad-request");
    }
    return QStringLiteral("refused");
}

// Refused for a name this version does not know.
inline Reason reasonFromName(const QString& name)
{
    for (int r = int(Reason::None); r <= int(Reason::BadRequest); ++r)
        if (reasonName(Reason(r)) == name)
            return Reason(r);
    return Reason::Refused;
}

} // namespace quill::control
