#include "database/jobdatabase.h"
#include "database/jobrepository.h"
#include "database/slots.h"
#include "foundation/eventlog.h"
#include "foundation/strutil.h"

#include <QSysInfo>

namespace quill {

namespace {

// The open operations' failure: one log line, and the value for the caller.
DatabaseFailure unreadable(const QString& operation, const Error& e)
{
    const DatabaseFailure failed{DatabaseFailure::Kind::Unreadable, Failure{operation, e}};
    LogWrite(failed.failure.line());
    return failed;
}

// The settings operations' failure: one log line.
void logFailure(const char* operation, const Error& e)
{
    LogWrite(QString::fromLatin1(operation) + QStringLiteral(" failed. Error: ") + e.text());
}

} // namespace

QString ComputerName()
{
    QString name = QSysInfo::machineHostName();
    const int nul = int(name.indexOf(QChar(0)));
    return nul >= 0 ? name.left(nul) : name;
}

JobDatabase::JobDatabase() = default;

JobDatabase::~JobDatabase() { SrvCloseDatabases(); }

void JobDatabase::SrvCloseDatabases()
{
    templates_.reset();
    jobsOpen_ = false;
    db_.setReconnected({});
    db_.close();
}

OpenResult JobDatabase::SrvPrinterOpenDB()
{
    if (auto failed = printers_.check())
        return unreadable(QStringLiteral("SrvPrinterOpenDB"), *failed);
    return {};
}

OpenResult JobDatabase::SrvJobOpenDB()
{
    jobsOpen_ = false;
    if (auto failed = JobRepository(db_).check())
        return unreadable(QStringLiteral("SrvJobOpenDB"), *failed);
    jobsOpen_ = true;
    // Without the history the queue still works: finished jobs are then only deleted.
    historyOpen_ = false;
    if (auto failed = HistoryRepository(db_).ensure())
        logFailure("SrvJobHistoryOpenDB", *failed);
    else
        historyOpen_ = true;
    return {};
}

OpenResult JobDatabase::readTemplates(const QString& caller)
{
    templates_.reset();
    DbResult<QSet<qint32>> ids = TemplateRepository(db_).ids();
    if (ids.error)
        return unreadable(caller, *ids.error);
    templates_ = std::move(ids.value);
    return {};
}

OpenResult JobDatabase::SrvTemplateTypeOpenDB()
{
    return readTemplates(QStringLiteral("SrvTemplateTypeOpenDB"));
}

bool JobDatabase::SrvTemplateTypeReOpenDB()
{
    return bool(readTemplates(QStringLiteral("SrvTemplateTypeReOpenDB")));
}

bool JobDatabase::SrvTemplateInDB(qint32 templateId)
{
    // Templates stored after the ids were read are not among them: a miss reads them once more.
    if (templates_ && templates_->contains(templateId))
        return true;
    return SrvTemplateTypeReOpenDB() && templates_->contains(templateId);
}

// ---------------------------------------------------------------- tbServer

qint32 JobDatabase::SrvGetServerPort()
{
    const DbResult<qint32> port = settings_.port();
    if (port.error) {
        logFailure("SrvGetServerPort", *port.error);
        return 0;
    }
    return port.value;
}

void JobDatabase::SrvInitServerSettings()
{
    const DbResult<ServerSwitches> s = settings_.switches();
    if (s.error) {
        logFailure("SrvInitServerSettings", *s.error);
        return;
    }
    autoStartService_ = s.value.autoStartService > 0 ? 1 : 0;
    startMinimized_ = s.value.startMinimized >= 1 ? 1 : 0;
}

void JobDatabase::SrvMainSaveSettings(int autoStartService, int startMinimized)
{
    const std::optional<Error> failed = settings_.saveSwitches(autoStartService, startMinimized);
    // The switches follow the dialog at once, unless there is no row to write them to.
    if (!failed || failed->number != ErrNoCurrentRecord) {
        autoStartService_ = autoStartService;
        startMinimized_ = startMinimized;
    }
    if (failed)
        logFailure("SrvMainSaveSettings", *failed);
}

void JobDatabase::SrvMainSaveTCPSettings(const QString& ip, qint32 port, const QString& hostName)
{
    if (auto failed = settings_.saveAddress(ip, port, hostName))
        logFailure("SrvMainSaveTCPSettings", *failed);
}

} // namespace quill
