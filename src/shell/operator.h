#pragma once
// The operator's command surface: every action the main window, its dialogs
// and a headless operator can take. Each command runs the server's own steps,
// asks its questions and shows its boxes through the message sink
// (shell/messages.h), and returns what happened as a value, so a window,
// a control command and a test all see the same outcome.
//
//   Operator op(server);                       // after Server is constructed
//   op.toggleService();                        // cmdService
//   PrinterSettings dialog;
//   if (op.openEditPrinter(2, &dialog) == Outcome::Done) { ... op.savePrinter(dialog); }
//   if (op.CanQuit(false)) ...                 // exit commands
//
// Nothing here blocks on a window: questions are answered by the sink in use.
#include "database/jobrepository.h"
#include "database/lists.h"
#include "printers/deviceops.h"
#include "printers/printerrecord.h"
#include "shell/controlprotocol.h"
#include "shell/server.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>

namespace quill {

class JobListModel;
class PrinterLinks;
class PrinterListModel;
class TrafficIndicator;

class Operator : public QObject {
    Q_OBJECT
public:
    enum class Outcome {
        Done,        // the command ran
        Declined,    // the operator answered No or Cancel to its question
        Refused,     // the server's rules do not allow it now (a box said why, where the server shows one)
        Invalid,     // the values given were not accepted (see invalidField()); nothing changed
        Failed,      // it ran and failed; the event log has the line
        Busy,        // a device operation is under way; nothing was started
        NothingToDo, // e.g. delete with an empty queue
    };
    Q_ENUM(Outcome)

    // An outcome with its reason: what was not done, and why, in the control
    // protocol's names (controlprotocol.h), which the control socket sends as is.
    struct Result {
        Outcome outcome = Outcome::Done;
        control::Reason reason = control::Reason::None;
        // The reason an outcome has by itself (Busy, Declined, Invalid, Failed, Refused).
        Result(Outcome o = Outcome::Done);
        Result(Outcome o, control::Reason r) : outcome(o), reason(r) {}
        operator Outcome() const { return outcome; }
    };

    // Dialog fields a refused save or settings change points at.
    enum class Field { None, PrinterName, NetAddress, NetPort, ServerPort };
    Q_ENUM(Field)

    enum class DeviceOperation { Configure, TestPrint, ClearMemory, Calibrate };
    Q_ENUM(DeviceOperation)

    // The port and the seven switches of the settings dialog.
    struct ServerSettings {
        QString port;                  // as typed; must be a number 1..65535
        bool autoStartAtLogon = false; // shown only, never saved
        bool autoStartService = false; // tbServer
        bool startMinimized = false;   // tbServer
        bool silentMode = false;       // per-user settings store
        bool useLog = false;
        bool useTrafficLog = false;
        bool quitQuestion = false;
    };
    enum class PortChange { Unchanged, Rebound, RebindFailed };
    Q_ENUM(PortChange)

    explicit Operator(Server& server, QObject* parent = nullptr);
    ~Operator() override;

    // --- start-up, shutdown and what a window shows ---------------------------
    // A window made before the start-up runs it, so the start-up's boxes are its.
    Server::StartResult startup();
    // The start-up's failures reach the operator here, as boxes (the server
    // calls it; start-up goes on or ends as the step decides).
    void startupFailed(const StartupFailure& failure);
    void shutdown();
    bool starting() const;
    JobListModel& jobList();
    PrinterListModel& printerList();
    TrafficIndicator& traffic();
    // The window starts minimised (tbServer).
    bool startMinimized() const;
    // The printer dialog's drop-down lists (printer types from tbPrinterType).
    enum class DialogList { PrinterType, ComPort, ComRate, Strobe, Speed, YesNo };
    ValueList dialogList(DialogList which) const;
    // The same for the lists that are fixed (all but the printer types).
    static ValueList fixedList(DialogList which);
    static QString computerName();
    // The client protocol's version, for the about box.
    static QString protocolVersion();
    // The device name and line settings a printer dialog's values make.
    static void dialogDevice(const PrinterSettings& dialog, QString* deviceName, QString* settings);

