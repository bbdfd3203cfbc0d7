#pragma once
// The print service: the five driver objects, the job timers that hand each
// ready printer its oldest job, the handling of print and check results, and
// the status pass that asks every printer how it is.
//
//   PrintService svc(slotTable, jdb, store);
//   if (!svc.MainCreateQuillmotors()) fail;          // start-up (the failure as a value)
//   svc.MainAddAndInitAllPrinters();                  // printers into the slots
//   svc.enableStatusTimer(); svc.statusPass();       // serial lines reconfigured first (Operator)
//   svc.startService();                               // operator / auto-start
//   ...
//   svc.shutdown();                                   // stop, release drivers
//
// Status pass and limits: the pass runs every statusInterval() ms (60000 by
// default). A printer stays Checking for checkingLimit() and Working for
// workingLimit() before its driver is asked again; unless set explicitly the
// limits are one and two status intervals (60 s and 120 s by default).
#include "foundation/error.h"
#include "service/printerlistmodel.h"
#include "service/quillmotor.h"

#include <QObject>
#include <QTimer>

#include <array>
#include <functional>

namespace quill {

class JobDatabase;
class JobStore;
class PrinterSlots;
struct PrinterSlot;

class PrintService : public QObject {
    Q_OBJECT
public:
    static constexpr int JobTimerInterval = 200;
    static constexpr int DefaultStatusInterval = 60000;

    PrintService(PrinterSlots& slotTable, JobDatabase& jdb, JobStore& store, QObject* parent = nullptr);
    ~PrintService() override;

    PrinterListModel& printerList() { return list_; }
    // Loads every tbPrinter row into its slot (Ready or Passive); the printer
    // list follows. Throws to the caller's trap, as start-up expects.
    void MainAddAndInitAllPrinters();
    PrinterSlots& printerSlots() { return slots_; }
    // The printer connections: the drivers' runs and the operator's device
    // work take their turns on them.
    PrinterLinks& links() { return links_; }

    // --- driver objects --------------------------------------------------
    // Makes a new driver object; throws quill::Error when it cannot.
    using DriverFactory = std::function<MP104C*(QObject* parent)>;
    void setDriverFactory(DriverFactory f) { factory_ = std::move(f); }
    // How long a failing creation is retried (5000 ms).
    void setCreateRetryWindow(int ms) { retryWindowMs_ = ms; }
    // Creates the five objects in slot order; stops at the first failure,
    // which is logged and handed up.
    Checked<Failure> MainCreateQuillmotors();
    Checked<Failure> CreateQuillmotor(int n);
    // The driver object of slot n (1..5), or null.
    MP104C* MainSetQuillmotorRef(int n) const;
    MP104C* driver(int n) const { return MainSetQuillmotorRef(n); }
    // Identity and connection of a slot's printer into a driver object.
    static void MainSetQuillmotorConnection(MP104C* obj, const PrinterSlot& record);
    // Whether a job's run sends its layout: its template is not the printer's
    // CurrentTemplateId.
    bool needsLayout(MP104C* obj, const PrintJob& job);
    // Releases the five objects (a run in progress is dropped; its job stays queued).
    void releaseDrivers();

    // --- service control -------------------------------------------------
    bool SrvStartService();
    void SrvStopService();
    // The service button: starts (false when it cannot; the operator says so) or stops.
    bool startService();
    void stopService();
    void toggleService();
    bool serviceRunning() const { return running_; }
    bool jobTimerActive(int k) const;
    // Stops the service and the status timer and releases the drivers.
    void shutdown();

    // Template check of a queued job; default: the template table (mode 0),
    // the label file (mode 1) or both (mode 2), as for print requests.
    using TemplateCheck = std::function<bool(qint32 templateId, qint32 mode)>;
    void setTemplateCheck(TemplateCheck f) { templateOk_ = std::move(f); }
    bool SrvTemplateOK(qint32 templateId, qint32 mode) const;

    // --- status polling --------------------------------------------------
    void setStatusInterval(int ms);
    int statusInterval() const { return statusIntervalMs_; }
    // Explicit re-check limits in ms; 0 goes back to following the interval.
    void setRecheckLimits(int checkingMs, int workingMs);
    int checkingLimit() const;
    int workingLimit() const;
    void enableStatusTimer();
    bool statusTimerActive() const { return statusTimer_.isActive(); }
    // tmrStatus_Timer: one pass over the slots in use.
    void statusPass();
    void MainCheckPrinterStatus(qint32 n);

    // Sets a status and shows it (the printer list follows by itself).
    void setStatus(qint32 n, qint32 code, const QString& text);

    // Result handlers, run on the driver events of slot n.
    void MainUpdatePrinterStatusAfterMPCheck(int n, const DriverResult& result);
    void MainUpdatePrinterStatusAfterMPPrintJob(int n, qint32 printerId, const PrintJob& job,
                                                const DriverResult& result);

    // One job-timer tick for slot k + 1.
    void jobTimerTick(int k);

    // The job a driver is printing now on printer n (which shows Working), 0 when none.
    qint32 jobInProgress(qint32 n) const;
    // Is this job being printed on any printer?
    bool printing(qint32 jobId) const;

signals:
    void serviceStateChanged(bool running);
    // Every status change of a slot, whoever made it.
    void printerStatusChanged(int printerId, int status, const QString& text);
    // A print run was handed to a driver / its result was processed.
    void jobStarted(int printerId, int jobId);
    void jobFinished(int printerId, int jobId, bool ok, const QString& reason);
    void checkFinished(int printerId, bool ok, const QString& reason);
    // Start of the service failed.
    void serviceStartFailed();

private:
    MP104C* createDriver();
    qint32 currentTemplate(qint32 printerId);
    void reenableJobTimer(int n);

    PrinterSlots& slots_;
    JobDatabase& jdb_;
    JobStore& store_;
    PrinterListModel list_;
    // Before the drivers, so it outlives them.
    PrinterLinks links_;

    std::array<MP104C*, 6> drivers_{};
    std::array<qint32, 6> printing_{};
    DriverFactory factory_;
    int retryWindowMs_ = 5000;

    std::array<QTimer, 5> jobTimers_;
    QTimer statusTimer_;
    int statusIntervalMs_ = DefaultStatusInterval;
    int checkingLimitMs_ = 0;
    int workingLimitMs_ = 0;
    bool running_ = false;
    TemplateCheck templateOk_;
};

} // namespace quill
