#include "support/installation.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/settings.h"
#include "shell/installation.h"

#include <QFile>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTcpServer>
#include <QUuid>

namespace quill::test {

TestInstallation::TestInstallation()
{
    if (!dir_.isValid())
        return;
    qputenv("XDG_CONFIG_DIRS", dir_.filePath(QStringLiteral("machine")).toUtf8());
    qputenv("XDG_CONFIG_HOME", dir_.filePath(QStringLiteral("user")).toUtf8());
    SetHomeDir(dir_.path());
    QString message;
    ok_ = ProvisionInstallation(dir_.path(), &message);
    if (!ok_)
        qWarning("provisioning failed: %s", qPrintable(message));
}

TestInstallation::~TestInstallation() = default;

bool TestInstallation::sql(const QString& statement, const QVariantList& binds)
{
    const QString name = QUuid::createUuid().toString();
    bool done = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(file(QStringLiteral("brixa.mdb")));
        if (db.open()) {
            QSqlQuery q(db);
            q.prepare(statement);
            for (const QVariant& b : binds)
                q.addBindValue(b);
            done = q.exec();
            if (!done)
                qWarning("sql failed: %s: %s", qPrintable(statement), qPrintable(q.lastError().text()));
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(name);
    return done;
}

QVariant TestInstallation::scalar(const QString& query)
{
    const QString name = QUuid::createUuid().toString();
    QVariant v;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(file(QStringLiteral("brixa.mdb")));
        if (db.open()) {
            QSqlQuery q(db);
            if (q.exec(query) && q.next())
                v = q.value(0);
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(name);
    return v;
}

bool TestInstallation::addNetworkPrinter(int id, const QString& name, quint16 port, bool passive)
{
    return sql(QStringLiteral("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection2, "
                              "NetConnectOnly, Strobe, Speed, Passive, CutterInstalled, DispensingFeed, ReverseFeed, "
                              "CurrentTemplateId) VALUES (?, ?, 1, 2, ?, 0, 4, 2, ?, 0, 0, 0, 0)"),
               {id, name, QStringLiteral("127.0.0.1#%1").arg(port), passive ? 1 : 0});
}

bool TestInstallation::addSerialPrinter(int id, const QString& name, int com, int rate, bool passive)
{
    return sql(QStringLiteral("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection1, "
                              "NetConnectOnly, Strobe, Speed, Passive, CutterInstalled, DispensingFeed, ReverseFeed, "
                              "CurrentTemplateId) VALUES (?, ?, 1, 1, ?, 0, 4, 2, ?, 0, 0, 0, 0)"),
               {id, name, QStringLiteral("COM%1:#%2").arg(com).arg(rate), passive ? 1 : 0});
}

bool TestInstallation::setServer(quint16 port, bool autoStartService)
{
    return sql(QStringLiteral("UPDATE tbServer SET port = ?, AutoStartService = ?"), {port, autoStartService ? 1 : 0});
}

void TestInstallation::setUserSwitch(const QString& name, int value)
{
    RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, name, REG_DWORD, value);
}

void TestInstallation::setMachineValue(const QString& group, const QString& name, const QVariant& value, bool number)
{
    const QString key = group.isEmpty() ? KeyBrixa : KeyBrixa + QLatin1Char('\\') + group;
    RegSetValue(HKEY_LOCAL_MACHINE, key, name, number ? REG_DWORD : REG_SZ, value);
}

QString TestInstallation::log(const QString& program) const
{
    QFile f(file(WeeklyLogName(program, QDate::currentDate())));
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

quint16 TestInstallation::freePort()
{
    QTcpServer s;
    s.listen(QHostAddress::LocalHost, 0);
    return s.serverPort();
}

} // namespace quill::test
