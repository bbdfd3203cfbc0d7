#include "database/jobstore.h"
#include "database/jobdatabase.h"
#include "database/sqlite.h"
#include "foundation/eventlog.h"
#include "foundation/jobfields.h"
#include "foundation/strutil.h"
#include "foundation/texts.h"

#include <algorithm>

namespace quill {

// ---------------------------------------------------------------- QueuedJob

PrintJob QueuedJob::toPrintJob() const
{
    PrintJob j;
    j.id = id;
    j.printerId = printerId;
    j.templateId = templateId;
    j.copies = copies;
    j.checkMode = checkMode;
    j.print = print;
    j.text = QString::fromUtf8(text);
    return j;
}

QString QueuedJob::field(int n) const
{
    const QByteArrayView bytes = fieldBytes(n);
    return QString::fromUtf8(bytes.data(), bytes.size());
}

QByteArrayView QueuedJob::fieldBytes(int n) const
{
    // As JobFields: one TAB stripped at each end, fields numbered from 1. TAB
    // is one byte in UTF-8, so the field is found in the bytes. A plain loop:
    // a withdraw runs this twice for every queued job.
    if (n < 1 || text.isEmpty())
        return {};
    const char* p = text.constData();
    qsizetype from = p[0] == '\t' ? 1 : 0;
    qsizetype to = text.size();
    if (to > from && p[to - 1] == '\t')
        --to;
    for (int k = 1; k < n; ++from) {
        if (from >= to)
            return {};
        if (p[from] == '\t')
            ++k;
    }
    qsizetype end = from;
    while (end < to && p[end] != '\t')
        ++end;
    return QByteArrayView(p + from, end - from);
}

namespace {
QByteArray compactUtf8(const QString& text);
}

// ---------------------------------------------------------------- JobListModel

namespace {
constexpr int AnnounceMs = 100;
// Departed rows kept for views at the most; a view maps each row it asks for
// through them.
constexpr size_t MaxDeparted = 64;
}

JobListModel::JobListModel(const PrinterSlots* printerSlots, QObject* parent)
    : QAbstractTableModel(parent), slots_(printerSlots)
{
    announce_.setSingleShot(true);
    connect(&announce_, &QTimer::timeout, this, &JobListModel::flushChanges);
}

int JobListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : announced_ + int(departed_.size());
}

int JobListModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : ColumnCount; }

JobRow JobListModel::rowAt(int row) const { return makeRow(jobAt(row)); }

JobRow JobListModel::makeRow(const QueuedJob& j) const
{
    JobRow r;
    r.id = j.id;
    r.printerId = j.printerId;
    r.printerName = slots_ && slots_->SrvPrinterExists(j.printerId) ? slots_->at(j.printerId).name.trimmed()
                                                                     : GetString(12049);
    r.copies = QString::number(j.copies);
    r.workstation = j.workstation();
    r.user = j.user();
    r.senderText = r.user.isEmpty() ? r.workstation : GetString(12055, r.user + QLatin1Char('|') + r.workstation);
    r.text = QString::number(j.id) + QLatin1Char(' ') + j.field(12);
    return r;
}

const JobRow& JobListModel::shown(const QueuedJob& j) const
{
    if (shownSeq_ != j.seq) {
        shown_ = makeRow(j);
        shownSeq_ = j.seq;
    }
    return shown_;
}

const std::vector<int>& JobListModel::departedRows() const
{
    if (!departedRowsValid_) {
        // A departed job stands after the told jobs queued before it and the
        // departed ones before it.
        departedRows_.clear();
        for (size_t k = 0; k < departed_.size(); ++k)
            departedRows_.push_back(int(k) + std::min(rowOfSeq(departed_[k].seq), announced_));
        departedRowsValid_ = true;
    }
    return departedRows_;
}

const QueuedJob& JobListModel::viewJob(int viewRow) const
{
    if (departed_.empty())
        return rows_[size_t(viewRow)];
    const std::vector<int>& at = departedRows();
    const auto it = std::lower_bound(at.begin(), at.end(), viewRow);
    const size_t before = size_t(it - at.begin());
    if (it != at.end() && *it == viewRow)
        return departed_[before];
    return rows_[size_t(viewRow) - before];
}

