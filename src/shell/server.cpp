#include "shell/server.h"
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "service/printerload.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "shell/messages.h" // the silent-mode switch
#include "foundation/settings.h"
#include "foundation/strutil.h"
#include "protocol/listener.h"
#include "protocol/requesthandler.h"
#include "protocol/traffic.h"
#include "service/printservice.h"
#include "foundation/texts.h"
#include "shell/control.h"
#include "shell/operator.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace quill {

namespace {
bool switchOn(Hive hive, const QString& key, const QString& name)
{
    return NullToLong(RegGetValue(hive, key, name), 0) > 0;
}
// Why nothing can be written in the folder, or empty when it can: a file is
// made and a few bytes go into it, as the lock file needs (a full disk still
// lets an empty file be made).
QString whyNotWritable(const QString& folder)
{
    const QByteArray probe = QFile::encodeName(folder + QStringLiteral("/.quillbase-write-%1").arg(::getpid()));
    const int fd = ::open(probe.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    const QByteArray bytes = QByteArray::number(::getpid()) + '\n';
    int err = 0;
    if (::write(fd, bytes.constData(), size_t(bytes.size())) != bytes.size())
        err = errno ? errno : ENOSPC;
    else if (::fsync(fd) != 0)
        err = errno;
    ::close(fd);
    ::unlink(probe.constData());
    return err ? QString::fromLocal8Bit(std::strerror(err)) : QString();
}
QString activated(bool on)
{
    return on ? QStringLiteral(" activated") : QStringLiteral(" NOT activated");
}
} // namespace

// Every part exists from construction to destruction, so a window can bind to
// the models before start-up runs and never holds a dangling reference; start-up
// opens them and shutdown closes them.
Server::Server(Options options, QObject* parent)
    : QObject(parent),
      options_(options),
      db_(std::make_unique<JobDatabase>()),
      jobs_(std::make_unique<JobStore>(*db_, printers_)),
      service_(std::make_unique<PrintService>(printers_, *db_, *jobs_)),
      traffic_(std::make_unique<TrafficIndicator>()),
      listener_(std::make_unique<Listener>())
{
    service_->setStatusInterval(options_.statusIntervalMs);
    RequestServices services;
    services.serviceRunning = [this] { return serviceRunning(); };
    services.printers = &printers_;
    services.templateInDB = [this](qint32 id) { return db_->SrvTemplateInDB(id); };
    services.submitJob = [this](const PrintJob& job) { return jobs_->submitJob(job); };
    services.clearCurrentTemplate = [this](qint32 id) { clearCurrentTemplate(id); };
    services.deleteJobsWhere = [this](const JobMatch& match) { return jobs_->deleteJobsWhere(match); };
    handler_ = std::make_unique<RequestHandler>(*listener_, *traffic_, std::move(services));
    jobs_->onCommitted = [this](quint64 through, const std::vector<quint64>& failed) {
        handler_->committed(through, failed);
    };
    listener_->onData = [this](const QString& text, int i) { handler_->SrvHandleRequest(text, i); };
    connect(service_.get(), &PrintService::serviceStateChanged, this, &Server::serviceStateChanged);
    commands_ = std::make_unique<Operator>(*this);
    control_ = std::make_unique<ControlServer>(*this, *commands_);
}

Server::~Server()
{
    shutdown();
}

bool Server::silentMode() const { return SilentMode(); }

void Server::readRegistrySettings()
{
    SetLanguageSettings(NullToStr(RegGetValue(HKEY_LOCAL_MACHINE, KeyBrixa, QStringLiteral("tLanguage")),
                                  QStringLiteral("SE")).toUpper(),
                        NullToLong(RegGetValue(HKEY_LOCAL_MACHINE, KeyBrixa, QStringLiteral("dwCountryNo")), 46));
    for (int id = 9001; id <= 9004; ++id)
        GetString(id);
    LogInit(QStringLiteral("Quillbase"));
    const QString exe = QCoreApplication::applicationFilePath();
    autostartAtLogon_ = RegGetValue(HKEY_LOCAL_MACHINE, KeyRun, QStringLiteral("Quillbase")).toUpper() == exe.toUpper();
    SetSilentMode(switchOn(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwSilentMode")));
    SetUseLog(switchOn(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwUseLog")));
    SetUseTrafficLog(switchOn(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwUseTrafficLog")));
    quitQuestion_ = switchOn(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwQuitQuestion"));
}

void Server::logSettings()
{
    LogWrite(QStringLiteral("Automatic start of server upon log in") + activated(autostartAtLogon_));
    LogWrite(QStringLiteral("Automatic start of print service") + activated(db_->autoStartService()));
    LogWrite(QStringLiteral("Start server in minimized mode") + activated(db_->startMinimized()));
    LogWrite(QStringLiteral("Run server in silent mode") + activated(SilentMode()));
    LogWrite(QStringLiteral("Logging") + activated(UseLog()));
    LogWrite(QStringLiteral("Network traffic logging") + activated(UseTrafficLog()));
}

void Server::report(const StartupFailure& failure)
{
    commands_->startupFailed(failure);
}

Server::StartResult Server::fail(StartResult r)
{
    starting_ = false;
    quitQuestion_ = false;
    shutdown();
    return r;
}

Server::StartResult Server::startup()
{
    starting_ = true;
    // Log cleanup acts in the current folder.
    QDir::setCurrent(HomeDir());
    try {
        readRegistrySettings();

        // Without a writable folder the lock file cannot be made either, which
        // must not read as another copy running.
        auto notWritable = [this](const QString& why) {
            const QString folder = QDir::toNativeSeparators(HomeDir());
            LogWrite(QStringLiteral("Startup failed. ") + GetString(12144, folder + QLatin1Char('|') + why));
            StartupFailure failure{StartupFailure::Step::HomeNotWritable};
            failure.folder = folder;
            failure.why = why;
            report(failure);
            instanceLock_.reset();
            starting_ = false;
            shutDown_ = true;
            return HomeNotWritable;
        };
        if (const QString why = whyNotWritable(HomeDir()); !why.isEmpty())
            return notWritable(why);
        instanceLock_ = std::make_unique<QLockFile>(HomePath(QStringLiteral("quillbase.lock")));
        instanceLock_->setStaleLockTime(0);
        if (!instanceLock_->tryLock(0)) {
            // Only a lock that another process holds means another copy; a lock
            // file that could not be written (the disk filled up since the probe)
            // is the folder's fault.
            if (instanceLock_->error() != QLockFile::LockFailedError) {
                QString why = whyNotWritable(HomeDir());
                if (why.isEmpty())
                    why = QStringLiteral("quillbase.lock cannot be created");
                return notWritable(why);
            }
            instanceLock_.reset();
            // The running copy owns the log: this one ends without a line there.
            SetUseLog(false);
            report(StartupFailure{StartupFailure::Step::OtherInstance});
            starting_ = false;
            shutDown_ = true; // nothing was started
            return OtherInstance;
        }
        LogCleanup(QStringLiteral("Quillbase"));
        LogCleanup(QStringLiteral("Quillmotor"));
        addinScala_ = switchOn(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwAddinScala"));
        // The history of finished jobs: the last dwHistoryJobs of at most dwHistoryDays days.
        jobs_->setHistoryLimits(
            NullToLong(RegGetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwHistoryJobs")), 10000),
            NullToLong(RegGetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwHistoryDays")), 30));
        LogWrite(QStringLiteral("Quillbase version %1.%2.%3 Kedra version %4")
                     .arg(QUILL_VERSION_MAJOR)
                     .arg(QUILL_VERSION_MINOR)
                     .arg(QUILL_VERSION_PATCH)
                     .arg(RequestHandler::ProtocolVersion));

        auto databaseFailed = [this](const OpenResult& opened) {
            StartupFailure failure{StartupFailure::Step::Database};
            failure.database = *opened.failure;
            report(failure);
        };
        if (const OpenResult opened = db_->SrvOpenDatabases(); !opened) {
            databaseFailed(opened);
            starting_ = false;
            shutDown_ = true;
            return NoDatabase;
        }
        db_->SrvInitServerSettings();
        logSettings();
        if (const OpenResult opened = db_->SrvPrinterOpenDB(); !opened) {
            databaseFailed(opened);
            db_->SrvCloseDatabases();
            starting_ = false;
            shutDown_ = true;
            return NoDatabase;
        }
        printers_.reset();
        if (const Checked<Failure> created = service_->MainCreateQuillmotors(); !created) {
            StartupFailure failure{StartupFailure::Step::Drivers};
            failure.failure = *created.failure;
            report(failure);
            return fail(StartupFailed);
        }
        service_->MainAddAndInitAllPrinters();
        OpenResult opened = db_->SrvTemplateTypeOpenDB();
        if (opened)
            opened = db_->SrvJobOpenDB();
        if (!opened) {
            databaseFailed(opened);
            return fail(StartupFailed);
        }
        jobs_->SrvInitAllJobs();

        listener_->resetConnections();
        handler_->setAddinScala(addinScala_);

        configureListener();
        const bool listening = listener_->MainInitTCP(db_->SrvGetServerPort());
        emit listenerChanged(listening);
        if (listening) {
            db_->SrvMainSaveTCPSettings(listener_->reachableAddress().toString(), listener_->localPort());
        } else {
            // Headless, nobody sees a box or a log that is switched off; the
            // server runs on without a listener, so say so where it shows.
            WriteStderrLine(QStringLiteral("Quillbase is not listening: ") + listener_->errorText());
            LogWrite(QStringLiteral("Could not initialize TCP-port."));
            report(StartupFailure{StartupFailure::Step::Listener});
        }
        // The operator's commands from a shell, with or without a window.
        control_->open();

        // Timers and listener come last: nothing fires before the slots exist.
        service_->enableStatusTimer();
        // Serial printers get their line speed again off this thread; their
        // first checks wait for it.
        commands_->fullRefresh();
        if (listening && db_->autoStartService())
            commands_->startService();
        LogWrite(QStringLiteral("Quillbase succesfully started") +
                 (SilentMode() ? QStringLiteral(" in silent mode") : QString()));
        starting_ = false;
        emit startupFinished();
        return Started;
    } catch (const std::exception& e) {
        StartupFailure failure{StartupFailure::Step::Unexpected};
        failure.failure = Failure{QStringLiteral("Startup"), asError(e)};
        LogWrite(failure.failure.line());
        report(failure);
        return fail(StartupFailed);
    }
}

void Server::configureListener()
{
    const QString bind = RegGetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("tBindAddress"));
    if (!listener_->setBindAddress(bind))
        LogWrite(QStringLiteral("tBindAddress is not an address: ") + bind);
    const QString allowed = RegGetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("tAllowedClients"));
    for (const QString& entry : listener_->setAllowedClients(allowed))
        LogWrite(QStringLiteral("tAllowedClients: ignored \"%1\", not an address or network").arg(entry));
    if (listener_->clientsRestricted())
        LogWrite(QStringLiteral("Clients allowed: ") + allowed.trimmed());
    else
        LogWrite(QStringLiteral("Warning: tAllowedClients is not set, so any address that reaches the listener "
                                "may connect."));
}

bool Server::serviceRunning() const
{
    return service_->serviceRunning();
}

bool Server::startService()
{
    return service_->startService();
}

void Server::stopService()
{
    service_->stopService();
}

void Server::clearCurrentTemplate(qint32 templateId)
{
    if (auto failed = db_->printers().clearCurrentTemplate(templateId))
        LogWrite(QStringLiteral("SrvHandleRequest failed. Error: ") + failed->text());
}

void Server::shutdown()
{
    if (shutDown_)
        return;
    shutDown_ = true;
    emit aboutToShutDown();
    try {
        // As the service button stops it: a run under way is dropped with the
        // drivers below, and its job stays queued for the next start.
        control_->close();
        stopService();
        // Jobs handed to storage are written and answered before the clients go.
        jobs_->stopWriter();
        listener_->close();
        service_->shutdown();
        db_->SrvCloseDatabases();
        LogWrite(QStringLiteral("Quillbase terminated."));
    } catch (...) {
        // The unload path always ends the process.
    }
    instanceLock_.reset();
}

} // namespace quill
