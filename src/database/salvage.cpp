#include "database/salvage.h"
#include "database/recordset.h"

#include <QFile>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>

#include <limits>

namespace quill {

namespace {

constexpr int ReadRows = 512;

QString quoteIdent(const QString& name)
{
    QString q = name;
    q.replace(QLatin1Char('"'), QLatin1String("\"\""));
    return QLatin1Char('"') + q + QLatin1Char('"');
}

enum class Probe { Error, End, Found };

// The first rowid at or above `from`, if the way there can be read.
Probe firstKeyFrom(QSqlDatabase& db, const QString& table, qint64 from, qint64* key)
{
    QSqlQuery q(db);
    q.setForwardOnly(true);
    if (!q.prepare(QStringLiteral("SELECT rowid FROM ") + quoteIdent(table)
                   + QStringLiteral(" WHERE rowid >= ? ORDER BY rowid LIMIT 1")))
        return Probe::Error;
    q.addBindValue(from);
    if (!q.exec())
        return Probe::Error;
    if (q.next()) {
        *key = q.value(0).toLongLong();
        return Probe::Found;
    }
    return q.lastError().isValid() ? Probe::Error : Probe::End;
}

// The lowest rowid at or above `from` whose way there reads: doubling steps
// until a probe gets through, then halving back to the edge of the unreadable
// stretch. Error: nothing beyond `from` can be reached.
Probe nextReadableKey(QSqlDatabase& db, const QString& table, qint64 from, qint64* key)
{
    constexpr qint64 Max = std::numeric_limits<qint64>::max();
    Probe p = firstKeyFrom(db, table, from, key);
    if (p != Probe::Error)
        return p;
    qint64 bad = from, good = 0, step = 1;
    for (;;) {
        if (bad > Max - step)
            return Probe::Error;
        const qint64 x = bad + step;
        p = firstKeyFrom(db, table, x, key);
        if (p == Probe::Found) {
            good = x;
            break;
        }
        if (p == Probe::End)
            return Probe::Error; // only unreadable rows, if any, lie beyond
        bad = x;
        step = step > Max / 2 ? Max : step * 2;
    }
    while (good - bad > 1) {
        const qint64 mid = bad + (good - bad) / 2;
        qint64 k = 0;
        p = firstKeyFrom(db, table, mid, &k);
        if (p == Probe::Found) {
            good = mid;
            *key = k;
        } else {
            bad = mid;
        }
    }
    return Probe::Found;
}

SalvagedTable copyTable(QSqlDatabase& from, QSqlDatabase& to, const QString& table)
{
    constexpr qint64 Max = std::numeric_limits<qint64>::max();
    SalvagedTable result{table};
    // Rows are read from the key `next` on. ">=" rather than ">" after the last
    // key read: seeking a key at the edge of a damaged page would land on it.
    qint64 next = std::numeric_limits<qint64>::min();
    bool anyRead = false;
    QString insert;
    for (;;) {
        QSqlQuery q(from);
        q.setForwardOnly(true);
        bool failed = !q.prepare(QStringLiteral("SELECT rowid, * FROM ") + quoteIdent(table)
                                 + QStringLiteral(" WHERE rowid >= ? ORDER BY rowid LIMIT ") + QString::number(ReadRows));
        int rows = 0;
        if (!failed) {
            q.addBindValue(next);
            failed = !q.exec();
        }
        while (!failed && q.next()) {
            const QSqlRecord rec = q.record();
            if (insert.isEmpty()) {
                QStringList cols{QStringLiteral("rowid")}, marks{QStringLiteral("?")};
                for (int i = 1; i < rec.count(); ++i) {
                    cols << quoteIdent(rec.fieldName(i));
                    marks << QStringLiteral("?");
                }
                insert = QStringLiteral("INSERT INTO ") + quoteIdent(table) + QStringLiteral(" (")
                    + cols.join(QLatin1Char(',')) + QStringLiteral(") VALUES (") + marks.join(QLatin1Char(','))
                    + QLatin1Char(')');
            }
            QSqlQuery ins(to);
            ins.prepare(insert);
            for (int i = 0; i < rec.count(); ++i)
                ins.addBindValue(q.value(i));
            if (!ins.exec())
                throw SqlError(ins.lastError());
            const qint64 key = q.value(0).toLongLong();
            anyRead = true;
            ++result.recovered;
            ++rows;
            if (key == Max)
                return result;
            next = key + 1;
        }
        failed = failed || q.lastError().isValid();
        if (!failed) {
            if (rows < ReadRows)
                return result;
            continue;
        }
        qint64 readable = 0;
        const Probe p = nextReadableKey(from, table, next, &readable);
        if (p == Probe::End)
            return result;
        if (p == Probe::Error) {
            result.tailUnreadable = true;
            return result;
        }
        if (readable == next) {
            // Its key reads but the row does not: that row is lost.
            ++result.lost;
            if (readable == Max)
                return result;
            next = readable + 1;
        } else {
            result.lost += std::max<qint64>(0, readable - (anyRead ? next : std::min<qint64>(1, readable)));
            next = readable;
        }
    }
}

} // namespace

FileConnection::FileConnection(const QString& path)
{
    static int counter = 0;
    name_ = QStringLiteral("quillmaint-%1").arg(++counter);
    db_ = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name_);
    db_.setDatabaseName(path);
    db_.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(LockWaitMs));
    if (!db_.open()) {
        const Error e = SqlError(db_.lastError());
        release();
        throw e;
    }
}

