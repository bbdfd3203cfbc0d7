#pragma once
// The job store: print jobs in tbJob and, in the same order as the queue, in the
// job list (JobListModel). The list is the queue: the print service takes each
// printer's next job from it with nextJob.
//
//   JobStore store(jdb, printerSlots);            // jdb: JobDatabase with tbJob checked
//   store.SrvInitAllJobs();                       // start-up: list rebuilt from tbJob
//   store.SrvAddJob(PrintJob::fromText(text));    // stored and committed, row appended
//   std::optional<PrintJob> next = store.nextJob(2);
//   store.SrvDeleteJob(next->id);                 // printed: row and list entry gone
//   store.deleteJobsWhere([](const QueuedJob& j) { return j.printerId == 3; });
//   view->setModel(&store.jobList());
//
// Writes go to the storage thread (JobWriter). SrvAddJob and the deletions
// the operator asks for wait for their commit; a request's job does not:
//   store.onCommitted = [](quint64 through, const std::vector<quint64>& failed) { reply };
//   std::optional<quint64> t = store.submitJob(job);   // none: refused at once
// The job's row is appended, or its failure logged, when its commit is over,
// and onCommitted then names every ticket finished so far.
#include "database/jobrepository.h"
#include "database/jobwriter.h"
#include "database/slots.h"
#include "foundation/error.h"
#include "foundation/printjob.h"

#include <QAbstractTableModel>
#include <QByteArray>
#include <QElapsedTimer>
#include <QString>
#include <QTimer>

#include <atomic>
#include <deque>
#include <memory>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

namespace quill {

class JobDatabase;

// One queued job as the queue keeps it: the numbers the service acts on and
// the job text once, as UTF-8. What a view shows is made from it when asked.
struct QueuedJob {
    quint64 seq = 0; // rises with every append: list order is seq order
    qint32 id = 0;
    qint32 printerId = -1;
    qint32 templateId = -1;
    qint32 copies = 1;
    qint32 checkMode = 0;
    bool print = false;
    QByteArray text;

    PrintJob toPrintJob() const;
    // Fields of the text, as JobFields reads them (a queued job's fields
    // through the caption are always readable).
    QString field(int n) const;
    // The same field's UTF-8 bytes in the text (valid while the job is).
    QByteArrayView fieldBytes(int n) const;
    QString workstation() const { return field(7).trimmed(); }
    QString user() const { return field(11); }
    // "workstation|user", what configure sub-operation 3 matches.
    QString senderTag() const { return workstation() + QLatin1Char('|') + user(); }
};

// One row of the job list as a view shows it, with the keys and tags of its columns.
struct JobRow {
    qint32 id = 0;          // row tag
    QString text;           // id, a blank and the caption
    QString copies;         // column "Kopior"
    QString printerName;    // column "Skrivare"
    qint32 printerId = -1;  // printer tag
    QString senderText;     // column "Arbetsstation"
    QString workstation;
    QString user;

    QString rowKey() const { return QStringLiteral("J") + QString::number(id); }
    QString rowTag() const { return QString::number(id); }
    QString copiesKey() const { return QStringLiteral("S1"); }
    QString copiesTag() const { return QStringLiteral("1"); }
    QString printerKey() const { return QStringLiteral("P") + QString::number(printerId); }
    QString printerTag() const { return QString::number(printerId); }
    QString senderKey() const { return QStringLiteral("UW|") + workstation + QLatin1Char('|') + user; }
    QString senderTag() const { return workstation + QLatin1Char('|') + user; }
};

// The job list: four columns "Jobb", "Kopior", "Skrivare", "Arbetsstation", one row
// per queued job in queue order. Read-only for views; changed through JobStore.
//
// Appended rows reach views in groups: an append more than 100 ms after the last
// announcement is announced at once; later ones wait until 100 ms have passed and
// are then announced together in one insertion (or at once by flushChanges()).
// A view under a stream of jobs so lays its rows out at most ten times a second.
// Printed jobs leave the same way (removeRowAt with Soon): until their removal
// is announced, views still see them in their place. Any other removal is
// announced at once, together with the printed ones still pending.
// count(), jobAt() and the queue see the queue as it is; rowCount() and data()
// are what views have been told of. An unannounced row leaves silently.
class JobListModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { ColJob = 0, ColCopies, ColPrinter, ColSender, ColumnCount };
    enum Role {
        KeyRole = Qt::UserRole + 1, // key of the cell's column part ("J5", "S1", "P2", "UW|ws|user")
        TagRole,                    // tag of the cell's column part ("5", "1", "2", "ws|user")
        JobIdRole,                  // the row's job id (int)
        PrinterIdRole,              // the row's printer id (int)
    };

