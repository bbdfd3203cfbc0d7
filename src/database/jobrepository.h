#pragma once
// tbJob over prepared statements. Every call returns its failure as a value:
// the engine's error number and text, from which the callers write their log
// lines ("SrvAddJob failed. JId = 5 Error: 5 database is locked").
//
//   JobRepository repo(db);
//   DbResult<qint32> next = repo.nextId();          // MAX(Id) + 1
//   if (auto failed = repo.insert(next.value, 2, text)) log(failed->text());
//   repo.remove({3, 5, 8});                          // one statement
#include "database/sqlite.h"

#include <QDateTime>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

namespace quill {

class JobRepository {
public:
    explicit JobRepository(Database& db) : db_(db) {}

    // One more than the largest Id (1 for an empty table).
    DbResult<qint32> nextId();
    std::optional<Error> insert(qint32 id, qint32 printerId, const QString& text);
    // PostgreSQL: the jobs as one statement (one round trip to the database
    // server however many), the first with MAX(Id) + 1 and each next one more, as
    // one insert after the other would have them. Returns the first job's id.
    DbResult<qint32> insertRun(const std::vector<std::pair<qint32, QString>>& printerAndText);
    // Deletes the rows of these ids in one statement; ids without a row are no error.
    std::optional<Error> remove(const std::vector<qint32>& ids);
    // Gives each job (id, its text with the new printer in it) to the printer;
    // the caller's transaction makes it one change.
    std::optional<Error> move(const std::vector<std::pair<qint32, QString>>& idAndText, qint32 printerId);
    DbResult<bool> exists(qint32 id);
    // Can the table be read (its columns included)?
    std::optional<Error> check();
    // Every row in Id order. A job text that is Null reads as empty.
    std::optional<Error> readAll(const std::function<void(qint32 id, const QString& text)>& row);

private:
    Database& db_;
};

// One finished job in tbJobHistory: what was printed (or cancelled), when, where.
struct HistoryEntry {
    qint32 id = 0;        // the entry's own number, what a reprint names
    qint32 jobId = 0;     // the job's id while it was queued
    qint32 printerId = -1;
    QDateTime finished;   // UTC
    QString outcome;      // HistoryPrinted or HistoryCancelled
    QString text;         // the job text as it was queued
};

inline const QString HistoryPrinted = QStringLiteral("printed");
inline const QString HistoryCancelled = QStringLiteral("cancelled");

// tbJobHistory: jobs that left the queue, kept for a reprint. Written only by
// the storage thread, in the transaction that removes the job from tbJob.
class HistoryRepository {
public:
    explicit HistoryRepository(Database& db) : db_(db) {}

    // Creates the table where it is missing (installations made before it).
    std::optional<Error> ensure();
    std::optional<Error> add(const HistoryEntry& entry);
    // Keeps the newest maxRows entries and none finished before `oldest`.
    std::optional<Error> prune(int maxRows, const QDateTime& oldest);
    // The newest entries first, at most `limit`.
    DbResult<std::vector<HistoryEntry>> newest(int limit);
    // The entry, or id 0 when there is none.
    DbResult<HistoryEntry> entry(qint32 id);

private:
    Database& db_;
};

} // namespace quill
