#include "ValueText.h"

#include "Input.h"
#include "ZarkJson.h"
#include "ZarkValue.h"
#include "ZarkWebserverAuthMode.h"

QVariant ValueText::plain(const QVariant& value)
{
    const QVariantHash hash = value.userType() == QMetaType::QVariantHash ? value.toHash() : QVariantHash();
    const bool isTyped = hash.size() == 2 && hash.contains(QStringLiteral("type"));
    return isTyped ? hash.value(QStringLiteral("value")) : value;
}

QByteArray ValueText::bare(const QVariant& value)
{
    const QVariant inside = plain(value);
    if (inside.isNull())
        return {};
    return inside.userType() == QMetaType::QString ? inside.toString().toUtf8() : ZarkJson::serialize(inside);
}

QString ValueText::printable(const QString& text, bool lines)
{
    QString result = text;
    for (QChar& c : result) {
        const bool kept = lines && (c == QLatin1Char('\n') || c == QLatin1Char('\t'));
        if (!kept && (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format))
            c = c.isSpace() ? QLatin1Char(' ') : QChar(0xFFFD);
    }
    return result;
}

QString ValueText::cell(const QVariant& value)
{
    return printable(QString::fromUtf8(bare(value)));
}

QByteArray ValueText::given(const QString& argument, bool literal)
{
    const bool standardInput = argument == QLatin1String("-");
    if (literal || !(standardInput || argument.startsWith(QLatin1Char('@'))))
        return argument.toUtf8();
    QByteArray bytes = inputOf(standardInput ? argument : argument.mid(1));
    if (standardInput && bytes.endsWith('\n'))
        bytes.chop(1);
    return bytes;
}

QVariant ValueText::typed(const QByteArray& text, const QString& type, bool fromFile)
{
    const ZarkValueType::Enum known = ZarkValueType::fromString(type);
    if (known == ZarkValueType::Invalid) {
        ZarkError error;
        const QVariant json = ZarkJson::parse(text, &error);
        return error.isEmpty() ? json : QVariant(QString::fromUtf8(text));
    }
    const bool encode = known == ZarkValueType::Bytes && fromFile;
    if (!encode && !isUtf8(text))
        return {};
    const QString whole = encode ? QString::fromLatin1(text.toBase64()) : QString::fromUtf8(text);
    const bool isJson = known != ZarkValueType::String && known != ZarkValueType::Bytes;
    return ZarkValue::fromText(isJson ? whole.trimmed() : whole, known, nullptr).toVariant();
}

QStringList ValueText::wordsOf(const QString& type)
{
    if (type == QLatin1String("bool"))
        return { QStringLiteral("true"), QStringLiteral("false") };
    if (type != QLatin1String("webserverAuthMode"))
        return {};
    using Mode = ZarkWebserverAuthMode;
    QStringList words;
    for (const Mode::Enum mode : { Mode::Off, Mode::Writes, Mode::WritesAndEvents, Mode::Everything })
        words.append(Mode::toString(mode));
    return words;
}

QString ValueText::formOf(const QString& type)
{
    switch (ZarkValueType::fromString(type)) {
    case ZarkValueType::I32:
        return QStringLiteral("a whole number of 32 bits");
    case ZarkValueType::I64:
        return QStringLiteral("a whole number of 64 bits");
    case ZarkValueType::Double:
        return QStringLiteral("a number");
    case ZarkValueType::String:
        return QStringLiteral("a text in UTF-8");
    case ZarkValueType::Bytes:
        return QStringLiteral("Base64, or @FILE for the bytes themselves");
    case ZarkValueType::StringList:
        return QStringLiteral("a list in JSON, [\"a\",\"b\"]");
    default:
        return wordsOf(type).isEmpty() ? QStringLiteral("JSON") : wordsOf(type).join(QStringLiteral(", "));
    }
}
