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

const QString TemplateQuery = QStringLiteral(
    "SELECT * FROM tbTemplate INNER JOIN tbTemplateType ON tbTemplate.TemplateTypeId = tbTemplateType.Id");

Error notSet() { return Error(91, QStringLiteral("Object variable or With block variable not set")); }

// The open operations' trap: one log line and, for the ones start-up depends on, a box.
void reportOpenFailure(const QString& operation, const std::exception& e, bool box)
{
    const QString text = operation + QStringLiteral(" failed. Error: ") + errorText(e);
    LogWrite(text);
    if (box)
        MsgBoxUnlessSilent(text + QLatin1Char('\n') + GetString(12029, GetString(9003)), BoxIcon::None);
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
    printers_.reset();
    db_.close();
}

bool JobDatabase::openTable(std::unique_ptr<TableRecordset>& slot, const QString& table, const QString& caller)
{
    try {
        slot.reset();
        auto rs = std::make_unique<TableRecordset>(db_, table);
        rs->setIndex(QStringLiteral("PrimaryKey"));
        SrvPopulateRecordset(*rs);
        slot = std::move(rs);
        return true;
    } catch (const std::exception& e) {
        reportOpenFailure(caller, e, true);
        return false;
    }
}

bool JobDatabase::openTemplates(const QString& caller, bool withBox)
{
    try {
        templates_.reset();
        templates_ = std::make_unique<Snapshot>(db_, TemplateQuery);
        SrvPopulateRecordset(*templates_);
        return true;
    } catch (const std::exception& e) {
        reportOpenFailure(caller, e, withBox);
        return false;
    }
}

bool JobDatabase::SrvPrinterOpenDB()
{
    return openTable(printers_, QStringLiteral("tbPrinter"), QStringLiteral("SrvPrinterOpenDB"));
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

bool JobDatabase::SrvTemplateTypeOpenDB()
{
    return openTemplates(QStringLiteral("SrvTemplateTypeOpenDB"), true);
}

bool JobDatabase::SrvTemplateTypeReOpenDB()
{
    return openTemplates(QStringLiteral("SrvTemplateTypeReOpenDB"), false);
}

bool JobDatabase::SrvSeekPrinter(qint32 id)
{
    if (!printers_)
        throw notSet();
    return printers_->seek(QStringLiteral("="), id);
}

qint32 JobDatabase::SrvDBNextId(const QString& table)
{
    Snapshot s(db_, QStringLiteral("SELECT MAX(Id) AS MaxId ") + QStringLiteral("FROM ") + table + QLatin1Char(' '));
    return NullToLong(s.field(QStringLiteral("MaxId")), 0) + 1;
}

bool JobDatabase::SrvTemplateInDB(qint32 templateId)
{
    const QString criteria = QStringLiteral("tbTemplate.Id = ") + QString::number(templateId);
    // The snapshot does not see templates stored after it was opened: a miss re-reads it once.
    if (templates_ && templates_->FindFirst(criteria))
        return true;
    if (!SrvTemplateTypeReOpenDB())
        return false;
    return templates_->FindFirst(criteria);
}

// ---------------------------------------------------------------- CurrentTemplateId

namespace {
const QString CurrentTemplateField = QStringLiteral("CurrentTemplateId");
}

qint32 JobDatabase::currentTemplate(qint32 printerId)
{
    if (!SrvSeekPrinter(printerId))
        return 0;
    SrvPopulateRecordset(*printers_);
    return NullToLong(printers_->field(CurrentTemplateField), 0);
}

void JobDatabase::setCurrentTemplate(qint32 printerId, qint32 templateId)
{
    if (!SrvSeekPrinter(printerId))
        return;
    SrvPopulateRecordset(*printers_);
    printers_->Edit();
    try {
        printers_->setField(CurrentTemplateField, templateId);
        printers_->Update();
    } catch (...) {
        printers_->CancelUpdate();
        throw;
    }
}

void JobDatabase::clearCurrentTemplate(qint32 templateId)
{
    for (qint32 id = 1; id < PrinterSlots::UpperBound; ++id)
        if (currentTemplate(id) == templateId)
            setCurrentTemplate(id, 0);
}

// ---------------------------------------------------------------- tbServer

qint32 JobDatabase::SrvGetServerPort()
{
    try {
        Snapshot s(db_, QStringLiteral("SELECT Port FROM tbServer"));
        return NullToLong(s.field(QStringLiteral("port")), 20001);
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvGetServerPort failed. Error: ") + errorText(e));
        return 0;
    }
}

void JobDatabase::SrvInitServerSettings()
{
    try {
        Snapshot s(db_, QStringLiteral("SELECT * FROM tbServer"));
        const int autoStart = NullToLong(s.field(QStringLiteral("AutoStartService")), 0) > 0 ? 1 : 0;
        const int minimized = NullToLong(s.field(QStringLiteral("StartMinimized")), 0) >= 1 ? 1 : 0;
        autoStartService_ = autoStart;
        startMinimized_ = minimized;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvInitServerSettings failed. Error: ") + errorText(e));
    }
}

void JobDatabase::SrvMainSaveSettings(int autoStartService, int startMinimized)
{
    try {
        TableRecordset rs(db_, QStringLiteral("tbServer"));
        rs.setIndex(QStringLiteral("PrimaryKey"));
        SrvPopulateRecordset(rs);
        rs.Edit();
        rs.setField(QStringLiteral("AutoStartService"), autoStartService);
        autoStartService_ = autoStartService;
        rs.setField(QStringLiteral("StartMinimized"), startMinimized);
        startMinimized_ = startMinimized;
        rs.Update();
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMainSaveSettings failed. Error: ") + errorText(e));
    }
}

void JobDatabase::SrvMainSaveTCPSettings(const QString& ip, qint32 port, const QString& hostName)
{
    try {
        TableRecordset rs(db_, QStringLiteral("tbServer"));
        rs.setIndex(QStringLiteral("PrimaryKey"));
        SrvPopulateRecordset(rs);
        rs.Edit();
        rs.setField(QStringLiteral("IP"), ip);
        rs.setField(QStringLiteral("port"), port);
        rs.setField(QStringLiteral("HostName"), hostName);
        rs.Update();
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMainSaveTCPSettings failed. Error: ") + errorText(e));
    }
}

} // namespace quill
