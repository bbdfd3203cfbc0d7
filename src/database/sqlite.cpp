#include "database/sqlite.h"

#include <QSqlDriver>
#include <QSqlError>

#include <sqlite3.h>

#include <atomic>

namespace quill {

namespace {

// Prepared statements kept per connection; past this the cache starts over.
constexpr int MaxPrepared = 64;

std::atomic<int> connectionCounter{0};

Error notOpen() { return Error(3420, QStringLiteral("Object invalid or no longer set.")); }

} // namespace

Error NoCurrentRecord() { return Error(ErrNoCurrentRecord, QStringLiteral("No current record.")); }

namespace {

// PostgreSQL's SQLSTATE as the SQLite number of the same kind of failure, so a
// log line's number means one thing whichever engine wrote it.
int sqliteNumberOf(const QString& state)
{
    if (state == QLatin1String("55P03") || state == QLatin1String("40P01") || state == QLatin1String("40001"))
        return 5; // locked
    if (state == QLatin1String("25006"))
        return 8; // read-only
    if (state == QLatin1String("42501"))
        return 3; // no permission
    if (state.startsWith(QLatin1String("53")))
        return 13; // full
    if (state.startsWith(QLatin1String("08")) || state.startsWith(QLatin1String("57P")))
        return 14; // no connection
    if (state.startsWith(QLatin1String("XX")))
        return 11; // damaged
    return 1;
}

} // namespace

Error SqlError(const QSqlError& e)
{
    const QString code = e.nativeErrorCode();
    bool ok = false;
    int n = code.toInt(&ok);
    QString text = e.databaseText();
    if (!ok && !code.isEmpty()) {
        // PostgreSQL: "ERROR:  <message>\nLINE 1: ..." with its SQLSTATE; one line of it.
        n = sqliteNumberOf(code);
        text = text.section(QLatin1Char('\n'), 0, 0).trimmed();
        for (const char* level : {"ERROR:", "FATAL:", "PANIC:"})
            if (text.startsWith(QLatin1String(level)))
                text = text.mid(int(qstrlen(level))).trimmed();
        if (!text.isEmpty())
            text += QStringLiteral(" (") + code + QLatin1Char(')');
    }
    if (!ok && code.isEmpty())
        n = 1;
    if (n == 0)
        n = 1;
    if (text.isEmpty())
        text = e.driverText().section(QLatin1Char('\n'), 0, 0).trimmed();
    if (text.isEmpty())
        text = QStringLiteral("unknown database error");
    return Error(n, text);
}

std::optional<Error> Trap(const std::function<void()>& f)
{
    try {
        f();
        return std::nullopt;
    } catch (const Error& e) {
        return e;
    } catch (const std::exception& e) {
        return Error(1, errorText(e));
    }
}

Database::Database() = default;

Database::~Database() { close(); }

void Database::open(const QString& path) { open(DbTarget::sqliteFile(path)); }

void Database::open(const DbTarget& target)
{
    close();
    name_ = QStringLiteral("quilldb-%1").arg(++connectionCounter);
    target_ = target;
    if (target.postgres()) {
        db_ = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), name_);
        if (!db_.isValid()) {
            close();
            throw Error(3028, QStringLiteral("Qt's PostgreSQL driver (QPSQL) is not installed"));
        }
        db_.setHostName(target.host);
        if (target.port > 0)
            db_.setPort(target.port);
        db_.setDatabaseName(target.database);
        db_.setUserName(target.user);
        db_.setPassword(target.password());
        db_.setConnectOptions(target.connectOptions());
    } else {
        db_ = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name_);
        db_.setDatabaseName(target.file);
        db_.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(LockWaitMs));
    }
    if (!db_.open()) {
        Error e = SqlError(db_.lastError());
        close();
        throw e;
    }
    if (target.postgres()) {
        try {
            // A job is on disk before its client hears OK, whatever the cluster's default.
            exec(QStringLiteral("SET synchronous_commit = on"));
            exec(QStringLiteral("SET lock_timeout = %1").arg(LockWaitMs));
            // Our messages are read from the log: English, whatever the server's locale.
            exec(QStringLiteral("SET lc_messages = 'C'"));
        } catch (const Error&) {
            // lc_messages needs a superuser; the other two cannot fail on a live connection.
        }
        return;
    }
    try {
        // journal_mode reads the file header, so a file that is not a database fails here.
        run(QStringLiteral("PRAGMA journal_mode=WAL"), {}, {});
        exec(QStringLiteral("PRAGMA synchronous=FULL"));
        exec(QStringLiteral("PRAGMA foreign_keys=OFF"));
        // Freed pages are not wiped: wiping writes every page a large delete frees
        // (delete all of 80,000 jobs: about 5 MB more to sync). The start-up
        // compaction leaves no free page behind.
        exec(QStringLiteral("PRAGMA secure_delete=OFF"));
    } catch (...) {
        close();
        throw;
    }
}

void Database::close()
{
    if (name_.isEmpty())
        return;
    if (inTransaction_)
        rollback();
    prepared_.clear();
    if (db_.isOpen())
        db_.close();
    db_ = QSqlDatabase();
    QSqlDatabase::removeDatabase(name_);
    target_ = DbTarget();
    name_.clear();
    inTransaction_ = false;
}