FileConnection::~FileConnection() { release(); }

void FileConnection::release()
{
    if (db_.isOpen())
        db_.close();
    db_ = QSqlDatabase();
    QSqlDatabase::removeDatabase(name_);
}

void FileConnection::exec(const QString& sql)
{
    QSqlQuery q(db_);
    if (!q.exec(sql))
        throw SqlError(q.lastError());
}

QStringList FileConnection::rows(const QString& sql)
{
    QSqlQuery q(db_);
    q.setForwardOnly(true);
    if (!q.exec(sql))
        throw SqlError(q.lastError());
    QStringList out;
    while (q.next()) {
        QStringList cols;
        for (int i = 0; i < q.record().count(); ++i)
            cols << q.value(i).toString();
        out << cols.join(QLatin1Char('|'));
    }
    return out;
}

QList<SalvagedTable> SalvageDatabase(const QString& damaged, const QString& target)
{
    QList<SalvagedTable> report;
    try {
        FileConnection from(damaged);
        struct Item {
            QString type, name, sql;
        };
        QList<Item> schema;
        {
            QSqlQuery q(from.db());
            if (!q.exec(QStringLiteral("SELECT type, name, sql FROM sqlite_master WHERE sql IS NOT NULL "
                                       "AND name NOT LIKE 'sqlite_%' ORDER BY rowid")))
                throw SqlError(q.lastError());
            while (q.next())
                schema.append({q.value(0).toString(), q.value(1).toString(), q.value(2).toString()});
            if (q.lastError().isValid())
                throw SqlError(q.lastError());
        }
        FileConnection to(target);
        to.exec(QStringLiteral("PRAGMA journal_mode=WAL"));
        to.exec(QStringLiteral("BEGIN"));
        for (const Item& item : std::as_const(schema))
            if (item.type == QLatin1String("table"))
                to.exec(item.sql);
        for (const Item& item : std::as_const(schema))
            if (item.type == QLatin1String("table"))
                report.append(copyTable(from.db(), to.db(), item.name));
        // Indexes, views and triggers afterwards: indexes are built from the rows kept.
        for (const Item& item : std::as_const(schema))
            if (item.type != QLatin1String("table"))
                to.exec(item.sql);
        to.exec(QStringLiteral("COMMIT"));
        // The whole database in the main file, synced.
        to.exec(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
        to.exec(QStringLiteral("PRAGMA journal_mode=DELETE"));
        to.exec(QStringLiteral("PRAGMA journal_mode=WAL"));
    } catch (...) {
        QFile::remove(target);
        QFile::remove(target + QStringLiteral("-wal"));
        QFile::remove(target + QStringLiteral("-shm"));
        throw;
    }
    return report;
}

} // namespace quill
