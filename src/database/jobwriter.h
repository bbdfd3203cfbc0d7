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
        PrintJob job;             // an insert's job, with the id it got (0 when none)
        std::vector<qint32> ids;  // a deletion's ids
        std::optional<Error> error;
        bool ok() const { return !error; }
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
    // Blocks until the write of this ticket is over.
    void waitFor(quint64 ticket);
    // Outcomes not taken yet, oldest first.
    std::vector<Outcome> takeDone();
    // Transactions committed or rolled back so far.
    quint64 transactions() const;

private:
    struct Op {
        quint64 ticket;
        bool insert;
        PrintJob job;
        std::vector<qint32> ids;
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
    std::thread thread_;
};

} // namespace quill
