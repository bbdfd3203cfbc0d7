#pragma once
#include <QString>

namespace quill {

// Every message box and question of the server goes through here, so the
// window, the headless server and the tests each answer them their own way.
enum class BoxIcon { None, Information, Exclamation, Critical, Question };
enum class BoxButtons { Ok, YesNo, OkCancel };
enum class BoxAnswer { Ok, Yes, No, Cancel };

class MessageSink {
public:
    virtual ~MessageSink() = default;
    virtual BoxAnswer show(const QString& title, const QString& text, BoxIcon icon, BoxButtons buttons) = 0;
};

// The sink in use; the default one logs the box and answers Ok/Yes.
MessageSink& Messages();
void SetMessageSink(MessageSink* sink); // nullptr restores the default

// Shows a box titled with the display title (text 9003).
BoxAnswer MsgBox(const QString& text, BoxIcon icon = BoxIcon::None, BoxButtons buttons = BoxButtons::Ok);

// The silent-mode switch: error and warning boxes are only logged while it is on.
void SetSilentMode(bool on);
bool SilentMode();
// An error or warning box: shown unless silent mode is on.
void MsgBoxUnlessSilent(const QString& text, BoxIcon icon);

} // namespace quill
