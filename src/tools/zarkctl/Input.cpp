#include "Input.h"

#include <QFile>
#include <QTextCodec>

#include "Failure.h"

QByteArray inputOf(const QString& fileName)
{
    QFile file(fileName);
    const bool standardInput = fileName == QLatin1String("-");
    if (!(standardInput ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly)))
        throw Failure{ ExitUsage, fileName + QStringLiteral(": ") + file.errorString() };
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        throw Failure{ ExitUsage, fileName + QStringLiteral(": ") + file.errorString() };
    return bytes;
}

bool isUtf8(const QByteArray& bytes)
{
    QTextCodec::ConverterState state;
    QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

QString textOf(const QByteArray& bytes, const QString& what)
{
    if (!isUtf8(bytes))
        throw Failure{ ExitUsage, what + QStringLiteral(" is no UTF-8") };
    return QString::fromUtf8(bytes);
}
