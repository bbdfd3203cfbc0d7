#include "shell/operator.h"
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "database/lists.h"
#include "database/slots.h"
#include "foundation/cp1252.h"
#include "foundation/eventlog.h"
#include "foundation/jobfields.h"
#include "foundation/paths.h"
#include "shell/messages.h"
#include "foundation/settings.h"
#include "foundation/strutil.h"
#include "foundation/texts.h"
#include "printers/deviceops.h"
#include "printers/printerlink.h"
#include "protocol/listener.h"
#include "protocol/requesthandler.h"
#include "service/printservice.h"
#include "service/quillmotor.h"
#include "shell/server.h"

#include <QFile>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <functional>
#include <optional>

namespace quill {

// The wait text of a lengthy command: busy from construction to destruction.
class Operator::Busy {
public:
    explicit Busy(Operator& op) : op_(op) { emit op_.busyChanged(true); }
    ~Busy() { emit op_.busyChanged(false); }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

private:
    Operator& op_;
};

Operator::Operator(Server& server, QObject* parent) : QObject(parent), server_(server)
{
    qRegisterMetaType<PrinterSettings>();
    connect(&server_, &Server::serviceStateChanged, this, &Operator::serviceStateChanged);
    connect(&server_, &Server::listenerChanged, this, &Operator::serviceAvailableChanged);
}

Operator::~Operator()
{
    stopDeviceOperation();
}

Operator::Result::Result(Outcome o) : outcome(o)
{
    using control::Reason;
    switch (o) {
    case Outcome::Done:
    case Outcome::NothingToDo:
        reason = Reason::None;
        break;
    case Outcome::Busy:
        reason = Reason::Busy;
        break;
    case Outcome::Declined:
        reason = Reason::Declined;
        break;
    case Outcome::Invalid:
        reason = Reason::Invalid;
        break;
    case Outcome::Failed:
        reason = Reason::Failed;
        break;
    case Outcome::Refused:
        reason = Reason::Refused;
        break;
    }
}

// ------------------------------------------------------------------ window

Server::StartResult Operator::startup()
{
    return server_.startup();
}

void Operator::startupFailed(const StartupFailure& failure)
{
    using Step = StartupFailure::Step;
    const QString checkInstallation = QLatin1Char('\n') + GetString(12029, GetString(9003));
    switch (failure.step) {
    case Step::HomeNotWritable:
        // Shown even in silent mode: the log may be in that very folder.
        MsgBox(GetString(12144, failure.folder + QLatin1Char('|') + failure.why), BoxIcon::Critical);
        break;
    case Step::OtherInstance:
        MsgBoxUnlessSilent(GetString(12009, GetString(9003)), BoxIcon::Information);
        break;
    case Step::Database:
        switch (failure.database.kind) {
        case DatabaseFailure::Kind::NoAccountFile:
            MsgBoxUnlessSilent(GetString(12030) + checkInstallation, BoxIcon::Exclamation);
            break;
        case DatabaseFailure::Kind::NoDatabaseFile:
            MsgBoxUnlessSilent(GetString(12031) + checkInstallation, BoxIcon::Exclamation);
            break;
        case DatabaseFailure::Kind::NotOpened:
            MsgBoxUnlessSilent(failure.database.failure.line() + checkInstallation, BoxIcon::Critical);
            break;
        case DatabaseFailure::Kind::Unreadable:
            MsgBoxUnlessSilent(failure.database.failure.line() + checkInstallation, BoxIcon::None);
            break;
        }
        break;
    case Step::Drivers:
        MsgBoxUnlessSilent(failure.failure.line() + QStringLiteral("\r\r") + GetString(12018) + QStringLiteral("\r")
                               + GetString(12019),
                           BoxIcon::Critical);
        break;
    case Step::Listener:
        MsgBoxUnlessSilent(GetString(12014), BoxIcon::Exclamation);
        break;
    case Step::Unexpected:
        MsgBoxUnlessSilent(failure.failure.line() + QLatin1Char('\n') + GetString(12015), BoxIcon::None);
        break;
    }
}

void Operator::shutdown()
{
    server_.shutdown();
}

bool Operator::starting() const
{
    return server_.starting();
}

JobListModel& Operator::jobList()
{
    return server_.jobs().jobList();
}

PrinterListModel& Operator::printerList()
{
    return server_.printService().printerList();
}

TrafficIndicator& Operator::traffic()
{
    return server_.traffic();
}

bool Operator::startMinimized() const
{
    return server_.database().startMinimized() != 0;
}

ValueList Operator::dialogList(DialogList which) const
{
    if (which != DialogList::PrinterType)
        return fixedList(which);
    ValueList list;
    SrvPrinterFillPrinterType(server_.database(), list);
    return list;
}

ValueList Operator::fixedList(DialogList which)
{
    ValueList list;
    switch (which) {
    case DialogList::PrinterType:
        break;
    case DialogList::ComPort:
        SrvFillCOMPort(list);
        break;
    case DialogList::ComRate:
        SrvFillCOMRate(list);
        break;
    case DialogList::Strobe:
        SrvFillStrobe(list);
        break;
    case DialogList::Speed:
        SrvFillSpeed(list);
        break;
    case DialogList::YesNo:
        SrvFillYesNo(list);
        break;
    }
    return list;
}

QString Operator::computerName()
{
    return ComputerName();
}

QString Operator::protocolVersion()
{
    return RequestHandler::ProtocolVersion;
}

void Operator::dialogDevice(const PrinterSettings& dialog, QString* deviceName, QString* settings)
{
    const PrinterDevice device = DialogDevice(dialog);
    *deviceName = device.name;
    *settings = device.settings;
}

Operator::Result Operator::refused(Field field)
{
    invalidField_ = field;
    return field == Field::None ? Outcome::Refused : Outcome::Invalid;
}

control::Reason Operator::printerMissing(qint32 printerId) const
{
    if (!server_.printers().valid(printerId))
        return control::Reason::PrinterRange;
    if (!server_.printers().SrvPrinterExists(printerId))
        return control::Reason::NoPrinter;
    return control::Reason::None;
}

// ------------------------------------------------------------------ service

bool Operator::serviceRunning() const
{
    return server_.serviceRunning();
}

bool Operator::serviceAvailable() const
{
    return server_.listener().isListening();
}

Operator::Result Operator::startService()
{
    if (serviceRunning())
        return Outcome::NothingToDo;
    if (!serviceAvailable())
        return {Outcome::Refused, control::Reason::NoListener};
    if (!server_.startService()) {
        MsgBoxUnlessSilent(GetString(12007) + QStringLiteral("\r") + GetString(12008), BoxIcon::Information);
        return Outcome::Failed;
    }
    return Outcome::Done;
}

Operator::Result Operator::stopService()
{
    if (!serviceRunning())
        return Outcome::NothingToDo;
    server_.stopService();
    return Outcome::Done;
}

Operator::Result Operator::toggleService()
{
    return serviceRunning() ? stopService() : startService();
}

// ------------------------------------------------------------------ jobs

Operator::Result Operator::deleteJob(qint32 jobId)
{
    if (serviceRunning())
        return {Outcome::Refused, control::Reason::ServiceRunning};
    JobStore& jobs = server_.jobs();
    if (jobs.jobList().count() == 0)
        return {Outcome::NothingToDo, control::Reason::UnknownJob};
    const int row = jobs.jobList().findJob(jobId);
    if (row < 0)
        return {Outcome::Invalid, control::Reason::UnknownJob};
    if (AskNoDefault(GetString(12041, jobs.jobList().rowAt(row).text)) != BoxAnswer::Yes)
        return Outcome::Declined;
    // The service may have been started while the question was open.
    if (serviceRunning())
        return {Outcome::Refused, control::Reason::ServiceRunning};
    Busy busy(*this);
    jobs.SrvDBDeleteJob(jobId);
    jobs.SrvRemoveJobRow(jobId);
    return Outcome::Done;
}

Operator::Result Operator::deleteAllJobs()
{
    if (serviceRunning())
        return {Outcome::Refused, control::Reason::ServiceRunning};
    JobStore& jobs = server_.jobs();
    if (jobs.jobList().count() == 0)
        return Outcome::NothingToDo;
    if (AskNoDefault(GetString(12042)) != BoxAnswer::Yes)
        return Outcome::Declined;
    if (serviceRunning())
        return {Outcome::Refused, control::Reason::ServiceRunning};
    Busy busy(*this);
    // One transaction and one pass over the list, however long the queue.
    jobs.deleteJobsWhere([](const QueuedJob&) { return true; });
    return Outcome::Done;
}

// ------------------------------------------------------------------ queue tools

namespace {
constexpr size_t LongMove = 1000;
} // namespace

control::Reason Operator::unusableTarget(qint32 printerId) const
{
    if (const control::Reason missing = printerMissing(printerId); missing != control::Reason::None)
        return missing;
    if (server_.printers().SrvPrinterIsPassive(printerId))
        return control::Reason::PrinterPassive;
    return control::Reason::None;
}

QString Operator::printerName(qint32 printerId) const
{
    return server_.printers().SrvPrinterExists(printerId) ? server_.printers().at(printerId).name.trimmed()
                                                          : GetString(12049);
}

bool Operator::jobPrinting(qint32 jobId) const
{
    return server_.printService().printing(jobId);
}

Operator::Result Operator::failed()
{
    MsgBoxUnlessSilent(GetString(12176), BoxIcon::Exclamation);
    return Outcome::Failed;
}

void Operator::logAction(const QString& what) const
{
    LogWrite(what + QStringLiteral(" Asked by ") + requester_ + QLatin1Char('.'));
}

Operator::Result Operator::previewJob(qint32 jobId, JobPreview* preview)
{
    const JobListModel& list = server_.jobs().jobList();
    const int row = list.findJob(jobId);
    if (row < 0)
        return {Outcome::Invalid, control::Reason::UnknownJob};
    const QueuedJob& job = list.jobAt(row);
    JobPreview p;
    p.jobId = jobId;
    p.printerId = job.printerId;
    p.printerName = printerName(job.printerId);
    p.templateId = job.templateId;
    p.caption = job.field(12);
    // The layout and the variables as the driver sends them, through the
    // wire's code page, so the picture shows what the printer gets.
    QFile f(HomePath(QString::number(job.templateId) + QStringLiteral(".lbl")));
    p.layoutFile = f.fileName();
    logAction(QStringLiteral("Preview of job %1.").arg(jobId));
    if (!f.open(QIODevice::ReadOnly)) {
        LogWrite(QStringLiteral("Preview of job %1: layout %2 not readable: %3").arg(jobId).arg(f.fileName(), f.errorString()));
        MsgBoxUnlessSilent(GetString(12162, f.fileName()), BoxIcon::Exclamation);
        *preview = p;
        return {Outcome::Failed, control::Reason::NoLayout};
    }
    p.layoutText = FromCp1252(f.readAll());
    try {
        for (const auto& [n, value] : JobVariables(QString::fromUtf8(job.text)))
            p.variables.append({n, FromCp1252(ToCp1252(value))});
    } catch (const std::exception&) {
        // A queued job's text is readable through the caption; what lies
        // beyond the readers' reach is not sent either.
    }
    *preview = p;
    return Outcome::Done;
}

Operator::Result Operator::moveChecked(const std::vector<qint32>& ids, qint32 toPrinter, int* moved)
{
    if (moved)
        *moved = 0;
    JobStore& jobs = server_.jobs();
    std::vector<qint32> moving;
    qint32 from = -1;
    for (qint32 id : ids) {
        const int row = jobs.jobList().findJob(id);
        if (jobs.jobList().jobAt(row).printerId == toPrinter)
            continue;
        from = from == -1 || from == jobs.jobList().jobAt(row).printerId ? jobs.jobList().jobAt(row).printerId : 0;
        moving.push_back(id);
    }
    if (moving.empty())
        return Outcome::NothingToDo;
    // A long move says when it starts, too.
    if (moving.size() >= LongMove)
        logAction(QStringLiteral("Moving %1 jobs to printer %2.").arg(moving.size()).arg(toPrinter));
    Busy busy(*this);
    if (!jobs.moveJobs(moving, toPrinter))
        return failed();
    if (moved)
        *moved = int(moving.size());
    // A long queue's line names its first jobs and how many more.
    constexpr size_t Named = 20;
    QStringList names;
    for (size_t i = 0; i < moving.size() && i < Named; ++i)
        names << QString::number(moving[i]);
    if (moving.size() > Named)
        names << QStringLiteral("and %1 more").arg(moving.size() - Named);
    const QString source = from > 0 ? QStringLiteral(" from printer %1").arg(from) : QString();
    logAction(moving.size() == 1 ? QStringLiteral("Job %1 moved%2 to printer %3.").arg(names[0], source).arg(toPrinter)
                                 : QStringLiteral("%1 jobs moved%2 to printer %3: %4.")
                                       .arg(moving.size())
                                       .arg(source)
                                       .arg(toPrinter)
                                       .arg(names.join(QStringLiteral(", "))));
    return Outcome::Done;
}

Operator::Result Operator::moveJobs(const QList<qint32>& jobIds, qint32 toPrinter, int* moved)
{
    if (moved)
        *moved = 0;
    if (const control::Reason r = unusableTarget(toPrinter); r != control::Reason::None)
        return {Outcome::Refused, r};
    std::vector<qint32> ids;
    for (qint32 id : jobIds) {
        if (server_.jobs().jobList().findJob(id) < 0)
            return {Outcome::Invalid, control::Reason::UnknownJob};
        if (server_.printService().printing(id))
            return {Outcome::Refused, control::Reason::JobPrinting};
        ids.push_back(id);
    }
    if (ids.empty())
        return {Outcome::Invalid, control::Reason::UnknownJob};
    return moveChecked(ids, toPrinter, moved);
}

Operator::Result Operator::movePrinterJobs(qint32 fromPrinter, qint32 toPrinter, int* moved)
{
    if (moved)
        *moved = 0;
    if (const control::Reason r = printerMissing(fromPrinter); r != control::Reason::None)
        return {Outcome::Refused, r};
    if (const control::Reason r = unusableTarget(toPrinter); r != control::Reason::None)
        return {Outcome::Refused, r};
    const JobListModel& list = server_.jobs().jobList();
    const qint32 printing = server_.printService().jobInProgress(fromPrinter);
    std::vector<qint32> ids;
    for (int row = 0; row < list.count(); ++row)
        if (list.jobAt(row).printerId == fromPrinter && list.jobAt(row).id != printing)
            ids.push_back(list.jobAt(row).id);
    return moveChecked(ids, toPrinter, moved);
}

Operator::Result Operator::cancelJob(qint32 jobId)
{
    JobStore& jobs = server_.jobs();
    const int row = jobs.jobList().findJob(jobId);
    if (row < 0)
        return {Outcome::Invalid, control::Reason::UnknownJob};
    if (server_.printService().printing(jobId))
        return {Outcome::Refused, control::Reason::JobPrinting};
    if (AskNoDefault(GetString(12154, jobs.jobList().rowAt(row).text)) != BoxAnswer::Yes)
        return Outcome::Declined;
    // While the question was open the job may have been printed or started.
    if (jobs.jobList().findJob(jobId) < 0)
        return {Outcome::Invalid, control::Reason::UnknownJob};
    if (server_.printService().printing(jobId))
        return {Outcome::Refused, control::Reason::JobPrinting};
    Busy busy(*this);
    if (!jobs.cancelJob(jobId))
        return failed();
    logAction(QStringLiteral("Job %1 cancelled.").arg(jobId));
    return Outcome::Done;
}

Operator::Result Operator::history(int limit, std::vector<HistoryEntry>* entries)
{
    DbResult<std::vector<HistoryEntry>> r = server_.jobs().history(limit);
    if (!r.ok()) {
        LogWrite(QStringLiteral("SrvJobHistory failed. Error: ") + r.error->text());
        return failed();
    }
    *entries = std::move(r.value);
    logAction(QStringLiteral("History read (%1 entries).").arg(entries->size()));
    return Outcome::Done;
}

Operator::Result Operator::reprint(qint32 historyId, qint32 toPrinter, qint32* newJobId)
{
    if (newJobId)
        *newJobId = 0;
    const DbResult<HistoryEntry> r = server_.jobs().historyEntry(historyId);
    if (!r.ok()) {
        LogWrite(QStringLiteral("SrvJobHistory failed. Error: ") + r.error->text());
        return failed();
    }
    if (r.value.id == 0)
        return {Outcome::Invalid, control::Reason::NotInHistory};
    const qint32 printer = toPrinter > 0 ? toPrinter : r.value.printerId;
    if (const control::Reason why = unusableTarget(printer); why != control::Reason::None)
        return {Outcome::Refused, why};
    const QString text = JobFields(r.value.text).withField(4, QString::number(printer));
    Busy busy(*this);
    const qint32 id = server_.jobs().addJob(PrintJob::fromText(text));
    if (id <= 0)
        return failed();
    if (newJobId)
        *newJobId = id;
    logAction(QStringLiteral("Job %1 queued on printer %2, a reprint of job %3 (history %4).")
                  .arg(id)
                  .arg(printer)
                  .arg(r.value.jobId)
                  .arg(historyId));
    return Outcome::Done;
}

// ------------------------------------------------------------------ printers

Operator::Result Operator::openNewPrinter(PrinterSettings* dialog)
{
    if (deviceBusy_)
        return Outcome::Busy;
    if (server_.printers().FreeSlot() < 1) {
        MsgBox(GetString(12028), BoxIcon::Information);
        return {Outcome::Refused, control::Reason::PrintersFull};
    }
    EditPrinterId = -1;
    mode_ = PrinterSettings::ModeNew;
    dialogOpen_ = true;
    if (dialog) {
        *dialog = PrinterSettings{};
        const ValueList types = dialogList(DialogList::PrinterType);
        dialog->printerTypeId = types.selected >= 0 ? std::optional<qint32>(types.entries[types.selected].itemData)
                                                    : std::nullopt;
    }
    return Outcome::Done;
}

Operator::Result Operator::openEditPrinter(qint32 printerId, PrinterSettings* dialog)
{
    if (deviceBusy_)
        return Outcome::Busy;
    EditPrinterId = -1;
    PrinterSlots& printers = server_.printers();
    if (const control::Reason missing = printerMissing(printerId); missing != control::Reason::None)
        return {Outcome::Refused, missing};
    const DbResult<std::optional<PrinterRow>> row = server_.database().printers().find(printerId);
    if (!row.value)
        return {Outcome::Refused, control::Reason::NoPrinter};
    const qint32 status = printers.at(printerId).status;
    if (status == StatusWorking || status == StatusChecking)
        return {Outcome::Refused, control::Reason::PrinterWorking};
    printers.SrvSetPrinterStatus(printerId, StatusConfiguring, GetString(12074));
    EditPrinterId = printerId;
    mode_ = PrinterSettings::ModeEdit;
    dialogOpen_ = true;
    if (dialog) {
        *dialog = PrinterSettings{};
        const ValueList types = dialogList(DialogList::PrinterType);
        QList<qint32> typeIds;
        for (const auto& e : types.entries)
            typeIds << e.itemData;
        SrvPrinterFillDialog(*row.value, *dialog, typeIds);
    }
    return Outcome::Done;
}

qint32 Operator::editingPrinter() const
{
    return EditPrinterId;
}

Operator::Result Operator::savePrinter(PrinterSettings& dialog, qint32* printerId)
{
    invalidField_ = Field::None;
    if (deviceBusy_)
        return Outcome::Busy;
    if (!dialogOpen_)
        return Outcome::Refused;
    if (dialog.name.trimmed().isEmpty()) {
        MsgBox(GetString(12025), BoxIcon::Information);
        return refused(Field::PrinterName);
    }
    if (!dialog.serial && dialog.netAddress.trimmed().isEmpty()) {
        MsgBox(GetString(12026), BoxIcon::Information);
        return refused(Field::NetAddress);
    }
    if (!dialog.serial && dialog.netPort.trimmed().isEmpty()) {
        MsgBox(GetString(12027), BoxIcon::Information);
        dialog.netPort = QString::number(DefaultNetPort);
        return refused(Field::NetPort);
    }
    qint32 id = -1;
    {
        Busy busy(*this);
        // The dialog is over whether or not the save works.
        dialogOpen_ = false;
        const qint32 edited = EditPrinterId;
        EditPrinterId = -1;
        id = SrvMainPrinterSave(server_.database().printers(), server_.printers(), dialog, mode_, edited,
                                [this](qint32 saved) { startAfterSaveCheck(saved); });
    }
    if (printerId)
        *printerId = id;
    if (id < 1)
        return Outcome::Failed;
    emit printerSelected(id);
    return Outcome::Done;
}

Operator::Result Operator::cancelPrinter()
{
    if (deviceBusy_)
        return Outcome::Busy;
    if (!dialogOpen_)
        return Outcome::NothingToDo;
    Busy busy(*this);
    PrinterSlots& printers = server_.printers();
    if (EditPrinterId > 0 && printers.valid(EditPrinterId)) {
        const PrinterSlot& s = printers.at(EditPrinterId);
        printers.SrvSetPrinterStatus(EditPrinterId, s.prevStatus, s.prevStatusText.trimmed());
    }
    EditPrinterId = -1;
    dialogOpen_ = false;
    return Outcome::Done;
}

Operator::Result Operator::deletePrinter(qint32 printerId)
{
    if (deviceBusy_)
        return Outcome::Busy;
    PrinterSlots& printers = server_.printers();
    if (const control::Reason missing = printerMissing(printerId); missing != control::Reason::None)
        return {Outcome::Refused, missing};
    // Not while its dialog is open: the save would write a row that is gone.
    if (dialogOpen_ && EditPrinterId == printerId)
        return {Outcome::Refused, control::Reason::DialogOpen};
    const QString rowText = printers.at(printerId).displayText.trimmed();
    if (AskNoDefault(GetString(12040, rowText)) != BoxAnswer::Yes)
        return Outcome::Declined;
    if (!SrvMainPrinterDelete(server_.database().printers(), printers, printerId))
        return Outcome::Failed;
    return Outcome::Done;
}

// ------------------------------------------------------------------ device operations

// What a piece of device work leaves for the event loop: written on the
// link's worker, read by `done` after the work has ended.
struct Operator::DeviceState {
    PrinterSettings values;
    ConfigResult config = ConfigResult::Trapped;
    QString result;
};

PrinterLinks& Operator::links()
{
    return server_.printService().links();
}

void Operator::runDeviceWork(const QStringList& keys, bool background,
                             std::function<void(const DeviceContext&)> work, std::function<void()> done)
{
    if (!deviceBusy_) {
        deviceBusy_ = true;
        backgroundWork_ = background;
        emit busyChanged(true);
    }
    links().run(keys, this, std::move(work), std::move(done));
}

void Operator::endDeviceWork()
{
    deviceBusy_ = false;
    backgroundWork_ = false;
    emit busyChanged(false);
}

Operator::Result Operator::startDeviceOperation(DeviceOperation operation, const PrinterSettings& dialog)
{
    if (deviceBusy_)
        return Outcome::Busy;
    const bool configure = operation == DeviceOperation::Configure;
    if (!configure && !IsConfigurableType(dialog.printerTypeId.value_or(1))) {
        // Nothing to send: the answer comes as a run's would, later.
        deviceBusy_ = true;
        QTimer::singleShot(0, this, [this, operation, dialog] {
            deviceBusy_ = false;
            emit deviceOperationFinished(operation, Outcome::Refused, dialog);
        });
        return Outcome::Done;
    }
    if (configure) {
        startConfigure(dialog, false, CurrentBoxOwner());
        return Outcome::Done;
    }
    auto state = std::make_shared<DeviceState>();
    state->values = dialog;
    QPointer<QObject> boxOwner = CurrentBoxOwner();
    runDeviceWork(
        DialogLinkKeys(dialog, false), false,
        [state, operation](const DeviceContext& context) {
            const PrinterDevice device = DialogDevice(state->values);
            if (operation == DeviceOperation::TestPrint)
                state->result = SrvMPTestPrint(context, device.name, device.settings);
            else if (operation == DeviceOperation::ClearMemory)
                state->result = SrvMPClear(context, device.name, device.settings);
            else
                state->result = SrvMPCal(context, device.name, device.settings);
        },
        [this, state, operation, boxOwner] {
            endDeviceWork();
            const BoxOwnerScope owner(boxOwner.data());
            emit deviceOperationFinished(operation, deviceResultOutcome(state->result), state->values);
        });
    return Outcome::Done;
}

void Operator::startConfigure(const PrinterSettings& values, bool throughSerial, const QPointer<QObject>& boxOwner)
{
    auto state = std::make_shared<DeviceState>();
    state->values = values;
    runDeviceWork(
        DialogLinkKeys(values, true, throughSerial), false,
        [state, throughSerial](const DeviceContext& context) {
            state->config = ConfigureDevice(context, state->values, throughSerial);
        },
        [this, state, boxOwner] {
            const BoxOwnerScope owner(boxOwner.data());
            if (state->config == ConfigResult::NeedsSerial) {
                // The box is not reached where it was: the operator decides
                // whether its serial line is used, the line taken afresh.
                const QString question = GetString(12036) + QLatin1Char('\r') + GetString(12037)
                    + QStringLiteral("\r\r") + GetString(12017);
                if (MsgBox(question, BoxIcon::Question, BoxButtons::YesNo) == BoxAnswer::Yes) {
                    startConfigure(state->values, true, boxOwner);
                    return;
                }
                state->config = ConfigResult::NetworkFailed;
            }
            endDeviceWork();
            emit deviceOperationFinished(DeviceOperation::Configure, configureOutcome(state->config), state->values);
        });
}

void Operator::startAfterSaveCheck(qint32 printerId)
{
    PrinterSlots& printers = server_.printers();
    if (!StartAfterConfigCheck(printers, printerId))
        return;
    auto state = std::make_shared<DeviceState>();
    const PrinterSlot slot = printers.at(printerId);
    runDeviceWork(
        {SlotLinkKey(slot)}, true,
        [state, slot](const DeviceContext& context) { state->result = SrvMPCheck(context, slot); },
        [this, state, printerId] {
            endDeviceWork();
            // Deleting or editing waited for this (Busy), so the slot is the one checked.
            if (server_.printers().SrvPrinterExists(printerId))
                FinishAfterConfigCheck(server_.printers(), printerId, state->result);
            emit printerChecked(printerId);
        });
}

Operator::Outcome Operator::configureOutcome(ConfigResult result)
{
    switch (result) {
    case ConfigResult::Configured:
        return Outcome::Done;
    case ConfigResult::NotConfigurable:
        return Outcome::Refused;
    case ConfigResult::SerialFailed:
        MsgBoxUnlessSilent(GetString(12032), BoxIcon::Information);
        break;
    case ConfigResult::NoAddress:
        // Answers the operator's own click, so it shows in silent mode too.
        MsgBox(GetString(12033), BoxIcon::Information);
        break;
    case ConfigResult::NetworkFailed:
        MsgBoxUnlessSilent(GetString(12034) + QLatin1Char('\r') + GetString(12035), BoxIcon::Exclamation);
        break;
    case ConfigResult::NeedsSerial:
    case ConfigResult::Trapped:
        break;
    }
    return Outcome::Failed;
}

Operator::Outcome Operator::deviceResultOutcome(const QString& result)
{
    const QString outcome = GetToken(result, TAB, 1);
    if (outcome == QLatin1String("OK"))
        return Outcome::Done;
    const QString text = GetString(12024) + QLatin1Char(' ') + GetToken(result, TAB, 2) + QLatin1Char('\r');
    if (outcome == QLatin1String("ERR"))
        MsgBoxUnlessSilent(text, BoxIcon::Exclamation);
    else
        MsgBox(text, BoxIcon::Information);
    return Outcome::Failed;
}

void Operator::stopDeviceOperation()
{
    // Its waits end at once; no box and no signal follows.
    links().stopWork(this);
}

// ------------------------------------------------------------------ printer status

Operator::Result Operator::refresh()
{
    if (deviceBusy_)
        return Outcome::Busy;
    Busy busy(*this);
    server_.printService().statusPass();
    return Outcome::Done;
}

Operator::Result Operator::fullRefresh()
{
    if (deviceBusy_)
        return Outcome::Busy;
    reconfigureSerialPrinters();
    // Checks of the serial printers wait for their lines.
    server_.printService().statusPass();
    return Outcome::Done;
}

void Operator::reconfigureSerialPrinters()
{
    const QList<SerialLine> lines = SerialLinesToReconfigure(server_.printers());
    if (lines.isEmpty())
        return;
    QStringList keys;
    for (const SerialLine& line : lines)
        keys << LinkKey(line.deviceName);
    runDeviceWork(
        keys, true, [lines](const DeviceContext& context) { ReConfigCOMLines(context, lines); },
        [this] { endDeviceWork(); });
}

// ------------------------------------------------------------------ settings

Operator::ServerSettings Operator::serverSettings() const
{
    JobDatabase& db = server_.database();
    ServerSettings s;
    s.port = QString::number(db.SrvGetServerPort());
    s.autoStartAtLogon = server_.autostartAtLogon();
    s.autoStartService = db.autoStartService() > 0;
    s.startMinimized = db.startMinimized() > 0;
    s.silentMode = SilentMode();
    s.useLog = UseLog();
    s.useTrafficLog = UseTrafficLog();
    s.quitQuestion = server_.quitQuestion();
    return s;
}

Operator::Result Operator::openSettings()
{
    if (!serviceRunning())
        return Outcome::Done;
    if (MsgBox(GetString(12016) + QLatin1Char('\n') + GetString(12017), BoxIcon::Question, BoxButtons::YesNo)
        != BoxAnswer::Yes)
        return Outcome::Declined;
    server_.stopService();
    return Outcome::Done;
}

bool Operator::validPort(const QString& port)
{
    bool ok = false;
    const qint32 n = port.trimmed().toInt(&ok);
    return ok && n >= 1 && n <= 65535;
}

Operator::Result Operator::saveSettings(const ServerSettings& settings, PortChange* portChange)
{
    invalidField_ = Field::None;
    if (portChange)
        *portChange = PortChange::Unchanged;
    if (!validPort(settings.port)) {
        MsgBox(GetString(12143), BoxIcon::Information);
        return refused(Field::ServerPort);
    }
    const qint32 port = settings.port.trimmed().toInt();

    JobDatabase& db = server_.database();
    db.SrvMainSaveSettings(settings.autoStartService ? 1 : 0, settings.startMinimized ? 1 : 0);
    const auto store = [](const char* name, bool on) {
        RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, QString::fromLatin1(name), 4, on ? 1 : 0);
    };
    store("dwSilentMode", settings.silentMode);
    SetSilentMode(settings.silentMode);
    store("dwUseLog", settings.useLog);
    SetUseLog(settings.useLog);
    store("dwUseTrafficLog", settings.useTrafficLog);
    SetUseTrafficLog(settings.useTrafficLog);
    store("dwQuitQuestion", settings.quitQuestion);
    server_.setQuitQuestion(settings.quitQuestion);
    emit silentModeChanged(settings.silentMode);

