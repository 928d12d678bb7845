#include "NodeWriter.h"

#include "ApiClient.h"
#include "Failure.h"
#include "ValueText.h"

namespace {

const QString OptionsKey = QStringLiteral("options");

[[noreturn]] void refuse(const QString& path, const QString& why)
{
    throw Failure{ ExitRefused, path + QStringLiteral(": ") + why };
}

QString typeOf(const QVariant& value)
{
    return value.toHash().value(QStringLiteral("type")).toString();
}

/// The values of options, which may have titles.
QVariantList valuesOf(const QVariantList& options)
{
    QVariantList values;
    for (const QVariant& option : options) {
        const QVariantHash titled = option.toHash();
        values.append(titled.contains(QStringLiteral("value")) ? ValueText::plain(titled.value(QStringLiteral("value")))
                                                               : option);
    }
    return values;
}

} // namespace

NodeWriter::NodeWriter(ApiClient* api, const QString& path) : m_api(api), m_path(path)
{
    QVariantList roles;
    try {
        roles = api->getData(path,
            { QStringLiteral("type"), QStringLiteral("modifiable"), QStringLiteral("permission"),
                QStringLiteral("value"), QStringLiteral("edit") });
    } catch (const Failure& failure) {
        if (failure.status != ExitRefused)
            throw;
        return;
    }
    const QString kind = roles.at(0).toString();
    if (kind == QLatin1String("action"))
        refuse(path, QStringLiteral("a command; `zarkctl call` runs it"));
    if (kind != QLatin1String("value"))
        refuse(path, QStringLiteral("a %1, which holds no value").arg(kind));
    if (!roles.at(1).toBool())
        refuse(path, QStringLiteral("notModifiable: clients may not set it"));
    m_secret = roles.at(2) == QStringLiteral("internal");
    m_value = roles.at(3);
    m_edit = roles.at(4).toHash();
}

QString NodeWriter::type() const
{
    return typeOf(m_value);
}

QVariant NodeWriter::read(const QByteArray& text, bool fromFile) const
{
    const QVariant value = ValueText::typed(text, type(), fromFile);
    if (!value.isValid())
        refuse(
            m_path, QStringLiteral("invalidType: this is no %1; it takes %2").arg(type(), ValueText::formOf(type())));
    return value;
}

QStringList NodeWriter::choices() const
{
    QStringList choices;
    for (const QVariant& value : valuesOf(m_edit.value(OptionsKey).toList()))
        choices.append(ValueText::cell(value));
    return choices.isEmpty() ? ValueText::wordsOf(type()) : choices;
}

void NodeWriter::check(const QVariant& value) const
{
    if (!type().isEmpty() && typeOf(value) != type())
        refuse(m_path, QStringLiteral("invalidType: the node is %1, the value %2").arg(type(), typeOf(value)));
    const QVariant plain = ValueText::plain(value);
    const QVariant minimum = m_edit.value(QStringLiteral("minimum"));
    const QVariant maximum = m_edit.value(QStringLiteral("maximum"));
    // 64-bit integers as such: as doubles the last digits go.
    const bool integers = type() == QLatin1String("i32") || type() == QLatin1String("i64");
    const auto isLess = [integers](const QVariant& a, const QVariant& b) {
        return integers ? a.toLongLong() < b.toLongLong() : a.toDouble() < b.toDouble();
    };
    if (!minimum.isNull() && isLess(plain, minimum))
        refuse(m_path, QStringLiteral("outOfRange: the value must be at least ") + ValueText::cell(minimum));
    if (!maximum.isNull() && isLess(maximum, plain))
        refuse(m_path, QStringLiteral("outOfRange: the value must be at most ") + ValueText::cell(maximum));
    const QVariantList options = valuesOf(m_edit.value(OptionsKey).toList());
    if (!options.isEmpty() && !options.contains(plain))
        refuse(m_path, QStringLiteral("notAnOption: there are ") + choices().join(QStringLiteral(", ")));
}

QVariant NodeWriter::write(const QVariant& value)
{
    m_value = m_api->setData(m_path, QStringLiteral("value"), value);
    return m_value;
}
