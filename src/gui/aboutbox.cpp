#include "gui/aboutbox.h"
#include "shell/window.h"
#include "gui/captions.h"
#include "gui/pictures.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QStandardPaths>
#include <QVBoxLayout>

namespace quill {

namespace {
// Texts of the about box that have no number in the string table.
const char* const SysInfoCaption = "&System Info...";
const char* const SysInfoUnavailable = "System Information Is Unavailable At This Time";
} // namespace

AboutBox::AboutBox(QWidget* parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("frmAbout"));
    setWindowTitle(QLatin1Char(' ') + GetString(10080, GetString(9003)));
    setWindowIcon(ServerPicture());

    auto* picture = new QLabel(this);
    picture->setObjectName(QStringLiteral("picIcon"));
    picture->setPixmap(ServerPicture().pixmap(48, 48));
    picture->setAlignment(Qt::AlignTop);

    lblTitle_ = new QLabel(GetString(9003), this);
    lblTitle_->setObjectName(QStringLiteral("lblTitle"));
    QFont big = lblTitle_->font();
    big.setPointSizeF(big.pointSizeF() * 1.5);
    big.setBold(true);
    lblTitle_->setFont(big);

    lblVersion_ = new QLabel(versionLine(), this);
    lblVersion_->setObjectName(QStringLiteral("lblVersion"));
    lblVersion_->setTextInteractionFlags(Qt::TextSelectableByMouse);

    // Ours: who made it and what it stands on.
    auto* credits = new QLabel(QStringLiteral("Quillbase %1 \u2014 Qt %2").arg(QStringLiteral(QUILL_VERSION),
                                                                                 QString::fromLatin1(qVersion())),
                               this);
    credits->setObjectName(QStringLiteral("lblCredits"));
    QFont small = credits->font();
    small.setPointSizeF(small.pointSizeF() * 0.9);
    credits->setFont(small);

    auto* cmdOK = new QPushButton(QStringLiteral("#£12112#OK"), this);
    cmdOK->setObjectName(QStringLiteral("cmdOK"));
    cmdOK->setDefault(true);
    connect(cmdOK, &QPushButton::clicked, this, &QDialog::accept);
    cmdSysInfo_ = new QPushButton(QString::fromUtf8(SysInfoCaption), this);
    cmdSysInfo_->setObjectName(QStringLiteral("cmdSysInfo"));
    connect(cmdSysInfo_, &QPushButton::clicked, this, [this] {
        BoxOwnerScope owner(this);
        StartSysInfo();
    });

    auto* text = new QVBoxLayout;
    text->addWidget(lblTitle_);
    text->addWidget(lblVersion_);
    text->addSpacing(12);
    text->addWidget(credits);
    text->addStretch(1);
    auto* top = new QHBoxLayout;
    top->addWidget(picture);
    top->addSpacing(12);
    top->addLayout(text, 1);
    auto* buttons = new QVBoxLayout;
    buttons->addWidget(cmdOK);
    buttons->addWidget(cmdSysInfo_);
    buttons->addStretch(1);
    top->addLayout(buttons);
    setLayout(top);

    LocaliseCaptions(this);
}

QString AboutBox::versionLine()
{
    const QStringList args{QString::number(QUILL_VERSION_MAJOR),
                           QString::number(QUILL_VERSION_MINOR),
                           QString::number(QUILL_VERSION_PATCH),
                           Operator::protocolVersion(),
                           CountryCodeFromNumber(CountryNo()),
                           LanguageDisplayText()};
    return GetString(10081, args.join(QLatin1Char('|')));
}

QStringList AboutBox::sysInfoTools()
{
    return {QStringLiteral("kinfocenter"), QStringLiteral("hardinfo2"), QStringLiteral("hardinfo"),
            QStringLiteral("cpu-x"), QStringLiteral("gnome-system-monitor")};
}

bool AboutBox::StartSysInfo()
{
    for (const QString& tool : sysInfoTools()) {
        const QString path = QStandardPaths::findExecutable(tool);
        if (!path.isEmpty() && QProcess::startDetached(path, {}))
            return true;
    }
    MsgBox(QString::fromLatin1(SysInfoUnavailable), BoxIcon::None, BoxButtons::Ok);
    return false;
}

} // namespace quill
