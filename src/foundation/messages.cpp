#include "foundation/messages.h"
#include "foundation/eventlog.h"
#include "foundation/texts.h"

#include <QTextStream>

namespace quill {

namespace {

class LoggingSink final : public MessageSink {
public:
    BoxAnswer show(const QString& title, const QString& text, BoxIcon, BoxButtons buttons) override
    {
        QString flat = text;
        flat.replace(QLatin1String("\r\n"), QLatin1String(" ")).replace(QLatin1Char('\n'), QLatin1Char(' '));
        LogWrite(QStringLiteral("Message: ") + flat);
        QTextStream(stderr) << title << ": " << flat << Qt::endl;
        return buttons == BoxButtons::YesNo ? BoxAnswer::Yes : BoxAnswer::Ok;
    }
};

LoggingSink defaultSink;
MessageSink* current = &defaultSink;
bool silent = false;

} // namespace

MessageSink& Messages() { return *current; }
void SetMessageSink(MessageSink* sink) { current = sink ? sink : &defaultSink; }

BoxAnswer MsgBox(const QString& text, BoxIcon icon, BoxButtons buttons)
{
    return current->show(GetString(9003), text, icon, buttons);
}

void SetSilentMode(bool on) { silent = on; }
bool SilentMode() { return silent; }

void MsgBoxUnlessSilent(const QString& text, BoxIcon icon)
{
    if (!silent)
        MsgBox(text, icon);
}

} // namespace quill