    // The printer column names the slot's printer.
    explicit JobListModel(const PrinterSlots* printerSlots = nullptr, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

    int count() const { return int(rows_.size()); }
    const QueuedJob& jobAt(int row) const { return rows_.at(size_t(row)); }
    // The row as shown, made now.
    JobRow rowAt(int row) const;
    // Row of the first entry whose tag is the job id; -1 when none.
    int findJob(qint32 jobId) const;
    // First job of the printer in list order; 0 when it has none.
    qint32 firstJobOf(qint32 printerId) const;
    // Row of that job; -1 when none.
    int firstRowOf(qint32 printerId) const;

    void append(QueuedJob job);
    // Announces the rows removed and appended since the last announcement now.
    void flushChanges();
    // Rows appended but not announced to views yet.
    int unannouncedRows() const { return count() - announced_; }
    enum Announce { Now, Soon };
    void removeRowAt(int row, Announce when = Now);
    // Removes these rows (ascending) in one pass: a few runs of adjacent rows as
    // row removals, scattered rows as one reset.
    void removeRowsAt(const std::vector<int>& rows);
    // The jobs in these rows now belong to the printer, each with the text
    // that says so; they keep their places in the queue. Views are told once.
    void retarget(const std::vector<std::pair<int, QString>>& rowAndText, qint32 printerId);
    void clear();

    // Many appends as one model reset (start-up rebuild).
    void beginBulk();
    void endBulk();

private:
    int rowOfSeq(quint64 seq) const;
    JobRow makeRow(const QueuedJob& j) const;
    // The job a view's row shows: a departed one or a queued one.
    const QueuedJob& viewJob(int viewRow) const;
    const JobRow& shown(const QueuedJob& j) const;
    // The view rows of the departed jobs, ascending.
    const std::vector<int>& departedRows() const;
    void announceSoon();
    void flushRemovals();

    const PrinterSlots* slots_;
    // A deque: appending never moves the rows, and the oldest job (the one printed
    // first) leaves from the front without moving the rest.
    std::deque<QueuedJob> rows_;
    quint64 nextSeq_ = 0;
    bool bulk_ = false;
    int announced_ = 0; // leading rows the views know of; the rest wait for announce_
    // Printed jobs that left the queue but not yet the views, in seq order.
    std::vector<QueuedJob> departed_;
    mutable std::vector<int> departedRows_;
    mutable bool departedRowsValid_ = false;
    QTimer announce_;
    QElapsedTimer lastAnnounce_;
    // Ids rise along the list unless another program wrote tbJob: then lookups
    // by id walk the list.
    bool idsAscending_ = true;
    // Per printer, a seq no earlier job of it lies before.
    mutable std::unordered_map<qint32, quint64> scanFrom_;
    // The last row a view asked for, made once for its columns and roles.
    mutable quint64 shownSeq_ = ~quint64(0);
    mutable JobRow shown_;
};

// Which jobs deleteJobsWhere deletes.
using JobMatch = std::function<bool(const QueuedJob&)>;

class JobStore {
public:
    JobStore(JobDatabase& jdb, const PrinterSlots& printerSlots);
    ~JobStore();

