#include "shell/systemdnotify.h"
#include "database/jobstore.h"
#include "protocol/listener.h"
#include "service/printservice.h"
#include "shell/server.h"

#include <QCoreApplication>

#ifdef QUILL_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include <algorithm>

namespace quill {

SystemdNotifier::SystemdNotifier(Server& server, QObject* parent) : QObject(parent), server_(server)
{
    // Changes come in bursts (a print run moves a printer through three states,
    // every stored job changes the count): one line per turn of the event loop,
    // and at most four a second.
    statusDelay_.setSingleShot(true);
    connect(&statusDelay_, &QTimer::timeout, this, &SystemdNotifier::sendStatus);
    connect(&watchdog_, &QTimer::timeout, this, [this] { notify("WATCHDOG=1"); });
    connect(&server_, &Server::startupFinished, this, &SystemdNotifier::started);
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, [this] {
        watchdog_.stop();
        notify("STOPPING=1");
    });
}

bool SystemdNotifier::available()
{
#ifdef QUILL_HAVE_SYSTEMD
    return true;
#else
    return false;
#endif
}

bool SystemdNotifier::notify(const QByteArray& state) const
{
#ifdef QUILL_HAVE_SYSTEMD
    return sd_notify(0, state.constData()) > 0;
#else
    Q_UNUSED(state);
    return false;
#endif
}

QString SystemdNotifier::statusLine() const
{
    int inUse = 0, ready = 0;
    for (qint32 n = 1; n < PrinterSlots::UpperBound; ++n) {
        const PrinterSlot& s = server_.printers().at(n);
        inUse += s.inUse;
        ready += s.inUse && s.status == StatusReady;
    }
    const int queued = server_.jobs().jobList().count();
    QString line = server_.serviceRunning() ? QStringLiteral("Print service running") : QStringLiteral("Print service stopped");
    line += QStringLiteral("; %1 of %2 printers ready; %3 %4 queued")
                .arg(ready)
                .arg(inUse)
                .arg(queued)
                .arg(queued == 1 ? QStringLiteral("job") : QStringLiteral("jobs"));
    const Listener& l = server_.listener();
    if (!l.isListening())
        line = QStringLiteral("NOT LISTENING (%1); ").arg(l.errorText()) + line;
    return line;
}

void SystemdNotifier::started()
{
    ready_ = true;
    lastStatus_ = statusLine();
    notify("READY=1\nSTATUS=" + lastStatus_.toUtf8());

    PrintService& svc = server_.printService();
    connect(&svc, &PrintService::serviceStateChanged, this, &SystemdNotifier::scheduleStatus);
    connect(&svc, &PrintService::printerStatusChanged, this, &SystemdNotifier::scheduleStatus);
    const JobListModel& jobs = server_.jobs().jobList();
    connect(&jobs, &QAbstractItemModel::rowsInserted, this, &SystemdNotifier::scheduleStatus);
    connect(&jobs, &QAbstractItemModel::rowsRemoved, this, &SystemdNotifier::scheduleStatus);
    connect(&jobs, &QAbstractItemModel::modelReset, this, &SystemdNotifier::scheduleStatus);

#ifdef QUILL_HAVE_SYSTEMD
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) > 0 && usec > 0) {
        watchdog_.start(int(qBound<uint64_t>(1, usec / 2000, 3600 * 1000)));
        notify("WATCHDOG=1");
    }
#endif
}

void SystemdNotifier::scheduleStatus()
{
    if (!ready_ || statusDelay_.isActive())
        return;
    const qint64 since = sentAt_.isValid() ? sentAt_.elapsed() : MinStatusGapMs;
    statusDelay_.start(int(std::max<qint64>(0, MinStatusGapMs - since)));
}

void SystemdNotifier::sendStatus()
{
    const QString line = statusLine();
    if (line == lastStatus_)
        return;
    lastStatus_ = line;
    sentAt_.start();
    notify("STATUS=" + line.toUtf8());
}

} // namespace quill
