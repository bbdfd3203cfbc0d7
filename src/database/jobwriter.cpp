#include "database/jobwriter.h"
#include "database/jobrepository.h"
#include "database/sqlite.h"

#include <algorithm>

namespace quill {

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

quint64 JobWriter::submitInsert(const PrintJob& job) { return submit(Op{0, true, job, {}}); }

quint64 JobWriter::submitDelete(std::vector<qint32> ids) { return submit(Op{0, false, {}, std::move(ids)}); }

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
    for (;;) {
        std::deque<Op> batch;
        {
            std::unique_lock lock(m_);
            wake_.wait(lock, [&] { return stop_ || !queue_.empty(); });
            if (queue_.empty())
                break; // stopping, and everything submitted is written
            batch.swap(queue_);
        }
        // A file found read-only (or not opened), or a lost connection, is opened
        // again, so storing resumes once it can be written.
        if (reopen) {
            reopen = false;
            try {
                db.open(target_);
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
            runs && std::all_of(batch.begin(), batch.end(), [](const Op& op) { return op.insert; });
        if (!refusal && !oneStatement) {
            try {
                db.begin();
            } catch (const Error& e) {
                note(e);
            }
        }
        std::vector<Outcome> out;
        out.reserve(batch.size());
        for (size_t i = 0; i < batch.size(); ++i) {
            Op& op = batch[i];
            if (runs && op.insert) {
                size_t end = i;
                std::vector<std::pair<qint32, QString>> jobs;
                while (end < batch.size() && batch[end].insert) {
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
            o.insert = op.insert;
            if (op.insert) {
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
                o.ids = std::move(op.ids);
                if (refusal)
                    o.error = refusal;
                else if (auto failed = repo.remove(o.ids)) {
                    o.error = failed;
                    note(*failed);
                }
            }
            out.push_back(std::move(o));
        }
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
    }
    db.close();
}

} // namespace quill