QVariant JobListModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount() || index.column() >= ColumnCount)
        return {};
    const QueuedJob& job = viewJob(index.row());
    if (role == JobIdRole)
        return job.id;
    if (role == PrinterIdRole)
        return job.printerId;
    if (role != Qt::DisplayRole && role != KeyRole && role != TagRole)
        return {};
    const JobRow& r = shown(job);
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
                               [](const QueuedJob& e, quint64 s) { return e.seq < s; });
    return int(it - rows_.begin());
}

int JobListModel::findJob(qint32 jobId) const
{
    if (idsAscending_) {
        auto it = std::lower_bound(rows_.begin(), rows_.end(), jobId,
                                   [](const QueuedJob& e, qint32 id) { return e.id < id; });
        return it != rows_.end() && it->id == jobId ? int(it - rows_.begin()) : -1;
    }
    for (size_t r = 0; r < rows_.size(); ++r)
        if (rows_[r].id == jobId)
            return int(r);
    return -1;
}

int JobListModel::firstRowOf(qint32 printerId) const
{
    // Scans on from where the last scan for this printer stopped: every job
    // before that point was some other printer's, and appends come after it.
    auto hint = scanFrom_.find(printerId);
    int row = hint == scanFrom_.end() ? 0 : rowOfSeq(hint->second);
    for (; row < count(); ++row) {
        if (rows_[size_t(row)].printerId == printerId) {
            scanFrom_[printerId] = rows_[size_t(row)].seq;
            return row;
        }
    }
    scanFrom_[printerId] = nextSeq_;
    return -1;
}

qint32 JobListModel::firstJobOf(qint32 printerId) const
{
    const int row = firstRowOf(printerId);
    return row >= 0 ? rows_[size_t(row)].id : 0;
}

void JobListModel::append(QueuedJob job)
{
    job.seq = nextSeq_++;
    if (!rows_.empty() && job.id < rows_.back().id)
        idsAscending_ = false;
    rows_.push_back(std::move(job));
    announceSoon();
}

void JobListModel::announceSoon()
{
    if (bulk_ || announce_.isActive())
        return;
    const qint64 since = lastAnnounce_.isValid() ? lastAnnounce_.elapsed() : AnnounceMs;
    if (since >= AnnounceMs)
        flushChanges();
    else
        announce_.start(int(AnnounceMs - since));
}

void JobListModel::flushChanges()
{
    announce_.stop();
    if (bulk_ || (departed_.empty() && announced_ >= count()))
        return;
    flushRemovals();
    if (announced_ < count()) {
        beginInsertRows({}, announced_, count() - 1);
        announced_ = count();
        endInsertRows();
    }
    lastAnnounce_.start();
}

void JobListModel::flushRemovals()
{
    if (departed_.empty())
        return;
    const std::vector<int> at = departedRows();
    // Runs of adjacent view rows, from the last back, so the earlier ones'
    // row numbers stay true.
    size_t end = at.size();
    while (end > 0) {
        size_t first = end - 1;
        while (first > 0 && at[first - 1] + 1 == at[first])
            --first;
        beginRemoveRows({}, at[first], at[end - 1]);
        departed_.erase(departed_.begin() + qsizetype(first), departed_.begin() + qsizetype(end));
        departedRowsValid_ = false;
        endRemoveRows();
        end = first;
    }
}

