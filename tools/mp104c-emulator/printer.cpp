#include "printer.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace quill {

namespace {

constexpr int MemoryBytes = 32 * 1024; // layout memory
constexpr int MaxLogEntries = 10000;
constexpr int MaxCopies = 999;
const QString Model = QStringLiteral("MP104C");
const QString Firmware = QStringLiteral("1.00");

int toInt(const QStringList& args, int i, bool* ok)
{
    bool good = false;
    const int v = args.value(i).toInt(&good);
    if (!good)
        *ok = false;
    return v;
}

} // namespace

bool IsKnownBaud(int baud)
{
    switch (baud) {
    case 1200: case 2400: case 4800: case 9600: case 19200: case 38400: case 57600: case 115200:
        return true;
    default:
        return false;
    }
}

EmulatedPrinter::EmulatedPrinter(QString name, int baud, QString outDir)
    : name_(std::move(name)), baud_(baud), outDir_(std::move(outDir))
{
    params_[2] = params_[3] = params_[4] = 79;
    params_[24] = 60;
    params_[30] = baud_;
    params_[46] = 167;
    params_[100] = 0;
    counters_[1] = {0, 0, 0, 0, 0};
}

int EmulatedPrinter::status() const
{
    return (paperOut ? link::StatusPaperOut : 0) | (ribbonOut ? link::StatusRibbonOut : 0)
        | (headUp ? link::StatusHeadUp : 0);
}

QString EmulatedPrinter::logEntry(const LinkFrame& r) const
{
    const QString verb = r.verb.toLower();
    if (r.verb == link::Open) {
        const QString rate = r.args.value(0).section(QLatin1Char(','), 0, 0).trimmed();
        return rate.isEmpty() ? verb : verb + QLatin1Char(' ') + rate;
    }
    if (r.verb == link::Layout)
        return verb + QLatin1Char(' ') + r.args.value(0);
    QStringList parts{verb};
    for (const QString& a : r.args)
        if (!a.isEmpty())
            parts << a;
    return parts.join(QLatin1Char(' '));
}

void EmulatedPrinter::logOnly(const LinkFrame& request)
{
    if (log_.size() < MaxLogEntries)
        log_ << logEntry(request);
}

void EmulatedPrinter::arm(const QString& call, Fault fault)
{
    armedCall_ = call;
    armedFault_ = fault;
}

EmulatedPrinter::Fault EmulatedPrinter::fire(const LinkFrame& request)
{
    if (armedFault_ == Fault::None || !logEntry(request).startsWith(armedCall_))
        return Fault::None;
    const Fault f = armedFault_;
    armedFault_ = Fault::None;
    return f;
}

bool EmulatedPrinter::handle(const LinkFrame& r, Session& s, LinkFrame* answer)
{
    logOnly(r);
    answer->kind = LinkFrame::Answer;
    answer->id = r.id;
    answer->args.clear();
    answer->result = link::ErrGeneral;
    bool ok = true;
    const QStringList& a = r.args;

    if (r.verb == link::Close) {
        s = Session();
        return false;
    }
    if (r.verb == link::Open) {
        s = Session();
        answer->result = link::Ok;
        answer->args = {name_, Model, Firmware, QString::number(baud_)};
    } else if (r.verb == link::Status) {
        answer->result = status();
    } else if (r.verb == link::SetParam) {
        const int n = toInt(a, 0, &ok);
        const int v = toInt(a, 1, &ok);
        if (!ok || n < 1 || n > 999 || s.locked)
            return true;
        if (n == link::ParamBaudRate) {
            if (!IsKnownBaud(v))
                return true;
            // Answered at the old speed; the next byte must come at the new one.
            baud_ = v;
        }
        params_[n] = v;
        answer->result = link::Ok;
    } else if (r.verb == link::GetParam) {
        const int n = toInt(a, 0, &ok);
        if (!ok || n < 1 || n > 999)
            return true;
        answer->result = link::Ok;
        answer->args = {QString::number(params_.value(n))};
    } else if (r.verb == link::Service) {
        const int cmd = toInt(a, 0, &ok);
        const QString input = a.value(1);
        if (!ok || input.size() > 255)
            return true;
        QString reply = QStringLiteral("OK");
        switch (cmd) {
        case 38153: reply = Model + QLatin1Char(' ') + Firmware; break;
        case 28351746: s.serviceMode = true; reply = QStringLiteral("SERVICE"); break;
        case 3196: reply = QStringLiteral("STORED"); break;
        case 44: reply = QStringLiteral("CALIBRATED"); break;
        case 100: case 102: case 110:
            if (!input.isEmpty())
                serviceValues_[cmd] = input;
            reply = serviceValues_.value(cmd);
            break;
        default: break;
        }
        answer->result = link::Ok;
        answer->args = {reply};
    } else if (r.verb == link::Lock) {
        s.locked = true;
        answer->result = link::Ok;
    } else if (r.verb == link::GetCounter) {
        const int n = toInt(a, 0, &ok);
        if (!ok || n < 1 || n > 9)
            return true;
        const auto c = counters_.value(n, {0, 0, 0, 0, 0});
        answer->result = link::Ok;
        for (int v : c)
            answer->args << QString::number(v);
    } else if (r.verb == link::SetCounter) {
        const int n = toInt(a, 0, &ok);
        const int v = toInt(a, 1, &ok);
        const int x = toInt(a, 2, &ok), y = toInt(a, 3, &ok), z = toInt(a, 4, &ok);
        if (!ok || n < 1 || n > 9)
            return true;
        auto& c = counters_[n];
        c = {v, x, y, z, c[4]};
        answer->result = link::Ok;
    } else if (r.verb == link::Init) {
        hasLayout_ = false;
        layoutName_.clear();
        layoutText_.clear();
        layout_ = LabelLayout();
        variables_.clear();
        answer->result = link::Ok;
    } else if (r.verb == link::Layout) {
        const QString name = a.value(0);
        const QString text = a.value(1);
        LabelLayout parsed;
        if (text.toUtf8().size() > MemoryBytes)
            answer->result = link::ErrMemory;
        else if (hasLayout_ && name == layoutName_ && text == layoutText_)
            answer->result = link::LayoutAccepted;
        else if (!ParseLabelLayout(text, &parsed))
            answer->result = link::ErrFile;
        else {
            layout_ = parsed;
            layoutName_ = name;
            layoutText_ = text;
            hasLayout_ = true;
            variables_.clear();
            answer->result = link::Ok;
        }
    } else if (r.verb == link::Var) {
        const int n = toInt(a, 0, &ok);
        if (!ok || n < 1 || n > MaxLabelVariable)
            return true;
        variables_[n] = a.value(1);
        answer->result = link::Ok;
    } else if (r.verb == link::Print) {
        const int copies = toInt(a, 0, &ok);
        if (ok && copies >= 1 && copies <= MaxCopies)
            answer->result = print(copies, a.value(2));
        // The values belonged to this run: the next one starts without them.
        variables_.clear();
    }
    return true;
}

