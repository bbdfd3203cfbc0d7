#include "database/jobdatabase.h"
#include "database/jobrepository.h"
#include "database/slots.h"
#include "foundation/eventlog.h"
#include "foundation/messages.h"
#include "foundation/strutil.h"
#include "foundation/texts.h"

#include <QSysInfo>

namespace quill {

namespace {

// The open operations' failure: one log line and, for the ones start-up depends on, a box.
void reportOpenFailure(const QString& operation, const Error& e, bool box)
{
    const QString text = operation + QStringLiteral(" failed. Error: ") + e.text();
    LogWrite(text);
    if (box)
        MsgBoxUnlessSilent(text + QLatin1Char('\n') + GetString(12029, GetString(9003)), BoxIcon::None);
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

bool JobDatabase::SrvPrinterOpenDB()
{
    if (auto failed = printers_.check()) {
        reportOpenFailure(QStringLiteral("SrvPrinterOpenDB"), *failed, true);
        return false;
    }
    return true;
}

bool JobDatabase::SrvJobOpenDB()
{
    jobsOpen_ = false;
    if (auto failed = JobRepository(db_).check()) {
        reportOpenFailure(QStringLiteral("SrvJobOpenDB"), *failed, true);
        return false;
    }
    jobsOpen_ = true;
    return true;
}

bool JobDatabase::readTemplates(const QString& caller, bool withBox)
{
    templates_.reset();
    DbResult<QSet<qint32>> ids = TemplateRepository(db_).ids();
    if (ids.error) {
        reportOpenFailure(caller, *ids.error, withBox);
        return false;
    }
    templates_ = std::move(ids.value);
    return true;
}

bool JobDatabase::SrvTemplateTypeOpenDB()
{
    return readTemplates(QStringLiteral("SrvTemplateTypeOpenDB"), true);
}

bool JobDatabase::SrvTemplateTypeReOpenDB()
{
    return readTemplates(QStringLiteral("SrvTemplateTypeReOpenDB"), false);
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
