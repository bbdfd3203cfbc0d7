#include "gui/messagebox.h"
#include "shell/window.h"

#include <QApplication>
#include <QGridLayout>
#include <QSpacerItem>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>

#include <utility>

namespace quill {

namespace {

QMessageBox::Icon iconOf(BoxIcon icon)
{
    switch (icon) {
    case BoxIcon::Information: return QMessageBox::Information;
    case BoxIcon::Exclamation: return QMessageBox::Warning;
    case BoxIcon::Critical: return QMessageBox::Critical;
    case BoxIcon::Question: return QMessageBox::Question;
    case BoxIcon::None: break;
    }
    return QMessageBox::NoIcon;
}

QMessageBox::StandardButton buttonOf(BoxAnswer answer)
{
    switch (answer) {
    case BoxAnswer::Yes: return QMessageBox::Yes;
    case BoxAnswer::No: return QMessageBox::No;
    case BoxAnswer::Cancel: return QMessageBox::Cancel;
    case BoxAnswer::Ok: break;
    }
    return QMessageBox::Ok;
}

} // namespace

WidgetMessageSink::WidgetMessageSink() { SetMessageSink(this); }

WidgetMessageSink::~WidgetMessageSink()
{
    if (&Messages() == this)
        SetMessageSink(nullptr);
}

QMessageBox* WidgetMessageSink::build(const Box& box)
{
    QWidget* parent = qobject_cast<QWidget*>(box.owner);
    if (!parent)
        parent = QApplication::activeWindow();
    // A hidden owner (the window in the notification area) would hide the box
    // with it: such a box stands on its own.
    if (parent && !parent->isVisible())
        parent = nullptr;
    auto* mb = new QMessageBox(parent);
    mb->setObjectName(QStringLiteral("msgBox"));
    mb->setWindowTitle(box.title);
    mb->setText(box.text);
    mb->setIcon(iconOf(box.icon));
    mb->setWindowModality(parent ? Qt::WindowModal : Qt::ApplicationModal);
    switch (box.buttons) {
    case BoxButtons::Ok:
        mb->setStandardButtons(QMessageBox::Ok);
        break;
    case BoxButtons::YesNo:
        mb->setStandardButtons(QMessageBox::Yes | QMessageBox::No);
        break;
    case BoxButtons::OkCancel:
        mb->setStandardButtons(QMessageBox::Ok | QMessageBox::Cancel);
        break;
    }
    // The buttons in the language of the texts, not the desktop's.
    const std::pair<QMessageBox::StandardButton, qint32> captions[] = {
        {QMessageBox::Ok, 12112}, {QMessageBox::Cancel, 12113}, {QMessageBox::Yes, 12145}, {QMessageBox::No, 12146}};
    for (const auto& [button, id] : captions)
        if (QAbstractButton* b = mb->button(button))
            b->setText(GetString(id));
    if (QAbstractButton* def = mb->button(buttonOf(box.defaultAnswer)))
        mb->setDefaultButton(qobject_cast<QPushButton*>(def));
    // A short text makes a narrow box whose title bar cuts the title off: the
    // box is at least as wide as its title and the title bar's buttons.
    if (auto* grid = qobject_cast<QGridLayout*>(mb->layout())) {
        const int titleWidth = mb->fontMetrics().horizontalAdvance(box.title) + 140;
        grid->addItem(new QSpacerItem(titleWidth, 0, QSizePolicy::Minimum, QSizePolicy::Fixed), grid->rowCount(), 0,
                      1, grid->columnCount());
    }
    // Escape answers the question's negative button.
    if (box.buttons == BoxButtons::YesNo)
        mb->setEscapeButton(QMessageBox::No);
    else if (box.buttons == BoxButtons::OkCancel)
        mb->setEscapeButton(QMessageBox::Cancel);
    return mb;
}

BoxAnswer WidgetMessageSink::show(const Box& box)
{
    QPointer<QMessageBox> mb = build(box);
    const QPointer<QWidget> parent = mb->parentWidget();
    const int pressed = mb->exec();
    delete mb.data();
    // The window the box belonged to is the one to go on in, even where no
    // window manager hands the focus back.
    if (parent && parent->isVisible() && !QApplication::activeWindow())
        parent->window()->activateWindow();
    switch (pressed) {
    case QMessageBox::Yes: return BoxAnswer::Yes;
    case QMessageBox::No: return BoxAnswer::No;
    case QMessageBox::Cancel: return BoxAnswer::Cancel;
    default: break;
    }
    // A box closed without its buttons (window manager) counts as its negative.
    if (pressed != QMessageBox::Ok && box.buttons == BoxButtons::YesNo)
        return BoxAnswer::No;
    if (pressed != QMessageBox::Ok && box.buttons == BoxButtons::OkCancel)
        return BoxAnswer::Cancel;
    return BoxAnswer::Ok;
}

} // namespace quill