    if (port == db.SrvGetServerPort())
        return Outcome::Done;
    Listener& listener = server_.listener();
    if (listener.MainInitTCP(port)) {
        MsgBox(GetString(12001) + QStringLiteral("\n\n") + GetString(12002) + QStringLiteral("\n\n")
                   + GetString(12003) + QStringLiteral("\n    ") + GetString(12004) + QStringLiteral("\n\n")
                   + GetString(12005),
               BoxIcon::Information);
        emit server_.listenerChanged(true);
        db.SrvMainSaveTCPSettings(listener.reachableAddress().toString(), listener.localPort());
        if (portChange)
            *portChange = PortChange::Rebound;
        return Outcome::Done;
    }
    emit server_.listenerChanged(false);
    MsgBox(GetString(12006), BoxIcon::Exclamation);
    if (portChange)
        *portChange = PortChange::RebindFailed;
    return {Outcome::Failed, control::Reason::RebindFailed};
}

// ------------------------------------------------------------------ quitting

bool Operator::CanQuit(bool force)
{
    emit busyChanged(true);
    if (force)
        return true;
    if (server_.starting()) {
        emit busyChanged(false);
        MsgBox(GetString(12020), BoxIcon::Information);
        return false;
    }
    const PrinterSlots& printers = server_.printers();
    for (qint32 n = 1; n < PrinterSlots::UpperBound; ++n) {
        if (printers.SrvPrinterExists(n) && printers.at(n).status == StatusWorking) {
            emit busyChanged(false);
            MsgBox(GetString(12021) + QLatin1Char('\n') + GetString(12022), BoxIcon::Information);
            return false;
        }
    }
    if (server_.quitQuestion()) {
        emit busyChanged(false);
        if (MsgBox(GetString(12023, GetString(9003)), BoxIcon::Question, BoxButtons::OkCancel) != BoxAnswer::Ok)
            return false;
        emit busyChanged(true);
    }
    return true;
}

} // namespace quill