    // --- print service --------------------------------------------------
    bool serviceRunning() const;
    // Starting tells the operator (box) when it cannot; Refused without a listener.
    Result startService();
    Result stopService();
    Result toggleService();
    // The service button can be pressed: the listener is open.
    bool serviceAvailable() const;

    // --- jobs (only while the service is stopped) ------------------------
    // Asks 12041 (No the default) with the job's row text; Refused while the
    // service runs, Invalid for a job that is not queued.
    Result deleteJob(qint32 jobId);
    // Asks 12042 (No the default), then deletes every queued job.
    Result deleteAllJobs();

    // --- queue tools (the service may run) ------------------------------------
    // Who asks the commands below, named in their event-log lines: "window"
    // unless the control socket sets its client's user for a command.
    void setRequester(const QString& who) { requester_ = who; }
    QString requester() const { return requester_; }

    // What a queued job prints: its layout (<template>.lbl, as the driver
    // sends it) and the variables its run sends. The label itself is drawn by
    // the label renderer, which the core does not link.
    struct JobPreview {
        qint32 jobId = 0;
        qint32 printerId = -1;
        QString printerName;
        qint32 templateId = -1;
        QString caption;
        QString layoutFile;
        QString layoutText;
        QList<QPair<int, QString>> variables;
    };
    // A printer's name as the job list shows it ("Okänd" for one not registered).
    QString printerName(qint32 printerId) const;
    // Is the job being printed now (it can be neither moved nor cancelled)?
    bool jobPrinting(qint32 jobId) const;
    // Invalid (UnknownJob) for a job not queued; Failed (NoLayout) when the
    // layout file cannot be read.
    Result previewJob(qint32 jobId, JobPreview* preview);
    // Gives queued jobs to another registered printer that is not passive, in
    // one transaction; each keeps its place in the queue. Refused
    // (JobPrinting) when one of them is being printed; NothingToDo when all
    // are that printer's already. `moved` gets the number moved.
    Result moveJobs(const QList<qint32>& jobIds, qint32 toPrinter, int* moved = nullptr);
    // Every queued job of a printer but the one being printed.
    Result movePrinterJobs(qint32 fromPrinter, qint32 toPrinter, int* moved = nullptr);
    // Asks 12154 (No the default), then removes the queued job into the
    // history. Refused (JobPrinting) while it is being printed.
    Result cancelJob(qint32 jobId);
    // The newest history entries first.
    Result history(int limit, std::vector<HistoryEntry>* entries);
    // Queues a copy of a history entry's text as a new job, on its printer
    // (toPrinter 0) or another one. Invalid (NotInHistory) for an entry that
    // is not kept (any more).
    Result reprint(qint32 historyId, qint32 toPrinter, qint32* newJobId = nullptr);

    // --- printers ---------------------------------------------------------
    // New: Refused with box 12028 when five printers are in use; otherwise
    // the dialog's fields start empty (defaults) and no printer is being edited.
    Result openNewPrinter(PrinterSettings* dialog);
    // Edit: Refused (no box) when the printer does not exist or is Working or
    // Checking; otherwise its status becomes Configuring and the dialog is filled.
    Result openEditPrinter(qint32 printerId, PrinterSettings* dialog);
    // The printer being edited (-1 for a new printer or when no dialog is open).
    qint32 editingPrinter() const;
    bool printerDialogOpen() const { return dialogOpen_; }
    // OK: validation (12025, 12026, 12027 which also puts "23" into the port),
    // then save as new or over the edited printer and the dialog is over.
    // Invalid leaves it open. printerId gets the saved Id. The after-save
    // check of an active printer runs like a device operation: the printer
    // shows Checking until printerChecked.
    Result savePrinter(PrinterSettings& dialog, qint32* printerId = nullptr);
    // Cancel, Escape, close box: the edited printer gets its previous status back.
    Result cancelPrinter();
    // Asks 12040 with the printer's row text, deletes the row and frees the slot.
    Result deletePrinter(qint32 printerId);
    // Which field savePrinter or saveSettings refused last.
    Field invalidField() const { return invalidField_; }

