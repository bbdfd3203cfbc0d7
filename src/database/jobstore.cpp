#include "database/jobstore.h"
#include "database/jobdatabase.h"
#include "foundation/eventlog.h"
#include "foundation/jobfields.h"
#include "foundation/strutil.h"
#include "foundation/texts.h"

#include <algorithm>

namespace quill {

// ---------------------------------------------------------------- JobListModel

JobListModel::JobListModel(QObject* parent) : QAbstractTableModel(parent) {}

int JobListModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : count(); }

int JobListModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : ColumnCount; }

QVariant JobListModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= count() || index.column() >= ColumnCount)
        return {};
    const JobRow& r = rowAt(index.row());
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case ColJob: return r.text;
        case ColCopies: return r.copies;
        case ColPrinter: return r.printerName;
        case ColSender: return r.senderText;
        }
        break;
    case KeyRole:
        switch (index.column()) {
        case ColJob: return r.rowKey();
        case ColCopies: return r.copiesKey();
        case ColPrinter: return r.printerKey();
        case ColSender: return r.senderKey();
        }
        break;
    case TagRole:
        switch (index.column()) {
        case ColJob: return r.rowTag();
        case ColCopies: return r.copiesTag();
        case ColPrinter: return r.printerTag();
        case ColSender: return r.senderTag();
        }
        break;
    case JobIdRole: return r.id;
    case PrinterIdRole: return r.printerId;
    }
    return {};
}

QVariant JobListModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractTableModel::headerData(section, orientation, role);
    switch (section) {
    case ColJob: return GetString(12045);
    case ColCopies: return GetString(12046);
    case ColPrinter: return GetString(12043);
    case ColSender: return GetString(12047);
    }
    return {};
}

int JobListModel::rowOfSeq(quint64 seq) const
{
    auto it = std::lower_bound(rows_.begin(), rows_.end(), seq,
                               [](const Entry& e, quint64 s) { return e.seq < s; });
    return it != rows_.end() && it->seq == seq ? int(it - rows_.begin()) : -1;
}

int JobListModel::findJob(qint32 jobId) const
{
    auto it = byJob_.find(jobId);
    if (it == byJob_.end() || it->second.empty())
        return -1;
    return rowOfSeq(*it->second.begin());
}

qint32 JobListModel::firstJobOf(qint32 printerId) const
{
    auto it = byPrinter_.find(printerId);
    if (it == byPrinter_.end() || it->second.empty())
        return 0;
    const int row = rowOfSeq(*it->second.begin());
    return row >= 0 ? rowAt(row).id : 0;
}

void JobListModel::append(JobRow row)
{
    const int at = count();
    if (!bulk_)
        beginInsertRows({}, at, at);
    const quint64 seq = nextSeq_++;
    byPrinter_[row.printerId].insert(seq);
    byJob_[row.id].insert(seq);
    rows_.push_back({seq, std::move(row)});
    if (!bulk_)
        endInsertRows();
}

void JobListModel::dropFromIndexes(const Entry& e)
{
    auto drop = [&](std::unordered_map<qint32, std::set<quint64>>& index, qint32 key) {
        auto it = index.find(key);
        if (it == index.end())
            return;
        it->second.erase(e.seq);
        if (it->second.empty())
            index.erase(it);
    };
    drop(byPrinter_, e.row.printerId);
    drop(byJob_, e.row.id);
}

void JobListModel::removeRowAt(int row)
{
    if (row < 0 || row >= count())
        return;
    if (!bulk_)
        beginRemoveRows({}, row, row);
    dropFromIndexes(rows_[size_t(row)]);
    rows_.erase(rows_.begin() + row);
    if (!bulk_)
        endRemoveRows();
}

void JobListModel::removeRowsAt(const std::vector<int>& rows)
{
    // Erasing a run from the middle moves the rows behind it, so only a few
    // runs are erased one by one; more are removed in one compaction under a
    // reset, which keeps a purge of every other job linear.
    constexpr size_t MaxRuns = 16;
    std::vector<std::pair<int, int>> runs; // first and last row of each run
    for (int r : rows) {
        if (r < 0 || r >= count() || (!runs.empty() && r <= runs.back().second))
            continue;
        if (!runs.empty() && runs.back().second + 1 == r)
            runs.back().second = r;
        else
            runs.push_back({r, r});
    }
    if (runs.empty())
        return;
    if (bulk_ || runs.size() > MaxRuns) {
        if (!bulk_)
            beginResetModel();
        size_t kept = 0;
        auto run = runs.begin();
        for (size_t r = 0; r < rows_.size(); ++r) {
            while (run != runs.end() && size_t(run->second) < r)
                ++run;
            if (run != runs.end() && size_t(run->first) <= r) {
                dropFromIndexes(rows_[r]);
                continue;
            }
            if (kept != r)
                rows_[kept] = std::move(rows_[r]);
            ++kept;
        }
        rows_.erase(rows_.begin() + qsizetype(kept), rows_.end());
        if (!bulk_)
            endResetModel();
        return;
    }
    // From the last run back, so the row numbers of the earlier ones stay true.
    for (auto run = runs.rbegin(); run != runs.rend(); ++run) {
        beginRemoveRows({}, run->first, run->second);
        for (int r = run->first; r <= run->second; ++r)
            dropFromIndexes(rows_[size_t(r)]);
        rows_.erase(rows_.begin() + run->first, rows_.begin() + run->second + 1);
        endRemoveRows();
    }
}