void JobListModel::removeRowAt(int row, Announce when)
{
    if (row < 0 || row >= count())
        return;
    const bool told = !bulk_ && row < announced_;
    if (told && when == Soon) {
        QueuedJob gone = std::move(rows_[size_t(row)]);
        rows_.erase(rows_.begin() + row);
        --announced_;
        const auto at = std::upper_bound(departed_.begin(), departed_.end(), gone.seq,
                                         [](quint64 s, const QueuedJob& e) { return s < e.seq; });
        departed_.insert(at, std::move(gone));
        departedRowsValid_ = false;
        if (departed_.size() >= MaxDeparted)
            flushChanges();
        else
            announceSoon();
        return;
    }
    // The views' row numbers are the queue's once no departed row is left.
    flushRemovals();
    if (told)
        beginRemoveRows({}, row, row);
    rows_.erase(rows_.begin() + row);
    if (told) {
        --announced_;
        endRemoveRows();
    }
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
        departed_.clear();
        if (runs.size() == 1 && size_t(runs[0].second - runs[0].first + 1) == rows_.size()) {
            rows_.clear();
        } else {
            size_t kept = 0;
            auto run = runs.begin();
            for (size_t r = 0; r < rows_.size(); ++r) {
                while (run != runs.end() && size_t(run->second) < r)
                    ++run;
                if (run != runs.end() && size_t(run->first) <= r)
                    continue;
                if (kept != r)
                    rows_[kept] = std::move(rows_[r]);
                ++kept;
            }
            rows_.erase(rows_.begin() + qsizetype(kept), rows_.end());
        }
        // A reset tells the views of every row.
        announce_.stop();
        announced_ = count();
        if (!bulk_)
            endResetModel();
        return;
    }
    flushRemovals();
    // From the last run back, so the row numbers of the earlier ones stay true.
    // The unannounced part of a run leaves silently.
    for (auto run = runs.rbegin(); run != runs.rend(); ++run) {
        if (run->second >= announced_)
            rows_.erase(rows_.begin() + std::max(run->first, announced_), rows_.begin() + run->second + 1);
        if (run->first >= announced_)
            continue;
        const int last = std::min(run->second, announced_ - 1);
        beginRemoveRows({}, run->first, last);
        rows_.erase(rows_.begin() + run->first, rows_.begin() + last + 1);
        announced_ -= last - run->first + 1;
        endRemoveRows();
    }
}

void JobListModel::clear()
{
    if (!bulk_)
        beginResetModel();
    rows_.clear();
    rows_.shrink_to_fit();
    departed_.clear();
    scanFrom_.clear();
    idsAscending_ = true;
    announce_.stop();
    announced_ = 0;
    if (!bulk_)
        endResetModel();
}

void JobListModel::retarget(const std::vector<std::pair<int, QString>>& rowAndText, qint32 printerId)
{
    for (const auto& [row, text] : rowAndText) {
        QueuedJob& j = rows_.at(size_t(row));
        j.printerId = printerId;
        j.text = compactUtf8(text);
    }
    // The printer's scan hint may lie past these rows now.
    scanFrom_.erase(printerId);
    shownSeq_ = ~quint64(0);
    if (rowCount() > 0)
        emit dataChanged(index(0, 0), index(rowCount() - 1, ColumnCount - 1));
}

void JobListModel::beginBulk()
{
    if (bulk_)
        return;
    beginResetModel();
    departed_.clear();
    bulk_ = true;
}

void JobListModel::endBulk()
{
    if (!bulk_)
        return;
    bulk_ = false;
    announce_.stop();
    announced_ = count();
    endResetModel();
}

// ---------------------------------------------------------------- JobStore

namespace {
void logDeleteFailed(qint64 id, const QString& error)
{
    LogWrite(QStringLiteral("SrvDBDeleteJob failed. JId = ") + QString::number(id) + QStringLiteral(" Error: ") + error);
}

Error notOpen() { return Error(91, QStringLiteral("Object variable or With block variable not set")); }

// The queue's form of a job whose fields through the caption are readable.
// The text as UTF-8 in a buffer of its own size, made in one allocation when it
// is ASCII (it nearly always is): toUtf8 makes room for three bytes a character,
// and squeezing that afterwards leaves a hole between the rows the queue keeps.
QByteArray compactUtf8(const QString& text)
{
    const bool ascii = std::all_of(text.cbegin(), text.cend(), [](QChar c) { return c.unicode() < 0x80; });
    if (ascii)
        return text.toLatin1();
    QByteArray bytes = text.toUtf8();
    bytes.squeeze();
    return bytes;
}

QueuedJob queued(qint32 id, const PrintJob& job)
{
    if (!job.readable(PrintJob::ListedFields))
        throw Error(ErrOverflow, QStringLiteral("Overflow"));
    QueuedJob q;
    q.id = id;
    q.printerId = job.printerId;
    q.templateId = job.templateId;
    q.copies = job.copies;
    q.checkMode = job.checkMode;
    q.print = job.print;
    q.text = compactUtf8(job.text);
    return q;
}
} // namespace

JobStore::JobStore(JobDatabase& jdb, const PrinterSlots& printerSlots)
    : jdb_(jdb), repo_(jdb.database()), list_(&printerSlots)
{
}

JobStore::~JobStore() { stopWriter(); }

bool JobStore::tableOpen() const { return jdb_.jobsOpen(); }

