#pragma once
// Rebuilding a damaged SQLite file from what can still be read.
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
    // Key values in unreadable stretches between readable rows: the rows lost
    // where keys are dense (job ids), at most that many otherwise.
    qint64 lost = 0;
    // Rows after the last readable one could not be reached at all.
    bool tailUnreadable = false;
};

// Creates `target` (which must not exist) with the schema of `damaged` and every
// row of its tables that can still be read, walking each table by rowid and
// stepping over stretches that fail; indexes are built anew. The target is
// fsync'd. Throws quill::Error when the schema itself cannot be read or the
// target cannot be written (a partial target is removed).
QList<SalvagedTable> SalvageDatabase(const QString& damaged, const QString& target);

} // namespace quill
