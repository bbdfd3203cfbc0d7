#pragma once
// The message sink of the window: every box of the server as a QMessageBox with
// the box's title, icon, buttons and default button, modal to the window that
// raised it. Which boxes are shown at all (silent mode) is the core's rule.
#include "shell/window.h"

class QMessageBox;
class QWidget;

namespace quill {

class WidgetMessageSink final : public MessageSink {
public:
    // Installs itself as the sink; the previous default comes back on destruction.
    WidgetMessageSink();
    ~WidgetMessageSink() override;
    WidgetMessageSink(const WidgetMessageSink&) = delete;
    WidgetMessageSink& operator=(const WidgetMessageSink&) = delete;

    BoxAnswer show(const Box& box) override;

    // The QMessageBox a Box becomes, not yet shown (parent: the box's owner
    // when that is a widget, else the active window).
    static QMessageBox* build(const Box& box);
};

} // namespace quill
