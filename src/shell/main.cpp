#include "shell/texts.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quillbase"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILL_VERSION));
    QTextStream(stdout) << "Quillbase " << QUILL_VERSION << " - " << quill::GetString(9003) << Qt::endl;
    return 0;
}