void JobListModel::clear()
{
    if (!bulk_)
        beginResetModel();
    rows_.clear();
    byPrinter_.clear();
    byJob_.clear();
    if (!bulk_)
        endResetModel();
}

void JobListModel::beginBulk()
{
    if (bulk_)
        return;
    beginResetModel();
    bulk_ = true;
}

void JobListModel::endBulk()
{
    if (!bulk_)
        return;
    bulk_ = false;
    endResetModel();
}

// ---------------------------------------------------------------- JobStore

namespace {
void logDeleteFailed(qint64 id, const QString& error)
{
    LogWrite(QStringLiteral("SrvDBDeleteJob failed. JId = ") + QString::number(id) + QStringLiteral(" Error: ") + error);
}
} // namespace

JobStore::JobStore(JobDatabase& jdb, const PrinterSlots& printerSlots) : jdb_(jdb), slots_(printerSlots) {}

JobRow JobStore::buildRow(qint32 id, const PrintJob& printJob) const
{
    if (!printJob.readable(PrintJob::ListedFields))
        throw Error(ErrOverflow, QStringLiteral("Overflow"));
    const JobFields job(printJob.text);
    JobRow r;
    r.job = printJob;
    r.job.id = id;
    r.id = id;
    r.printerId = job.printerId();
    r.printerName = slots_.SrvPrinterExists(r.printerId) ? slots_.at(r.printerId).name.trimmed() : GetString(12049);
    r.copies = QString::number(job.copies());
    r.workstation = job.workstation();
    r.user = job.user();
    r.senderText = r.user.isEmpty() ? r.workstation : GetString(12055, r.user + QLatin1Char('|') + r.workstation);
    r.text = QString::number(id) + QLatin1Char(' ') + job.caption();
    return r;
}

std::optional<PrintJob> JobStore::nextJob(qint32 printerId) const
{
    const int row = list_.findJob(list_.firstJobOf(printerId));
    if (row < 0)
        return std::nullopt;
    return list_.rowAt(row).job;
}

bool JobStore::jobStored(qint32 id)
{
    return jdb_.SrvSeekJob(id);
}

bool JobStore::SrvAddJob(const PrintJob& job)
{
    qint32 id = 0;
    try {
        TableRecordset* rs = jdb_.jobRecordset();
        if (!rs)
            throw Error(91, QStringLiteral("Object variable or With block variable not set"));
        id = jdb_.SrvDBNextId(QStringLiteral("tbJob"));
        if (inBatch_ && refusal_)
            throw *refusal_;
        // The row's fields are read before anything is stored.
        const JobRow row = buildRow(id, job);
        rs->AddNew();
        rs->setField(QStringLiteral("Id"), id);
        rs->setField(QStringLiteral("PrinterId"), row.printerId);
        rs->setField(QStringLiteral("Job"), job.text);
        rs->Update();
        if (inBatch_)
            batchJobs_.push_back(id);
        list_.append(row);
        return true;
    } catch (const std::exception& e) {
        if (TableRecordset* rs = jdb_.jobRecordset())
            rs->CancelUpdate();
        noteFailure(e);
        LogWrite(QStringLiteral("SrvAddJob failed. JId = ") + QString::number(id) + QStringLiteral(" Error: ")
                 + errorText(e));
        return false;
    }
}

void JobStore::noteFailure(const std::exception& e)
{
    const auto* err = dynamic_cast<const Error*>(&e);
    const Error failure = err ? *err : Error(1, errorText(e));
    // SQLITE_READONLY and its extended codes.
    if ((failure.number & 0xff) == 8)
        reopen_ = true;
    // A failed statement may have ended the transaction: later writes of the
    // batch would then commit on their own, outside what the batch reports.
    if (inBatch_ && !refusal_)
        refusal_ = failure;
}

const JobRow& JobStore::SrvAddJobRow(const Recordset& rs)
{
    const qint32 id = NullToLong(rs.field(QStringLiteral("Id")), -1);
    list_.append(buildRow(id, PrintJob::fromText(NullToStr(rs.field(QStringLiteral("Job")), QString()))));
    return list_.rowAt(list_.count() - 1);
}

void JobStore::SrvInitAllJobs()
{
    list_.beginBulk();
    try {
        list_.clear();
        TableRecordset* rs = jdb_.jobRecordset();
        if (!rs)
            throw Error(91, QStringLiteral("Object variable or With block variable not set"));
        if (rs->RecordCount() > 0) {
            rs->MoveFirst();
            while (!rs->IsEOF()) {
                SrvAddJobRow(*rs);
                rs->MoveNext();
            }
        }
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvInitAllJobs failed. Error: ") + errorText(e));
    }
    list_.endBulk();
}

