#include "support/dbfixture.h"
#include "database/engine.h"
#include "database/schema.h"
#include "database/sqlite.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>

namespace quill::dbtest {

bool OnPostgres() { return qgetenv("QUILL_TEST_ENGINE") == "postgresql"; }

QString EngineMissing()
{
    if (!OnPostgres())
        return {};
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QPSQL")))
        return QStringLiteral("PostgreSQL tests skipped: Qt's PostgreSQL driver is not installed (libqt6sql6-psql)");
    if (qEnvironmentVariableIsEmpty("PGPORT"))
        return QStringLiteral("PostgreSQL tests skipped: no test cluster (PostgreSQL is not installed; make test "
                              "installs it and runs them under pg_virtualenv)");
    return {};
}

namespace {

// The test cluster as pg_virtualenv describes it in the environment.
QSqlDatabase clusterConnection(const QString& name, const QString& database)
{
    // libpq reads host, port, user and password from the PG* variables
    // pg_virtualenv sets.
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), name);
    db.setDatabaseName(database);
    return db;
}

} // namespace

bool PrepareEngine(const QString& dir)
{
    if (!OnPostgres())
        return true;
    static int counter = 0;
    const QString database = QStringLiteral("quill_%1_%2").arg(QCoreApplication::applicationPid()).arg(++counter);
    const QString name = QStringLiteral("dbtest-admin-%1").arg(counter);
    bool made = false;
    {
        QSqlDatabase admin = clusterConnection(name, QStringLiteral("postgres"));
        QSqlQuery q(admin);
        made = admin.open() && q.exec(QStringLiteral("CREATE DATABASE ") + database);
        if (!made)
            qWarning("CREATE DATABASE on the test cluster: %s%s", qPrintable(admin.lastError().text()),
                     qPrintable(q.lastError().text()));
    }
    QSqlDatabase::removeDatabase(name);
    if (!made)
        return false;
    const QDir d(dir);
    QFile pass(d.filePath(QStringLiteral("pgpass")));
    if (!pass.open(QIODevice::WriteOnly) || !pass.setPermissions(QFile::ReadOwner | QFile::WriteOwner)
        || pass.write(qgetenv("PGPASSWORD") + '\n') < 0)
        return false;
    pass.close();
    QFile mda(d.filePath(QStringLiteral("brixa.mda")));
    const QString text = QStringLiteral("engine=postgresql\nhost=%1\nport=%2\ndatabase=%3\nuser=%4\npassfile=%5\n")
                             .arg(qEnvironmentVariable("PGHOST", QStringLiteral("localhost")))
                             .arg(qEnvironmentVariableIntValue("PGPORT"))
                             .arg(database, qEnvironmentVariable("PGUSER", QStringLiteral("postgres")), pass.fileName());
    return mda.open(QIODevice::WriteOnly) && mda.write(text.toUtf8()) > 0;
}

