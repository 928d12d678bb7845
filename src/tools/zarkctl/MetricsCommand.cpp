#include <QMap>
#include <QRegularExpression>
#include <QSaveFile>

#include "Commands.h"
#include "Nodes.h"
#include "Session.h"
#include "ValueText.h"
#include "ZarkJson.h"

namespace {

bool isNumeric(const QString& type)
{
    return type == QLatin1String("i32") || type == QLatin1String("i64") || type == QLatin1String("double")
        || type == QLatin1String("bool");
}

QString unitOf(const NodeEntry& node)
{
    return node.roles.value(QStringLiteral("edit")).toHash().value(QStringLiteral("unit")).toString();
}

/// A metric's name has letters, digits and "_" alone; the label "path" tells the whole path.
QString metricOf(const QString& path)
{
    static const QRegularExpression others(QStringLiteral("[^a-zA-Z0-9]+"));
    return QStringLiteral("zark_") + QString(path).replace(others, QStringLiteral("_"));
}

QByteArray escaped(const QString& text)
{
    QByteArray bytes = text.toUtf8();
    return bytes.replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
}

/// Of a record of runMetrics().
enum Field { MetricField, PathField, TitleField, UnitField, NumberField };

QByteArray sampleOf(const Record& record, const QByteArray& device)
{
    const QVariant number = record.at(NumberField).second;
    const bool isBool = number.userType() == QMetaType::Bool;
    QByteArray labels = "path=\"" + escaped(record.at(PathField).second.toString()) + '"';
    if (!record.at(UnitField).second.toString().isEmpty())
        labels += ",unit=\"" + escaped(record.at(UnitField).second.toString()) + '"';
    if (!device.isEmpty())
        labels += ',' + device;
    return record.at(MetricField).second.toByteArray() + '{' + labels + "} "
        + (isBool ? QByteArray::number(int(number.toBool())) : ZarkJson::serialize(number)) + '\n';
}

/// The samples of all devices, a metric's together, as the format wants them.
QByteArray textOf(const QList<Report>& reports)
{
    QMap<QString, QByteArray> samples;
    QMap<QString, QString> helps;
    QByteArray text = "# HELP zark_up Whether the device answered.\n# TYPE zark_up gauge\n";
    for (const Report& report : reports) {
        const QByteArray device = report.device.isEmpty() ? QByteArray() : "device=\"" + escaped(report.device) + '"';
        text += "zark_up" + (device.isEmpty() ? device : '{' + device + '}') + (report.answered ? " 1\n" : " 0\n");
        for (const Record& record : report.records) {
            const QString metric = record.at(MetricField).second.toString();
            samples[metric] += sampleOf(record, device);
            helps.insert(metric, record.at(TitleField).second.toString());
        }
    }
    for (auto it = samples.cbegin(); it != samples.cend(); ++it) {
        const QByteArray name = it.key().toLatin1();
        // The two readers of the format do not agree on whether a quote is escaped here.
        const QString help = QString(helps.value(it.key())).replace(QLatin1Char('"'), QLatin1Char('\''));
        text += "# HELP " + name + ' ' + escaped(help) + "\n# TYPE " + name + " gauge\n" + it.value();
    }
    return text + "# EOF\n";
}

/// Replaces the file as a whole, so that a collector never reads half of it.
void writeFile(const QByteArray& text, const QString& fileName)
{
    QSaveFile file(fileName);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.commit())
        throw Failure{ ExitFailed, fileName + QStringLiteral(": ") + file.errorString() };
}

} // namespace

ExitStatus runMetrics(Session& session)
{
    Nodes nodes(session.api, { QStringLiteral("value"), QStringLiteral("title"), QStringLiteral("edit") });
    const QStringList paths = session.arguments().isEmpty() ? QStringList{ QStringLiteral(":") } : session.arguments();
    for (const QString& path : nodes.expanded(paths)) {
        nodes.walk(path, -1, [&session](const NodeEntry& node, const QList<bool>&) {
            const QVariantHash value = node.roles.value(QStringLiteral("value")).toHash();
            if (!isNumeric(value.value(QStringLiteral("type")).toString()) || node.isSecret())
                return;
            session.report.records.append(
                { { QStringLiteral("metric"), metricOf(node.path) }, { QStringLiteral("path"), node.path },
                    { QStringLiteral("title"), node.roles.value(QStringLiteral("title")) },
                    { QStringLiteral("unit"), unitOf(node) },
                    { QStringLiteral("number"), value.value(QStringLiteral("value")) } });
        });
    }
    return ExitOk;
}

void printMetrics(const Invocation& invocation, const QList<Report>& reports, Output* output)
{
    const QByteArray text = output->format() == Output::Table ? textOf(reports) : output->json(reports);
    if (invocation.has("file"))
        writeFile(text, invocation.value("file"));
    else
        output->write(text);
}
