#include "database/jobwriter.h"
#include "database/jobrepository.h"
#include "database/sqlite.h"

#include <QDateTime>

#include <algorithm>

namespace quill {

namespace {
// SQLite's own automatic checkpoint interval.
constexpr int CheckpointPages = 1000;

// Runs f as one step inside the batch's transaction: all of it or nothing,
// whichever engine, and the transaction goes on after a failure.
std::optional<Error> atomically(Database& db, const std::function<std::optional<Error>()>& f)
{
    if (auto failed = Trap([&] { db.exec(QStringLiteral("SAVEPOINT step")); }))
        return failed;
    std::optional<Error> failed = f();
    if (failed)
        Trap([&] { db.exec(QStringLiteral("ROLLBACK TO step")); });
    if (auto released = Trap([&] { db.exec(QStringLiteral("RELEASE step")); }); released && !failed)
        failed = released;
    return failed;
}
} // namespace

JobWriter::JobWriter(const DbTarget& target, std::function<void()> ready)
    : target_(target), ready_(std::move(ready))
{
    thread_ = std::thread([this] { run(); });
}

JobWriter::~JobWriter()
{
    {
        std::lock_guard lock(m_);
        stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

quint64 JobWriter::submit(Op op)
{
    quint64 ticket;
    {
        std::lock_guard lock(m_);
        ticket = op.ticket = nextTicket_++;
        queue_.push_back(std::move(op));
    }
    wake_.notify_one();
    return ticket;
}

quint64 JobWriter::submitInsert(const PrintJob& job)
{
    Op op;
    op.kind = Kind::Insert;
    op.job = job;
    return submit(std::move(op));
}

quint64 JobWriter::submitDelete(std::vector<qint32> ids)
{
    Op op;
    op.ids = std::move(ids);
    return submit(std::move(op));
}

quint64 JobWriter::submitFinished(Finished job)
{
    Op op;
    op.kind = Kind::Finish;
    op.ids = {job.id};
    op.finished = std::move(job);
    return submit(std::move(op));
}

quint64 JobWriter::submitMove(std::vector<std::pair<qint32, QString>> jobs, qint32 printerId)
{
    Op op;
    op.kind = Kind::Move;
    for (const auto& j : jobs)
        op.ids.push_back(j.first);
    op.moves = std::move(jobs);
    op.printerId = printerId;
    return submit(std::move(op));
}

void JobWriter::setHistoryLimits(int maxRows, int maxDays)
{
    std::lock_guard lock(m_);
    historyRows_ = maxRows;
    historyDays_ = maxDays;
}

void JobWriter::waitFor(quint64 ticket)
{
    std::unique_lock lock(m_);
    doneCv_.wait(lock, [&] { return doneThrough_ >= ticket; });
}

std::vector<JobWriter::Outcome> JobWriter::takeDone()
{
    std::lock_guard lock(m_);
    return std::exchange(done_, {});
}

quint64 JobWriter::transactions() const
{
    std::lock_guard lock(m_);
    return transactions_;
}

void JobWriter::run()
{
    Database db;
    std::optional<Error> openError;
    bool reopen = true;
    JobRepository repo(db);
    HistoryRepository history(db);
    for (;;) {
        std::deque<Op> batch;
        int rows = 0, days = 0;
        {
            std::unique_lock lock(m_);
            wake_.wait(lock, [&] { return stop_ || !queue_.empty(); });
            if (queue_.empty())
                break; // stopping, and everything submitted is written
            batch.swap(queue_);
            rows = historyRows_;
            days = historyDays_;
        }
        // A file found read-only (or not opened), or a lost connection, is opened
        // again, so storing resumes once it can be written.
        if (reopen) {
            reopen = false;
            try {
                db.open(target_);
                db.deferCheckpoints();
                openError.reset();
            } catch (const Error& e) {
                openError = e;
                reopen = true;
            }
        }
        // The first failure refuses the rest of the batch: a failed statement
        // may have ended the transaction, and later writes would commit outside it.
        std::optional<Error> refusal = openError;
        auto note = [&](const Error& e) {
            if ((e.number & 0xff) == 8) // SQLITE_READONLY and its extended codes
                reopen = true;
            if (!refusal)
                refusal = e;
        };
        // PostgreSQL: each run of inserts is one statement, a round trip to the
        // database server for all of them; a batch that is one such run needs no
        // transaction of its own, and so no BEGIN and COMMIT to wait for.
        const bool runs = target_.postgres();
        const bool oneStatement =
            runs && std::all_of(batch.begin(), batch.end(), [](const Op& op) { return op.insert(); });
        if (!refusal && !oneStatement) {
            try {
                db.begin();
            } catch (const Error& e) {
                note(e);
            }
        }
        std::vector<Outcome> out;
        out.reserve(batch.size());
        bool addedHistory = false;
        for (size_t i = 0; i < batch.size(); ++i) {
            Op& op = batch[i];
            if (runs && op.insert()) {
                size_t end = i;
                std::vector<std::pair<qint32, QString>> jobs;
                while (end < batch.size() && batch[end].insert()) {
                    jobs.emplace_back(batch[end].job.printerId, batch[end].job.text);
                    ++end;
                }
                DbResult<qint32> first{0, refusal};
                if (!refusal) {
                    first = repo.insertRun(jobs);
                    if (!first.ok()) {
                        note(*first.error);
                        // The ids they would have had, for the log lines.
                        const DbResult<qint32> next = repo.nextId();
                        first.value = next.ok() ? next.value : 0;
                    }
                } else if (!openError) {
                    const DbResult<qint32> next = repo.nextId();
                    first.value = next.ok() ? next.value : 0;
                }
                for (size_t k = i; k < end; ++k) {
                    Outcome o;
                    o.ticket = batch[k].ticket;
                    o.insert = true;
                    o.job = std::move(batch[k].job);
                    o.job.id = first.ok() ? first.value + qint32(k - i) : first.value;
                    o.error = first.error;
                    out.push_back(std::move(o));
                }
                i = end - 1;
                continue;
            }
            Outcome o;
            o.ticket = op.ticket;
            o.insert = op.insert();
            if (op.insert()) {
                o.job = std::move(op.job);
                o.job.id = 0;
                const DbResult<qint32> next = openError ? DbResult<qint32>{0, openError} : repo.nextId();
                if (!next.ok()) {
                    o.error = next.error;
                    note(*next.error);
                } else {
                    o.job.id = next.value;
                    if (refusal)
                        o.error = refusal;
                    else if (auto failed = repo.insert(o.job.id, o.job.printerId, o.job.text)) {
                        o.error = failed;
                        note(*failed);
                    }
                }
            } else {
                o.move = op.kind == Kind::Move;
                o.ids = std::move(op.ids);
                std::optional<Error> failed = refusal;
                if (!failed && op.kind == Kind::Move)
                    failed = atomically(db, [&] { return repo.move(op.moves, op.printerId); });
                else if (!failed && op.kind == Kind::Finish) {
                    HistoryEntry e;
                    e.jobId = op.finished.id;
                    e.printerId = op.finished.printerId;
                    e.finished = QDateTime::currentDateTimeUtc();
                    e.outcome = op.finished.outcome;
                    e.text = op.finished.text;
                    failed = atomically(db, [&] {
                        if (auto removed = repo.remove(o.ids))
                            return removed;
                        return history.add(e);
                    });
                    addedHistory = addedHistory || !failed;
                } else if (!failed)
                    failed = repo.remove(o.ids);
                if (failed) {
                    o.error = failed;
                    if (!refusal)
                        note(*failed);
                }
            }
            out.push_back(std::move(o));
        }
        // The history keeps its bounds as it grows; a prune that fails is
        // tried again with the next batch and fails none of this one's writes.
        if (addedHistory && !refusal)
            atomically(db, [&] { return history.prune(rows, QDateTime::currentDateTimeUtc().addDays(-days)); });
        if (db.inTransaction() && refusal && db.failureEndsTransaction()) {
            // The engine has ended the transaction at the failure: what came before it is gone too.
            db.rollback();
            for (Outcome& o : out)
                if (!o.error)
                    o.error = refusal;
        }
        if (refusal && db.postgres() && !reopen && Trap([&] { db.exec(QStringLiteral("SELECT 1")); }))
            reopen = true; // the connection itself is gone
        if (db.inTransaction()) {
            try {
                db.commit();
            } catch (const Error& e) {
                db.rollback();
                note(e);
                // Nothing of the batch is on disk.
                for (Outcome& o : out)
                    if (!o.error)
                        o.error = e;
            }
        }
        {
            std::lock_guard lock(m_);
            ++transactions_;
            doneThrough_ = out.back().ticket;
            for (Outcome& o : out)
                done_.push_back(std::move(o));
        }
        doneCv_.notify_all();
        if (ready_)
            ready_();
        // The WAL is copied into the file here, after the replies, not inside the
        // commit that crosses its limit; while more waits, not before four times it.
        if (!reopen && db.uncheckpointed() >= CheckpointPages) {
            bool idle;
            {
                std::lock_guard lock(m_);
                idle = queue_.empty();
            }
            if (idle || db.uncheckpointed() >= 4 * CheckpointPages)
                db.checkpoint();
        }
    }
    db.close();
}

} // namespace quill
