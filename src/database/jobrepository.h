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
    DbResult<bool> exists(qint32 id);
    // Can the table be read (its columns included)?
    std::optional<Error> check();
    // Every row in Id order. A job text that is Null reads as empty.
    std::optional<Error> readAll(const std::function<void(qint32 id, const QString& text)>& row);

private:
    Database& db_;
};

} // namespace quill
