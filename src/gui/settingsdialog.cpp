#include "gui/settingsdialog.h"
#include "shell/window.h"
#include "gui/captions.h"
#include "gui/printerdialog.h"

#include <QCheckBox>
#include <QFrame>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace quill {

SettingsDialog::SettingsDialog(Operator& op, QWidget* owner) : QDialog(nullptr), op_(op), owner_(owner)
{
    setObjectName(QStringLiteral("frmSrvAdj"));
    setAttribute(Qt::WA_DeleteOnClose);
    if (owner)
        setWindowIcon(owner->windowIcon());

    auto* frame = new QGroupBox(QStringLiteral("#£12105#Inställningar"), this);
    frame->setObjectName(QStringLiteral("Frame1"));
    const auto check = [frame](const char* name, const char* caption) {
        auto* box = new QCheckBox(QString::fromUtf8(caption), frame);
        box->setObjectName(QLatin1String(name));
        return box;
    };
    chkAutoStart_ = check("chkAutoStart", "#£12106#Starta server automatiskt vid uppstart av dator.");
    chkAutoStartService_ = check("chkAutoStartService", "#£12107#Starta tjänst automatiskt.");
    chkStartMinimized_ = check("chkStartMinimized", "#£12108#Starta i minimerat läge.");
    chkUseLog_ = check("chkUseLog", "#£12109#Använd loggning.");
    chkQuitQuestion_ = check("chkQuitQuestion", "#£12110#Fråga vid avslut.");
    chkUseTrafficLog_ = check("chkUseTrafficLog", "#£12135#Använd loggning av nätverkstrafik.");
    chkSilentMode_ = check("chkSilentMode", "#£12136#Kör server i tyst läge.");
    // The log-on entry belongs to the installation; the dialog only shows it.
    chkAutoStart_->setEnabled(false);

    auto* portLabel = new QLabel(QStringLiteral("#£12111#TCP-Port:"), frame);
    portLabel->setObjectName(QStringLiteral("Label3"));
    txtServerPort_ = new QLineEdit(frame);
    txtServerPort_->setObjectName(QStringLiteral("txtServerPort"));
    txtServerPort_->setMaxLength(5);
    txtServerPort_->setFixedWidth(txtServerPort_->fontMetrics().horizontalAdvance(QStringLiteral("0000000")) + 12);
    FilterKeys(txtServerPort_, QStringLiteral("0-9;[16];[8]"));
    portLabel->setBuddy(txtServerPort_);

    auto* grid = new QVBoxLayout(frame);
    for (QCheckBox* box : {chkAutoStart_, chkAutoStartService_, chkStartMinimized_, chkUseLog_, chkQuitQuestion_,
                           chkUseTrafficLog_, chkSilentMode_})
        grid->addWidget(box);
    auto* portRow = new QHBoxLayout;
    portRow->addWidget(portLabel);
    portRow->addWidget(txtServerPort_);
    portRow->addStretch(1);
    grid->addSpacing(6);
    grid->addLayout(portRow);

    auto* cmdOK = new QPushButton(QStringLiteral("#£12112#OK"), this);
    cmdOK->setObjectName(QStringLiteral("cmdOK"));
    cmdOK->setDefault(true);
    auto* cmdCancel = new QPushButton(QStringLiteral("#£12113#Avbryt"), this);
    cmdCancel->setObjectName(QStringLiteral("cmdCancel"));
    cmdCancel->setAutoDefault(false);
    connect(cmdOK, &QPushButton::clicked, this, &SettingsDialog::ok);
    connect(cmdCancel, &QPushButton::clicked, this, &QDialog::reject);
    // The bottom strip, as in the printer dialog.
    auto* panBoard = new QFrame(this);
    panBoard->setObjectName(QStringLiteral("panBoard"));
    auto* buttons = new QHBoxLayout(panBoard);
    buttons->setContentsMargins(0, 0, 0, 0);
    buttons->addStretch(1);
    buttons->addWidget(cmdOK);
    buttons->addWidget(cmdCancel);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(frame);
    layout->addWidget(panBoard);
    layout->setSizeConstraint(QLayout::SetFixedSize);

    LocaliseCaptions(this);
    setWindowTitle(GetString(12104) + QStringLiteral(" - ") + GetString(9003));

    const Operator::ServerSettings s = op_.serverSettings();
    txtServerPort_->setText(s.port);
    chkAutoStart_->setChecked(s.autoStartAtLogon);
    chkAutoStartService_->setChecked(s.autoStartService);
    chkStartMinimized_->setChecked(s.startMinimized);
    chkSilentMode_->setChecked(s.silentMode);
    chkUseLog_->setChecked(s.useLog);
    chkUseTrafficLog_->setChecked(s.useTrafficLog);
    chkQuitQuestion_->setChecked(s.quitQuestion);
    txtServerPort_->setFocus();
    MakeTransientFor(this, owner);
    if (owner_)
        owner_->setEnabled(false);
    connect(this, &QDialog::finished, this, &SettingsDialog::releaseOwner);
}

SettingsDialog::~SettingsDialog()
{
    releaseOwner();
}

void SettingsDialog::releaseOwner()
{
    ReturnToOwner(owner_);
}

void SettingsDialog::ok()
{
    Operator::ServerSettings s = op_.serverSettings();
    s.port = txtServerPort_->text();
    s.autoStartService = chkAutoStartService_->isChecked();
    s.startMinimized = chkStartMinimized_->isChecked();
    s.silentMode = chkSilentMode_->isChecked();
    s.useLog = chkUseLog_->isChecked();
    s.useTrafficLog = chkUseTrafficLog_->isChecked();
    s.quitQuestion = chkQuitQuestion_->isChecked();
    BoxOwnerScope owner(this);
    if (op_.saveSettings(s) == Operator::Outcome::Invalid) {
        // The core said why; nothing was saved and the port can be corrected.
        txtServerPort_->setFocus();
        txtServerPort_->selectAll();
        return;
    }
    accept();
}

} // namespace quill