bool Database::isOpen() const { return db_.isOpen(); }

void Database::deferCheckpoints()
{
    const QVariant h = db_.driver() ? db_.driver()->handle() : QVariant();
    auto* handle = h.isValid() && qstrcmp(h.typeName(), "sqlite3*") == 0 ? *static_cast<sqlite3* const*>(h.constData())
                                                                          : nullptr;
    if (postgres() || !handle)
        return;
    walFrames_ = checkpointed_ = 0;
    // Replaces the automatic checkpoint, which is itself a WAL hook.
    sqlite3_wal_hook(
        handle,
        [](void* self, sqlite3*, const char*, int frames) {
            static_cast<Database*>(self)->walFrames_ = frames;
            return SQLITE_OK;
        },
        this);
}

int Database::uncheckpointed() const
{
    // Fewer pages than were copied: the WAL started again from its beginning.
    return walFrames_ < checkpointed_ ? walFrames_ : walFrames_ - checkpointed_;
}

void Database::checkpoint()
{
    Trap([&] {
        run(QStringLiteral("PRAGMA wal_checkpoint(PASSIVE)"), {}, [&](QSqlQuery& q) {
            if (!q.next())
                return;
            walFrames_ = q.value(1).toInt();
            checkpointed_ = q.value(2).toInt();
        });
    });
}

int Database::exec(const QString& sql, const QVariantList& binds)
{
    int changed = 0;
    run(sql, binds, [&](QSqlQuery& q) { changed = q.numRowsAffected(); });
    return changed;
}

bool Database::connectionLost()
{
    QSqlQuery probe(db_);
    return !probe.exec(QStringLiteral("SELECT 1"));
}

void Database::run(const QString& sql, const QVariantList& binds, const std::function<void(QSqlQuery&)>& rows)
{
    try {
        runOnce(sql, binds, rows);
    } catch (const Error& failure) {
        // A connection whose reopening failed before has no driver connection left: it tries again.
        if (!target_.postgres() || inTransaction_ || reconnecting_ || (db_.isOpen() && !connectionLost()))
            throw;
        const DbTarget target = target_;
        try {
            open(target);
        } catch (const Error&) {
            // Still unreachable: the statement's own failure says what happened.
            target_ = target;
            throw;
        }
        if (reconnected_) {
            // Its own statements do not reconnect again.
            reconnecting_ = true;
            struct Done {
                bool& flag;
                ~Done() { flag = false; }
            } done{reconnecting_};
            reconnected_();
        }
        // A change may have been made before the connection went, its answer lost
        // with it: it is not made twice. Its caller hears of the failure; the
        // connection is there for the next statement.
        const bool repeatable = sql.startsWith(QLatin1String("SELECT")) || sql.startsWith(QLatin1String("BEGIN"))
            || sql.startsWith(QLatin1String("SET"));
        if (!repeatable)
            throw failure;
        runOnce(sql, binds, rows);
    }
}

void Database::runOnce(const QString& sql, const QVariantList& binds, const std::function<void(QSqlQuery&)>& rows)
{
    if (!db_.isOpen())
        throw notOpen();
    if (binds.isEmpty() && target_.postgres()) {
        // PostgreSQL prepares only queries and changes (no BEGIN, SET, SAVEPOINT); one without
        // values gains nothing from it.
        QSqlQuery q(db_);
        q.setForwardOnly(true);
        if (!q.exec(sql))
            throw SqlError(q.lastError());
        if (rows)
            rows(q);
        return;
    }
    std::shared_ptr<Prepared> p = prepared_.value(sql);
    if (!p || p->busy) {
        // A text already running further up the stack gets a statement of its own.
        auto fresh = std::make_shared<Prepared>();
        fresh->query = QSqlQuery(db_);
        fresh->query.setForwardOnly(true);
        if (!fresh->query.prepare(sql))
            throw SqlError(fresh->query.lastError());
        if (!p) {
            if (prepared_.size() >= MaxPrepared)
                prepared_.clear();
            prepared_.insert(sql, fresh);
        }
        p = std::move(fresh);
    }
    struct Reset {
        Prepared& p;
        ~Reset()
        {
            p.query.finish();
            p.busy = false;
        }
    } reset{*p};
    p->busy = true;
    for (int i = 0; i < binds.size(); ++i)
        p->query.bindValue(i, binds[i]);
    if (!p->query.exec())
        throw SqlError(p->query.lastError());
    if (rows)
        rows(p->query);
}

void Database::begin()
{
    if (inTransaction_)
        throw Error(3251, QStringLiteral("A transaction is already open."));
    exec(target_.postgres() ? QStringLiteral("BEGIN") : QStringLiteral("BEGIN IMMEDIATE"));
    inTransaction_ = true;
}

void Database::commit()
{
    if (!inTransaction_)
        return;
    exec(QStringLiteral("COMMIT"));
    inTransaction_ = false;
}

void Database::rollback()
{
    if (!inTransaction_)
        return;
    inTransaction_ = false;
    if (db_.isOpen()) {
        QSqlQuery q(db_);
        q.exec(QStringLiteral("ROLLBACK"));
    }
}

} // namespace quill
