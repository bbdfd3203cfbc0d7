#include "service/printservice.h"

#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "service/printerload.h"
#include "printers/printerrecord.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "database/slots.h"
#include "foundation/texts.h"

#include <algorithm>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QThread>

namespace quill {

namespace {

constexpr int ErrObjectNotSet = 91;

MP104C* need(MP104C* obj)
{
    if (!obj)
        throw Error(ErrObjectNotSet, QStringLiteral("Object variable or With block variable not set"));
    return obj;
}

} // namespace

PrintService::PrintService(PrinterSlots& slotTable, JobDatabase& jdb, JobStore& store, QObject* parent)
    : QObject(parent), slots_(slotTable), jdb_(jdb), store_(store), list_(slotTable)
{
    factory_ = [](QObject* p) { return new MP104C(p); };
    for (int k = 0; k < int(jobTimers_.size()); ++k) {
        jobTimers_[k].setInterval(JobTimerInterval);
        connect(&jobTimers_[k], &QTimer::timeout, this, [this, k] { jobTimerTick(k); });
    }
    statusTimer_.setInterval(statusIntervalMs_);
    connect(&statusTimer_, &QTimer::timeout, this, &PrintService::statusPass);
    connect(&slots_, &PrinterSlots::statusChanged, this, [this](qint32 n) {
        const PrinterSlot& s = slots_.at(n);
        emit printerStatusChanged(n, s.status, s.statusText.trimmed());
    });
}

PrintService::~PrintService()
{
    releaseDrivers();
}

void PrintService::MainAddAndInitAllPrinters()
{
    quill::MainAddAndInitAllPrinters(jdb_, slots_);
}

// ---------------------------------------------------------------- drivers

MP104C* PrintService::MainSetQuillmotorRef(int n) const
{
    return n >= 1 && n <= 5 ? drivers_[n] : nullptr;
}

Checked<Failure> PrintService::CreateQuillmotor(int n)
{
    delete drivers_[n];
    drivers_[n] = nullptr;

    MP104C* obj = nullptr;
    bool failed = false;
    Error last(0, QString());
    auto attempt = [&] {
        failed = false;
        try {
            obj = factory_(this);
        } catch (const Error& e) {
            failed = true;
            last = e;
        } catch (const std::exception& e) {
            failed = true;
            last = Error(0, QString::fromUtf8(e.what()));
        }
    };
    attempt();
    if (!(failed && last.number == 441)) {
        QElapsedTimer since;
        since.start();
        while (!obj && since.elapsed() < retryWindowMs_) {
            QCoreApplication::processEvents();
            QThread::msleep(20);
            attempt();
        }
    }
    if (obj && !failed) {
        drivers_[n] = obj;
        obj->setLinks(&links_);
        connect(obj, &MP104C::MPCheckFinished, this,
                [this, n](qint32, const DriverResult& result) { MainUpdatePrinterStatusAfterMPCheck(n, result); });
        connect(obj, &MP104C::MPPrintJobFinished, this,
                [this, n](qint32 printerId, const PrintJob& job, const DriverResult& result) {
                    MainUpdatePrinterStatusAfterMPPrintJob(n, printerId, job, result);
                });
        return {};
    }
    if (!failed && !obj)
        last = Error(0, QString());
    const Failure failure{QStringLiteral("CreateQuillmotor%1").arg(n), last};
    LogWrite(failure.line());
    delete obj;
    return failure;
}

Checked<Failure> PrintService::MainCreateQuillmotors()
{
    try {
        for (int n = 1; n <= 5; ++n)
            if (Checked<Failure> created = CreateQuillmotor(n); !created)
                return created;
        return {};
    } catch (const std::exception& e) {
        const Failure failure{QStringLiteral("MainCreateQuillmotors"), asError(e)};
        LogWrite(failure.line());
        return failure;
    }
}

qint32 PrintService::jobInProgress(qint32 n) const
{
    // A printer a status check has answered for since is no longer printing it.
    if (n < 1 || n > 5 || !slots_.SrvPrinterExists(n) || slots_.at(n).status != StatusWorking)
        return 0;
    return printing_[size_t(n)];
}

bool PrintService::printing(qint32 jobId) const
{
    for (qint32 n = 1; n <= 5; ++n)
        if (jobId > 0 && jobInProgress(n) == jobId)
            return true;
    return false;
}

void PrintService::releaseDrivers()
{
    // A run still under way is dropped with its driver.
    printing_.fill(0);
    for (MP104C*& d : drivers_) {
        if (!d)
            continue;
        d->disconnect(this);
        delete d;
        d = nullptr;
    }
}

void PrintService::MainSetQuillmotorConnection(MP104C* obj, const PrinterSlot& record)
{
    // The driver serves the two MP104C types only.
    if (record.printerTypeId != 1 && record.printerTypeId != 2)
        return;
    need(obj)->setPrinterId(record.printerId);
    const PrinterDevice device = SlotDevice(record);
    obj->setPort(device.name);
    obj->setSettings(device.settings);
}

qint32 PrintService::currentTemplate(qint32 printerId)
{
    const DbResult<qint32> current = jdb_.printers().currentTemplate(printerId);
    if (current.error)
        throw *current.error;
    return current.value;
}

bool PrintService::needsLayout(MP104C* obj, const PrintJob& job)
{
    return job.templateId != currentTemplate(need(obj)->PrinterId());
}

// ---------------------------------------------------------- service control

bool PrintService::SrvStartService()
{
    try {
        for (int k = 0; k < PrinterSlots::UpperBound - 1; ++k)
            jobTimers_.at(size_t(k)).start();
        return true;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvStartService failed. Error: ") + errorText(e));
        return false;
    }
}

void PrintService::SrvStopService()
{
    for (QTimer& t : jobTimers_)
        t.stop();
}

bool PrintService::startService()
{
    if (running_)
        return true;
    if (SrvStartService()) {
        running_ = true;
        emit serviceStateChanged(true);
        return true;
    }
    SrvStopService();
    running_ = false;
    emit serviceStateChanged(false);
    emit serviceStartFailed();
    return false;
}

void PrintService::stopService()
{
    SrvStopService();
    const bool was = running_;
    running_ = false;
    if (was)
        emit serviceStateChanged(false);
}

void PrintService::toggleService()
{
    if (running_)
        stopService();
    else
        startService();
}

bool PrintService::jobTimerActive(int k) const
{
    return k >= 0 && k < int(jobTimers_.size()) && jobTimers_[k].isActive();
}

void PrintService::shutdown()
{
    stopService();
    statusTimer_.stop();
    releaseDrivers();
}

bool PrintService::SrvTemplateOK(qint32 templateId, qint32 mode) const
{
    if (templateOk_)
        return templateOk_(templateId, mode);
    auto inDb = [&] { return jdb_.SrvTemplateInDB(templateId); };
    auto file = [&] { return QFileInfo::exists(HomePath(QString::number(templateId) + QStringLiteral(".lbl"))); };
    switch (mode) {
    case 1: return file();
    case 2: return inDb() && file();
    default: return inDb();
    }
}

// ---------------------------------------------------------------- job timer

void PrintService::reenableJobTimer(int n)
{
    if (running_ && n >= 1 && n <= int(jobTimers_.size()))
        jobTimers_[n - 1].start();
}

void PrintService::jobTimerTick(int k)
{
    QTimer& timer = jobTimers_[k];
    timer.stop();
    const qint32 p = k + 1;
    try {
        if (slots_.SrvPrinterExists(p) && slots_.at(p).status == StatusReady) {
            MP104C* obj = need(MainSetQuillmotorRef(p));
            // A check still under way in the driver would answer for a job it
            // has not printed yet: the job waits for it.
            const std::optional<PrintJob> job = obj->busy() ? std::nullopt : store_.nextJob(p);
            if (job && !store_.jobStored(job->id)) {
                // Deleted from tbJob by another program: no job is started, and
                // its row leaves the list so the printer's next job can go.
                LogWrite(QStringLiteral("JobTimer: job %1 is no longer in tbJob.  PId = %2").arg(job->id).arg(p));
                store_.SrvRemoveJobRow(job->id);
            } else if (job && job->printerId == p && job->print && SrvTemplateOK(job->templateId, job->checkMode)
                       && slots_.at(p).status == StatusReady) {
                setStatus(p, StatusWorking, GetString(12077));
                MainSetQuillmotorConnection(obj, slots_.at(p));
                if (obj->MPPrintJob(*job, needsLayout(obj, *job))) {
                    printing_[size_t(p)] = job->id;
                    emit jobStarted(p, job->id);
                    return; // the timer waits for the end of the run
                }
            }
        }
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("JobTimer failed.  PId = ") + QString::number(p) + QStringLiteral(" Error: ")
                 + errorText(e));
    }
    if (running_)
        timer.start();
}