JobWriter& JobStore::writer()
{
    if (!writer_) {
        writer_ = std::make_unique<JobWriter>(jdb_.database().target(), [this] {
            // One call at a time waits in the event loop, however many commits end.
            if (!drainPosted_.exchange(true))
                QMetaObject::invokeMethod(&list_, [this] { drain(); }, Qt::QueuedConnection);
        });
        writer_->setHistoryLimits(historyRows_, historyDays_);
    }
    return *writer_;
}

std::vector<JobWriter::Outcome> JobStore::drain()
{
    drainPosted_ = false;
    if (!writer_)
        return {};
    std::vector<JobWriter::Outcome> done = writer_->takeDone();
    if (done.empty())
        return done;
    std::vector<quint64> failed;
    for (JobWriter::Outcome& o : done) {
        if (o.insert) {
            if (o.ok()) {
                try {
                    list_.append(queued(o.job.id, o.job));
                } catch (const Error&) {
                    // Checked before it was handed over.
                }
            } else {
                failed.push_back(o.ticket);
                LogWrite(QStringLiteral("SrvAddJob failed. JId = ") + QString::number(o.job.id)
                         + QStringLiteral(" Error: ") + o.error->text());
            }
        } else if (!o.ok()) {
            failed.push_back(o.ticket);
            for (qint32 id : o.ids)
                if (o.move)
                    LogWrite(QStringLiteral("SrvMoveJob failed. JId = ") + QString::number(id)
                             + QStringLiteral(" Error: ") + o.error->text());
                else
                    logDeleteFailed(id, o.error->text());
        }
    }
    if (onCommitted)
        onCommitted(done.back().ticket, failed);
    return done;
}

JobWriter::Outcome JobStore::await(quint64 ticket)
{
    writer_->waitFor(ticket);
    for (JobWriter::Outcome& o : drain())
        if (o.ticket == ticket)
            return std::move(o);
    return {};
}

void JobStore::sync()
{
    if (!writer_ || lastTicket_ == 0)
        return;
    writer_->waitFor(lastTicket_);
    drain();
}

void JobStore::stopWriter()
{
    if (!writer_)
        return;
    sync();
    writer_.reset();
}

std::optional<PrintJob> JobStore::nextJob(qint32 printerId) const
{
    const int row = list_.firstRowOf(printerId);
    if (row < 0)
        return std::nullopt;
    return list_.jobAt(row).toPrintJob();
}

bool JobStore::jobStored(qint32 id)
{
    if (!tableOpen())
        throw notOpen();
    const DbResult<bool> r = repo_.exists(id);
    if (!r.ok())
        throw *r.error;
    return r.value;
}

std::optional<quint64> JobStore::submitJob(const PrintJob& job)
{
    if (tableOpen() && job.readable(PrintJob::ListedFields))
        return lastTicket_ = writer().submitInsert(job);
    // Refused before it was handed over, with the id it would have had.
    qint32 id = 0;
    Error e = notOpen();
    if (tableOpen()) {
        const DbResult<qint32> next = repo_.nextId();
        id = next.ok() ? next.value : 0;
        e = next.ok() ? Error(ErrOverflow, QStringLiteral("Overflow")) : *next.error;
    }
    LogWrite(QStringLiteral("SrvAddJob failed. JId = ") + QString::number(id) + QStringLiteral(" Error: ") + e.text());
    return std::nullopt;
}

bool JobStore::SrvAddJob(const PrintJob& job)
{
    return addJob(job) > 0;
}

qint32 JobStore::addJob(const PrintJob& job)
{
    const std::optional<quint64> ticket = submitJob(job);
    if (!ticket)
        return 0;
    const JobWriter::Outcome o = await(*ticket);
    return o.ok() ? o.job.id : 0;
}

void JobStore::SrvInitAllJobs()
{
    // Whatever was handed over is in tbJob, or logged as failed, first.
    sync();
    list_.beginBulk();
    try {
        list_.clear();
        if (!tableOpen())
            throw notOpen();
        // A row whose text cannot be listed ends the rebuild; the rows before it stay.
        std::optional<Error> unreadable;
        const std::optional<Error> failed = repo_.readAll([&](qint32 id, const QString& text) {
            if (unreadable)
                return;
            try {
                list_.append(queued(id, PrintJob::fromText(text)));
            } catch (const Error& e) {
                unreadable = e;
            }
        });
        if (failed)
            throw *failed;
        if (unreadable)
            throw *unreadable;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvInitAllJobs failed. Error: ") + errorText(e));
    }
    list_.endBulk();
}