int EmulatedPrinter::print(int copies, const QString& layoutName)
{
    if (ribbonOut)
        return link::ErrRibbon;
    if (paperOut)
        return link::ErrPaper;
    if (headUp)
        return link::ErrGeneral;
    // A named print never falls back on whatever layout happens to be held.
    if (!hasLayout_ || (!layoutName.isEmpty() && layoutName != layoutName_))
        return link::ErrFile;
    for (int i = 1; i <= copies; ++i)
        writeLabel(i, copies);
    auto& c = counters_[1];
    c[0] += copies;
    c[4] += copies;
    for (int v : layout_.variables())
        if (!variables_.contains(v))
            return link::PrintAccepted;
    return copies;
}

void EmulatedPrinter::writeLabel(int copy, int copies)
{
    ++printed_;
    if (outDir_.isEmpty())
        return;
    QDir().mkpath(outDir_);
    const QString base = QStringLiteral("label-%1").arg(printed_, 6, 10, QLatin1Char('0'));
    RenderLabel(layout_, variables_).save(outDir_ + QLatin1Char('/') + base + QStringLiteral(".png"));
    QJsonObject vars;
    for (auto it = variables_.cbegin(); it != variables_.cend(); ++it)
        vars[QString::number(it.key())] = it.value();
    QJsonObject meta{
        {QStringLiteral("image"), base + QStringLiteral(".png")},
        {QStringLiteral("template"), layoutName_},
        {QStringLiteral("variables"), vars},
        {QStringLiteral("copy"), copy},
        {QStringLiteral("copies"), copies},
        {QStringLiteral("darkness"), params_.value(46)},
        {QStringLiteral("speed"), QJsonArray{params_.value(2), params_.value(3), params_.value(4)}},
        {QStringLiteral("feeds"),
         QJsonObject{{QStringLiteral("dispensing"), params_.value(24)}, {QStringLiteral("reverse"), params_.value(100)}}},
    };
    QFile f(outDir_ + QLatin1Char('/') + base + QStringLiteral(".json"));
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(QJsonDocument(meta).toJson(QJsonDocument::Indented));
}

QJsonObject EmulatedPrinter::state() const
{
    QJsonObject params;
    for (auto it = params_.cbegin(); it != params_.cend(); ++it)
        params[QString::number(it.key())] = it.value();
    QJsonObject counters;
    for (auto it = counters_.cbegin(); it != counters_.cend(); ++it)
        counters[QString::number(it.key())] =
            QJsonArray{it.value()[0], it.value()[1], it.value()[2], it.value()[3], it.value()[4]};
    QJsonObject vars;
    for (auto it = variables_.cbegin(); it != variables_.cend(); ++it)
        vars[QString::number(it.key())] = it.value();
    QJsonObject service;
    for (auto it = serviceValues_.cbegin(); it != serviceValues_.cend(); ++it)
        service[QString::number(it.key())] = it.value();
    return QJsonObject{
        {QStringLiteral("name"), name_},
        {QStringLiteral("baud"), baud_},
        {QStringLiteral("status"), status()},
        {QStringLiteral("silent"), silent},
        {QStringLiteral("unplugged"), unplugged},
        {QStringLiteral("delay"), delayMs},
        {QStringLiteral("parameters"), params},
        {QStringLiteral("counters"), counters},
        {QStringLiteral("service"), service},
        {QStringLiteral("layout"), hasLayout_ ? QJsonValue(layoutName_) : QJsonValue()},
        {QStringLiteral("variables"), vars},
        {QStringLiteral("printed"), printed_},
        {QStringLiteral("log"), QJsonArray::fromStringList(log_)},
    };
}

} // namespace quill