// ------------------------------------------------------------ status polling

void PrintService::setStatus(qint32 n, qint32 code, const QString& text)
{
    slots_.SrvSetPrinterStatus(n, code, text);
}

void PrintService::setStatusInterval(int ms)
{
    statusIntervalMs_ = ms > 0 ? ms : DefaultStatusInterval;
    statusTimer_.setInterval(statusIntervalMs_);
}

void PrintService::setRecheckLimits(int checkingMs, int workingMs)
{
    checkingLimitMs_ = qMax(0, checkingMs);
    workingLimitMs_ = qMax(0, workingMs);
}

int PrintService::checkingLimit() const
{
    return checkingLimitMs_ > 0 ? checkingLimitMs_ : statusIntervalMs_;
}

int PrintService::workingLimit() const
{
    return workingLimitMs_ > 0 ? workingLimitMs_ : 2 * statusIntervalMs_;
}

void PrintService::enableStatusTimer()
{
    statusTimer_.start();
}

void PrintService::statusPass()
{
    try {
        for (qint32 n = 1; n < PrinterSlots::UpperBound; ++n)
            if (slots_.SrvPrinterExists(n))
                MainCheckPrinterStatus(n);
    } catch (const std::exception&) {
        LogWrite(QStringLiteral("Error detected in tmrStatus_Timer."));
    }
}