    // Called when writes are over: the tickets through `through` are, and
    // `failed` lists those of them whose job was not stored.
    std::function<void(quint64 through, const std::vector<quint64>& failed)> onCommitted;
    // Hands the job to the storage thread; its ticket, or none when it was
    // refused at once (logged as SrvAddJob logs it).
    std::optional<quint64> submitJob(const PrintJob& job);
    // Waits until everything handed over is written and its outcome taken.
    void sync();
    // Writes what was handed over and ends the storage thread (shutdown).
    void stopWriter();
    // Transactions the storage thread has ended.
    quint64 transactions() const { return writer_ ? writer_->transactions() : 0; }

    JobListModel& jobList() { return list_; }

    // Stores the job and appends its row. Traps its errors
    // ("SrvAddJob failed. JId = ..."); false when the job was not stored.
    bool SrvAddJob(const PrintJob& job);
    // Clears the list and fills it from tbJob in Id order.
    void SrvInitAllJobs();
    // Stores the job and appends its row; the id it got, or 0 when it was not
    // stored (logged as SrvAddJob logs it).
    qint32 addJob(const PrintJob& job);
    // Deletes the job row of tbJob (nothing when absent) and waits for it.
    // Traps its errors; false when a row may still be there.
    bool SrvDBDeleteJob(qint32 id);
    // Removes the job's entry from the list (nothing when absent).
    void SrvRemoveJobRow(qint32 id);
    // A printed job: its row leaves the list now, tbJob's row with the next
    // commit, which also enters it in the history.
    void SrvDeleteJob(qint32 id);
    // A queued job the operator cancels: out of tbJob and into the history in
    // one transaction (waited for), then out of the list. False when the
    // commit failed (logged); the job is still queued then.
    bool cancelJob(qint32 id);
    // Gives these queued jobs to the printer in one transaction (waited for):
    // field 4 of each text names it, and each keeps its place in the queue.
    // False when the commit failed (logged); nothing moved then.
    bool moveJobs(const std::vector<qint32>& ids, qint32 printerId);
    // The history's bounds: the newest maxRows entries, none older than maxDays.
    void setHistoryLimits(int maxRows, int maxDays);
    int historyRows() const { return historyRows_; }
    int historyDays() const { return historyDays_; }
    // The newest history entries first (the writes handed over before included).
    DbResult<std::vector<HistoryEntry>> history(int limit);
    // One history entry; id 0 when there is none.
    DbResult<HistoryEntry> historyEntry(qint32 id);
    // Deletes every job that matches (jobs handed over before included), from
    // tbJob in one statement and one transaction, and from the list in one
    // pass. When that fails, nothing is deleted, each job is logged as
    // SrvDBDeleteJob logs it and 0 returned. Returns the number of rows
    // removed from the list.
    int deleteJobsWhere(const JobMatch& match);
    // Next job of the printer in queue order; 0 when none.
    qint32 SrvNextJobId(qint32 printerId) const { return list_.firstJobOf(printerId); }
    // The same job as a value; none when the printer has no job.
    std::optional<PrintJob> nextJob(qint32 printerId) const;
    // Is the job's tbJob row still there (another program may delete it)?
    // Throws to the caller's trap.
    bool jobStored(qint32 id);

private:
    bool tableOpen() const;
    JobWriter& writer();
    // Takes the storage thread's outcomes: rows appended, failures logged,
    // onCommitted told. Returns them.
    std::vector<JobWriter::Outcome> drain();
    // Waits for one ticket and returns its outcome.
    JobWriter::Outcome await(quint64 ticket);

    JobDatabase& jdb_;
    JobRepository repo_;
    JobListModel list_;
    std::atomic<bool> drainPosted_{false};
    quint64 lastTicket_ = 0;
    int historyRows_ = 10000;
    int historyDays_ = 30;
    std::unique_ptr<JobWriter> writer_;
};

} // namespace quill