bool JobStore::SrvDBDeleteJob(qint32 id)
{
    try {
        if (inBatch_ && refusal_)
            throw *refusal_;
        if (jdb_.SrvSeekJob(id)) {
            TableRecordset* rs = jdb_.jobRecordset();
            rs->Delete();
            // Moving to the first row of an emptied table is not an error here.
            if (rs->RecordCount() > 0)
                rs->MoveFirst();
        }
        return true;
    } catch (const std::exception& e) {
        noteFailure(e);
        logDeleteFailed(id, errorText(e));
        return false;
    }
}

void JobStore::SrvRemoveJobRow(qint32 id)
{
    const int row = list_.findJob(id);
    if (row >= 0)
        list_.removeRowAt(row);
}

void JobStore::SrvDeleteJob(qint32 id)
{
    SrvDBDeleteJob(id);
    SrvRemoveJobRow(id);
}

std::set<qint64> JobStore::dbDeleteJobs(const std::vector<qint64>& ids)
{
    std::set<qint64> kept;
    auto failed = [&](qint64 id, const std::exception& e) {
        noteFailure(e);
        logDeleteFailed(id, errorText(e));
        kept.insert(id);
    };
    TableRecordset* rs = jdb_.jobRecordset();
    if (!rs) {
        for (qint64 id : ids)
            failed(id, Error(91, QStringLiteral("Object variable or With block variable not set")));
        return kept;
    }
    rs->DeleteKeys(ids, failed);
    if (rs->RecordCount() > 0)
        rs->MoveFirst();
    return kept;
}

int JobStore::deleteJobsWhere(const std::function<bool(const JobRow&)>& match)
{
    std::vector<int> rows;
    std::vector<qint64> ids;
    for (int r = 0; r < list_.count(); ++r) {
        if (match(list_.rowAt(r))) {
            rows.push_back(r);
            ids.push_back(list_.rowAt(r).id);
        }
    }
    if (rows.empty())
        return 0;
    // A commit per job would hold the server for a second per thousand jobs.
    // Without a transaction of its own (the database refused one) each
    // statement commits by itself.
    Database& db = jdb_.database();
    bool own = false;
    if (!inBatch_ && !db.inTransaction()) {
        try {
            db.begin();
            own = true;
        } catch (const std::exception&) {
        }
    }
    const std::set<qint64> kept = dbDeleteJobs(ids);
    if (own) {
        try {
            db.commit();
        } catch (const std::exception& e) {
            const QString err = errorText(e);
            db.rollback();
            for (qint64 id : ids)
                logDeleteFailed(id, err);
            // Nothing was deleted, and the list was not touched yet: only the
            // key list has to be read again (logged as a failed re-read is).
            if (TableRecordset* rs = jdb_.jobRecordset()) {
                try {
                    rs->Requery();
                } catch (const std::exception& e2) {
                    LogWrite(QStringLiteral("SrvInitAllJobs failed. Error: ") + errorText(e2));
                }
            }
            return 0;
        }
    }
    // A job whose row could not be deleted stays listed: the list and tbJob agree.
    if (!kept.empty())
        std::erase_if(rows, [&](int r) { return kept.count(list_.rowAt(r).id) > 0; });
    list_.removeRowsAt(rows);
    return int(rows.size());
}

bool JobStore::beginBatch()
{
    if (inBatch_)
        return false;
    inBatch_ = true;
    batchJobs_.clear();
    refusal_.reset();
    // Not logged here: each job the batch refuses logs its own line.
    try {
        if (std::exchange(reopen_, false))
            jdb_.database().open(jdb_.database().path());
        jdb_.database().begin();
        return true;
    } catch (const std::exception& e) {
        noteFailure(e);
        return false;
    }
}

bool JobStore::commitBatch()
{
    if (!inBatch_)
        return false;
    inBatch_ = false;
    refusal_.reset();
    if (!jdb_.database().inTransaction()) {
        // Never began: nothing of it was written.
        batchJobs_.clear();
        return false;
    }
    try {
        // Jobs it refused were told so by SrvAddJob; the ones it stored are durable now.
        jdb_.database().commit();
        batchJobs_.clear();
        return true;
    } catch (const std::exception& e) {
        const QString err = errorText(e);
        jdb_.database().rollback();
        for (qint32 id : batchJobs_)
            LogWrite(QStringLiteral("SrvAddJob failed. JId = ") + QString::number(id) + QStringLiteral(" Error: ") + err);
        batchJobs_.clear();
        // What is on disk is the truth again: re-read the keys and the queue.
        try {
            if (TableRecordset* rs = jdb_.jobRecordset())
                rs->Requery();
        } catch (const std::exception& e2) {
            LogWrite(QStringLiteral("SrvInitAllJobs failed. Error: ") + errorText(e2));
        }
        SrvInitAllJobs();
        return false;
    }
}

} // namespace quill