void PrintService::MainCheckPrinterStatus(qint32 n)
{
    const PrinterSlot& record = slots_.at(n);
    switch (record.status) {
    case StatusWorking:
    case StatusChecking: {
        const qint64 elapsed = record.statusTime.msecsTo(QDateTime::currentDateTime());
        const int limit = record.status == StatusChecking ? checkingLimit() : workingLimit();
        if (elapsed >= limit) {
            // Asked again; the status time stays, so every later pass asks too.
            MP104C* obj = need(MainSetQuillmotorRef(record.printerId));
            MainSetQuillmotorConnection(obj, record);
            obj->MPCheck();
        }
        break;
    }
    case StatusReady:
    case StatusError: {
        setStatus(n, StatusChecking, GetString(12050));
        const qint32 id = record.printerId;
        if (id >= 1 && id <= 5) {
            MP104C* obj = need(MainSetQuillmotorRef(id));
            obj->setPrinterId(id);
            const PrinterDevice device = SlotDevice(record);
            if (!device.name.isEmpty()) {
                obj->setPort(device.name);
                obj->setSettings(device.settings);
            }
            obj->MPCheck();
        }
        break;
    }
    case StatusPassive:
        setStatus(n, StatusPassive, GetString(12052));
        break;
    default:
        break;
    }
}

void PrintService::MainUpdatePrinterStatusAfterMPCheck(int n, const DriverResult& result)
{
    try {
        if (result.ok)
            setStatus(n, StatusReady, GetString(12051));
        else
            setStatus(n, StatusError, result.text);
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("MainUpdatePrinterStatusAfterMPCheck failed.  PId = ") + QString::number(n)
                 + QStringLiteral(" Error: ") + errorText(e));
    }
    emit checkFinished(n, result.ok, result.text);
}

void PrintService::MainUpdatePrinterStatusAfterMPPrintJob(int n, qint32 printerId, const PrintJob& job,
                                                         const DriverResult& result)
{
    if (n >= 1 && n <= 5)
        printing_[size_t(n)] = 0;
    try {
        if (result.ok) {
            store_.SrvDeleteJob(job.id);
            if (auto failed = jdb_.printers().setCurrentTemplate(printerId, job.templateId))
                throw *failed;
            setStatus(n, StatusReady, GetString(12051));
        } else {
            setStatus(n, StatusError, result.text);
        }
    } catch (const std::exception& e) {
        // The slot keeps its status: the status pass asks the printer again
        // once the Working limit has passed.
        LogWrite(QStringLiteral("MainUpdatePrinterStatusAfterMPPrintJob failed.  PId = ") + QString::number(n)
                 + QStringLiteral(" Error: ") + errorText(e));
    }
    emit jobFinished(n, job.id, result.ok, result.text);
    reenableJobTimer(n);
}

} // namespace quill
