#pragma once
// Rebuilding a damaged SQLite file from what can still be read.
#include "foundation/error.h"

#include <QList>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>

namespace quill {

// A plain connection to one file for the start-up maintenance: no pragmas,
// nothing changed on open. Throws quill::Error.
class FileConnection {
public:
    explicit FileConnection(const QString& path);
    ~FileConnection();
    FileConnection(const FileConnection&) = delete;
    FileConnection& operator=(const FileConnection&) = delete;

    QSqlDatabase& db() { return db_; }
    void exec(const QString& sql);
    // Each row's columns joined by "|".
    QStringList rows(const QString& sql);

private:
    void release();
    QSqlDatabase db_;
    QString name_;
};

struct SalvagedTable {
    QString name;
    qint64 recovered = 0;
    // Keys between the bounds of the unreadable pages that no readable page
    // holds: the rows lost where keys are dense (job ids), at most that many
    // otherwise.
    qint64 lost = 0;
    // Rows beyond the last key a readable page bounds (or the whole table, when
    // its first page is gone) could not be counted.
    bool tailUnreadable = false;
    // Rows that were lost and came back from the good backup instead.
    qint64 restored = 0;
};

// Creates `target` (which must not exist) with the schema of `damaged` and every
// row that a readable page of it holds. The file is read page by page, not
// through its b-trees alone: a table's rows on a readable leaf come back even
// when the pages above it are gone, as long as the free-page list is whole (its
// pages hold rows deleted long ago). Two rows with one key: the first found
// stays. Indexes are built anew.
//
// `goodBackup` (may be empty) is a copy that passed its check: it names the
// tables the file's damaged schema lost (their rows then come from stray
// pages), and for the tables named in `restorable` it gives back the rows it
// holds that the damage took.
//
// The target is fsync'd. Throws quill::Error when the file has no header of
// its own or not a row of it can be read, or the target cannot be written (a
// partial target is removed).
QList<SalvagedTable> SalvageDatabase(const QString& damaged, const QString& target, const QString& goodBackup = {},
                                     const QStringList& restorable = {});

} // namespace quill