bool JobStore::SrvDBDeleteJob(qint32 id)
{
    if (!tableOpen()) {
        logDeleteFailed(id, notOpen().text());
        return false;
    }
    return await(lastTicket_ = writer().submitDelete({id})).ok();
}

void JobStore::SrvRemoveJobRow(qint32 id)
{
    const int row = list_.findJob(id);
    if (row >= 0)
        list_.removeRowAt(row);
}

void JobStore::SrvDeleteJob(qint32 id)
{
    const int row = list_.findJob(id);
    if (!tableOpen())
        logDeleteFailed(id, notOpen().text());
    else if (row < 0 || !jdb_.historyOpen())
        lastTicket_ = writer().submitDelete({id});
    else {
        const QueuedJob& j = list_.jobAt(row);
        lastTicket_ = writer().submitFinished({id, j.printerId, QString::fromUtf8(j.text), HistoryPrinted});
    }
    // Printed jobs leave the views in groups, as new ones arrive.
    if (row >= 0)
        list_.removeRowAt(row, JobListModel::Soon);
}

bool JobStore::cancelJob(qint32 id)
{
    const int row = list_.findJob(id);
    if (row < 0)
        return true;
    if (!tableOpen()) {
        logDeleteFailed(id, notOpen().text());
        return false;
    }
    const QueuedJob& j = list_.jobAt(row);
    const quint64 ticket = jdb_.historyOpen()
        ? writer().submitFinished({id, j.printerId, QString::fromUtf8(j.text), HistoryCancelled})
        : writer().submitDelete({id});
    if (!await(lastTicket_ = ticket).ok())
        return false;
    SrvRemoveJobRow(id);
    return true;
}

bool JobStore::moveJobs(const std::vector<qint32>& ids, qint32 printerId)
{
    sync();
    std::vector<std::pair<int, QString>> rows;
    std::vector<std::pair<qint32, QString>> jobs;
    for (qint32 id : ids) {
        const int row = list_.findJob(id);
        if (row < 0)
            continue;
        const QString text = JobFields(QString::fromUtf8(list_.jobAt(row).text)).withField(4, QString::number(printerId));
        rows.emplace_back(row, text);
        jobs.emplace_back(id, text);
    }
    if (jobs.empty())
        return true;
    if (!tableOpen()) {
        for (const auto& j : jobs)
            LogWrite(QStringLiteral("SrvMoveJob failed. JId = ") + QString::number(j.first) + QStringLiteral(" Error: ")
                     + notOpen().text());
        return false;
    }
    // A failure is logged per job as the outcome is taken.
    if (!await(lastTicket_ = writer().submitMove(std::move(jobs), printerId)).ok())
        return false;
    list_.retarget(rows, printerId);
    return true;
}

void JobStore::setHistoryLimits(int maxRows, int maxDays)
{
    historyRows_ = qMax(0, maxRows);
    historyDays_ = qMax(0, maxDays);
    if (writer_)
        writer_->setHistoryLimits(historyRows_, historyDays_);
}

DbResult<std::vector<HistoryEntry>> JobStore::history(int limit)
{
    sync();
    return HistoryRepository(jdb_.database()).newest(limit);
}

DbResult<HistoryEntry> JobStore::historyEntry(qint32 id)
{
    sync();
    return HistoryRepository(jdb_.database()).entry(id);
}

int JobStore::deleteJobsWhere(const JobMatch& match)
{
    // Jobs handed over before are in the list (or failed) first.
    sync();
    std::vector<int> rows;
    std::vector<qint32> ids;
    for (int r = 0; r < list_.count(); ++r) {
        if (match(list_.jobAt(r))) {
            rows.push_back(r);
            ids.push_back(list_.jobAt(r).id);
        }
    }
    if (rows.empty())
        return 0;
    if (!tableOpen()) {
        for (qint32 id : ids)
            logDeleteFailed(id, notOpen().text());
        return 0;
    }
    // Failures are logged per job as the outcome is taken.
    if (!await(lastTicket_ = writer().submitDelete(std::move(ids))).ok())
        return 0;
    list_.removeRowsAt(rows);
    return int(rows.size());
}

} // namespace quill
