#include "support/installation.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/settings.h"
#include "shell/installation.h"
#include "support/dbfixture.h"

#include <QFile>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSqlError>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTest>

namespace quill::test {

TestInstallation::TestInstallation()
{
    if (!dir_.isValid())
        return;
    qputenv("XDG_CONFIG_DIRS", dir_.filePath(QStringLiteral("machine")).toUtf8());
    qputenv("XDG_CONFIG_HOME", dir_.filePath(QStringLiteral("user")).toUtf8());
    SetHomeDir(dir_.path());
    QString message;
    ok_ = dbtest::PrepareEngine(dir_.path()) && ProvisionInstallation(dir_.path(), &message);
    if (!ok_)
        qWarning("provisioning failed: %s", qPrintable(message));
}

bool TestInstallation::sql(const QString& statement, const QVariantList& binds)
{
    return dbtest::WithConnection(file(QStringLiteral("brixa.mdb")), [&](QSqlDatabase& db) {
        QSqlQuery q(db);
        bool done = false;
        if (binds.isEmpty()) {
            done = q.exec(statement); // PostgreSQL prepares no ALTER SYSTEM
        } else {
            q.prepare(statement);
            for (const QVariant& b : binds)
                q.addBindValue(b);
            done = q.exec();
        }
        if (!done)
            qWarning("sql failed: %s: %s", qPrintable(statement), qPrintable(q.lastError().text()));
        return done;
    });
}

QVariant TestInstallation::scalar(const QString& query)
{
    return dbtest::WithConnection(file(QStringLiteral("brixa.mdb")), [&](QSqlDatabase& db) {
        QSqlQuery q(db);
        return q.exec(query) && q.next() ? q.value(0) : QVariant();
    });
}

bool TestInstallation::addPrinter(int id, const QString& name, int connectionUsed, const QString& connection,
                                  bool passive)
{
    return sql(QStringLiteral("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection%1, "
                              "NetConnectOnly, Strobe, Speed, Passive, CutterInstalled, DispensingFeed, ReverseFeed, "
                              "CurrentTemplateId) VALUES (?, ?, 1, %1, ?, 0, 4, 2, ?, 0, 0, 0, 0)")
                   .arg(connectionUsed),
               {id, name, connection, passive ? 1 : 0});
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

QString TestInstallation::log() const
{
    QFile f(file(WeeklyLogName(QStringLiteral("Quillbase"), QDate::currentDate())));
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

bool PrinterSite::start()
{
    net.setOutDir(netOut.path());
    ser.setOutDir(serOut.path());
    if (!ok() || !net.startTcp() || !ser.startPty(9600))
        return false;
    ser.mapComPort(2);
    return addNetworkPrinter(1, QStringLiteral("Kassa"), net.port())
        && addPrinter(2, QStringLiteral("Bar"), 1, QStringLiteral("COM2:#9600"), false);
}

bool HeadlessServer::start(const QStringList& args, bool waitForLog)
{
    const auto starts = [this] { return inst_.log().count(QStringLiteral("Quillbase succesfully started")); };
    const qsizetype before = starts();
    process.start(QStringLiteral(QUILL_BIN_DIR "/quillbase"),
                  QStringList{QStringLiteral("--headless"), QStringLiteral("--home"), inst_.path()} + args);
    return process.waitForStarted(10000) && (!waitForLog || QTest::qWaitFor([&] { return starts() > before; }, 20000));
}

bool HeadlessServer::stop()
{
    if (process.state() == QProcess::NotRunning)
        return true;
    process.terminate();
    const bool ended = process.waitForFinished(10000);
    if (!ended) {
        process.kill();
        process.waitForFinished(5000);
    }
    return ended && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

ProgramRun RunProgram(const QString& program, const QStringList& args, const QProcessEnvironment& env, int ms)
{
    QProcess p;
    p.setProcessEnvironment(env);
    p.start(program, args);
    ProgramRun r;
    if (!p.waitForStarted(10000) || !p.waitForFinished(ms)) {
        r.err = p.errorString();
        p.kill();
        p.waitForFinished(5000);
        return r;
    }
    r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

QJsonObject ProgramRun::json() const
{
    return QJsonDocument::fromJson(out.toUtf8()).object();
}

quint16 TestInstallation::freePort()
{
    // Below the kernel's ephemeral range (32768 and up here): a port handed out
    // by bind(0) and released can be taken by any test's outgoing connection
    // before the server under test binds it.
    for (int attempt = 0; attempt < 500; ++attempt) {
        const auto port = quint16(QRandomGenerator::global()->bounded(20000, 32000));
        QTcpServer s;
        if (s.listen(QHostAddress::Any, port))
            return port;
    }
    return 0;
}

} // namespace quill::test
