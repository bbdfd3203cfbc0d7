#pragma once
// The storage thread: it owns the connection that writes tbJob. The event loop
// hands it jobs to store and ids to delete and goes on; the thread commits
// everything that has arrived since its last commit in one transaction, so
// while one commit waits for the disk the next batch gathers (pipelined group
// commit). Each write is answered with an outcome, in the order submitted,
// once its transaction is over.
//
//   JobWriter w(db.target());
//   quint64 t = w.submitInsert(job);          // returns at once
//   w.waitFor(t); for (auto& o : w.takeDone()) ... o.ok(), o.id
#include "database/engine.h"
#include "foundation/error.h"
#include "foundation/printjob.h"

#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace quill {

class JobWriter {
public:
    struct Outcome {
        quint64 ticket = 0;
        bool insert = false;
        bool move = false;
        PrintJob job;             // an insert's job, with the id it got (0 when none)
        std::vector<qint32> ids;  // a deletion's or a move's ids
        std::optional<Error> error;
        bool ok() const { return !error; }
    };

    // A job that leaves the queue and goes into the history (printed or
    // cancelled): its id, printer and text, and how it ended.
    struct Finished {
        qint32 id = 0;
        qint32 printerId = -1;
        QString text;
        QString outcome;
    };

    // The thread opens its own connection to the database. `ready` is called on
    // the thread whenever outcomes wait to be taken (the owner posts itself a
    // call to the event loop from it).
    JobWriter(const DbTarget& target, std::function<void()> ready);
    // Commits what was submitted, then ends the thread.
    ~JobWriter();
    JobWriter(const JobWriter&) = delete;
    JobWriter& operator=(const JobWriter&) = delete;

    quint64 submitInsert(const PrintJob& job);
    quint64 submitDelete(std::vector<qint32> ids);
    // Deletes the job and adds its history entry in the same transaction.
    quint64 submitFinished(Finished job);
    // Gives each job (id, text with the new printer) to the printer.
    quint64 submitMove(std::vector<std::pair<qint32, QString>> jobs, qint32 printerId);
    // The history's bounds, applied after each batch that added to it.
    void setHistoryLimits(int maxRows, int maxDays);
    // Blocks until the write of this ticket is over.
    void waitFor(quint64 ticket);
    // Outcomes not taken yet, oldest first.
    std::vector<Outcome> takeDone();
    // Transactions committed or rolled back so far.
    quint64 transactions() const;

private:
    enum class Kind { Insert, Delete, Finish, Move };
    struct Op {
        quint64 ticket = 0;
        Kind kind = Kind::Delete;
        PrintJob job;
        std::vector<qint32> ids;
        Finished finished;
        std::vector<std::pair<qint32, QString>> moves;
        qint32 printerId = -1;
        bool insert() const { return kind == Kind::Insert; }
    };
    quint64 submit(Op op);
    void run();

    DbTarget target_;
    std::function<void()> ready_;
    mutable std::mutex m_;
    std::condition_variable wake_;
    std::condition_variable doneCv_;
    std::deque<Op> queue_;
    std::vector<Outcome> done_;
    quint64 nextTicket_ = 1;
    quint64 doneThrough_ = 0;
    quint64 transactions_ = 0;
    bool stop_ = false;
    int historyRows_ = 10000;
    int historyDays_ = 30;
    std::thread thread_;
};

} // namespace quill
