#include "service/quillmotor.h"

#include "foundation/cp1252.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/jobfields.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "printers/link.h"
#include "printers/linktransport.h"
#include "foundation/texts.h"

#include <QDateTime>
#include <QFile>
#include <QSerialPort>
#include <QTcpSocket>

namespace quill {

namespace {
constexpr int MaxQueuedWork = 8;
// Open mode of a print session: labels are printed as they are asked for.
const QString OpenMode = QStringLiteral("m");
const QString PrintMode = QStringLiteral("i");
} // namespace

QList<QPair<int, QString>> JobVariables(const QString& jobText)
{
    // Variable n of a layout is field n of the request, so every field goes
    // out, empty ones included. The printer forgets them after each PRINT, so
    // placeholders beyond this job's fields print empty, not the last job's.
    QList<QPair<int, QString>> vars;
    const JobFields job(jobText);
    const int n = job.count();
    for (int i = 1; i <= n; ++i) {
        QString v = job.field(i);
        // The add-in form ends its text with CR LF.
        while (v.endsWith(QLatin1Char('\n')) || v.endsWith(QLatin1Char('\r')))
            v.chop(1);
        vars.append({i, v});
    }
    return vars;
}

MP104C::MP104C(QObject* parent) : QObject(parent)
{
    timer_.setSingleShot(true);
    connect(&timer_, &QTimer::timeout, this, &MP104C::onTimeout);
}

MP104C::~MP104C()
{
    closeTransport();
    delete decoder_;
}

MP104C::Work MP104C::snapshot(bool print) const
{
    Work w;
    w.print = print;
    w.printerId = printerId_;
    w.port = port_;
    w.settings = settings_;
    return w;
}

bool MP104C::MPCheck()
{
    // Asked again while a check still waits for its printer: that attempt
    // is dropped (it never reports) and a fresh one starts, on a new link.
    if (current_ && !current_->print) {
        // Still waiting for its turn: it answers for this request too.
        const Work fresh = snapshot(false);
        if (ticket_ && !links().granted(ticket_) && fresh.port == current_->port
            && fresh.settings == current_->settings) {
            current_->printerId = fresh.printerId;
            return true;
        }
        log(runName() + QStringLiteral(": asked again, check restarted"));
        timer_.stop();
        closeTransport();
        current_.reset();
        queue_.push_front(snapshot(false));
        QMetaObject::invokeMethod(this, &MP104C::startNext, Qt::QueuedConnection);
        return true;
    }
    // One waiting check answers for every request made meanwhile.
    for (Work& w : queue_) {
        if (!w.print) {
            w = snapshot(false);
            return true;
        }
    }
    if (queue_.size() >= MaxQueuedWork)
        return false;
    queue_.push_back(snapshot(false));
    if (!current_)
        QMetaObject::invokeMethod(this, &MP104C::startNext, Qt::QueuedConnection);
    return true;
}

bool MP104C::MPPrintJob(const PrintJob& job, bool newTemplate)
{
    if (queue_.size() >= MaxQueuedWork)
        return false;
    Work w = snapshot(true);
    w.job = job;
    w.newTemplate = newTemplate;
    queue_.push_back(std::move(w));
    if (!current_)
        QMetaObject::invokeMethod(this, &MP104C::startNext, Qt::QueuedConnection);
    return true;
}

QString MP104C::runName() const
{
    if (!current_)
        return {};
    if (current_->print)
        return QStringLiteral("MPPrintJob PId = %1 JId = %2").arg(current_->printerId).arg(current_->job.id);
    return QStringLiteral("MPCheck PId = %1").arg(current_->printerId);
}

void MP104C::log(const QString& text) const
{
    if (!UseLog())
        return;
    // Printed, failed and why: an operator reading the journal sees it too.
    WriteStderrLine(QStringLiteral("Quillmotor ") + text);
    const QDateTime now = QDateTime::currentDateTime();
    AppendLogLine(HomePath(WeeklyLogName(QStringLiteral("Quillmotor"), now.date())),
                  LogEntryHeader(now) + QLatin1Char(' ') + text);
}

void MP104C::startNext()
{
    if (current_ || queue_.empty())
        return;
    current_ = std::move(queue_.front());
    queue_.pop_front();
    Work& w = *current_;

    w.steps.push_back({link::Open, {w.settings.trimmed(), OpenMode}});
    // Fault bits first: a printer without paper is reported as such, not
    // half-way through a label.
    w.steps.push_back({link::Status, {QStringLiteral("4")}});
    if (w.print) {
        w.copies = w.job.copies < 1 ? 1 : w.job.copies;
        if (!addLabelSteps(w.newTemplate))
            return;
    }

    const LinkAddress address = ParseDeviceName(w.port);
    LineSettings line;
    if (!address.valid() || (address.kind == LinkAddress::Serial && !ParseLineSettings(w.settings, &line))) {
        log(runName() + QStringLiteral(": bad connection \"") + w.port + QStringLiteral("\" \"") + w.settings
            + QLatin1Char('"'));
        finish(DriverResult::failure(GetString(12038)));
        return;
    }
    // Whoever has the line before (a device operation, another printer's
    // run) goes first: this run waits its turn, untimed (their own steps are
    // bounded).
    linkKey_ = LinkKey(address);
    ticket_ = links().acquire({linkKey_}, [this] { onLinkGranted(); });
}

PrinterLinks& MP104C::links()
{
    if (links_)
        return *links_;
    if (!ownLinks_)
        ownLinks_ = std::make_unique<PrinterLinks>();
    return *ownLinks_;
}

void MP104C::onLinkGranted()
{
    if (!current_)
        return;
    Work& w = *current_;
    const LinkAddress address = ParseDeviceName(w.port);
    LineSettings line;
    ParseLineSettings(w.settings, &line);
    QString error;
    PrinterLink* link = links().link(linkKey_);
    io_ = link ? link->openTransport(address, line, &error) : nullptr;
    if (!io_) {
        log(runName() + QStringLiteral(": cannot open ") + w.port + QStringLiteral(" ") + error);
        finish(DriverResult::failure(GetString(12038)));
        return;
    }
    if (!decoder_)
        decoder_ = new LinkDecoder;
    decoder_->reset();
    connected_ = false;
    connect(io_, &QIODevice::readyRead, this, &MP104C::onReadyRead);
    if (auto* s = qobject_cast<QTcpSocket*>(io_)) {
        connect(s, &QTcpSocket::errorOccurred, this, &MP104C::onLinkLost);
        connect(s, &QTcpSocket::disconnected, this, &MP104C::onLinkLost);
    } else if (auto* p = qobject_cast<QSerialPort*>(io_)) {
        connect(p, &QSerialPort::errorOccurred, this, [this, p](QSerialPort::SerialPortError e) {
            if (e == QSerialPort::NoError || e == QSerialPort::TimeoutError)
                return;
            p->clearError();
            onLinkLost();
        });
    }
    QIODevice* io = io_;
    OnTransportConnected(io_, this, [this, io] {
        if (io == io_)
            onConnected();
    });
    timer_.start(answerTimeoutMs_);
}

bool MP104C::addLabelSteps(bool withLayout)
{
    Work& w = *current_;
    const QString name = QString::number(w.job.templateId);
    if (withLayout) {
        QFile f(HomePath(name + QStringLiteral(".lbl")));
        if (!f.open(QIODevice::ReadOnly)) {
            log(runName() + QStringLiteral(": layout ") + f.fileName() + QStringLiteral(" not readable"));
            finish(DriverResult::failure(DeviceErrorText(link::ErrFile)));
            return false;
        }
        if (f.size() >= link::MaxFrameBytes) {
            finish(DriverResult::failure(DeviceErrorText(link::ErrMemory)));
            return false;
        }
        w.steps.push_back({link::Layout, {name, FromCp1252(f.readAll())}});
        w.layoutSent = true;
    }
    QList<QPair<int, QString>> vars;
    try {
        vars = JobVariables(w.job.text);
    } catch (const std::exception& e) {
        // Separators beyond the field readers' reach: the text cannot be sent.
        log(runName() + QStringLiteral(": job text not readable"));
        finish(DriverResult::failure(errorText(e)));
        return false;
    }
    for (const auto& v : vars)
        w.steps.push_back({link::Var, {QString::number(v.first), v.second}});
    // Named, so a printer holding another layout (a test label, or none after
    // a clear or a power cut) refuses instead of printing on it.
    w.steps.push_back({link::Print, {QString::number(w.copies), PrintMode, name}});
    return true;
}

void MP104C::onConnected()
{
    if (!current_ || connected_)
        return;
    connected_ = true;
    sendStep();
}

void MP104C::sendStep()
{
    Work& w = *current_;
    const Step& step = w.steps.front();
    waitingFor_ = nextId_;
    nextId_ = nextId_ >= 0x7fffffffU ? 1 : nextId_ + 1;
    waitingVerb_ = step.verb;
    io_->write(EncodeRequest(waitingFor_, step.verb, step.args));
    timer_.start(answerTimeoutMs_);
}

void MP104C::onReadyRead()
{
    if (!io_ || !current_)
        return;
    decoder_->feed(io_->readAll());
    LinkFrame f;
    while (current_ && decoder_->next(&f)) {
        // Late answers to requests of an earlier, timed-out run are skipped.
        if (f.kind != LinkFrame::Answer || f.id != waitingFor_)
            continue;
        waitingFor_ = 0;
        answer(f.result, f.args);
    }
}

void MP104C::answer(int result, const QStringList& values)
{
    Work& w = *current_;
    const QString verb = waitingVerb_;
    w.steps.pop_front();
    bool ok = result >= link::Ok;
    if (verb == link::Status) {
        if (result < 0) {
            finish(DriverResult::failure(DeviceErrorText(result)));
            return;
        }
        const QString r = DeviceStatusResult(result);
        if (!r.startsWith(QStringLiteral("OK"))) {
            finish(DriverResult::failure(GetToken(r, TAB, 2)));
            return;
        }
        ok = true; // the answer is the fault bits, 0 when there is none
    } else if (verb == link::Layout) {
        ok = ok || result == link::LayoutAccepted;
    } else if (verb == link::Print) {
        // The printer no longer holds the layout this run took for granted:
        // send it with the variables once more, and that print decides.
        if (result == link::ErrFile && !w.layoutSent) {
            log(runName() + QStringLiteral(": layout ") + QString::number(w.job.templateId)
                + QStringLiteral(" not held by the printer, sent again"));
            if (addLabelSteps(true))
                sendStep();
            return;
        }
        ok = ok || result == link::PrintAccepted;
        if (result == link::PrintAccepted)
            log(runName() + QStringLiteral(": printed with a variable missing"));
    }
    Q_UNUSED(values);
    if (!ok) {
        log(runName() + QStringLiteral(": ") + verb + QStringLiteral(" answered ") + QString::number(result));
        finish(DriverResult::failure(DeviceErrorText(result)));
        return;
    }
    if (w.steps.empty()) {
        if (w.print)
            log(runName() + QStringLiteral(": ") + QString::number(w.copies) + QStringLiteral(" label(s) printed")
                + (w.layoutSent ? QStringLiteral(", layout ") + QString::number(w.job.templateId) + QStringLiteral(" sent")
                                : QString()));
        finish(DriverResult::success());
        return;
    }
    sendStep();
}

void MP104C::onLinkLost()
{
    if (!current_ || !io_)
        return;
    log(runName() + QStringLiteral(": link lost ") + io_->errorString());
    finish(DriverResult::failure(connected_ ? DeviceErrorText(link::ErrComm) : GetString(12038)));
}

void MP104C::onTimeout()
{
    if (!current_)
        return;
    log(runName() + (connected_ ? QStringLiteral(": no answer to ") + waitingVerb_
                                : QStringLiteral(": no connection")));
    finish(DriverResult::failure(connected_ ? DeviceErrorText(link::ErrComm) : GetString(12038)));
}

void MP104C::closeTransport()
{
    PrinterLinks* links = links_ ? links_.data() : ownLinks_.get();
    if (QIODevice* io = io_.data()) {
        io_.clear();
        io->disconnect(this);
        // The printer hears the goodbye only once the session had begun.
        const QByteArray goodbye = connected_ ? EncodeRequest(nextId_++, link::Close) : QByteArray();
        if (PrinterLink* link = links ? links->link(linkKey_) : nullptr)
            link->closeTransport(io, goodbye, answerTimeoutMs_);
    }
    connected_ = false;
    if (ticket_ && links)
        links->release(ticket_);
    ticket_ = 0;
}

void MP104C::finish(const DriverResult& result)
{
    timer_.stop();
    closeTransport();
    waitingFor_ = 0;
    if (!result.ok)
        log(runName() + QStringLiteral(": ") + result.logText());
    Work w = std::move(*current_);
    current_.reset();
    if (!queue_.empty())
        QMetaObject::invokeMethod(this, &MP104C::startNext, Qt::QueuedConnection);
    if (w.print)
        emit MPPrintJobFinished(w.printerId, w.job, result);
    else
        emit MPCheckFinished(w.printerId, result);
}

} // namespace quill
