#include "database/schema.h"
#include "database/jobdatabase.h"
#include "database/sqlite.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlQuery>

namespace quill {

namespace {

const char* const Statements[] = {
    "CREATE TABLE tbPrinter (Id INTEGER PRIMARY KEY, Name TEXT, PrinterTypeId INTEGER, ConnectionUsed INTEGER, "
    "Connection1 TEXT, Connection2 TEXT, Connection3 TEXT, Connection4 TEXT, NetConnectOnly INTEGER DEFAULT 0, "
    "Strobe INTEGER DEFAULT 4, Speed INTEGER DEFAULT 2, Passive INTEGER DEFAULT 0, CutterInstalled INTEGER DEFAULT 0, "
    "DispensingFeed INTEGER DEFAULT 60, ReverseFeed INTEGER DEFAULT 0, CurrentTemplateId INTEGER DEFAULT 0)",
    "CREATE TABLE tbJob (Id INTEGER PRIMARY KEY, PrinterId INTEGER, Job TEXT)",
    // Made at start-up too, for installations older than it (HistoryRepository::ensure).
    "CREATE TABLE tbJobHistory (Id INTEGER PRIMARY KEY, JobId INTEGER, PrinterId INTEGER, Finished TEXT, "
    "Outcome TEXT, Job TEXT)",
    "CREATE INDEX ixJobHistoryFinished ON tbJobHistory (Finished)",
    "CREATE TABLE tbPrinterType (Id INTEGER PRIMARY KEY, Name TEXT)",
    "CREATE TABLE tbTemplateType (Id INTEGER PRIMARY KEY)",
    "CREATE TABLE tbTemplate (Id INTEGER PRIMARY KEY, TemplateTypeId INTEGER)",
    "CREATE TABLE tbServer (Id INTEGER PRIMARY KEY, IP TEXT, port INTEGER, HostName TEXT, "
    "AutoStartService INTEGER DEFAULT 0, StartMinimized INTEGER DEFAULT 0)",
    nullptr,
};

// Every table with its first rows, in one transaction.
void fill(Database& db)
{
    db.begin();
    for (const char* const* s = Statements; *s; ++s)
        db.exec(QString::fromLatin1(*s));
    db.exec(QStringLiteral("INSERT INTO tbServer (Id, IP, port, HostName, AutoStartService, StartMinimized) "
                           "VALUES (1, NULL, 20001, NULL, 0, 0)"));
    for (int type = 1; type <= 9; ++type)
        db.exec(QStringLiteral("INSERT INTO tbPrinterType (Id, Name) VALUES (?, ?)"),
                {type, QStringLiteral("MP104C type %1").arg(type)});
    db.exec(QStringLiteral("INSERT INTO tbTemplateType (Id) VALUES (1)"));
    db.exec(QStringLiteral("INSERT INTO tbTemplate (Id, TemplateTypeId) VALUES (1, 1), (2, 1)"));
    db.commit();
}

// A PostgreSQL database made by its administrator: the tables go into it unless
// it has any of them already.
bool createTables(const DbTarget& target, QString* error)
{
    try {
        Database db;
        db.open(target);
        int found = 0;
        db.run(QStringLiteral("SELECT count(*) FROM information_schema.tables WHERE table_schema = current_schema() "
                              "AND lower(table_name) IN ('tbprinter', 'tbjob', 'tbprintertype', 'tbtemplatetype', "
                              "'tbtemplate', 'tbserver', 'tbjobhistory')"),
               {}, [&](QSqlQuery& q) { found = q.next() ? q.value(0).toInt() : 0; });
        if (found > 0) {
            if (error)
                *error = target.describe() + QStringLiteral(" already has the server's tables; it is left as it is.");
            return false;
        }
        fill(db);
        db.close();
        return true;
    } catch (const Error& e) {
        if (error)
            *error = QStringLiteral("Cannot create the tables in ") + target.describe() + QStringLiteral(": ") + e.text();
        return false;
    }
}

} // namespace

const char* const* SchemaStatements() { return Statements; }

bool CreateInstallation(const QString& dir, QString* error)
{
    auto fail = [&](const QString& text) {
        if (error)
            *error = text;
        return false;
    };
    const QDir d(dir);
    if (!d.exists() && !QDir().mkpath(dir))
        return fail(QStringLiteral("Cannot create the folder ") + dir);
    const QString mdb = d.filePath(QString::fromLatin1(DatabaseFileName));
    const QString mda = d.filePath(QString::fromLatin1(AccountFileName));
    if (QFileInfo::exists(mda)) {
        DbTarget target;
        try {
            target = ReadAccountFile(mda, mdb);
        } catch (const Error& e) {
            return fail(mda + QStringLiteral(": ") + e.text());
        }
        if (target.postgres())
            return createTables(target, error);
    }
    if (QFileInfo::exists(mdb))
        return fail(mdb + QStringLiteral(" already exists; it is left as it is."));

    if (!QFileInfo::exists(mda)) {
        QFile f(mda);
        if (!f.open(QIODevice::WriteOnly) || f.write("engine=sqlite\n") < 0)
            return fail(QStringLiteral("Cannot write ") + mda + QStringLiteral(": ") + f.errorString());
    }

    // Built under a temporary name so a failure leaves no half-made database behind.
    const QString building = d.filePath(QStringLiteral("brixa_new.tmp"));
    QFile::remove(building);
    try {
        Database db;
        db.open(building);
        fill(db);
        db.exec(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
        db.close();
    } catch (const Error& e) {
        QFile::remove(building);
        QFile::remove(building + QStringLiteral("-wal"));
        QFile::remove(building + QStringLiteral("-shm"));
        return fail(QStringLiteral("Cannot create ") + mdb + QStringLiteral(": ") + e.text());
    }
    QFile::remove(building + QStringLiteral("-wal"));
    QFile::remove(building + QStringLiteral("-shm"));
    if (QFileInfo::exists(mdb) || !QFile::rename(building, mdb)) {
        QFile::remove(building);
        return fail(QStringLiteral("Cannot create ") + mdb);
    }
    return true;
}

} // namespace quill