    // --- device operations on the dialog's values ----------------------------
    // Starts the operation on the values given (a printer's dialog, open or
    // not); Busy while another runs, else Done: deviceOperationFinished follows,
    // always later, with its outcome (Refused for a type without device
    // support) and the values (a successful network configuration updates the
    // loaded address). While it runs, printer commands answer Busy.
    Result startDeviceOperation(DeviceOperation operation, const PrinterSettings& dialog);
    bool deviceOperationRunning() const { return deviceBusy_; }
    // Device work the server started itself (start-up reconfiguration, the
    // check after a save) is under way; it ends by itself, soon.
    bool backgroundWorkRunning() const { return deviceBusy_ && backgroundWork_; }

    // --- printer status -------------------------------------------------------
    // Uppdatera: one status pass now. Fullständig uppdatering (also at
    // start-up): serial printers reconfigured on the worker thread, and one
    // pass whose checks of those printers wait for their lines.
    Result refresh();
    Result fullRefresh();

    // --- settings -----------------------------------------------------------------
    ServerSettings serverSettings() const;
    // Before the dialog opens: with the service running asks 12016/12017 and,
    // on Yes, stops it. Declined on No.
    Result openSettings();
    // Saves the switches and, when the port changed, rebinds the listener
    // (box 12001.. on success, 12006 on failure). Invalid (nothing saved) when
    // the port is not a number 1..65535.
    Result saveSettings(const ServerSettings& settings, PortChange* portChange = nullptr);
    // The port as typed is one saveSettings takes: a number 1..65535.
    static bool validPort(const QString& port);

    // --- quitting ---------------------------------------------------------------
    // May the program end now: refused while starting (12020) or while a
    // printer works (12021/12022); the quit question (12023) when it is on.
    // force answers true without asking.
    bool CanQuit(bool force);

signals:
    void serviceStateChanged(bool running);
    void serviceAvailableChanged(bool available);
    // A lengthy command starts (true) and ends (false): the busy pointer.
    void busyChanged(bool busy);
    void silentModeChanged(bool on);
    // The printer a command just saved or checked, for the list's selection.
    void printerSelected(qint32 printerId);
    // The after-save check of a saved printer is over (its status tells how).
    void printerChecked(qint32 printerId);
    void deviceOperationFinished(quill::Operator::DeviceOperation operation, quill::Operator::Outcome outcome,
                                 const quill::PrinterSettings& dialog);

private:
    class Busy;
    struct DeviceState;
    // Device work runs on the printer links' workers, one piece at a time
    // (deviceBusy_); done follows on the event loop.
    PrinterLinks& links();
    void runDeviceWork(const QStringList& keys, bool background, std::function<void(const DeviceContext&)> work,
                       std::function<void()> done);
    void endDeviceWork();
    // Configures; a box not reached asks whether to go through its serial line.
    void startConfigure(const PrinterSettings& values, bool throughSerial, const QPointer<QObject>& boxOwner);
    void startAfterSaveCheck(qint32 printerId);
    // The serial printers' line speed sent again, on the links' workers.
    void reconfigureSerialPrinters();
    Outcome configureOutcome(ConfigResult result);
    Outcome deviceResultOutcome(const QString& result);
    // Ends a running operation at once (its waits cancelled), for shutdown.
    void stopDeviceOperation();
    Result refused(Field field);
    // PrinterRange or NoPrinter, None when the printer is there.
    control::Reason printerMissing(qint32 printerId) const;
    // printerMissing, or PrinterPassive: a printer jobs can be given to.
    control::Reason unusableTarget(qint32 printerId) const;
    // One event-log line for a queue tool, naming who asked.
    void logAction(const QString& what) const;
    // A queue tool's storage failed: box 12176 (the event log has the line).
    Result failed();
    Result moveChecked(const std::vector<qint32>& ids, qint32 toPrinter, int* moved);

    Server& server_;
    // The printer whose dialog is open for editing, -1 when none.
    qint32 EditPrinterId = -1;
    int mode_ = PrinterSettings::ModeNew;
    bool dialogOpen_ = false;
    bool deviceBusy_ = false;
    bool backgroundWork_ = false;
    Field invalidField_ = Field::None;
    QString requester_ = QStringLiteral("window");
};

} // namespace quill

Q_DECLARE_METATYPE(quill::PrinterSettings)