QSqlDatabase AddConnection(const QString& mdbPath, const QString& name)
{
    if (OnPostgres()) {
        try {
            const DbTarget t = InstallationTarget(QFileInfo(mdbPath).path());
            if (t.postgres())
                return clusterConnection(name, t.database);
        } catch (const Error&) {
        }
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
    db.setDatabaseName(mdbPath);
    return db;
}

void HoldWriteLock(Database& other, const QString& mdbPath)
{
    const DbTarget t = InstallationTarget(QFileInfo(mdbPath).path());
    other.open(t);
    other.begin();
    // PostgreSQL's BEGIN takes no lock; SQLite's BEGIN IMMEDIATE takes the database's.
    if (t.postgres())
        other.exec(QStringLiteral("LOCK TABLE tbJob IN EXCLUSIVE MODE"));
}

BoxAnswer RecordingSink::show(const Box& box)
{
    boxes.append({box.text, box.icon, box.defaultAnswer});
    if (whileShown)
        whileShown(box);
    const bool yes = answer == BoxAnswer::Yes || answer == BoxAnswer::Ok;
    if (box.buttons == BoxButtons::YesNo)
        return yes ? BoxAnswer::Yes : BoxAnswer::No;
    return yes || box.buttons == BoxButtons::Ok ? BoxAnswer::Ok : BoxAnswer::Cancel;
}

SlotEvents::SlotEvents(PrinterSlots& t)
{
    auto note = [this](const char* what) {
        return [this, what](qint32 n) { events << QStringLiteral("%1 %2").arg(QLatin1String(what)).arg(n); };
    };
    QObject::connect(&t, &PrinterSlots::printerAdded, &context_, note("add"));
    QObject::connect(&t, &PrinterSlots::printerChanged, &context_, note("change"));
    QObject::connect(&t, &PrinterSlots::printerRemoved, &context_, note("remove"));
    QObject::connect(&t, &PrinterSlots::statusChanged, &context_, [this, &t](qint32 n) {
        events << QStringLiteral("status %1 %2").arg(n).arg(t.at(n).statusText.trimmed());
    });
}

QStringList RecordingSink::texts() const
{
    QStringList out;
    for (const ShownBox& b : boxes)
        out << b.text;
    return out;
}

DbHome::DbHome()
{
    if (!dir_.isValid())
        return;
    SetHomeDir(dir_.path());
    if (!QDir::setCurrent(dir_.path()))
        return;
    SetUseLog(true);
    LogInit(QStringLiteral("Quillbase"));
    QString error;
    ok_ = PrepareEngine(dir_.path()) && CreateInstallation(dir_.path(), &error);
    if (!ok_)
        qWarning("CreateInstallation: %s", qPrintable(error));
}

DbHome::~DbHome() { QDir::setCurrent(QDir::tempPath()); }

QByteArray ReadFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

QString CurrentLogText() { return QString::fromUtf8(ReadFile(LogFilePath())); }

QStringList DbHome::logMessages() const
{
    // "[yyyy-MM-dd HH:mm:ss.zzz] <pid> <message>"
    static const QRegularExpression header(QStringLiteral("^\\[[^\\]]*\\] \\d+ "));
    // What a start on PostgreSQL always notes of the maintenance it leaves to the engine.
    static const QRegularExpression engineNote(QStringLiteral("^SrvOpenDatabases (Backup|Repair|Compact) database: "));
    QStringList out;
    for (QString line : CurrentLogText().split(QStringLiteral("\r\n"), Qt::SkipEmptyParts))
        if (!line.remove(header).contains(engineNote))
            out << line;
    return out;
}

QString JobText(int printer, int templ, const QString& copies, const QString& workstation, const QString& user,
                const QString& caption)
{
    return QStringList{QStringLiteral("BRIXA"), QStringLiteral("1.00"), QStringLiteral("P"), QString::number(printer),
                       QString::number(templ), copies, workstation, QStringLiteral("0"), QString(), QString(), user,
                       caption}
        .join(QLatin1Char('\t'));
}

QStringList QueryRows(const QString& path, const QString& query)
{
    return WithConnection(path, [&](QSqlDatabase& db) {
        QSqlQuery q(db);
        if (!q.exec(query))
            return QStringList{QStringLiteral("error: ") + q.lastError().text()};
        QStringList rows;
        while (q.next()) {
            QStringList columns;
            for (int c = 0; c < q.record().count(); ++c)
                columns << q.value(c).toString();
            rows << columns.join(QLatin1Char('|'));
        }
        return rows;
    });
}

QStringList JobRows(const QString& path)
{
    return QueryRows(path, QStringLiteral("SELECT Id, PrinterId, Job FROM tbJob ORDER BY Id"));
}

bool ExecSql(const QString& path, const QStringList& statements)
{
    return WithConnection(path, [&](QSqlDatabase& db) {
        QSqlQuery q(db);
        for (const QString& s : statements)
            if (!q.exec(s)) {
                qWarning("%s: %s", qPrintable(s), qPrintable(q.lastError().text()));
                return false;
            }
        return true;
    });
}

} // namespace quill::dbtest
