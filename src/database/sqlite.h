#pragma once
// One database connection (QtSql). SQLite (driver QSQLITE): WAL journal,
// synchronous=FULL, foreign keys off, freed pages not wiped. PostgreSQL (driver
// QPSQL): synchronous_commit on, a lock wait as long as SQLite's. Statements
// with values are prepared once per text and kept. The repositories
// (jobrepository.h, repositories.h) are built on it and turn its failures into
// values; it throws quill::Error carrying the engine's own number (1 for
// PostgreSQL, whose SQLSTATE leads the text) and text.
//
//   Database db;
//   db.open(path);                      // or db.open(InstallationTarget(dir))
//   db.run("SELECT Job FROM tbJob WHERE Id = ?", {7}, [&](QSqlQuery& q) { ... });
#include "database/engine.h"
#include "foundation/error.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>
#include <optional>

class QSqlError;

namespace quill {

// How long a statement waits for another program's lock before it fails with
// "database is locked". A batch of requests waits once, at its BEGIN IMMEDIATE.
constexpr int LockWaitMs = 2000;

// A one-row table or a keyed row that is not there: the number and text the
// server's log lines have always carried for it.
constexpr int ErrNoCurrentRecord = 3021;
Error NoCurrentRecord();

// Error from a QSqlError: SQLite's error number (1 when the driver gives none) and text.
Error SqlError(const QSqlError& e);

// A value, or the failure that kept it from being read.
template <class T>
struct DbResult {
    T value{};
    std::optional<Error> error;
    bool ok() const { return !error; }
};

// Runs f and returns what it threw as a value.
std::optional<Error> Trap(const std::function<void()>& f);

class Database {
public:
    Database();
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Opens (or creates) the SQLite file and sets the journal mode and pragmas.
    void open(const QString& path);
    void open(const DbTarget& target);
    // Never throws.
    void close();
    bool isOpen() const;
    QString path() const { return target_.file; }
    const DbTarget& target() const { return target_; }
    bool postgres() const { return target_.postgres(); }
    // PostgreSQL ends a transaction at its first failed statement; SQLite goes on.
    bool failureEndsTransaction() const { return target_.postgres(); }
    QSqlDatabase& connection() { return db_; }

    // Runs one statement that returns no rows; returns the rows it changed.
    int exec(const QString& sql, const QVariantList& binds = {});
    // Runs a statement and hands its active query to `rows`, then resets it. The
    // statement is prepared once per text and kept: a request runs the same few
    // statements every time. A PostgreSQL connection found lost outside a
    // transaction is opened again, and a query (or BEGIN) run once more; a
    // change fails as it did, since it may have been made (nothing of a
    // transaction is retried: it is gone with the connection).
    void run(const QString& sql, const QVariantList& binds, const std::function<void(QSqlQuery&)>& rows);
    // Called after a lost connection was opened again, before the statement runs
    // again; what it throws fails that statement.
    void setReconnected(std::function<void()> f) { reconnected_ = std::move(f); }

    // Explicit transaction; while none is open every statement commits on its own.
    void begin();
    void commit();
    void rollback(); // never throws
    bool inTransaction() const { return inTransaction_; }

    // SQLite: this connection's commits no longer copy the WAL into the file
    // (SQLite's automatic checkpoint, which the commit that crosses 1,000 pages
    // pays before it returns); checkpoint() does it when the caller can wait.
    // Lasts until the connection is closed.
    void deferCheckpoints();
    // Pages committed to the WAL since the last checkpoint (0 without deferCheckpoints).
    int uncheckpointed() const;
    // A passive checkpoint: readers are not waited for. One that fails is left
    // to the next call.
    void checkpoint();

private:
    void runOnce(const QString& sql, const QVariantList& binds, const std::function<void(QSqlQuery&)>& rows);
    bool connectionLost();
    struct Prepared {
        QSqlQuery query;
        bool busy = false;
    };
    QSqlDatabase db_;
    QHash<QString, std::shared_ptr<Prepared>> prepared_;
    QString name_;
    DbTarget target_;
    std::function<void()> reconnected_;
    bool reconnecting_ = false;
    bool inTransaction_ = false;
    // Pages in the WAL after the last commit, and how many of them the last
    // checkpoint copied (deferCheckpoints).
    int walFrames_ = 0;
    int checkpointed_ = 0;
};

} // namespace quill
